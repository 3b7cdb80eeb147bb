#pragma once
/// @file
/// The BMC and the way to it, for whoever looks after a machine.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// What the BMC says about itself (Get Device ID), byte for byte.
typedef struct KVPS_DEVICE_ID {
    uint8_t deviceId;
    uint8_t deviceRevision;     ///< bits 3-0; bit 7: the device provides sensor data records
    uint8_t firmwareRevision1;  ///< bits 6-0 major revision; bit 7: the device is starting or being updated
    uint8_t firmwareRevision2;  ///< minor revision, two BCD digits
    uint8_t ipmiVersion;        ///< low digit first: 0x02 is 2.0
    uint8_t deviceSupport;      ///< bit mask of the functions that it has
    uint8_t manufacturerId[3];  ///< least significant byte first
    uint8_t productId[2];       ///< least significant byte first
} KVPS_DEVICE_ID;

/// KVPS_INTERFACE_NONE: one that the library has no driver for (BT), or out of its reach. The kernel's device serves
/// then.
enum KvPsInterfaceType { KVPS_INTERFACE_NONE = 0, KVPS_INTERFACE_KCS = 1, KVPS_INTERFACE_SMIC = 2 };

/// The registers of the system interface, as the firmware describes them or as they are by default.
typedef struct KVPS_IPMI_INTERFACE {
    uint32_t type;          ///< KvPsInterfaceType
    uint32_t slaveAddress;  ///< of the BMC on the IPMB
    uint32_t dataRegister;  ///< port, or address within the segment
    uint32_t statusRegister;
    uint32_t segment;  ///< added to the registers' addresses in physical memory; 0 for ports
} KVPS_IPMI_INTERFACE;

KV_STATIC_ASSERT(sizeof(KVPS_DEVICE_ID) == 11);
KV_STATIC_ASSERT(sizeof(KVPS_IPMI_INTERFACE) == 20);

/// Asks the BMC who it is, through the kernel's device. Takes the machine-wide IPMI lock for the time of the command.
/// Any thread may call both functions.
/// @param out  filled on success
/// @return 0; 0x60004201 null argument; 0x6000B104 the device cannot be opened; 0x6030B101 the command failed;
///         0x6030B2cc the BMC refused with completion code cc
KV_EXPORT uint32_t KvPsGetDeviceId(KVPS_DEVICE_ID* out);

/// Tells which registers the library's own driver uses; all zero but the address where it uses none.
/// @return 0; 0x60004201 null argument; 0x6000B104 InitLib has not started the way to the BMC
KV_EXPORT uint32_t KvPsGetIpmiInterface(KVPS_IPMI_INTERFACE* out);

KV_EXTERN_C_END
