#pragma once
/// @file
/// Files as a whole: read to their end, and replaced so that whatever ends the process or the machine leaves the old
/// content or the new. Nothing here reports: results are errno values.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <climits>
#include <cstddef>
#include <string>
#include <string_view>

#include "cover/FileDescriptor.h"

/// Reads a regular file to its end; nothing else is opened (a pipe or a device is EINVAL, and is not waited for).
/// @param limit    longest content taken, in bytes; a longer file is EFBIG
/// @param content  untouched unless 0 is returned
/// @return 0, or an errno value; ENOMEM as well
int ReadWhole(const char* path, size_t limit, std::string& content);

/// All of it or nothing that counts. @return false with errno; EIO at the end of the file
bool ReadAt(int fd, void* data, size_t size, off_t offset);
/// @return false with errno
bool WriteAt(int fd, const void* data, size_t size, off_t offset);

/// Puts a lock on the whole file, or takes it away, without waiting. It belongs to the open file, not to the process: threads
/// exclude each other, closing another descriptor does not drop it, and it excludes the classic process locks of other
/// programs as well. A forked child keeps it alive: unlock by hand before closing.
/// @param type  F_RDLCK, F_WRLCK or F_UNLCK
/// @return 0, or an errno value; EAGAIN: somebody else's lock is in the way
int SetFileLock(int fd, short type);

/// Is the open file still the one that the path names?
/// @param flags  0: through symbolic links
bool IsNamed(int fd, const char* path, int flags = AT_SYMLINK_NOFOLLOW);

/// Makes names in a directory last through a power failure. File systems that cannot do this say so; there is nothing
/// to be done about it then.
/// @param file  a file of the directory
void SyncDirectoryOf(const char* file);

/// Replaces a file by content, durably; its temporary file is the name with ".tmp" behind it.
/// @return 0, or an errno value; the earlier file is whole then
int ReplaceWhole(const char* path, std::string_view content, mode_t mode);

/// Content that will take the place of a file. It grows in a temporary file beside it and is renamed over it when it is
/// complete and on the disk. Dropped before that, it leaves no trace.
///
/// The temporary file carries a lock while its writer lives: another writer of the same name waits, and what a dead
/// writer has left is removed. A link that somebody planted under the name is never followed. Nothing is allocated.
class Replacement {
public:
    Replacement() = default;
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// Makes the temporary file, readable by its owner alone until it takes its place.
    /// @param temporary  its name, in the directory of target
    /// @param mode       permissions of the new file
    /// @return 0, or an errno value (EBUSY: another writer of the name did not end within 10 s)
    int Create(const char* target, const char* temporary, mode_t mode);
    /// Takes owner, group and permissions of an earlier file as far as the process may give files away.
    void TakeAttributes(const struct stat& earlier) { attributes_ = earlier; }

    /// Appends. Failures stick, and come back from Commit.
    void Write(std::string_view text);
    /// The temporary file, for a writer that needs more than appending. Unbuffered; not to be mixed with Write.
    int Fd() const { return fd_.Get(); }
    /// Puts the content in the file's place, durably. Nothing can be written afterwards.
    /// @return 0, or an errno value; the earlier file is whole then
    int Commit();

private:
    int OwnTemporary(const char* name);
    void Flush();
    int ApplyAttributes() const;
    int Publish();

    FileDescriptor fd_;
    std::array<char, PATH_MAX> target_{};
    std::array<char, PATH_MAX> temporary_{};
    struct stat attributes_ {};
    std::array<char, 4096> buffer_{};
    size_t used_ = 0;
    int error_ = 0;
};
