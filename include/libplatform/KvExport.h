#pragma once
/// @file
/// What every public header of libplatform shares: the export mark, C linkage, assertions and the fixed-width types.

#ifndef __i386__
#error "libplatform's interface, whose records hold 32-bit pointers, is that of 32-bit x86: build with -m32"
#endif

#include <stddef.h>
#include <stdint.h>

/// Marks what a host agent may call. Everything else in the library is hidden.
#define KV_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define KV_EXTERN_C_BEGIN extern "C" {
#define KV_EXTERN_C_END }
#define KV_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define KV_EXTERN_C_BEGIN
#define KV_EXTERN_C_END
// __extension__: C99 hosts have their records checked, too.
#define KV_STATIC_ASSERT(condition) __extension__ _Static_assert(condition, #condition)
#endif
