// Files of the SEL database. What a crash leaves is the old content or the new: files written whole take the place of
// the old one when they are on the disk, and what is updated in place is updated record by record, none of which crosses
// a page.

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/FileText.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "cover/FileCover.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

#define KV_LOG_FOLDER "/var/opt/velmora/lantrel/log/"

/// What stands before, between and behind the two numbers of a device's key.
struct FileName {
    const char* prefix;
    const char* separator;
    const char* suffix;
};
constexpr FileName kInf{"ipmi_sel_", "_", ".inf"};
constexpr FileName kTmp{"ipmi_sel_", "_", ".tmp"};
constexpr FileName kDb{"ipmi_sel_", "_", ".db"};
constexpr FileName kFirst{"FirstSEL", "", ".dat"};
constexpr FileName kInfCopy{"ipmi_sel_", "_", "_redetect.inf"};
constexpr FileName kDbCopy{"ipmi_sel_", "_", "_redetect.db"};

constexpr const char* kTextLog = KV_LOG_FOLDER "ipmi_sel.log";
constexpr const char* kIpmiLog = KV_LOG_FOLDER "@ipmi@.log";
constexpr const char* kIpmiLogCopy = KV_LOG_FOLDER "@ipmi@_redetect.log";

constexpr uint8_t kLocatorRecord = 0x12;
constexpr int kMode = 0644;
constexpr size_t kRecordsAtOnce = 256;  // 4 KiB

struct Path {
    char text[128];
};

Path PathOf(const FileName& name, const DEVICE_INFO& device) {
    Path path;
    snprintf(path.text, sizeof path.text, KV_LOG_FOLDER "%s%02x%s%04x%s", name.prefix, device.sdrVersion,
             name.separator, device.recordId, name.suffix);
    return path;
}

/// Where a record stands in the database file.
off_t OffsetOf(size_t recordId) {
    return static_cast<off_t>(recordId) * off_t{sizeof(KVPS_SEL_ENTRY)};
}

bool HasFiles(const DEVICE_INFO& device) {
    return device.bType == kLocatorRecord;
}

/// What stands there may be no file: a pipe is not waited for.
FileDescriptor Open(const char* path, int flags) {
    return FileDescriptor(FileOpen(path, flags | O_NONBLOCK | O_NOCTTY, kMode));
}

FileDescriptor Open(const Path& path, int flags) {
    return Open(path.text, flags);
}

/// Writes a file whole beside its place, then moves it there.
/// @param write  fills the open file
template <typename Write>
bool ReplaceFile(const DEVICE_INFO& device, const FileName& name, Write write) {
    Replacement file;
    return file.Create(PathOf(name, device).text, PathOf(kTmp, device).text, kMode) == 0 && write(file.Fd()) &&
           file.Commit() == 0;
}

bool IsSameDevice(const DEVICE_INFO& a, const DEVICE_INFO& b) {
    return a.address == b.address && a.lun == b.lun && a.recordId == b.recordId && a.sdrVersion == b.sdrVersion &&
           a.bType == b.bType;
}

bool IsEmpty(const KVPS_SEL_ENTRY& entry) {
    constexpr KVPS_SEL_ENTRY kEmpty = {};
    return SameEntry(entry, kEmpty);
}

}  // namespace

// State of a device

uint32_t ReadDeviceInfo(DEVICE_INFO& device, bool& found) {
    found = false;
    if (!HasFiles(device)) return 0;
    const FileDescriptor file = Open(PathOf(kInf, device), O_RDONLY);
    if (!file) {
        if (errno == ENOENT) return 0;
        return MakeResult(fn::kLoadSelDeviceInfo, kReasonStateOpen);
    }
    DEVICE_INFO saved = {};
    for (;;) {
        const int got = FileRead(file.Get(), &saved, sizeof saved);
        if (got < 0) return MakeResult(fn::kLoadSelDeviceInfo, kReasonStateRead);
        if (got < static_cast<int>(sizeof saved)) return 0;
        if (!IsSameDevice(saved, device)) continue;
        device.selCount = saved.selCount;
        device.nextSelId = saved.nextSelId;
        device.lastTimeStamp = saved.lastTimeStamp;
        found = true;
    }
}

bool WriteDeviceInfo(const DEVICE_INFO& device) {
    if (!HasFiles(device)) return true;
    return ReplaceFile(device, kInf, [&](int fd) { return WriteAt(fd, &device, sizeof device, 0); });
}

bool RemoveSavedStates() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(KV_LOG_FOLDER), closedir);
    if (folder == nullptr) return errno == ENOENT;
    bool removed = true;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(folder.get());
        if (entry == nullptr) break;
        const bool saved = fnmatch("ipmi_sel_??_????.inf", entry->d_name, 0) == 0 ||
                           fnmatch("FirstSEL??????.dat", entry->d_name, 0) == 0;
        if (saved && unlinkat(dirfd(folder.get()), entry->d_name, 0) != 0) removed = false;
    }
    if (errno != 0) removed = false;
    SyncDirectoryOf(KV_LOG_FOLDER);
    return removed;
}

// Database

SelFile ReadDatabase(const DEVICE_INFO& device, std::span<KVPS_SEL_ENTRY> database) {
    if (!HasFiles(device)) return SelFile::kAbsent;
    const FileDescriptor file = Open(PathOf(kDb, device), O_RDONLY);
    if (!file) return errno == ENOENT ? SelFile::kAbsent : SelFile::kUnreadable;
    std::array<KVPS_SEL_ENTRY, kRecordsAtOnce> piece;
    bool good = true;
    for (size_t done = 0; done < database.size(); done += piece.size()) {
        const int got = FileRead(file.Get(), piece.data(), sizeof piece);
        if (got < 0) return SelFile::kUnreadable;
        const size_t whole = static_cast<size_t>(got) / sizeof piece[0];
        for (size_t i = 0; i < whole; ++i) {
            if (IsEmpty(piece[i])) continue;
            const bool inPlace = piece[i].recordId == done + i;
            good = good && inPlace;
            if (inPlace && IsEmpty(database[done + i])) database[done + i] = piece[i];
        }
        if (whole < piece.size()) return SelFile::kDamaged;
    }
    return good ? SelFile::kGood : SelFile::kDamaged;
}

bool CreateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> database) {
    if (!HasFiles(device)) return true;
    return ReplaceFile(device, kDb, [database](int fd) {
        for (size_t done = 0; done < database.size(); done += kRecordsAtOnce) {
            const auto piece = database.subspan(done, std::min(database.size() - done, kRecordsAtOnce));
            if (!WriteAt(fd, piece.data(), piece.size_bytes(), OffsetOf(done))) return false;
        }
        return true;
    });
}

bool UpdateDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> entries) {
    if (!HasFiles(device) || entries.empty()) return true;
    // Not made anew: a part of a database is none.
    FileDescriptor file = Open(PathOf(kDb, device), O_WRONLY | O_SYNC | O_NOFOLLOW);
    if (!file) return false;
    while (!entries.empty()) {
        // Ids mostly follow each other; one synchronous write for them all.
        size_t run = 1;
        while (run < std::min(entries.size(), kRecordsAtOnce) && entries[run].recordId == entries[run - 1].recordId + 1)
            ++run;
        if (!WriteAt(file.Get(), entries.data(), run * sizeof entries[0], OffsetOf(entries[0].recordId))) return false;
        entries = entries.subspan(run);
    }
    return file.Close() == 0;
}

// First entry

SelFile ReadFirstEntry(const DEVICE_INFO& device, std::optional<KVPS_SEL_ENTRY>& first) {
    if (!HasFiles(device)) return SelFile::kAbsent;
    const FileDescriptor file = Open(PathOf(kFirst, device), O_RDONLY);
    if (!file) return errno == ENOENT ? SelFile::kAbsent : SelFile::kUnreadable;
    KVPS_SEL_ENTRY entry;
    const int got = FileRead(file.Get(), &entry, sizeof entry);
    if (got < 0) return SelFile::kUnreadable;
    if (got < static_cast<int>(sizeof entry)) return SelFile::kAbsent;
    first = entry;
    return SelFile::kGood;
}

bool WriteFirstEntry(const DEVICE_INFO& device, const KVPS_SEL_ENTRY& first) {
    if (!HasFiles(device)) return true;
    return ReplaceFile(device, kFirst, [&](int fd) { return WriteAt(fd, &first, sizeof first, 0); });
}

// Text log: a ring of lines of equal length behind the index of the next one.

namespace {

constexpr unsigned kRingLines = 0x2800;
constexpr size_t kRingHeader = sizeof "0000\n" - 1;
constexpr size_t kRingLine = sizeof "0000:" - 1 + 2 * sizeof(KVPS_SEL_ENTRY) + 1;
static_assert(kRingLine == 38);

/// The index in the header; 0 where there is none that makes sense.
unsigned ReadRingIndex(int fd) {
    std::array<char, kRingHeader> header{};
    if (pread(fd, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) return 0;
    unsigned index = 0;
    for (size_t i = 0; i < 4; ++i) {
        const char* const digits = "0123456789ABCDEF";
        const char* const digit = header[i] != '\0' ? strchr(digits, header[i]) : nullptr;
        if (digit == nullptr) return 0;
        index = index * 16 + static_cast<unsigned>(digit - digits);
    }
    return header[4] == '\n' && index < kRingLines ? index : 0;
}

/// @param line  room for kRingLine characters
void PutRingLine(char* line, unsigned index, const KVPS_SEL_ENTRY& entry) {
    std::array<uint8_t, sizeof entry> bytes;
    memcpy(bytes.data(), &entry, sizeof entry);
    line += sprintf(line, "%04X:", index % kRingLines);
    for (const uint8_t byte : bytes)
        line += sprintf(line, "%02X", byte);
    *line = '\n';
}

bool WriteRingHeader(int fd, unsigned index) {
    char header[16];
    snprintf(header, sizeof header, "%04X\n", index);
    return WriteAt(fd, header, kRingHeader, 0);
}

}  // namespace

bool AppendSelLog(std::span<const KVPS_SEL_ENTRY> entries) {
    if (entries.empty()) return true;
    FileDescriptor file = Open(kTextLog, O_RDWR | O_CREAT | O_NOFOLLOW);
    if (!file) return false;
    std::array<char, kRecordsAtOnce * kRingLine> lines;
    unsigned index = ReadRingIndex(file.Get());
    while (!entries.empty()) {
        const size_t run = std::min({entries.size(), kRecordsAtOnce, static_cast<size_t>(kRingLines - index)});
        for (size_t i = 0; i < run; ++i)
            PutRingLine(&lines[i * kRingLine], index + static_cast<unsigned>(i), entries[i]);
        const auto offset = off_t{kRingHeader} + off_t{index} * off_t{kRingLine};
        if (!WriteAt(file.Get(), lines.data(), run * kRingLine, offset)) return false;
        index = (index + static_cast<unsigned>(run)) % kRingLines;
        entries = entries.subspan(run);
    }
    return WriteRingHeader(file.Get(), index) && file.Close() == 0;
}

void CopyFilesOfRedetection(const DEVICE_INFO& device) {
    const auto copy = [](const char* from, const char* to) {
        if (CreateCopyFile(from, to, 0)) return;
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "The log file copy failed. FILE=%s\n", to);
    };
    copy(kIpmiLog, kIpmiLogCopy);
    if (!HasFiles(device)) return;
    copy(PathOf(kInf, device).text, PathOf(kInfCopy, device).text);
    copy(PathOf(kDb, device).text, PathOf(kDbCopy, device).text);
}

}  // namespace ktx_ipmi
