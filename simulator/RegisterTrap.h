#pragma once
/// @file
/// Memory-mapped registers for plain loads and stores: pages that cannot be accessed, and a handler that lets each
/// access through after asking a function for the byte to be read, or hands it the byte that was written.

#include <cstddef>
#include <cstdint>
#include <functional>

namespace sim {

/// Arms the pages [base, base + length). Takes SIGSEGV and SIGTRAP for the process from the first call on; faults
/// elsewhere go to whoever had the signals before. Each access must be one byte wide. @return false with errno
/// @param read, write  called in the accessing thread, with the byte's distance from base
bool ArmRegisterTrap(void* base, size_t length, std::function<uint8_t(size_t)> read,
                     std::function<void(size_t, uint8_t)> write);
void DisarmRegisterTrap(void* base);

}  // namespace sim
