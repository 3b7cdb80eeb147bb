#pragma once
/// @file
/// The records of this machine's hardware: sensors, processors, memory. Each call reads the machine anew; all sensors
/// of a kind are read once, under one opening of the BMC's device, and others who want the BMC get their turn in
/// between.
///
/// A sensor that cannot be read gives its record the codes "absent" or "unknown", no failure; what there is no sense in
/// is left out. Any thread may call.
/// Results that all share: 0; reason 0x4201 null argument; 0x609F1302 nothing says what there is of the kind; reason
/// 0x1202 out of memory. The outputs are 0 and null unless there are records. KvDfFreeDataArray frees them.

#include "libplatform/KvDfRecords.h"

#ifdef __cplusplus
KV_EXTERN_C_BEGIN

KV_EXPORT uint32_t KvDfGetBodyTemperature(unsigned long* count, KVDF_TEMPERATURE** records);
KV_EXPORT uint32_t KvDfGetBodyFan(unsigned long* count, KVDF_FAN** records);
/// Where no unit reports itself present, nothing is known about any.
KV_EXPORT uint32_t KvDfGetPowerUnit(unsigned long* count, KVDF_POWUNIT** records);
KV_EXPORT uint32_t KvDfGetVoltageProbe(unsigned long* count, KVDF_VOLTAGE** records);
KV_EXPORT uint32_t KvDfGetCpuTemperature(unsigned long* count, KVDF_TEMPERATURE** records);
KV_EXPORT uint32_t KvDfGetCpuFan(unsigned long* count, KVDF_FAN** records);

/// The firmware, as SMBIOS tells. @return also what KvPsGetTypeData gives
KV_EXPORT uint32_t KvDfGetSystemBios(unsigned long* count, KVDF_SYSBIOS** records);
/// The machine as a whole. The network address that its UUID tells goes to MacAddrFromSmbios.dat of the agent's data.
KV_EXPORT uint32_t KvDfGetSystemInformation(unsigned long* count, KVDF_SYSINFO** records);

KV_EXPORT uint32_t KvDfGetCpu(unsigned long* count, KVDF_CPU** records);
KV_EXPORT uint32_t KvDfGetCpuCache(unsigned long* count, KVDF_CACHE** records);
KV_EXPORT uint32_t KvDfGetCpuBoard(unsigned long* count, KVDF_CPUBOARD** records);
KV_EXPORT uint32_t KvDfGetNodeCache(unsigned long* count, KVDF_CACHE** records);

KV_EXPORT uint32_t KvDfGetMemoryArray(unsigned long* count, KVDF_MEMARRAY** records);
KV_EXPORT uint32_t KvDfGetMemorySocket(unsigned long* count, KVDF_MEMSOCKET** records);

KV_EXTERN_C_END
#endif
