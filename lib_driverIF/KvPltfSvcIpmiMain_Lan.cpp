// The LAN settings of the BMC.

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSensor.h"

namespace {

using namespace ktx_ipmi;

constexpr uint8_t kChannels = 16;
constexpr uint8_t kMediumLan = 4;
constexpr uint8_t kProtocolIpmb = 1;

/// The first LAN channel; -1 for none. A controller that refuses one channel may have the next one; one that does not
/// answer at all is not asked again.
int FindLanChannel(IpmiBracket& bracket) {
    for (uint8_t channel = 0; channel < kChannels && bracket.LetOthersIn(); ++channel) {
        uint8_t medium = 0;
        uint8_t protocol = 0;
        uint8_t session = 0;
        const uint32_t rc = GetChannelInfo(bracket.Handle(), kBmcAddress, channel, &medium, &protocol, &session);
        if (rc == 0 && medium == kMediumLan && protocol == kProtocolIpmb) return channel;
        if (rc != 0 && !IsRefusal(rc)) break;
    }
    return -1;
}

bool ReadLanParameter(IpmiBracket& bracket, uint8_t parameter, std::span<uint8_t> out) {
    const int channel = FindLanChannel(bracket);
    if (channel < 0) return false;
    std::array<uint8_t, 1 + KVPS_LAN_PARAMETER_MAX> answer{};  // the parameter's revision, then the parameter
    auto length = static_cast<uint32_t>(answer.size());
    if (GetLanConfiguration(bracket.Handle(), kBmcAddress, static_cast<uint8_t>(channel), parameter, 0, 0,
                            answer.data(), &length) != 0 ||
        length == 0) {
        return false;
    }
    const std::span<const uint8_t> value = std::span(answer).first(length).subspan(1);
    std::ranges::copy(value.first(std::min(value.size(), out.size())), out.begin());
    return true;
}

}  // namespace

uint32_t KvPsGetLanConfiguration(uint8_t* buffer, uint32_t size, uint8_t parameter) {
    if (buffer == nullptr || size == 0) {
        return PXR_ReportError(MakeResult(fn::kGetLanConfiguration, Reason::BadArgument));
    }
    memset(buffer, 0, size);
    {
        IpmiBracket bracket;
        if (bracket) {
            if (ReadLanParameter(bracket, parameter, {buffer, size})) return 0;
            return PXR_ReportError(MakeResult(fn::kGetLanConfiguration, service_reason::kNoLanParameter));
        }
    }
    // To hosts this failure says that the layer has ended: they start it anew.
    const uint32_t rc = ReportNotOpened(MakeResult(fn::kGetLanConfiguration, service_reason::kNotOpened));
    KvPsTerminateIpmi();
    return rc;
}
