#pragma once
/// @file
/// A log file that cuts itself back to its newest half when it has outgrown its limit.

#include <limits.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>

class LogFile {
public:
    LogFile() = default;
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    ~LogFile() { Close(); }

    /// Opens the file for appending, creating it; an open one is closed first.
    /// @param limitKiB  size limit, 0: none
    /// @return 0 or an errno value
    int Open(const char* path, uint32_t limitKiB);
    void Close();

    /// Appends whole lines and cuts the file if it is due. A file that fails is reported to the system log, once until
    /// it works again; the report is made with no lock held.
    void Write(const char* lines, size_t length);

private:
    bool OwnsNumber() const;
    void Release();
    bool Append(const char* lines, size_t length);
    void TakeBack(int64_t written);
    bool CutWhenDue();
    bool Cut(int64_t size, int64_t keep);
    bool MoveWholeLinesToStart(int64_t from, int64_t& length);

    std::mutex mutex_;  ///< guards everything below
    int fd_ = -1;
    std::pair<dev_t, ino_t> identity_;  ///< device and inode of the file under fd_
    int64_t limit_ = 0;                 ///< bytes
    bool failing_ = false;              ///< reported and not yet recovered
    char path_[PATH_MAX] = {};
};
