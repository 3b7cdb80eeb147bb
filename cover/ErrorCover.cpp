// The recent error: errno.

#include "cover/ErrorCover.h"

#include <cerrno>

int GetRecentErrno() {
    return errno;
}

void SetRecentErrno(int error) {
    errno = error;
}
