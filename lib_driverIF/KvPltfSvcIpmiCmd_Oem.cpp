// The product's own commands.

#include <cstring>

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd_Exchange.h"

namespace ktx_ipmi {

namespace {

constexpr Command kSvpCommand{netfn::kOem, 0x00, 0x3F};
constexpr Command kModelModifiers{netfn::kOem, 0x22};
constexpr Command kCoDInformation{netfn::kOem, 0x23};
constexpr Command kProductName{netfn::kOem, 0x24};
constexpr Command kProcessorName{netfn::kOem, 0x26};
constexpr Command kOemFru{netfn::kOem, 0x28};
constexpr Command kCapability{netfn::kOem, 0x2A};
constexpr Command kBoardFru{netfn::kOem, 0x2C};
constexpr Command kDimmState{netfn::kOemDimm, 0x21, 0x3FE};

constexpr size_t kCapabilitySize = 52;
constexpr size_t kModelModifiersSize = 9;
constexpr size_t kDimmStateSize = 5;

uint32_t Ask(int handle, uint8_t address, Command command, std::initializer_list<uint8_t> data, OemAnswer* out,
             size_t limit = std::tuple_size_v<decltype(OemAnswer::bytes)>,
             std::source_location where = std::source_location::current()) {
    if (out != nullptr) *out = {};
    Exchange exchange(handle, address, command, where);
    if (const uint32_t rc = exchange.Send(data, out != nullptr)) return rc;
    const std::span<const uint8_t> answer = exchange.Data();
    out->length = static_cast<uint32_t>(std::min({answer.size(), limit, out->bytes.size()}));
    std::copy_n(answer.begin(), out->length, out->bytes.begin());
    return 0;
}

}  // namespace

uint32_t ReadBMCCapability(int handle, uint8_t address, OemAnswer* out) {
    return Ask(handle, address, kCapability, {}, out, kCapabilitySize);
}

uint32_t OEMGetModelModifiers(int handle, uint8_t address, OemAnswer* out) {
    return Ask(handle, address, kModelModifiers, {}, out, kModelModifiersSize);
}

uint32_t OEMGetCoDInformation(int handle, uint8_t address, uint8_t request, OemAnswer* out) {
    return Ask(handle, address, kCoDInformation, {request}, out);
}

uint32_t ReadOEMFRU(int handle, uint8_t address, uint16_t offset, uint8_t count, OemAnswer* out) {
    return Ask(handle, address, kOemFru, {Low(offset), High(offset), count}, out);
}

uint32_t ReadVelmoraFruCmd(int handle, uint8_t address, uint16_t offset, uint8_t count, OemAnswer* out) {
    return Ask(handle, address, kBoardFru, {Low(offset), High(offset), count}, out);
}

uint32_t GetProductName(int handle, uint8_t address, OemAnswer* out) {
    return Ask(handle, address, kProductName, {}, out);
}

uint32_t GetProcessorName(int handle, uint8_t address, OemAnswer* out) {
    return Ask(handle, address, kProcessorName, {}, out);
}

uint32_t SendSVPCommand(int handle, uint8_t address, const uint8_t* command) {
    const size_t count = command != nullptr ? size_t{1} + command[0] : 0;
    return Exchange(handle, address, kSvpCommand).Send(std::span(command, count), command != nullptr);
}

uint32_t GetDIMMState(int handle, uint8_t address, uint8_t board, uint8_t response[5]) {
    if (response != nullptr) memset(response, 0, kDimmStateSize);
    Exchange exchange(handle, address, kDimmState);
    if (const uint32_t rc = exchange.Send({board}, response != nullptr)) return rc;
    ByteReader in = exchange.Reader();
    in.Bytes({response, kDimmStateSize});
    return exchange.Decoded(in);
}

}  // namespace ktx_ipmi
