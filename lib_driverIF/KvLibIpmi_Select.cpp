// Which interface the machine has and where its registers are.

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "common/ByteReader.h"
#include "common/PXR_host.h"
#include "lib_driverIF/KvLibIpmi_Interface.h"
#include "lib_driverIF/KvLibSmbios.h"

namespace {

constexpr uint8_t kDefaultSlave = 0x20;

/// What there is to know about an interface.
struct Interface {
    uint8_t type = kIfTypeKcs;
    uint8_t slave = kDefaultSlave;
    bool memoryMapped = false;
    uint64_t base = kcs_func.defaultBase;
    uint16_t spacing = 1;
};

// SMBIOS structure of type 38, IPMI Device Information.
constexpr uint16_t kSmbiosIpmiDevice = 38;
constexpr size_t kDeviceRecordSize = 18;
constexpr uint8_t kLengthWithAddress = 16;
constexpr uint8_t kLengthWithModifier = 17;
constexpr uint8_t kModifierBaseIsOdd = 0x10;  // bit 0 of the base address, whose own bit 0 tells ports from memory

struct DeviceRecord {
    uint8_t length;
    uint8_t type;
    uint8_t slave;
    uint64_t base;
    uint8_t modifier;
};

std::optional<DeviceRecord> ReadDeviceRecord() {
    std::array<uint8_t, kDeviceRecordSize> bytes = {};
    smbios_gettable_block block = {};
    block.mode = SMBIOS_TABLE_BY_INDEX;
    block.type = kSmbiosIpmiDevice;
    block.index = 1;
    block.buffer = bytes.data();
    block.size = bytes.size();
    if (smbios_getinfo(SMBIOS_GETTABLE, &block) != 0 || block.status != SMBIOS_STATUS_OK) return std::nullopt;

    const auto present = static_cast<uint8_t>(std::min<uint32_t>(block.size, bytes.size()));
    DeviceRecord record = {};
    ByteReader in(bytes);
    in.U8();  // structure type
    record.length = std::min(in.U8(), present);
    in.U16();  // handle
    record.type = in.U8();
    in.U8();  // revision of the standard
    record.slave = in.U8();
    in.U8();  // storage device
    const uint32_t low = in.U32();
    record.base = uint64_t{in.U32()} << 32 | low;
    record.modifier = in.U8();
    return record;
}

uint16_t SpacingFromModifier(uint8_t modifier) {
    switch (modifier >> 6) {
        case 1:
            return 4;
        case 2:
            return 16;
        default:
            return 1;
    }
}

uint8_t InterfaceType(uint8_t recorded) {
    return recorded == kIfTypeSmic || recorded == kIfTypeBt ? recorded : kIfTypeKcs;
}

Interface FromDeviceRecord(const DeviceRecord& record) {
    Interface chosen;
    if (record.length < kLengthWithAddress) {
        chosen.type = kIfTypeSmic;
        chosen.base = smic_func.defaultBase;
    } else {
        chosen.type = InterfaceType(record.type);
        if (record.slave != 0) chosen.slave = record.slave;  // else it does not tell
        chosen.memoryMapped = (record.base & 1) == 0;
        chosen.base = record.base & ~uint64_t{1};
    }
    if (record.length >= kLengthWithModifier) {
        chosen.spacing = SpacingFromModifier(record.modifier);
        if ((record.modifier & kModifierBaseIsOdd) != 0) ++chosen.base;
    } else {
        chosen.spacing = host::RegisterSpacing(chosen.spacing);
    }
    return chosen;
}

/// Whether all registers have 16-bit addresses. What lies behind them must not be reached for: the bytes would go to some
/// other device, or to memory in use.
bool IsReachable(uint8_t type, uint16_t base, uint16_t spacing) {
    const uint32_t behindBase = type == kIfTypeSmic ? 2 : 1;
    return base + behindBase * spacing <= 0xFFFF;
}

/// Memory-mapped access adds a segment to them, which ends with 32 bits.
bool IsReachable(const Interface& chosen) {
    const bool segmentFits = !chosen.memoryMapped || chosen.base >> 32 == 0;
    return segmentFits && IsReachable(chosen.type, static_cast<uint16_t>(chosen.base & 0xFFFF), chosen.spacing);
}

void BindOperations(const IpmiInterfaceTable& table) {
    IPMI_WRITE = table.write;
    IPMI_READ = table.read;
    IPMI_STATUS = table.status;
    IPMI_SMSFLAG = table.attention;
    IPMI_ISREAD_STATE = table.isReadState;
}

void Bind(uint8_t type, uint8_t slave, uint16_t base, uint16_t spacing) {
    const bool smic = type == kIfTypeSmic;
    BindOperations(smic ? smic_func : kcs_func);
    IPMI_IFTYPE = type;
    IPMI_SLAVE_ADDR = slave;
    IPMI_NREGS = static_cast<uint8_t>(smic ? 3 : 2);
    IPMI_REG_BASE = base;
    IPMI_REG_DATA = base;
    IPMI_REG_STATUS = static_cast<uint16_t>(base + spacing);
    IPMI_REG_CONTROL = static_cast<uint16_t>(base + (smic ? 2 : 1) * spacing);
}

}  // namespace

void ipmi_set_register_access(const IpmiRegisterTable& table) {
    REG_WRITE = table.write;
    REG_READ = table.read;
}

int ipmi_set_function() {
    IpmiCallTrace trace(__func__);
    const std::optional<DeviceRecord> record = ReadDeviceRecord();
    host::AnnounceIpmiUpdate();
    const Interface chosen = record ? FromDeviceRecord(*record) : Interface{};

    if (chosen.type == kIfTypeBt) return trace.Fail(-ENOSYS);
    if (!IsReachable(chosen)) return trace.Fail(-EIO);
    g_pMMapSegmentAddress = chosen.memoryMapped ? static_cast<uint32_t>(chosen.base & 0xFFFF0000) : 0;
    ipmi_set_register_access(chosen.memoryMapped ? memoryreg_func : ioreg_func);
    Bind(chosen.type, chosen.slave, static_cast<uint16_t>(chosen.base & 0xFFFF), chosen.spacing);
    return trace.Out(0);
}

void ipmi_set_function_SMIC() {
    const IpmiCallTrace trace(__func__);
    ipmi_set_register_access(ioreg_func);
    Bind(kIfTypeSmic, kDefaultSlave, smic_func.defaultBase, 1);
}

int ipmi_set_function_kcs_ioport(uint16_t port) {
    IpmiCallTrace trace(__func__);
    const uint16_t spacing = host::RegisterSpacing(1);
    if (!IsReachable(kIfTypeKcs, port, spacing)) return trace.Fail(-EINVAL);
    Bind(kIfTypeKcs, kDefaultSlave, port, spacing);
    return trace.Out(0);
}
