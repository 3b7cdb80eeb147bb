#pragma once
/// @file
/// The register path to the management controller (BMC): the library's own KCS and SMIC drivers, on I/O ports or on
/// memory-mapped registers, with bridging to other controllers on the IPMB. It is up between InitLib and TerminateLib.
///
/// Where the kernel's IPMI driver works on the same registers the two take each other's bytes; IPMI_EXECCMD is for
/// machines on which it is not loaded or not bound to the interface.
///
/// @code
///     const uint8_t request[] = {0x18, 0x01};  // NetFn App, LUN 0; Get Device ID
///     uint8_t response[64];
///     KvIpmiExecBlock block;
///     block.targetAddress = 0x20;
///     block.request = request;
///     block.requestLength = sizeof request;
///     block.response = response;
///     block.responseLength = sizeof response;
///     if (ipmi_ioctl(IPMI_EXECCMD, (unsigned long)&block) == 0 && block.status == 0) {
///         Use(response, block.responseLength);
///     }
/// @endcode

#include "libplatform/KvExport.h"

/// Request codes of ipmi_ioctl, and what its argument points to.
enum KvIpmiIoctlCode {
    IPMI_EXECCMD = 1,          ///< KvIpmiExecBlock: executes one message
    IPMI_GETPARM = 2,          ///< KvIpmiParameterBlock: copies the parameters out
    IPMI_SETPARM = 3,          ///< KvIpmiParameterBlock: sets the parameters, each brought within its bounds
    IPMI_TRACE = 4,            ///< argument not used: leaves a line in the trace
    GET_WDOG_STATUS = 5,       ///< uint8_t: reads the watchdog request flag
    SET_WDOG_STATUS = 6,       ///< uint8_t: writes it
    GET_RECEIVE_WDOG_REQ = 7,  ///< uint8_t: reads the flag that a watchdog request was received
    SET_RECEIVE_WDOG_REQ = 8,  ///< uint8_t: writes it
    IPMI_SETADDR = 9           ///< KvIpmiAddressBlock: sets where the registers are
};

/// One message. A request is NetFn/LUN, command and data; a response NetFn/LUN, command, completion code and data.
/// Neither is longer than 1028 bytes.
typedef struct KvIpmiExecBlock {
    uint8_t status;           ///< out: status code of the transfer; 0 good, then there is a response
    uint8_t targetAddress;    ///< the BMC's own slave address (0x20), or that of a controller behind it on the IPMB
    uint32_t unused1;         ///< not read
    uint32_t requestLength;   ///< bytes; what exceeds 1028 is cut off
    uint32_t responseLength;  ///< in: bytes of room; out: bytes received, which may be more than were stored
    const uint8_t* request;   ///< the caller's
    uint8_t* response;        ///< the caller's
    uint32_t unused2;         ///< not read
} KvIpmiExecBlock;

/// The interface parameters; the bounds in brackets.
typedef struct KvIpmiParameterBlock {
    uint32_t smicFlagLimitMs;        ///< limit of one wait for SMIC flags [4000, 16000]
    uint32_t smicFlagIntervalMs;     ///< pause between two looks at them [10, 1000]
    uint32_t smicWriteAttempts;      ///< attempts to write one request over SMIC [1, 10]
    uint32_t smicWritePauseMs;       ///< pause between them [10, 1000]
    uint32_t smicMessageAttempts;    ///< attempts at one message over SMIC [1, 10]
    uint32_t smicReadPauseMs;        ///< pause between SMIC read attempts [10, 1000]; there is one attempt at present
    uint32_t ipmbResponseTimeoutMs;  ///< wait for a bridged response [100, 5000]; exactly 1 in IPMI_SETPARM also
                                     ///< switches to SMIC at port 0x0CA9
} KvIpmiParameterBlock;

enum KvIpmiAddressKind {
    KV_IPMI_ADDRESS_PORT = 1,   ///< KCS on I/O ports, the given one first; at most 0xFFFF
    KV_IPMI_ADDRESS_MEMORY = 2  ///< memory-mapped registers; the given address is added to each register's own
};

typedef struct KvIpmiAddressBlock {
    uint32_t kind;  ///< KvIpmiAddressKind; other values change nothing
    uint32_t address;
} KvIpmiAddressBlock;

KV_STATIC_ASSERT(sizeof(KvIpmiExecBlock) == 28 && offsetof(KvIpmiExecBlock, status) == 0 &&
                 offsetof(KvIpmiExecBlock, targetAddress) == 1 && offsetof(KvIpmiExecBlock, unused1) == 4 &&
                 offsetof(KvIpmiExecBlock, requestLength) == 8 && offsetof(KvIpmiExecBlock, responseLength) == 12 &&
                 offsetof(KvIpmiExecBlock, request) == 16 && offsetof(KvIpmiExecBlock, response) == 20 &&
                 offsetof(KvIpmiExecBlock, unused2) == 24);
KV_STATIC_ASSERT(sizeof(KvIpmiParameterBlock) == 28 && offsetof(KvIpmiParameterBlock, ipmbResponseTimeoutMs) == 24);
KV_STATIC_ASSERT(sizeof(KvIpmiAddressBlock) == 8 && offsetof(KvIpmiAddressBlock, address) == 4);

KV_EXTERN_C_BEGIN

/// Executes one request of KvIpmiIoctlCode. Any thread may call; messages take turns. A call is not ended by thread
/// cancellation before its message is complete.
/// @param argument  address of what the code names; stays the caller's
/// @return 0, or a negative errno value:
///   -1 the register path is not up (also in a child process that has not started it itself)
///   -6 the BMC reports that it is not available
///   -12 memory exhausted
///   -14 a required address is null, a length is impossible, the transfer failed, or a flag's lock does not exist
///   -16 the interface does not answer in time, or 64 bridged requests are outstanding
///   -22 unknown code, or a port above 0xFFFF
///   -74 the response of a bridged request is damaged
///   -105 a bridged request does not fit a message, or its response does not fit the caller's room
///   -110 no response of a bridged request in time
KV_EXPORT int ipmi_ioctl(uint32_t code, unsigned long argument);

KV_EXTERN_C_END
