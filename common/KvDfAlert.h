#pragma once
/// @file
/// What raises an alert is told to the host as a record of this kind.

#include <cstdint>

#include "common/CKvString.h"

/// Room of a text field; longer texts make it grow.
inline constexpr unsigned long kKvTextCapacity = 256;

/// Base of every record that goes out. Records go out as an array made by array-new, which the receiver deletes.
struct KVDF_BASE {
    virtual ~KVDF_BASE() = default;
};

struct KVDF_ALERT : KVDF_BASE {
    uint32_t id = 0;
    uint32_t level = 0;
    uint32_t portion = 0;
    uint32_t time = 0;                             ///< seconds since 1970
    CKvString message{nullptr, kKvTextCapacity};   ///< in the agent's language
    CKvString message2{nullptr, kKvTextCapacity};  ///< in the neutral one
};
#ifdef __i386__
static_assert(sizeof(KVDF_ALERT) == 36);
#endif
