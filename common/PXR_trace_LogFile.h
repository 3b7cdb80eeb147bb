#pragma once
/// @file
/// A log file that cuts itself back to its newest half when it has outgrown its limit.
///
/// Several processes may write to one file, and no lock decides which of them cuts it: whoever may read a file can lock
/// it, and for ever. Appending decides. Exactly one line reaches over the limit, and its writer cuts; the others hold
/// their lines back until the file is short again, a tenth of a second at most. Should that writer meet its end before
/// it is done, there is one line again that reaches over each further quarter of the limit.

#include <limits.h>
#include <sys/stat.h>
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

    /// Told when the file begins to fail, with no lock held, and again only after it has worked.
    using Report = void(const char* path);

    /// Opens the file for appending, creating it; an open one is closed first.
    /// @param limitKiB  size limit, 0: none
    /// @return 0 or an errno value
    int Open(const char* path, uint32_t limitKiB, Report* report);
    void Close();

    /// Appends whole lines and cuts the file if it is due. A descriptor that the host has closed is opened anew.
    void Write(const char* lines, size_t length);

private:
    int OpenFile();
    bool IsOurFile(struct stat& status) const;
    void Release();
    bool MakeReady();
    void LetOthersCut();
    bool Append(const char* lines, size_t length);
    void TakeBack(int64_t written);
    bool CutWhenDue(int64_t length);
    bool ReachesOverABound(int64_t begin, int64_t end) const;
    bool Cut();

    std::mutex mutex_;  ///< guards everything below
    bool open_ = false;
    int fd_ = -1;
    std::pair<dev_t, ino_t> identity_;  ///< device and inode of the file under fd_
    int64_t limit_ = 0;                 ///< bytes
    Report* report_ = nullptr;
    bool failing_ = false;       ///< reported and not yet recovered
    bool cutIsOurs_ = false;     ///< when the file is too long: this writer cuts it, not another process
    bool waitedInVain_ = false;  ///< for another process's cut; nobody waits again until the file is short
    char path_[PATH_MAX] = {};
};
