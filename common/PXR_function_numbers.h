#pragma once
/// @file
/// Numbers of the functions that raise result codes (bits 16 to 25). Two numbers are shared by functions of different
/// layers for historical reasons; a new function takes the next free number of its block.

#include <cstdint>

namespace fn {

// platform_IF: entry points and class builders
inline constexpr uint32_t kNone = 0x000;
inline constexpr uint32_t kSendMessage = 0x001;
inline constexpr uint32_t kExecCommand = 0x002;
inline constexpr uint32_t kCreateClassProvider = 0x003;
inline constexpr uint32_t kCreateClassSysresPort = 0x01B;
inline constexpr uint32_t kCreateClassSysresIrq = 0x01C;
inline constexpr uint32_t kCreateClassSysresDma = 0x01D;
inline constexpr uint32_t kExecuteCommand = 0x023;

// platform_IF: device inventory
inline constexpr uint32_t kGetSysresPort = 0x129;
inline constexpr uint32_t kGetSysresIrq = 0x12A;
inline constexpr uint32_t kGetSysresDma = 0x12B;
inline constexpr uint32_t kReadFileToBuffer = 0x12C;

// common: message catalogues
inline constexpr uint32_t kGetCatMessage = 0x181;
inline constexpr uint32_t kGetCatMessagePureLocale = 0x182;
inline constexpr uint32_t kInsertInsMessage = 0x183;
inline constexpr uint32_t kGetCatMessageCollectLocale = 0x184;

// common: class data model
inline constexpr uint32_t kAllocCommandList = 0x185;
inline constexpr uint32_t kCreateEnum = 0x186;
inline constexpr uint32_t kDuplicateEnum = 0x187;
inline constexpr uint32_t kCreateClass = 0x188;
inline constexpr uint32_t kDuplicateClass = 0x189;
inline constexpr uint32_t kDuplicateProperty = 0x18A;
inline constexpr uint32_t kSetPropertyString = 0x18B;
inline constexpr uint32_t kSetProperty = 0x18C;
inline constexpr uint32_t kSetPropertyStringArray = 0x18D;
inline constexpr uint32_t kSetPropertyArray = 0x18E;
inline constexpr uint32_t kInsertClass = 0x18F;

// common: configuration files
inline constexpr uint32_t kReadCfgFile = 0x1B8;
inline constexpr uint32_t kWriteCfgFile = 0x1B9;
inline constexpr uint32_t kInitCfgData = 0x1BA;
inline constexpr uint32_t kReadCfgLine = 0x1C2;
inline constexpr uint32_t kConvertCfgValue = 0x1E4;
inline constexpr uint32_t kFileOpen = 0x1E5;

// common: threads
inline constexpr uint32_t kThreadCreate = 0x20A;
inline constexpr uint32_t kThreadWakeup = 0x20B;
inline constexpr uint32_t kThreadStop = 0x20C;

// lib_driverIF: SMBIOS queries
inline constexpr uint32_t kGetSmbiosString = 0x098;
inline constexpr uint32_t kGetSmbiosSystemInformation = 0x0D0;
inline constexpr uint32_t kGetSmbiosMultiByte = 0x0D2;
inline constexpr uint32_t kInitializeSmbios = 0x118;
inline constexpr uint32_t kGetSmbiosTypeData = 0x11A;

// lib_driverIF: sensors
inline constexpr uint32_t kGetAllSdr = 0x040;
inline constexpr uint32_t kFindSensor = 0x049;
inline constexpr uint32_t kInitializeIpmi = 0x050;
inline constexpr uint32_t kGetSensorData = 0x054;
inline constexpr uint32_t kGetSensorConvert = 0x05B;

// lib_driverIF: IPMI services
inline constexpr uint32_t kSendSvpCommand = 0x04C;
inline constexpr uint32_t kSetWatchdogTimer = 0x04D;
inline constexpr uint32_t kResetWatchdogTimer = 0x04E;
inline constexpr uint32_t kGetSelAllEntries = 0x052;
inline constexpr uint32_t kGetSelDeviceEntries = 0x053;
inline constexpr uint32_t kLoadSelDeviceInfo = 0x05C;
inline constexpr uint32_t kSetIpmiInterface = 0x05D;
inline constexpr uint32_t kGetFruInventoryData = 0x3F5;  // with the data factory's reader
inline constexpr uint32_t kGetLanConfiguration = 0x3FC;
inline constexpr uint32_t kGetDimmState = 0x3FF;

}  // namespace fn
