#pragma once
/// @file
/// What the event log and the sensor repository have in common: records that are walked by next id and read piece by
/// piece, under a reservation that every change cancels.

#include <algorithm>
#include <iterator>
#include <vector>

#include "simulator/BmcMessage.h"

namespace sim {

class ReservedStore {
public:
    void CancelReservation() { reservation_ = 0; }
    Response Reserve();

protected:
    /// What a read asks for. Refused: a completion code; the rest says nothing then.
    struct Asked {
        uint8_t refused = cc::kOk;
        uint16_t id = 0;
        size_t offset = 0;
        size_t count = 0;
    };
    /// Data of the request: reservation, record id, offset, count. A reservation is needed only behind the record's
    /// beginning.
    Asked ReadRequest(const Request& request) const;

    bool Reserved(uint16_t id) const { return !reservable_ || (id != 0 && id == reservation_); }

    /// A record's id, its first two bytes.
    static uint16_t IdOf(const auto& record) {
        return static_cast<uint16_t>(record[0] | static_cast<unsigned>(record[1]) << 8);
    }

    /// @param id    0: the first; 0xFFFF: the last
    /// @param next  the id behind it, 0xFFFF at the end
    template <class Record>
    static const Record* FindIn(const std::vector<Record>& records, uint16_t id, uint16_t& next) {
        if (records.empty()) return nullptr;
        auto found = records.begin();
        if (id == 0xFFFF)
            found = std::prev(records.end());
        else if (id != 0)
            found = std::find_if(records.begin(), records.end(), [&](const Record& each) { return IdOf(each) == id; });
        if (found == records.end()) return nullptr;
        const auto behind = std::next(found);
        next = behind == records.end() ? uint16_t{0xFFFF} : IdOf(*behind);
        return &*found;
    }

    /// The piece is inside the record.
    static Response Piece(uint16_t next, const auto& record, size_t offset, size_t count) {
        Response response;
        PutWord(response.data, next);
        response.data.insert(response.data.end(), record.data() + offset, record.data() + offset + count);
        return response;
    }

    uint16_t reservation_ = 0;  // 0: none in force
    bool reservable_ = true;

private:
    uint16_t lastReservation_ = 0;
};

}  // namespace sim
