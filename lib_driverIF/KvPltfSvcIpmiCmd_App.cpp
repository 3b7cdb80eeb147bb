// Commands to the controller itself: identity, watchdog, channels, LAN; and sensor readings.

#include <utility>

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd_Exchange.h"

namespace ktx_ipmi {

namespace {

constexpr Command kGetDeviceId{netfn::kApp, 0x01, 0x30};
constexpr Command kResetWatchdogTimer{netfn::kApp, 0x22, 0x3D};
constexpr Command kSetWatchdogTimer{netfn::kApp, 0x24, 0x3E};
constexpr Command kGetChannelInfo{netfn::kApp, 0x42, 0x3FA};
constexpr Command kGetLanConfiguration{netfn::kTransport, 0x02};

constexpr uint8_t kTimerUseSmsOs = 0x04;
constexpr uint8_t kTimerUseOem = 0x05;
constexpr uint8_t kActionOem = 0x80;
constexpr uint8_t kActionMask = 0x07;
constexpr uint8_t kExpirationSmsOs = 0x10;

Command SensorCommand(uint8_t command, uint32_t functionId, uint8_t lun) {
    return {netfn::kSensorEvent, command, functionId, lun};
}

}  // namespace

uint32_t GetDeviceId(int handle, uint8_t address, DeviceId* out) {
    Exchange exchange(handle, address, kGetDeviceId);
    if (out != nullptr) *out = {};
    if (const uint32_t rc = exchange.Send({}, out != nullptr)) return rc;
    exchange.Reader().Bytes({reinterpret_cast<uint8_t*>(out), sizeof *out});  // all single bytes
    return 0;
}

uint32_t ResetWatchdogTimer(int handle, uint8_t address) {
    return Exchange(handle, address, kResetWatchdogTimer).Send({});
}

uint32_t SetWatchdogTimer(int handle, uint8_t address, const WatchdogTimer* timer) {
    const WatchdogTimer t = timer != nullptr ? *timer : WatchdogTimer{};
    return Exchange(handle, address, kSetWatchdogTimer)
        .Send({t.timerUse, t.timerActions, t.preTimeoutInterval, t.expirationFlagsClear, Low(t.initialCount),
               High(t.initialCount)},
              timer != nullptr);
}

uint32_t SetWatchdogTimerCF2(int handle, uint8_t address, uint8_t action, uint16_t count) {
    const WatchdogTimer timer{
        .timerUse = action & kActionOem ? kTimerUseOem : kTimerUseSmsOs,
        .timerActions = static_cast<uint8_t>(action & kActionMask),
        .preTimeoutInterval = 0,
        .expirationFlagsClear = kExpirationSmsOs,
        .initialCount = count,
    };
    return SetWatchdogTimer(handle, address, &timer);
}

uint32_t GetChannelInfo(int handle, uint8_t address, uint8_t channel, uint8_t* medium, uint8_t* protocol,
                        uint8_t* session) {
    const bool outputs = medium != nullptr && protocol != nullptr && session != nullptr;
    if (outputs) *medium = *protocol = *session = 0;
    Exchange exchange(handle, address, kGetChannelInfo);
    if (const uint32_t rc = exchange.Send({channel}, outputs)) return rc;
    ByteReader in = exchange.Reader();
    in.U8();  // the channel's actual number
    *medium = in.U8() & 0x7F;
    *protocol = in.U8() & 0x1F;
    *session = in.U8();
    return exchange.Decoded(in);
}

uint32_t GetLanConfiguration(int handle, uint8_t address, uint8_t channel, uint8_t parameter, uint8_t set,
                             uint8_t block, uint8_t* data, uint32_t* length) {
    const bool outputs = data != nullptr && length != nullptr;
    const std::span<uint8_t> out(data, outputs ? std::exchange(*length, 0) : 0);
    std::ranges::fill(out, uint8_t{0});
    Exchange exchange(handle, address, kGetLanConfiguration);
    if (const uint32_t rc = exchange.Send({channel, parameter, set, block}, outputs)) return rc;
    exchange.Reader().Bytes(out);
    *length = static_cast<uint32_t>(std::min(out.size(), exchange.Data().size()));
    return 0;
}

uint32_t GetSensorReading(int handle, uint8_t address, uint8_t lun, uint8_t sensor, SensorReading* out) {
    Exchange exchange(handle, address, SensorCommand(0x2D, 0x39, lun));
    if (out != nullptr) *out = {};
    if (const uint32_t rc = exchange.Send({sensor}, out != nullptr)) return rc;
    ByteReader in = exchange.Reader();
    out->reading = in.U8();
    out->flags = in.U8();
    if (!in.Ok()) return exchange.Report(reason::kBadArguments);
    in.Bytes(out->states);  // controllers leave out what the sensor has no use for
    return 0;
}

uint32_t GetSensorReadingFactors(int handle, uint8_t address, uint8_t lun, uint8_t sensor, uint8_t reading,
                                 SensorReadingFactors* out) {
    Exchange exchange(handle, address, SensorCommand(0x23, 0x3A, lun));
    if (out != nullptr) *out = {};
    if (const uint32_t rc = exchange.Send({sensor, reading}, out != nullptr)) return rc;
    ByteReader in = exchange.Reader();
    out->nextReading = in.U8();
    in.Bytes(out->factors);
    return exchange.Decoded(in);
}

}  // namespace ktx_ipmi
