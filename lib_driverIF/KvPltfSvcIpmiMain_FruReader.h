#pragma once
/// @file
/// The way up to the data factory, which knows how FRU fields lie in their images.

#include <cstdint>

#include "libplatform/KvDfFru.h"

namespace ktx_ipmi {

/// Reads a FRU field with the function that the data factory registered.
/// @return what it gives; 0x60004203 without one
uint32_t ReadFruField(uint32_t target, _KvFruData* out);

}  // namespace ktx_ipmi
