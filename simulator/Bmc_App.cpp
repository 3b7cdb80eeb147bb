/// Commands of the App and Transport network functions: identity, watchdog, channels.

#include <algorithm>

#include "simulator/Bmc.h"

namespace sim {
namespace {

constexpr uint64_t kWatchdogTick = 100'000;  // microseconds
constexpr uint8_t kTimerUseRunning = 0x40;   // Get Watchdog Timer: bit 6 of the timer use
constexpr uint8_t kTimerDontStop = 0x40;     // Set Watchdog Timer: the timer goes on

}  // namespace

Response Controller::HandleApp(const Request& request) {
    switch (request.command) {
        case 0x01:
            return {
                cc::kOk,
                {identity_.id, identity_.revision, identity_.firmwareMajor, identity_.firmwareMinor,
                 identity_.ipmiVersion, identity_.support, static_cast<uint8_t>(identity_.manufacturer),
                 static_cast<uint8_t>(identity_.manufacturer >> 8), static_cast<uint8_t>(identity_.manufacturer >> 16),
                 static_cast<uint8_t>(identity_.product), static_cast<uint8_t>(identity_.product >> 8)}};
        case 0x22:
            return watchdog_.Reset(clock_.Now());
        case 0x24:
            return watchdog_.Set(request);
        case 0x25:
            return watchdog_.Get(clock_.Now());
        case 0x42:
            return lan_.GetChannelInfo(request);
        default:
            return {cc::kInvalidCommand, {}};
    }
}

Response Controller::HandleTransport(const Request& request) {
    return request.command == 0x02 ? lan_.GetConfiguration(request) : Response{cc::kInvalidCommand, {}};
}

Response WatchdogTimer::Set(const Request& request) {
    if (request.data.size() != settings.size()) return {cc::kBadLength, {}};
    std::copy(request.data.begin(), request.data.end(), settings.begin());
    expirationFlags = static_cast<uint8_t>(expirationFlags & ~settings[3]);
    if ((settings[0] & kTimerDontStop) == 0) running = false;
    set = true;
    return {};
}

Response WatchdogTimer::Reset(uint64_t now) {
    if (!set) return {cc::kWatchdogNotStarted, {}};
    running = true;
    startedAt = now;
    ++resets;
    return {};
}

Response WatchdogTimer::Get(uint64_t now) const {
    const uint32_t initial = settings[4] | static_cast<uint32_t>(settings[5]) << 8;
    const uint64_t elapsed = running ? (now - startedAt) / kWatchdogTick : 0;
    const auto left = static_cast<uint32_t>(initial - std::min<uint64_t>(elapsed, initial));
    Response response{cc::kOk,
                      {static_cast<uint8_t>((settings[0] & ~kTimerDontStop) | (running ? kTimerUseRunning : 0)),
                       settings[1], settings[2], expirationFlags}};
    PutWord(response.data, initial);
    PutWord(response.data, left);
    return response;
}

LanChannels::LanChannels() {
    constexpr uint8_t kIpmb = 1, kLan = 4, kSystemInterface = 12;                   // channel mediums
    constexpr uint8_t kIpmbProtocol = 1, kKcsProtocol = 5, kMultiSession = 2 << 6;  // protocols; session support
    channels[0] = {kIpmb, kIpmbProtocol, 0, {}};
    channels[1] = {kLan, kIpmbProtocol, kMultiSession, {}};
    channels[15] = {kSystemInterface, kKcsProtocol, 0, {}};
    // Parameters 3 to 6, 12: address, its source, MAC address, subnet mask, default gateway.
    channels[1].lanParameters = {{3, {192, 0, 2, 20}},
                                 {4, {1}},
                                 {5, {0x02, 0x00, 0x5E, 0x10, 0x00, 0x20}},
                                 {6, {255, 255, 255, 0}},
                                 {12, {192, 0, 2, 1}}};
}

Response LanChannels::GetChannelInfo(const Request& request) const {
    if (request.data.size() != 1) return {cc::kBadLength, {}};
    const uint8_t asked = request.data[0] & 0x0F;
    const uint8_t number = asked == 0x0E ? 0x0F : asked;  // 14: the channel the request came by
    const auto found = channels.find(number);
    if (found == channels.end()) return {cc::kInvalidData, {}};
    const Channel& channel = found->second;
    return {cc::kOk, {number, channel.medium, channel.protocol, channel.sessions, 0xF2, 0x1B, 0x00, 0, 0}};
}

Response LanChannels::GetConfiguration(const Request& request) const {
    constexpr uint8_t kRevision = 0x11;
    constexpr uint8_t kUnsupportedParameter = 0x80;
    constexpr uint8_t kRevisionOnly = 0x80;  // bit 7 of the channel byte
    if (request.data.size() != 4) return {cc::kBadLength, {}};
    const auto channel = channels.find(request.data[0] & 0x0F);
    if (channel == channels.end() || channel->second.medium != 4) return {cc::kInvalidData, {}};
    if ((request.data[0] & kRevisionOnly) != 0) return {cc::kOk, {kRevision}};
    const auto parameter = channel->second.lanParameters.find(request.data[1]);
    if (parameter == channel->second.lanParameters.end()) return {kUnsupportedParameter, {}};
    Response response{cc::kOk, {kRevision}};
    response.data.insert(response.data.end(), parameter->second.begin(), parameter->second.end());
    return response;
}

}  // namespace sim
