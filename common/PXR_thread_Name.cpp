#include <cstdlib>
#include <cstring>
#include <optional>

#include "common/PXR_host.h"
#include "common/PXR_thread_internal.h"

namespace {

std::optional<pthread_key_t> MakeOwnKey() {
    pthread_key_t key = 0;
    if (pthread_key_create(&key, std::free) != 0) return std::nullopt;
    return key;
}

/// Made when the library is loaded: read-only afterwards, so that reading a name takes no guard.
const std::optional<pthread_key_t> ownKey = MakeOwnKey();

/// The key of thread names. A host that has one frees the names by its destructor, as ours does.
std::optional<pthread_key_t> NameKey() {
    if (const pthread_key_t* hostKey = host::ThreadNameKey()) return *hostKey;
    return ownKey;
}

}  // namespace

void PXR_SetThreadName(const char* name) {
    const std::optional<pthread_key_t> key = NameKey();
    if (!key) return;
    char* copy = name != nullptr ? strdup(name) : nullptr;
    if (name != nullptr && copy == nullptr) return;
    void* old = pthread_getspecific(*key);
    if (pthread_setspecific(*key, copy) == 0) {
        std::free(old);
    } else {
        std::free(copy);
    }
}

extern "C" const char* PXR_THREAD_SELFNAME(void) {
    const std::optional<pthread_key_t> key = NameKey();
    return key ? static_cast<const char*>(pthread_getspecific(*key)) : nullptr;
}
