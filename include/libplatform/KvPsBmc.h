#pragma once
/// @file
/// What the board's management controller (BMC) is asked for besides sensors and events: watchdog, service processor,
/// names, LAN settings, memory-module states, capacity on demand, FRU data. And the few settings of the way to it.
///
/// Each function that talks to the BMC opens, works and closes in itself, and waits for its turn as long as it takes.
/// Any thread may call. A failure has been traced when the function returns.
/// Results that several share: 0; reason 0xB104 the IPMI driver could not be opened; 0x6000B10D the process is
/// terminating; with a command's number in bits 16 to 25: 0xB101, 0xB102 the driver failed, 0xB2cc the BMC refused with
/// completion code cc.

#include <stdbool.h>

#include "libplatform/KvDfFru.h"
#include "libplatform/KvExport.h"

/// What is known about capacity on demand since InitLib.
typedef struct KVPS_COD_BLADE_INFO {
    uint8_t unused;
    uint8_t deviceRevision;  ///< of the BMC, as the two below
    uint8_t firmwareRevision1;
    uint8_t firmwareRevision2;
    uint32_t supported;  ///< 1: the blade has capacity on demand
} KVPS_COD_BLADE_INFO;

/// Reads a FRU field (KvDf_GetFruInventoryData).
typedef uint32_t (*KvPsFruReader)(FruProductAreaNumber target, _KvFruData* out);

#define KVPS_PROCESSOR_NAME_SIZE 48
#define KVPS_PRODUCT_NAME_SIZE 72
/// Longest LAN parameter that is given.
#define KVPS_LAN_PARAMETER_MAX 1024

KV_STATIC_ASSERT(sizeof(KVPS_COD_BLADE_INFO) == 8 && offsetof(KVPS_COD_BLADE_INFO, supported) == 4);

KV_EXTERN_C_BEGIN

// Watchdog

/// Sets the watchdog timer; it runs from the next reset on.
/// @param action  bits 0 to 2: what happens when it expires (0 nothing, 1 hard reset, 2 power down, 3 power cycle); bit
///                7: counted as OEM use of the timer, otherwise as that of the system management software
/// @param count   in 100 ms
/// @return also 0x604DB104
KV_EXPORT uint32_t KvPsSetWatchdogTimerIpmi(uint8_t action, uint16_t count);
/// Starts the timer, or starts it anew. @return also 0x604EB104; 0x6000B600 the BMC's firmware is being updated
KV_EXPORT uint32_t KvPsResetWatchdogTimerIpmi(void);

/// The two watchdog flags that the host's threads share: a request was made, a request was received.
/// @param flag  one byte, the caller's @return 0; 0x6000B10B null argument, or the flags do not exist before InitLib
KV_EXPORT uint32_t KvPsGetWatchDogStatusIpmi(uint8_t* flag);
KV_EXPORT uint32_t KvPsSetWatchDogStatusIpmi(const uint8_t* flag);
KV_EXPORT uint32_t KvPsGetWatchDogReceiveIpmi(uint8_t* flag);
KV_EXPORT uint32_t KvPsSetWatchDogReceiveIpmi(const uint8_t* flag);

// Controller

/// Gives the slave address of the BMC as the firmware describes it, 0x20 where it does not. @return 0; 0x60004201 null
KV_EXPORT uint32_t KvPsGetBmcAdr(uint8_t* address);

/// Sends a command to the service processor.
/// @param request  first byte: how many follow
/// @return also 0x604C4201 null; 0x604CB104; 0x6000B600 the BMC's firmware is being updated
KV_EXPORT uint32_t KvPsSendSVPCommandIpmi(const uint8_t* request);

/// The processor's name as the BMC knows it; the catalogue's word for "unknown" when it knows none, or a longer one.
/// @param buffer  KVPS_PROCESSOR_NAME_SIZE bytes, the caller's
/// @return also 0x60004201 null; 0x6000B104; 0x6000B107 the command failed
KV_EXPORT uint32_t KvPsGetProcessorName(char* buffer);
/// The machine's name, in KVPS_PRODUCT_NAME_SIZE bytes; otherwise as KvPsGetProcessorName.
KV_EXPORT uint32_t KvPsGetProductName(char* buffer);

/// Reads a parameter of the first LAN channel, without its revision byte.
/// @param buffer  receives at most KVPS_LAN_PARAMETER_MAX bytes, and zeroes behind what there is
/// @param size    of buffer, in bytes
/// @return 0; 0x63FC4202 null or size 0; 0x63FCB104, and the layer has ended as by KvPsTerminateIpmi; 0x63FCB11C no LAN
///         channel, or no answer
KV_EXPORT uint32_t KvPsGetLanConfiguration(uint8_t* buffer, uint32_t size, uint8_t parameter);

/// Tells the state of a memory module, on boards of the product's own families.
/// @param socket  number of its socket; for the trace alone
/// @param board   number of its memory board, 1 to 4
/// @param mask    the bit of its socket on that board: 0x01, 0x02, 0x04 ... 0x80, in the board's own order
/// @param state   2 not available, 0 unknown, 4 disabled, 8 error predicted, 7 normal (spare); else left as it was
/// @return whether the BMC answered; why it did not is traced
KV_EXPORT bool KvPsGetDIMMStateHWIntel(uint32_t socket, uint8_t board, uint8_t mask, uint32_t* state);

// Capacity on demand

/// @return 0; 0x60004201 null
KV_EXPORT uint32_t KvPsGetCoDBladeInfo(KVPS_COD_BLADE_INFO* out);
/// Reads the capacity record of a processor, by its sensor.
/// @param out  4 bytes, the caller's
/// @return also 0x60004201 null; 0x6000B109 the owner is software; 0x6000B10A LUN above 3; 0x6000B106 no such sensor;
///         0x6000B104; 0x6000B133 the BMC has no record for it; 0x6000B107 it refused otherwise
KV_EXPORT uint32_t KvPsOEMGetCodData(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out);

// FRU inventory

/// @param fru   FRU device; 0 is the BMC's own
/// @param size  receives the size of its image in bytes
/// @return also 0x63F54201 null; 0x6000B104
KV_EXPORT uint32_t KvPsGetFruInventoryAreaSize(uint8_t fru, uint16_t* size);
/// @param size    in: bytes wanted; out: bytes read, as many unless it fails
/// @param buffer  the caller's, of that size
/// @return also 0x63F54201 null; 0x6000B104; 0x6000B100 the controller gives fewer
KV_EXPORT uint32_t KvPsReadFruInventoryData(uint8_t fru, uint16_t offset, uint16_t* size, uint8_t* buffer);
/// Gives the hardware check the function that it reads FRU fields with. Null takes it away. @return 0
KV_EXPORT uint32_t KvPsSetKvDf_GetFruInventoryDataFunc(KvPsFruReader reader);

// The library's own register path (ipmi_ioctl.h)

/// Switches to the SMIC interface. @return also 0x605DB104; 0x605DB10B the register path is not up
KV_EXPORT uint32_t KvPsSetIPMIInterfaceSMIC(void);
/// Sets the I/O port of the KCS registers; the address that is added to memory-mapped registers.
/// @return 0; 0x6000B10B the register path is not up, or a port above 0xFFFF
KV_EXPORT uint32_t KvPsIPMISetIOPortAddress(uint32_t address);
KV_EXPORT uint32_t KvPsIPMISetIOMemoryAddress(uint32_t address);

KV_EXTERN_C_END
