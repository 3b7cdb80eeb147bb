#pragma once
/// @file
/// What the files of the register path share, at their bottom: parameters, the flags that end waits, the interface in
/// use, the trace lines of a function. Functions give 0 or a negative errno value unless they say otherwise: EPERM the path
/// is not up, EBUSY the time or the numbers are used up, EFAULT what has no value of its own.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <source_location>

#include "libplatform/PXR_trace.h"

/// The longest message, request or response.
inline constexpr uint32_t kIpmiMaxMessage = 1028;

/// @name Parameters (ipmi_ioctl.h, KvIpmiParameterBlock, has their order)
/// @{
enum IpmiParameter : size_t {
    kParamSmicFlagLimit,
    kParamSmicFlagInterval,
    kParamSmicWriteAttempts,
    kParamSmicWritePause,
    kParamSmicMessageAttempts,
    kParamSmicReadPause,
    kParamIpmbTimeout,
    kParamCount
};
extern std::array<std::atomic<uint32_t>, kParamCount> ipmi_param;
extern const std::array<uint32_t, kParamCount> ipmi_prmin;
extern const std::array<uint32_t, kParamCount> ipmi_prmax;
/// @}

/// @name The end of waits
/// @{

/// Whether Terminate_IpmiIF is under way: nothing new is begun.
extern std::atomic<bool> g_ipmiStopping;
/// When what is under way is broken off then, by the clock; what it leaves behind the next transfer discards.
extern std::atomic<uint64_t> g_ipmiGiveUpAt;
bool ipmi_is_given_up();

/// Whether the wait for the BMC's attention (mode 2 of the interfaces) has become pointless: nothing is outstanding any
/// more, or the timer thread is to stop.
extern std::atomic<bool> g_ipmbAttentionUnwanted;
/// @}

/// @name The interface in use
/// Atomic, for threads look while another changes it; a change waits for its turn among the messages.
/// @{
inline constexpr uint8_t kIfTypeKcs = 1;
inline constexpr uint8_t kIfTypeSmic = 2;
inline constexpr uint8_t kIfTypeBt = 3;  ///< not served

extern std::atomic<uint8_t> IPMI_IFTYPE;
extern std::atomic<uint8_t> IPMI_SLAVE_ADDR;  ///< the BMC's own; requests to others are bridged
extern std::atomic<uint8_t> IPMI_NREGS;       ///< 2 KCS, 3 SMIC
extern std::atomic<uint16_t> IPMI_REG_BASE;
extern std::atomic<uint16_t> IPMI_REG_DATA;
extern std::atomic<uint16_t> IPMI_REG_STATUS;        ///< KCS status and command; SMIC control and status
extern std::atomic<uint16_t> IPMI_REG_CONTROL;       ///< KCS as IPMI_REG_STATUS; SMIC flags
extern std::atomic<uint32_t> g_pMMapSegmentAddress;  ///< added to a register's address in physical memory

/// Operations of an interface. The status byte is the interface's own code, 0 good.
using IpmiWriteOperation = int (*)(uint8_t* buffer, uint32_t length, uint8_t* status);
using IpmiReadOperation = int (*)(uint8_t* buffer, uint32_t* length, uint8_t* status);
using IpmiStatusOperation = int (*)(uint8_t* status);
using IpmiAttentionOperation = int (*)(int mode);
using IpmiReadStateOperation = int (*)();

using RegisterWriteOperation = int (*)(uint16_t reg, uint8_t value);
using RegisterReadOperation = uint8_t (*)(uint16_t reg);

extern std::atomic<IpmiWriteOperation> IPMI_WRITE;
extern std::atomic<IpmiReadOperation> IPMI_READ;
extern std::atomic<IpmiStatusOperation> IPMI_STATUS;
extern std::atomic<IpmiAttentionOperation> IPMI_SMSFLAG;
extern std::atomic<IpmiReadStateOperation> IPMI_ISREAD_STATE;
extern std::atomic<RegisterWriteOperation> REG_WRITE;
extern std::atomic<RegisterReadOperation> REG_READ;
/// @}

/// Entry, exit and failure lines of one function. Register accesses leave a line of their own instead.
class IpmiCallTrace {
public:
    explicit IpmiCallTrace(const char* function) : function_(function) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_POLL, "[IN ]%s\n", function_);
    }
    ~IpmiCallTrace() { PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_POLL, "[OUT]%s()=%d\n", function_, result_); }
    IpmiCallTrace(const IpmiCallTrace&) = delete;
    IpmiCallTrace& operator=(const IpmiCallTrace&) = delete;

    /// The function's result, to be returned.
    int Out(int result) { return result_ = result; }
    /// The same for a failure that arises here; one that a called function reported is passed on with Out.
    int Fail(int error, std::source_location where = std::source_location::current()) {
        return result_ = Report(error, function_, where);
    }
    static int Report(int error, const char* function, std::source_location where = std::source_location::current()) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "Error occured.(%d) %s(%d)\n", error, function,
                  static_cast<int>(where.line()));
        return error;
    }

private:
    const char* function_;
    int result_ = 0;
};
