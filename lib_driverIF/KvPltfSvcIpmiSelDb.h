#pragma once
/// @file
/// The local database of the system event logs: what was handed out, per SEL device, so that each event is handed out
/// once over restarts and crashes. The host's functions are in libplatform/KvPsSel.h.
///
/// One mutex guards the database, the SEL devices' entries (g_stSelDev) and the files; a whole poll holds it. It is
/// taken before an IPMI bracket, never inside one: the functions here that take it are not to be called in a bracket.

#include <atomic>
#include <cstdint>

#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "libplatform/KvPsSel.h"

inline constexpr uint32_t kSelDbRecords = 65536;  ///< one for each record id

/// By record id, all zero where nothing is known; null until the device's database is loaded.
extern KVPS_SEL_ENTRY* g_pstSelDb[kMaxDevices];

/// Only ever rises.
enum SelDbFileState : uint32_t {
    kSelDbGood = 0,
    kSelDbFailed = 1,    ///< a file could not be used, and nobody has been told yet
    kSelDbReported = 2,  ///< that has been told
};
extern std::atomic<SelDbFileState> g_eSelDbFileStat;

/// An entry behind which the machine is no longer the one that this process knows: it and what follows is withheld
/// until the agent has been started anew.
struct SelMarker {
    uint32_t kind;  ///< 0 ends the table
    uint8_t mask[sizeof(KVPS_SEL_ENTRY)];
    uint8_t value[sizeof(KVPS_SEL_ENTRY)];
    uint8_t matched;  ///< 1 for the rest of the process once an entry has matched; atomic access
};
inline constexpr uint32_t kSelMarkerRestart = 1;
extern SelMarker fs_stSeldef[2];

/// At start-up, before the SEL devices are looked for: forgets everything but the files.
void InitializeSELDatabase();
/// Frees the databases; the next poll loads them again. One that is ahead of its file is written first, or else kept.
void TerminateSELDatabase();
/// At start-up, outside of any bracket: gives each SEL device the state that was saved for it.
/// @return 0; 0x605CB11D the hardware was replaced, nothing is taken over; 0x605CB301, 0x605CB302 a file could not be
///         opened, read (the other devices have theirs)
uint32_t LoadSelDeviceInfo();

/// Whether a file of the database has failed, and nobody has been told yet.
bool IsDatabaseFailureUntold();
/// Takes that failure, for who is going to tell of it: true once.
bool TakeDatabaseFailure();

/// Makes a device the current one; an index above 126 the first.
void SetSelDeviceIdx(uint32_t index);
/// Whether the current device's database holds the very entry.
bool IsNotifiedSEL(const KVPS_SEL_ENTRY* entry);
/// Removes the entries that the current device's database holds, and closes the gaps.
/// @param count  in: entries; out: those that are left
void RemoveNotifiedSEL(unsigned long* count, KVPS_SEL_ENTRY* entries);

/// Whether a marker of that kind was read in this process.
bool CheckSelMaskList(uint32_t kind);
