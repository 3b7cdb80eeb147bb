#pragma once
/// @file
/// The classes that the library lists, one row each: the command list and the dispatch are made from it.

#include <cstdint>
#include <span>

#include "libplatform/platform_if.h"

struct ClassRow {
    uint32_t id;
    /// Fills the enumeration, all instances or none. Null: the enumeration stays as the host gave it.
    uint32_t (*build)(_KVCIM_ENUM* e);
    bool resultReturned;       ///< else a failure shows only by an empty enumeration
    int mode = KV_MODE_QUERY;  ///< that a request for it must have
};

/// In the order of the command list.
std::span<const ClassRow> Classes();
/// @return null for a class that is not listed
const ClassRow* FindClass(uint32_t id);
