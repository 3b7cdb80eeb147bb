#pragma once
/// @file
/// Result codes: how they are built, and the one call that reports a failure.

#include <cstdint>
#include <source_location>

/// Why something failed: the low 16 bits of a result code.
enum class Reason : uint16_t {
#define KV_REASON(name, number, catalogues) name = number,  // NOLINT(bugprone-macro-parentheses): it enumerates
#include "common/PXR_reasons.inc"
#undef KV_REASON
};

/// Bits 28-31: the error class of every code of this library.
inline constexpr uint32_t kErrorClass = 0x60000000;

/// Builds a result code.
/// @param function  number of the function that fails (PXR_function_numbers.h), bits 16 to 25
/// @param reason    bits 0 to 15
constexpr uint32_t MakeResult(uint32_t function, uint16_t reason) {
    return kErrorClass | (function << 16) | reason;
}
constexpr uint32_t MakeResult(uint32_t function, Reason reason) {
    return MakeResult(function, static_cast<uint16_t>(reason));
}

/// Reports one failure, where it arises: traces the printable code, its catalogue text and the source line at mask
/// 0x1000, level 0. Costs a flag test while tracing is off. Call it with no catalogue or trace lock held.
/// @return code, so that a failing function can end with `return PXR_ReportError(code);`
uint32_t PXR_ReportError(uint32_t code, std::source_location where = std::source_location::current());
/// The same for a failure whose text is in another catalogue than KvAgent.cat.
uint32_t PXR_ReportError(uint32_t code, const char* catalogue,
                         std::source_location where = std::source_location::current());
