// Reservations and the reading of records by pieces.

#include "simulator/ReservedStore.h"

namespace sim {

Response ReservedStore::Reserve() {
    if (!reservable_) return {cc::kInvalidCommand, {}};
    if (++lastReservation_ == 0) ++lastReservation_;
    reservation_ = lastReservation_;
    Response response;
    PutWord(response.data, reservation_);
    return response;
}

ReservedStore::Asked ReservedStore::ReadRequest(const Request& request) const {
    if (request.data.size() != 6) return {.refused = cc::kBadLength};
    const uint16_t reservation = Word(request.data, 0);
    const size_t offset = request.data[4];
    if ((offset != 0 || reservation != 0) && !Reserved(reservation)) return {.refused = cc::kReservationCancelled};
    return {.id = Word(request.data, 2), .offset = offset, .count = request.data[5]};
}

}  // namespace sim
