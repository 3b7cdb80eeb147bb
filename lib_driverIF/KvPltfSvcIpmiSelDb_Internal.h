#pragma once
/// @file
/// Shared by the KvPltfSvcIpmiSelDb*.cpp alone. Everything here is called with g_selMutex held.

#include <bitset>
#include <cstdint>
#include <mutex>
#include <optional>
#include <source_location>
#include <span>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

/// Guards the database; see KvPltfSvcIpmiSelDb.h.
extern std::mutex g_selMutex;

namespace ktx_ipmi {

inline constexpr uint16_t kReasonHardwareReplaced = 0xB11D;
inline constexpr uint16_t kReasonStateOpen = 0xB301;
inline constexpr uint16_t kReasonStateRead = 0xB302;
inline constexpr uint16_t kReasonRedetected = 0xB501;

/// What no log's first entry looks like.
inline constexpr KVPS_SEL_ENTRY kNoFirstEntry{0xFFFF, 0xFF, {0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF}, 0xFF, 0xFF,
                                              0xFF,   0xFF, {0xFF, 0xFF, 0xFF}};
bool SameEntry(const KVPS_SEL_ENTRY& a, const KVPS_SEL_ENTRY& b);

/// What the process knows about a SEL device besides its entry in g_stSelDev.
struct SelDeviceState {
    bool loaded = false;                   ///< the database is in memory
    bool dbBehind = false;                 ///< its file lacks what is in memory
    bool dbPartial = false;                ///< memory lacks what may be in the file, which could not be read
    bool infWritten = false;               ///< the entry is on disk as it is in memory
    bool firstLoaded = false;              ///< the first entry was looked for on disk
    bool firstWritten = false;             ///< and stands there
    KVPS_SEL_ENTRY first = kNoFirstEntry;  ///< first entry of the log when the state was last saved

    // Of the poll under way.
    bool cleared = false;      ///< the log was cleared while it was read whole
    uint16_t reservation = 0;  ///< 0 where the device knows none
    uint8_t readFlags = 0;     ///< of KvPsLockAndGetSelEntry

    // Of the last GetSelByDeviceInfo.
    uint32_t read = 0;      ///< entries of the log, known ones included
    uint32_t found = 0;     ///< of these, new ones, put into the caller's table
    uint32_t withheld = 0;  ///< 1: the last of them is a stop marker
};
/// SetSelDeviceIdx for who holds the mutex already.
void ChooseSelDevice(uint32_t index);
/// Of the current device.
DEVICE_INFO& CurrentSelDevice();
SelDeviceState& CurrentSelState();
/// The current device's database; empty while there is none in memory.
std::span<KVPS_SEL_ENTRY> CurrentSelDb();

/// @return whether the entry is a stop marker, or one was read before
bool MatchStopMarkers(const KVPS_SEL_ENTRY& entry);
bool IsStopMarkerMatched();
/// Reports that a file of the database could not be used.
/// @param code  for the trace
void NoteDatabaseFailure(uint32_t code, std::source_location where = std::source_location::current());
/// Traces a failed step of a walk.
void TraceSelFailure(const char* function, uint32_t code, std::source_location where = std::source_location::current());

/// The bracket of the poll under way; null outside.
extern IpmiBracket* g_pollBracket;
/// Between two commands of a poll.
inline void LetOthersIn() {
    if (g_pollBracket != nullptr) g_pollBracket->LetOthersIn();
}

/// Ends walks that go round in circles.
class WalkGuard {
public:
    /// @return false when the walk has been here before
    bool Enter(uint16_t id) {
        const bool first = !visited_[id];
        visited_[id] = true;
        return first;
    }

private:
    std::bitset<kSelDbRecords> visited_;
};

/// KvPsLockAndGetSelEntry for who holds the mutex already.
/// @param flags  KVPS_SEL_REPORT_REDETECTION is taken away once it has been done
uint32_t ReadSelEntry(uint32_t function, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                      KVPS_SEL_ENTRY* entry, uint8_t& flags);
/// Reserves the log where the device supports that, and asks for its state.
uint32_t ReserveAndGetInfo(const DEVICE_INFO& device, uint32_t function, KVPS_SEL_INFO* info);

/// Reads the log of the current device, from its beginning, into the database in memory.
uint32_t GetSel(const DEVICE_INFO& device);
/// Loads the current device's database, once: from its file, or else from the log.
uint32_t LoadSELDatabase(DEVICE_INFO* device);
/// The first entry that was saved last, read from disk once per process.
const KVPS_SEL_ENTRY& SavedFirstEntry(const DEVICE_INFO& device);

/// Reads up to n entries of the current device's log, from device->nextSelId on.
/// @param device   in: selCount is what the log holds; out: that less what was not read, and where to go on
/// @param entries  room for n; the device's state tells how many were filled
uint32_t GetSelByDeviceInfo(DEVICE_INFO* device, uint32_t n, KVPS_SEL_ENTRY* entries);

bool IsNotified(const KVPS_SEL_ENTRY& entry);
void TraceRedetection(const KVPS_SEL_ENTRY& entry);
/// Tells the system log that entries were seen again, and keeps copies of the files as they are now.
void ReportRedetection();

// Files. Only devices that a locator record named have them: for others nothing is found, and writing succeeds.

/// Looks up the device's saved state. @param found  set when there is one @return 0, or the code of the failure
uint32_t ReadDeviceInfo(DEVICE_INFO& device, bool& found);
bool WriteDeviceInfo(const DEVICE_INFO& device);
/// Removes the saved states and first entries of all devices, durably, of those too that this start has not found.
bool RemoveSavedStates();
enum class DatabaseFile { kGood, kAbsent, kDamaged, kUnreadable };
/// @param database  all zero; of a damaged file it holds what is good
DatabaseFile ReadDatabase(const DEVICE_INFO& device, std::span<KVPS_SEL_ENTRY> database);
bool CreateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> database);
/// Puts entries at their places in the file.
bool UpdateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> entries);
std::optional<KVPS_SEL_ENTRY> ReadFirstEntry(const DEVICE_INFO& device);
bool WriteFirstEntry(const DEVICE_INFO& device, const KVPS_SEL_ENTRY& first);
/// Appends lines to the text log of all entries.
bool AppendSelLog(std::span<const KVPS_SEL_ENTRY> entries);
void CopyFilesOfRedetection(const DEVICE_INFO& device);

}  // namespace ktx_ipmi
