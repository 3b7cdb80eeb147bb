#pragma once
/// @file
/// What makes the IPMI layer behave differently on the product's own servers: the family the machine belongs to, what
/// kind of BMC it has and what that can do, its service processor, and whether the hardware was replaced since the last
/// run.
///
/// Any thread may call. Only InitBMCCapability, CheckBMCCapability and KvHardWareCheck talk to the BMC; the others may
/// be called inside an IPMI bracket.

#include <cstdint>

/// Takes the lines that this module logs. @param level  1 error, 2 trace, 3 debug (as KvRasLog)
using CapabilityLogFunction = void (*)(int level, const char* source, int line, const char* format, ...);

/// Registers the log function; null: nothing is logged.
void SetLogFunction(CapabilityLogFunction function);
void ExecLogFunction(int level, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Machine

inline constexpr uint32_t kFamilyUnknown = 0;
inline constexpr uint32_t kFamilyBlade = 1;
inline constexpr uint32_t kFamilyRack = 2;

/// Tells the product family, kFamilyBlade or kFamilyRack. @return false when SMBIOS does not name the product
bool IsVaristel(uint32_t* family);

inline constexpr int kSmbiosCodeNoFile = 0;  ///< no configuration file, or nothing in it
inline constexpr int kSmbiosCodeUnknown = 1;
inline constexpr int kSmbiosCode002 = 2;
inline constexpr int kSmbiosCode003 = 3;
/// Tells which BMC code the machine's SMBIOS configuration file names: one of the above.
int CheckSMBIOSCode();

// BMC capability

inline constexpr uint32_t kBmcCapabilitySize = 52;

/// At start-up: reads the capability record of a blade's BMC, keeps it, and writes it to its file.
bool InitBMCCapability();
/// Gives the record that is kept, or else that of the file.
bool GetBMCCapability(uint8_t* record);
/// Gives the record of the file. @param record  kBmcCapabilitySize bytes, as for GetBMCCapability
bool ReadBMCCapabilityBin(uint8_t* record);
/// Whether the BMC has the capabilities under the mask that it had when the record was kept.
/// @param size  bytes of mask; those behind kBmcCapabilitySize count for nothing
bool CheckBMCCapability(const uint8_t* mask, uint32_t size);

namespace ktx_ipmi {
/// Reads the capability record from the BMC where it knows the command, else gives the one that is kept.
/// @param record  kBmcCapabilitySize bytes, zeroes behind what the BMC sent
/// @return 0; 0x6000B116 null; 0x6000B121 neither; 204 the command failed
uint32_t GetBMCStatus(int handle, uint8_t address, uint8_t* record);
}  // namespace ktx_ipmi

inline constexpr int kBmcTypePilot2 = 2;
inline constexpr int kBmcTypeQvm = 3;
inline constexpr int kBmcTypeSh = 4;
/// Tells the type of the BMC, one of the above, or 0.
int CheckBMCType();
/// @param flag  1 when the capability record names a known BMC type, else 0 @return whether there is a record
bool IsPilot2(int* flag);
/// The same as the machine's files have it: no board that is in the field. @param flag  0 @return true
bool IsPilot2_File(int* flag);
/// Whether the BMC links its event log with that of the enclosure.
bool CheckSelLinked();

// Service processor

/// Type of the service processor as the host configured it: -1 unknown, 0, 1.
int LibP2_GetSVPConfigType();
/// Loads the host's settings of BMC functions, once. @return 0; the host's error, the defaults being in force then
int ReadBmccfg();
/// Whether the service processor's driver works on a blade; on a rack server.
bool IsRunningSVPDriver_VS();
bool IsRunningSVPDriver_RK();

inline constexpr uint32_t kSvpNone = 0;
inline constexpr uint32_t kSvpRack = 1;
inline constexpr uint32_t kSvpBlade = 2;
/// Tell which service processor is there. @param functionType  tells functions of Pilot2 boards apart; not looked at
uint32_t MySVPFunction(int functionType);
uint32_t MyCMDFunction(int functionType);

// Replaced hardware

inline constexpr int kHardwareChanged = 0;
inline constexpr int kHardwareSame = 1;  ///< or there is nothing to compare with
inline constexpr int kHardwareUnknown = 2;
/// Compares the addresses of the onboard network adapters with those of the last run. The first call decides for the
/// process. It reads FRU fields: not inside an IPMI bracket.
int KvHardWareCheck();
/// After kHardwareChanged, when what was saved on the old hardware is gone: the addresses of the new one take the place
/// of those of the last run, and count as the same from then on. Until that has been done every start finds the change.
/// @return false: logged
bool RememberHardware();
