#pragma once
/// @file
/// Shared by the KvPltfSvcIpmiSelDb*.cpp alone. Everything here is called with g_selMutex held.

#include <bitset>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <source_location>
#include <span>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

/// Guards the database; see KvPltfSvcIpmiSelDb.h.
extern std::mutex g_selMutex;

namespace ktx_ipmi {

inline constexpr uint32_t kFunctionNumbers = 0x3FF;

inline constexpr uint16_t kReasonHardwareReplaced = 0xB11D;
inline constexpr uint16_t kReasonStateOpen = 0xB301;
inline constexpr uint16_t kReasonStateRead = 0xB302;
inline constexpr uint16_t kReasonRedetected = 0xB501;

/// What no log's first entry looks like.
inline constexpr KVPS_SEL_ENTRY kNoFirstEntry{0xFFFF, 0xFF, {0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF}, 0xFF, 0xFF,
                                              0xFF,   0xFF, {0xFF, 0xFF, 0xFF}};
bool SameEntry(const KVPS_SEL_ENTRY& a, const KVPS_SEL_ENTRY& b);

/// What the process knows about a log besides its entry in g_stSelDev and its database.
struct SelLogState {
    bool infUnread = false;   ///< there is a saved state, but it could not be read: nothing is decided without it
    bool infNoted = false;    ///< that has been told
    bool infWritten = false;  ///< the entry is on disk as it is in memory
    bool loaded = false;      ///< the database is in memory
    bool dbBehind = false;    ///< its file lacks what is in memory
    bool dbPartial = false;   ///< memory lacks what may be in the file, which could not be read yet
    std::optional<KVPS_SEL_ENTRY> first;  ///< first entry of the log when the state was last saved, if known
    bool firstMissing = false;            ///< it is not, because there is no file
    bool firstWritten = false;            ///< it is on disk

    bool cleared = false;  ///< the log was cleared while it was read whole, and has not been met since

    std::map<uint16_t, unsigned> refused;  ///< entries that could not be read, and how often

    // Of the poll under way.
    uint16_t reservation = 0;  ///< 0 where the device knows none
    uint8_t readFlags = 0;     ///< of KvPsLockAndGetSelEntry
};
/// Forgets what the process knows about all logs, and their databases.
void ForgetLogs();

/// One SEL device's log. Made where somebody comes in from outside, and handed down.
class SelLog {
public:
    /// @param index    of the device; above 126 the first
    /// @param bracket  of the poll under way, which its commands share; who sends none needs none
    explicit SelLog(uint32_t index, IpmiBracket* bracket = nullptr);

    DEVICE_INFO& Device() const { return device_; }
    SelLogState& State() const { return state_; }
    /// By record id; empty while there is none in memory.
    std::span<KVPS_SEL_ENTRY> Database() const;
    /// Makes the database, all zero, unless there is one. @return false without memory
    bool MakeDatabase() const;
    void FreeDatabase() const;
    /// Whether the database holds the very entry.
    bool Knows(const KVPS_SEL_ENTRY& entry) const;

    // Commands: others are let in before each, failures are traced. The function's number stands in the code of a
    // bracket that was lost then; whose bracket it is reports that.

    /// Reserves the log where the device supports that, and asks for its state.
    uint32_t ReserveAndGetInfo(uint32_t function, SelInfo& info) const;
    uint32_t GetInfo(uint32_t function, SelInfo& info) const;
    /// @param id  0x0000 the first entry, 0xFFFF the last
    uint32_t ReadEntry(uint32_t function, uint16_t id, uint16_t& nextId, KVPS_SEL_ENTRY& entry) const;
    uint32_t Clear(uint32_t function) const;

private:
    template <typename Command>
    uint32_t Send(uint32_t function, const char* name, Command command) const;

    DEVICE_INFO& device_;
    KVPS_SEL_ENTRY*& database_;
    SelLogState& state_;
    IpmiBracket* bracket_;
};

/// Whether an entry that could not be read like this will not be readable at the next attempt either: the controller does
/// not have it, or what it gives is none. One that is busy has it later.
bool IsBadEntry(uint32_t result);

/// @return whether the entry is a stop marker, or one was read before
bool MatchStopMarkers(const KVPS_SEL_ENTRY& entry);
bool IsStopMarkerMatched();
/// Reports that a file of the database could not be used.
/// @param code  for the trace
void NoteDatabaseFailure(uint32_t code, std::source_location where = std::source_location::current());

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

// Entries that were handed out before

void TraceRedetection(const KVPS_SEL_ENTRY& entry);
/// Tells the system log that entries were seen again, and keeps copies of the files as they are now.
void ReportRedetection(const SelLog& log);
/// Looks an entry up that was read, as the flags of KvPsLockAndGetSelEntry say.
/// @param flags  KVPS_SEL_REPORT_REDETECTION is taken away once it has been done
/// @return 0; reason 0xB501 it was handed out before
uint32_t CheckRedetection(const SelLog& log, uint32_t function, const KVPS_SEL_ENTRY& entry, uint8_t& flags);

// Loading

/// Reads the log, from its beginning, into the database in memory.
uint32_t GetSel(const SelLog& log);
/// Loads the database, once: from its file, or else from the log. A file that cannot be read now is read by the next
/// call; until then what is in memory serves.
uint32_t LoadSELDatabase(const SelLog& log);
/// How a log begins, compared with what it began with when its state was saved.
enum class FirstEntry {
    kSame,
    kOther,
    kMissing,     ///< there is nothing to compare with
    kUnreadable,  ///< there is, but it cannot be read now
};
FirstEntry CompareFirstEntry(const SelLog& log, const KVPS_SEL_ENTRY& first);

// Saving

/// Records what was taken: from the state on disk on it counts as such. What the files lacked before is written, too.
/// @param first  of the log now
/// @param found  new entries
void Save(const SelLog& log, const DEVICE_INFO& now, const KVPS_SEL_ENTRY& first,
          std::span<const KVPS_SEL_ENTRY> found);
/// Writes what the state and the database in memory are ahead of their files. @return whether nothing is left of that
bool SaveWhatIsBehind(const SelLog& log);

// Files. Only devices that a locator record named have them: for others nothing is found, and writing succeeds.

/// Looks up the device's saved state. @param found  set when there is one
/// @return 0, or the code of the failure, which is the caller's to report
uint32_t ReadDeviceInfo(DEVICE_INFO& device, bool& found);
bool WriteDeviceInfo(const DEVICE_INFO& device);
/// Removes the saved states and first entries of all devices, durably, of those too that this start has not found.
bool RemoveSavedStates();
enum class SelFile { kGood, kAbsent, kDamaged, kUnreadable };
/// @param database  receives what is good of the file, where it is empty: what is there is newer
SelFile ReadDatabase(const DEVICE_INFO& device, std::span<KVPS_SEL_ENTRY> database);
bool CreateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> database);
/// Puts entries at their places in the file.
bool UpdateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> entries);
/// @param first  untouched unless kGood is returned; a file without an entry is kAbsent
SelFile ReadFirstEntry(const DEVICE_INFO& device, std::optional<KVPS_SEL_ENTRY>& first);
bool WriteFirstEntry(const DEVICE_INFO& device, const KVPS_SEL_ENTRY& first);
/// Appends lines to the text log of all entries.
bool AppendSelLog(std::span<const KVPS_SEL_ENTRY> entries);
void CopyFilesOfRedetection(const DEVICE_INFO& device);

}  // namespace ktx_ipmi
