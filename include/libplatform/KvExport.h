#pragma once
/// @file
/// What every public header of libplatform shares: the export mark and the fixed-width types.

#include <stddef.h>
#include <stdint.h>

/// Marks what a host agent may call. Everything else in the library is hidden.
#define KV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define KV_EXTERN_C_BEGIN extern "C" {
#define KV_EXTERN_C_END }
// Records hold pointers in 32-bit words; the interface exists for i386 alone.
static_assert(sizeof(void*) == 4, "libplatform's interface is the 32-bit x86 one; build with -m32");
#else
#define KV_EXTERN_C_BEGIN
#define KV_EXTERN_C_END
#endif
