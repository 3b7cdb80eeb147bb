// What every command function does around the gate: checks, the call, and the failure codes.

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"

#include "lib_driverIF/KvPltfSvcIpmiCmd_Exchange.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

void Exchange::ReportNullOutput() const {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter. pSnsData=0x%p",
              static_cast<void*>(nullptr));
    ReportPlain(reason::kNullOutput);
}

uint32_t Exchange::Check() const {
    if (handle_ == kInvalidHandle) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Driver Handle");
        return ReportPlain(reason::kNotOpened);
    }
    if (address_ & 1) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "SoftwareID is NOT Device ID.");
        return ReportPlain(reason::kSoftwareId);
    }
    return 0;
}

uint32_t Exchange::CallFailed(uint32_t result) const {
    if (result == reason::kFirmwareUpdate) return ReportPlain(result);
    if (result >> 28 == kErrorClass >> 28) return Report(result);  // the gate's own code
    if (IsOem()) return ReportPlain(reason::kCallFailed);
    return Report(ModifyErrorCode(result));
}

uint32_t Exchange::Refused(uint8_t completionCode) const {
    return IsOem() ? ReportPlain(reason::kOemRefused) : Report(reason::kCompletionCode | completionCode);
}

uint32_t Exchange::Transmit(std::span<const uint8_t> data) {
    if (const uint32_t rc = Check()) return rc;
    std::array<uint8_t, kMaxMessage> request;  // filled as far as it is sent
    request[0] = static_cast<uint8_t>(command_.netFn << 2 | (command_.lun & 0x03));
    request[1] = command_.command;
    const size_t count = std::min(data.size(), request.size() - 2);
    std::copy_n(data.begin(), count, request.begin() + 2);

    uint32_t length = response_.size();
    const uint32_t result =
        CallIpmiDriver(handle_, address_, request.data(), static_cast<uint32_t>(count + 2), response_.data(), &length);
    if (result != 0) return CallFailed(result);
    length_ = std::clamp(length, kHeader, kMaxMessage);
    return response_[2] == 0 ? 0 : Refused(response_[2]);
}

}  // namespace ktx_ipmi
