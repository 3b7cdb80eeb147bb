// Removal of directory trees. Every step works relative to an open directory and never through a name that somebody
// could turn into a symbolic link between looking and removing.

#include "cover/RemoveTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include "cover/FileDescriptor.h"

namespace {

/// Levels below the given directory. Each costs a descriptor; what lies deeper is refused rather than left to run out
/// of them half-way.
constexpr int kMaxDepth = 256;

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

int RemoveEntry(int parent, const char* name, int depth);

/// Removes the entries that one pass over the directory finds.
/// @param removed  set to how many there were
int RemoveEntries(DIR* directory, int depth, size_t& removed) {
    removed = 0;
    rewinddir(directory);
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory);
        if (entry == nullptr) return errno;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        const int error = RemoveEntry(dirfd(directory), entry->d_name, depth);
        if (error != 0) return error;
        ++removed;
    }
}

/// @return null with errno
Directory OpenDirectory(int parent, const char* name) {
    FileDescriptor fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return nullptr;
    Directory directory(fdopendir(fd.Get()));
    if (directory) fd.Release();
    return directory;
}

int RemoveDirectory(int parent, const char* name, int depth) {
    if (depth > kMaxDepth) return ELOOP;
    const Directory directory = OpenDirectory(parent, name);
    if (!directory) return errno;
    // Some file systems pass over entries when others vanish during the walk: walk until nothing is left.
    size_t removed = 0;
    do {
        const int error = RemoveEntries(directory.get(), depth + 1, removed);
        if (error != 0) return error;
    } while (removed != 0);
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

int RemoveEntry(int parent, const char* name, int depth) {
    struct stat info {};
    if (fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    if (S_ISDIR(info.st_mode)) return RemoveDirectory(parent, name, depth);
    return unlinkat(parent, name, 0) == 0 ? 0 : errno;
}

}  // namespace

int RemoveTree(const char* path, bool linkAsWell) {
    const CancelBlock whole;
    // A trailing slash would have the system follow a link.
    std::string_view name = path;
    while (name.size() > 1 && name.ends_with('/'))
        name.remove_suffix(1);
    char plain[PATH_MAX];
    if (name.size() >= sizeof(plain)) return ENAMETOOLONG;
    plain[name.copy(plain, name.size())] = '\0';

    struct stat info {};
    if (lstat(plain, &info) != 0) return errno;
    const bool removable = S_ISDIR(info.st_mode) || (linkAsWell && S_ISLNK(info.st_mode));
    return removable ? RemoveEntry(AT_FDCWD, plain, 0) : ENOTDIR;
}
