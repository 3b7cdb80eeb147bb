#pragma once
/// @file
/// Numbers of the functions that raise result codes (bits 16 to 25). A number that several functions
/// have is marked at each: the interface gives it to all of them. A new function takes the next free number of its block.

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

// kvdatafactory: definition files
inline constexpr uint32_t kCreateVersion = 0x060;
inline constexpr uint32_t kCreateEnumMap = 0x061;
inline constexpr uint32_t kCreateSensorTypeList = 0x062;
inline constexpr uint32_t kCreateSmbiosList = 0x063;
inline constexpr uint32_t kCreateInstance = 0x07B;
inline constexpr uint32_t kSetOldMemory = 0x07D;
inline constexpr uint32_t kSetBodyTemperature = 0x07E;
inline constexpr uint32_t kSetBodyFan = 0x07F;
inline constexpr uint32_t kSetPowerUnit = 0x080;
inline constexpr uint32_t kSetVoltage = 0x081;
inline constexpr uint32_t kSetCpu = 0x082;
inline constexpr uint32_t kSetCpuTemperature = 0x083;
inline constexpr uint32_t kSetCpuFan = 0x084;
inline constexpr uint32_t kSetCpuCache = 0x085;
inline constexpr uint32_t kSetCpuBoard = 0x086;
inline constexpr uint32_t kSetNodeCache = 0x087;
inline constexpr uint32_t kGetMemoryArrayCount = 0x088;
inline constexpr uint32_t kGetMemoryArrayIndex = 0x089;
inline constexpr uint32_t kSetMemorySocketCount = 0x08A;
inline constexpr uint32_t kSetMemorySocket = 0x08B;
inline constexpr uint32_t kSetTemperatureString = 0x08C;
inline constexpr uint32_t kSetFanString = 0x08D;
inline constexpr uint32_t kSetPowerUnitString = 0x08E;
inline constexpr uint32_t kSetCpuString = 0x08F;
inline constexpr uint32_t kSetCacheString = 0x090;
inline constexpr uint32_t kSetCpuBoardString = 0x091;
inline constexpr uint32_t kSetMemorySocketString = 0x092;
inline constexpr uint32_t kSetSmbiosSystemBios = 0x093;
inline constexpr uint32_t kSetSmbiosCpu = 0x094;
inline constexpr uint32_t kSetSmbiosCache = 0x095;
inline constexpr uint32_t kSetSmbiosMemorySocket6 = 0x096;
inline constexpr uint32_t kSetSmbiosMemorySocket17 = 0x097;  // with the one below
inline constexpr uint32_t kGetSmbiosText = 0x097;            // with the one above
inline constexpr uint32_t kGetSmbiosField = 0x098;           // with lib_driverIF's string query
inline constexpr uint32_t kSetSmbiosSystemInfo = 0x099;
inline constexpr uint32_t kGetOldMemorySize = 0x09C;
inline constexpr uint32_t kInstance = 0x09D;
inline constexpr uint32_t kInventory = 0x09E;
inline constexpr uint32_t kInventoryFactory = 0x09F;
inline constexpr uint32_t kGetSystemBios = 0x0A0;
inline constexpr uint32_t kGetBodyTemperature = 0x0A1;
inline constexpr uint32_t kGetBodyFan = 0x0A2;
inline constexpr uint32_t kGetPowerUnit = 0x0A3;
inline constexpr uint32_t kGetVoltageProbe = 0x0A4;
inline constexpr uint32_t kGetCpu = 0x0A5;
inline constexpr uint32_t kGetCpuTemperature = 0x0A6;
inline constexpr uint32_t kGetCpuFan = 0x0A7;
inline constexpr uint32_t kGetCpuCache = 0x0A8;
inline constexpr uint32_t kGetCpuBoard = 0x0A9;
inline constexpr uint32_t kGetNodeCache = 0x0AA;
inline constexpr uint32_t kGetMemoryArray = 0x0AB;
inline constexpr uint32_t kGetMemorySocket = 0x0AC;
inline constexpr uint32_t kGetMemoryError = 0x0AD;
inline constexpr uint32_t kSensorColumnGetUlong = 0x0AE;
inline constexpr uint32_t kSensorColumnGetString = 0x0AF;
inline constexpr uint32_t kStringColumnGetUlong = 0x0B0;
inline constexpr uint32_t kStringColumnGetSensor = 0x0B1;
inline constexpr uint32_t kValueColumnGetString = 0x0B2;
inline constexpr uint32_t kValueColumnGetSensor = 0x0B3;
inline constexpr uint32_t kAddColumn = 0x0CE;
inline constexpr uint32_t kGetKey = 0x3F1;
inline constexpr uint32_t kColumn = 0x0B4;
inline constexpr uint32_t kGetSensorValueWithUnit = 0x0B5;
inline constexpr uint32_t kGetSensorValue = 0x0B6;
inline constexpr uint32_t kGetSystemInformation = 0x0B7;
inline constexpr uint32_t kConvertExistCode = 0x0C3;
inline constexpr uint32_t kConvertStateCode = 0x0C4;
inline constexpr uint32_t kConvertTemperature = 0x0C5;
inline constexpr uint32_t kConvertVoltage = 0x0C6;
inline constexpr uint32_t kConvertNominalVoltage = 0x0C7;
inline constexpr uint32_t kGetExistCode = 0x0C8;
inline constexpr uint32_t kGetState = 0x0C9;
inline constexpr uint32_t kGetResourceString = 0x0B8;
inline constexpr uint32_t kLoadEcc1ErrorCount = 0x0BA;
inline constexpr uint32_t kStoreEcc1ErrorCount = 0x0BB;
inline constexpr uint32_t kLoadMemoryDataCount = 0x0BC;
inline constexpr uint32_t kLoadMemoryData = 0x0BD;
inline constexpr uint32_t kStoreMemoryData = 0x0BE;
inline constexpr uint32_t kReadDefinitionFile = 0x0BF;
inline constexpr uint32_t kWriteFileData = 0x0C0;
inline constexpr uint32_t kGetDefinitionPath = 0x0C1;
inline constexpr uint32_t kAdjustDefinitionFile = 0x0C2;
inline constexpr uint32_t kGetElementData = 0x3F5;   // with the FRU reader, and the analysis of a file
inline constexpr uint32_t kAnalyzeFileData = 0x3F5;  // as the one above

// lib_driverIF: SMBIOS queries
inline constexpr uint32_t kGetSmbiosString = 0x098;  // with the data factory's field
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
