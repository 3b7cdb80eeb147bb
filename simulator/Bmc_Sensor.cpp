/// Commands of the Sensor/Event network function.

#include "simulator/Bmc.h"

namespace sim {

Response Controller::HandleSensorEvent(const Request& request) {
    switch (request.command) {
        case 0x23:
            return sensors_.GetFactors(request);
        case 0x2D:
            return sensors_.GetReading(request);
        default:
            return {cc::kInvalidCommand, {}};
    }
}

const Sensor* SensorBank::Find(uint8_t number, uint8_t lun) const {
    const auto found = sensors_.find({lun, number});
    return found == sensors_.end() ? nullptr : &found->second;
}

Response SensorBank::GetReading(const Request& request) const {
    if (request.data.size() != 1) return {cc::kBadLength, {}};
    const Sensor* sensor = Find(request.data[0], request.lun);
    if (sensor == nullptr) return {cc::kNotPresent, {}};
    return {cc::kOk, {sensor->reading, sensor->flags, sensor->states[0], sensor->states[1]}};
}

Response SensorBank::GetFactors(const Request& request) const {
    if (request.data.size() != 2) return {cc::kBadLength, {}};
    const Sensor* sensor = Find(request.data[0], request.lun);
    if (sensor == nullptr) return {cc::kNotPresent, {}};
    const uint8_t reading = request.data[1];
    const auto above = sensor->factorsFrom.upper_bound(reading);
    const auto& factors = above == sensor->factorsFrom.begin() ? sensor->factors : std::prev(above)->second;
    const auto next = above == sensor->factorsFrom.end() ? uint8_t{0xFF} : above->first;
    Response response{cc::kOk, {next}};
    response.data.insert(response.data.end(), factors.begin(), factors.end());
    return response;
}

}  // namespace sim
