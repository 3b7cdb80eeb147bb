#pragma once
/// @file
/// How every command function talks to the gate. Shared by the KvPltfSvcIpmiCmd_*.cpp alone.

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <source_location>
#include <span>

#include "common/ByteReader.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"

namespace ktx_ipmi {

namespace netfn {
inline constexpr uint8_t kSensorEvent = 0x04;
inline constexpr uint8_t kApp = 0x06;
inline constexpr uint8_t kStorage = 0x0A;
inline constexpr uint8_t kTransport = 0x0C;
inline constexpr uint8_t kOemDimm = 0x30;
inline constexpr uint8_t kOem = 0x3E;
}  // namespace netfn

/// One command: where it goes, and how its failures are numbered.
struct Command {
    uint8_t netFn;
    uint8_t command;
    uint32_t functionId = 0;  ///< bits 16 to 25 of its result codes; 0: none
    uint8_t lun = 0;
};

/// Low and high byte of a 16-bit field, in this order.
constexpr uint8_t Low(uint16_t value) {
    return static_cast<uint8_t>(value);
}
constexpr uint8_t High(uint16_t value) {
    return static_cast<uint8_t>(value >> 8);
}

/// One request and its answer. Failures are reported with the position where it is made, the command's function.
class Exchange {
public:
    // The buffer is left as it is: commands are sent by the hundred, and clearing it twice would cost as much as the
    // rest.
    Exchange(int handle, uint8_t address, Command command, std::source_location where = std::source_location::current())
        : handle_(handle), address_(address), command_(command), where_(where) {}

    /// Sends the command. @param outputs  whether the caller's output pointers are there, which is checked first
    /// @return 0, or the code of the failure, reported
    uint32_t Send(std::span<const uint8_t> data, bool outputs = true) {
        if (outputs) return Transmit(data);
        ReportNullOutput();
        return reason::kNullOutput;
    }
    uint32_t Send(std::initializer_list<uint8_t> data, bool outputs = true) {
        return Send(std::span(data.begin(), data.size()), outputs);
    }

    /// The answer's data, behind the completion code.
    std::span<const uint8_t> Data() const { return {response_.data() + kHeader, length_ - kHeader}; }
    ByteReader Reader() const { return ByteReader(Data()); }

    /// The result of decoding: 0, or 0xB100 when the answer was too short for it.
    uint32_t Decoded(const ByteReader& reader) const { return reader.Ok() ? 0 : Report(reason::kBadArguments); }
    /// Reports a failure, with the command's number in its code.
    uint32_t Report(uint32_t reasonCode) const { return ReportPlain(reasonCode | command_.functionId << 16); }
    /// The same without.
    uint32_t ReportPlain(uint32_t code) const { return PXR_ReportError(code, where_); }

private:
    static constexpr uint32_t kHeader = 3;

    void ReportNullOutput() const;
    uint32_t Check() const;
    uint32_t Transmit(std::span<const uint8_t> data);
    uint32_t CallFailed(uint32_t result) const;
    uint32_t Refused(uint8_t completionCode) const;
    bool IsOem() const { return command_.netFn == netfn::kOem || command_.netFn == netfn::kOemDimm; }

    int handle_;
    uint8_t address_;
    Command command_;
    std::source_location where_;
    std::array<uint8_t, kMaxMessage> response_;  // the gate clears it; nothing is read before Send
    uint32_t length_ = kHeader;
};

}  // namespace ktx_ipmi
