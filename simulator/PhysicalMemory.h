#pragma once
/// @file
/// Physical memory of a simulated server as "/dev/mem" shows it: blocks of bytes, and pages behind which registers lie.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "simulator/BmcMessage.h"

namespace sim {

/// Reads below 1 MiB succeed everywhere (zero where nothing was put), above it only inside blocks and registers.
/// Registers see each access: a mapped page that holds one is trapped on access, so that even a plain load or store
/// through the mapping reaches the register machine.
class PhysicalMemory {
public:
    struct RegisterRange {
        uint64_t first = 0;
        uint64_t length = 0;
        std::function<uint8_t(uint64_t address)> read;
        std::function<void(uint64_t address, uint8_t value)> write;
    };

    PhysicalMemory() = default;
    ~PhysicalMemory();
    PhysicalMemory(const PhysicalMemory&) = delete;
    PhysicalMemory& operator=(const PhysicalMemory&) = delete;

    void Add(uint64_t physical, Bytes content);
    void Clear();
    /// Replaces the register ranges.
    void SetRegisters(std::vector<RegisterRange> ranges);

    /// As read(2) and write(2) at an address. -1 with EFAULT where there is no memory.
    ssize_t Read(uint64_t physical, void* buffer, size_t length);
    ssize_t Write(uint64_t physical, const void* buffer, size_t length);
    /// As mmap(2): a copy of the range followed by a page that cannot be accessed. MAP_FAILED with errno, EPERM where
    /// nothing of the range exists.
    void* Map(uint64_t physical, size_t length, bool writable);
    int Unmap(void* address, size_t length);
    size_t OpenMaps() const;

private:
    struct Mapping {
        uint64_t physical;
        size_t length;
        bool writable;
        bool trapped;
    };
    bool HasRegister(uint64_t physical, size_t length) const;
    /// One byte, by way of its register where it is one.
    uint8_t Load(uint64_t physical);
    void Store(uint64_t physical, uint8_t value);
    bool Exists(uint64_t physical, size_t length) const;
    void CopyOut(uint64_t physical, uint8_t* to, size_t length) const;
    void CopyIn(uint64_t physical, const uint8_t* from, size_t length);

    mutable std::mutex mutex_;  // guards everything below
    std::map<uint64_t, Bytes> blocks_;
    std::vector<RegisterRange> registers_;
    std::map<void*, Mapping> mappings_;
};

}  // namespace sim
