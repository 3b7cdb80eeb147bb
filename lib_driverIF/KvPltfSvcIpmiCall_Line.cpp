// The line of those who want the IPMI lock, across processes.

#include "lib_driverIF/KvPltfSvcIpmiCall_Line.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "cover/TimerCover.h"

namespace ktx_ipmi {

namespace {

// Who stands ahead may leave the lock free that long, in milliseconds, before he is passed over; well above the longest
// pause between two looks. Once somebody was, the others lose less time with him until the line moves again.
constexpr uint32_t kPatience = 1000;
constexpr uint32_t kPatienceOncePassed = 30;
// Newcomers that step in between two looks of one who wants a place.
constexpr int kStandTries = 100;

struct flock Range(short type, off_t first, off_t length) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = first;
    range.l_len = length;
    return range;
}

/// Finds a lock of another process. @return its range with type F_UNLCK where there is none or nobody can tell
struct flock Find(int fd, off_t first, off_t length) {
    struct flock found = Range(F_WRLCK, first, length);
    if (LockControl(fd, F_GETLK, &found) != 0) found.l_type = F_UNLCK;
    return found;
}

constexpr off_t kToTheEnd = 0;  // as a length

}  // namespace

void Line::Open(const char* file) {
    file_ = FileDescriptor(open(file, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (file_) fchmod(file_.Get(), 0600);  // it may be older than this rule
    kept_ = static_cast<bool>(file_);
}

void Line::Close() {
    kept_ = false;
    file_.Close();
}

off_t Line::Stand() {
    const off_t place = file_ ? TakePlace() : kNoPlace;
    if (place != kNoPlace) last_ = place;
    kept_ = place != kNoPlace;
    return place;
}

off_t Line::TakePlace() const {
    off_t place = std::max(static_cast<off_t>(Clock().Now()), last_ + 1);
    for (int tries = 0; tries < kStandTries; ++tries) {
        const struct flock behind = Find(file_.Get(), place, kToTheEnd);
        if (behind.l_type == F_UNLCK) {
            struct flock mine = Range(F_WRLCK, place, 1);
            if (LockControl(file_.Get(), F_SETLK, &mine) == 0) return place;
            if (errno != EAGAIN && errno != EACCES) return kNoPlace;
        } else if (behind.l_len == kToTheEnd) {
            return kNoPlace;
        } else {
            place = behind.l_start + behind.l_len;
        }
    }
    return kNoPlace;
}

void Line::Leave(off_t place) {
    if (place == kNoPlace) return;
    struct flock mine = Range(F_UNLCK, place, 1);
    LockControl(file_.Get(), F_SETLK, &mine);
}

bool Line::SomebodyBefore(off_t place) const {
    return Find(file_.Get(), 0, place).l_type != F_UNLCK;
}

/// Who is passed over keeps his place. So all that wait behind him go for the lock when it was free for that long, in any
/// order; a newcomer finds it taken until the last of them was served.
bool Line::AwaitTurn(off_t place, _FLKHANDLE* lock, const LockWait& wait) {
    if (place == kNoPlace) return true;
    const uint32_t patience = passedOver_ ? kPatienceOncePassed : kPatience;
    // Only pauses of this thread count: if it was stopped itself, the others may have moved meanwhile.
    for (uint32_t idle = 0; SomebodyBefore(place);) {
        if (wait.Over()) return false;
        if (idle >= patience) {
            passedOver_ = true;
            return true;
        }
        const uint32_t pause = wait.Pause();
        idle = IsFLockHeld(lock) ? 0 : idle + pause;
    }
    passedOver_ = false;
    return true;
}

bool Line::OthersStand() const {
    return file_ && Find(file_.Get(), 0, kToTheEnd).l_type != F_UNLCK;
}

}  // namespace ktx_ipmi
