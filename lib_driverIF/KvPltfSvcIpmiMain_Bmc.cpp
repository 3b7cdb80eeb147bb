// Questions to the BMC that take one command or few: names, memory modules, capacity on demand, the service processor;
// and the settings of the register path.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <source_location>
#include <span>

#include "common/ByteReader.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Bmc.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_trace.h"
#include "libplatform/ipmi_ioctl.h"

namespace ktx_ipmi {

namespace {

constexpr uint8_t kIpmiDeviceInformation = 38;  // SMBIOS type
constexpr uint8_t kSlaveAddressField = 6;

std::mutex g_coDMutex;
KVPS_COD_BLADE_INFO g_coDBladeInfo = {};  // guarded by g_coDMutex

uint32_t ReportTerminating(std::source_location where = std::source_location::current()) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "Process termination. Rejected Request.");
    return PXR_ReportError(MakeResult(fn::kNone, service_reason::kTerminating), where);
}

// Names

struct NameCommand {
    uint32_t (*send)(int handle, uint8_t address, OemAnswer* out);
    const char* what;  ///< it asks for, in the trace
    size_t size;       ///< of the caller's buffer
};

/// The catalogue's word for "unknown".
void PutUnknown(std::span<char> buffer) {
    const OwnedText text = texts::Fetch(GetLocale(), texts::Id::WordUnknown);
    const std::string_view word = text != nullptr ? text.get() : "Unknown";
    word.copy(buffer.data(), buffer.size() - 1);
}

/// The answer is a count and so many characters; a controller may claim more than it sends.
void PutName(const OemAnswer& answer, std::span<char> buffer) {
    ByteReader in(answer.Data());
    const size_t claimed = in.U8();
    if (claimed >= buffer.size()) return PutUnknown(buffer);
    const std::span<const uint8_t> name = in.Rest().first(std::min(claimed, in.Rest().size()));
    std::ranges::copy(name, buffer.begin());
}

uint32_t GetName(const NameCommand& command, char* buffer,
                 std::source_location where = std::source_location::current()) {
    if (buffer == nullptr) return ReportNull(where);
    const std::span<char> out(buffer, command.size);
    std::ranges::fill(out, '\0');
    if (IsTerminateProcess()) return ReportTerminating(where);
    const IpmiBracket bracket;
    if (!bracket) {
        constexpr uint32_t kCode = MakeResult(fn::kNone, service_reason::kNotOpened);
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "IPMI Driver Open Error.: %d",
                  static_cast<int>(kCode));
        return PXR_ReportError(kCode, where);
    }
    OemAnswer answer;
    const uint32_t rc = command.send(bracket.Handle(), g_bBmcAdr, &answer);
    if (rc == reason::kOemRefused) {
        PutUnknown(out);
        return 0;
    }
    if (rc != 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "OEM GET %s CMD failed.: %d", command.what,
                  static_cast<int>(rc));
        return PXR_ReportError(MakeResult(fn::kNone, service_reason::kOemFailed), where);
    }
    PutName(answer, out);
    return 0;
}

// Memory modules

constexpr uint32_t kDimmNotAvailable = 2;
constexpr uint32_t kDimmUnknown = 0;
constexpr uint32_t kDimmDisabled = 4;
constexpr uint32_t kDimmErrorPredicted = 8;
constexpr uint32_t kDimmSpare = 7;

/// @param answer  byte 0: bit 0 set when the rest counts; then the modules that are known, those whose error is
///                predicted, the disabled ones, the spares
void SetDimmState(const uint8_t answer[5], uint8_t mask, uint32_t* state) {
    const auto all = [&](size_t byte) { return (answer[byte] & mask) == mask; };
    if ((answer[0] & 1) == 0) {
        *state = kDimmNotAvailable;
    } else if ((answer[1] & mask) == 0) {
        *state = kDimmUnknown;
    } else if (all(3)) {
        *state = kDimmDisabled;
    } else if (all(2)) {
        *state = kDimmErrorPredicted;
    } else if (all(4)) {
        *state = kDimmSpare;
    }
}

// Capacity on demand

constexpr size_t kCapacityRecordSize = 4;

uint32_t CheckSensor(uint8_t owner, uint8_t lun, uint8_t sensor,
                     std::source_location where = std::source_location::current()) {
    if (owner & 1) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "SoftwareID is NOT Device ID.");
    }
    if (const auto refusal = SensorRefusal(owner, lun, sensor)) {
        return PXR_ReportError(MakeResult(fn::kNone, *refusal), where);
    }
    if (!HasSensorRecord(owner, lun, sensor)) {
        return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoSuchSensor), where);
    }
    return 0;
}

uint32_t SetRegisterAddress(KvIpmiAddressKind kind, uint32_t address,
                            std::source_location where = std::source_location::current()) {
    KvIpmiAddressBlock block{kind, address};
    if (ipmi_ioctl(IPMI_SETADDR, reinterpret_cast<unsigned long>(&block)) == 0) return 0;
    return PXR_ReportError(MakeResult(fn::kNone, service_reason::kIoctlFailed), where);
}

}  // namespace

void SetCoDBladeInfo(const DeviceId& id, bool supported) {
    const std::lock_guard lock(g_coDMutex);
    g_coDBladeInfo.deviceRevision = id.deviceRevision;
    g_coDBladeInfo.firmwareRevision1 = id.firmwareRevision1;
    g_coDBladeInfo.firmwareRevision2 = id.firmwareRevision2;
    g_coDBladeInfo.supported = supported ? 1 : 0;
}

}  // namespace ktx_ipmi

using namespace ktx_ipmi;

uint32_t KvPsGetBmcAdr(uint8_t* address) {
    if (address == nullptr) return ReportNull();
    *address = kBmcAddress;
    unsigned long count = 0;
    KVPS_SMBIOS_TPHEAD** array = nullptr;
    if (const uint32_t rc = KvPsGetTypeData(kIpmiDeviceInformation, &count, &array)) return rc;
    const std::unique_ptr<KVPS_SMBIOS_TPHEAD*[]> owner(array);
    if (count == 0 || array[0]->length <= kSlaveAddressField) return 0;
    const uint32_t rc = KvPsGetSmbiosMultiByte(array[0], kSlaveAddressField, 1, address);
    if (*address == 0) *address = kBmcAddress;  // the firmware does not tell
    return rc;
}

uint32_t KvPsSendSVPCommandIpmi(const uint8_t* request) {
    if (request == nullptr) return PXR_ReportError(MakeResult(fn::kSendSvpCommand, Reason::NullArgument));
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(fn::kSendSvpCommand, service_reason::kNotOpened));
    return SendSVPCommand(bracket.Handle(), g_bBmcAdr, request);
}

uint32_t KvPsGetProcessorName(char* buffer) {
    return GetName({GetProcessorName, "CPU IDStrings", KVPS_PROCESSOR_NAME_SIZE}, buffer);
}

uint32_t KvPsGetProductName(char* buffer) {
    const uint32_t rc = GetName({GetProductName, "Product Name", KVPS_PRODUCT_NAME_SIZE}, buffer);
    if (rc == 0 && buffer[0] == '\0') {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "Product name is empty");
    }
    return rc;
}

bool KvPsGetDIMMStateHWIntel(uint32_t socket, uint8_t board, uint8_t mask, uint32_t* state) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "DIMM state. socket=%u board=0x%02X mask=0x%02X", socket,
              board, mask);
    if (state == nullptr) {
        PXR_ReportError(MakeResult(fn::kGetDimmState, Reason::NullArgument));
        return false;
    }
    const IpmiBracket bracket;
    if (!bracket) {
        ReportNotOpened(MakeResult(fn::kGetDimmState, service_reason::kNotOpened));
        return false;
    }
    uint8_t answer[5];
    if (GetDIMMState(bracket.Handle(), g_bBmcAdr, board, answer) != 0) {
        PXR_ReportError(MakeResult(fn::kGetDimmState, Reason::BadArgument));
        return false;
    }
    SetDimmState(answer, mask, state);
    return true;
}

uint32_t KvPsGetCoDBladeInfo(KVPS_COD_BLADE_INFO* out) {
    if (out == nullptr) return ReportNull();
    const std::lock_guard lock(g_coDMutex);
    *out = g_coDBladeInfo;
    return 0;
}

uint32_t KvPsOEMGetCodData(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out) {
    if (out == nullptr) return ReportNull();
    memset(out, 0, kCapacityRecordSize);
    if (IsTerminateProcess()) return ReportTerminating();
    if (const uint32_t rc = CheckSensor(owner, lun, sensor)) return rc;
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(fn::kNone, service_reason::kNotOpened));
    OemAnswer answer;
    const uint32_t rc = OEMGetCoDInformation(bracket.Handle(), owner, sensor, &answer);
    if (rc == reason::kOemRefused && GetRecentCompCode() == kNotPresent) {
        return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoCapacityRecord));
    }
    if (rc != 0) return rc;
    if (answer.length < kCapacityRecordSize) {
        return PXR_ReportError(MakeResult(fn::kNone, service_reason::kBadResponse));
    }
    memcpy(out, answer.bytes.data(), kCapacityRecordSize);
    return 0;
}

uint32_t KvPsSetIPMIInterfaceSMIC(void) {
    constexpr uint32_t kSwitchToSmic = 1;
    const IpmiBracket bracket;  // no conversation is cut in two
    if (!bracket) return ReportNotOpened(MakeResult(fn::kSetIpmiInterface, service_reason::kNotOpened));
    KvIpmiParameterBlock parameters = {};
    const auto argument = reinterpret_cast<unsigned long>(&parameters);
    if (ipmi_ioctl(IPMI_GETPARM, argument) != 0) {
        return PXR_ReportError(MakeResult(fn::kSetIpmiInterface, service_reason::kIoctlFailed));
    }
    parameters.ipmbResponseTimeoutMs = kSwitchToSmic;
    if (ipmi_ioctl(IPMI_SETPARM, argument) != 0) {
        return PXR_ReportError(MakeResult(fn::kSetIpmiInterface, service_reason::kIoctlFailed));
    }
    return 0;
}

uint32_t KvPsIPMISetIOPortAddress(uint32_t address) {
    return SetRegisterAddress(KV_IPMI_ADDRESS_PORT, address);
}

uint32_t KvPsIPMISetIOMemoryAddress(uint32_t address) {
    return SetRegisterAddress(KV_IPMI_ADDRESS_MEMORY, address);
}
