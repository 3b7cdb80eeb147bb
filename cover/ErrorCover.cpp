#include "cover/ErrorCover.h"

#include <cerrno>

int GetRecentErrno() {
    return errno;
}

void SetRecentErrno(int error) {
    errno = error;
}
