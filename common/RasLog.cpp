// What lines of the reliability log share.
#include "common/RasLog.h"

#include <cerrno>

unsigned KvRasLastError() {
    return static_cast<unsigned>(errno);
}
