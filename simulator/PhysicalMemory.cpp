#include "simulator/PhysicalMemory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "simulator/RegisterTrap.h"

namespace sim {
namespace {

constexpr uint64_t kFirstMegabyte = 0x100000;
constexpr size_t kPage = 4096;

bool Overlap(uint64_t a, uint64_t aLength, uint64_t b, uint64_t bLength) {
    return a < b + bLength && b < a + aLength;
}

}  // namespace

PhysicalMemory::~PhysicalMemory() {
    while (!mappings_.empty())
        Unmap(mappings_.begin()->first, mappings_.begin()->second.length);
}

void PhysicalMemory::Add(uint64_t physical, Bytes content) {
    const std::lock_guard lock(mutex_);
    blocks_[physical] = std::move(content);
}

void PhysicalMemory::Clear() {
    const std::lock_guard lock(mutex_);
    blocks_.clear();
}

void PhysicalMemory::SetRegisters(std::vector<RegisterRange> ranges) {
    const std::lock_guard lock(mutex_);
    registers_ = std::move(ranges);
}

bool PhysicalMemory::HasRegister(uint64_t physical, size_t length) const {
    return std::any_of(registers_.begin(), registers_.end(), [&](const RegisterRange& range) {
        return Overlap(range.first, range.length, physical, length);
    });
}

bool PhysicalMemory::Exists(uint64_t physical, size_t length) const {
    if (physical < kFirstMegabyte || HasRegister(physical, length)) return true;
    return std::any_of(blocks_.begin(), blocks_.end(),
                       [&](const auto& block) { return Overlap(block.first, block.second.size(), physical, length); });
}

void PhysicalMemory::CopyOut(uint64_t physical, uint8_t* to, size_t length) const {
    std::memset(to, 0, length);
    for (const auto& [start, content] : blocks_) {
        const uint64_t first = std::max(start, physical);
        const uint64_t end = std::min<uint64_t>(start + content.size(), physical + length);
        if (first >= end) continue;
        std::memcpy(to + (first - physical), content.data() + (first - start), static_cast<size_t>(end - first));
    }
}

void PhysicalMemory::CopyIn(uint64_t physical, const uint8_t* from, size_t length) {
    for (auto& [start, content] : blocks_) {
        const uint64_t first = std::max(start, physical);
        const uint64_t end = std::min<uint64_t>(start + content.size(), physical + length);
        if (first >= end) continue;
        std::memcpy(content.data() + (first - start), from + (first - physical), static_cast<size_t>(end - first));
    }
}

/// Register functions are called without the lock: they lead to the BMC and to hooks.
uint8_t PhysicalMemory::Load(uint64_t physical) {
    std::unique_lock lock(mutex_);
    for (const RegisterRange& range : registers_) {
        if (!Overlap(range.first, range.length, physical, 1)) continue;
        const auto read = range.read;
        lock.unlock();
        return read(physical);
    }
    uint8_t value = 0;
    CopyOut(physical, &value, 1);
    return value;
}

void PhysicalMemory::Store(uint64_t physical, uint8_t value) {
    std::unique_lock lock(mutex_);
    for (const RegisterRange& range : registers_) {
        if (!Overlap(range.first, range.length, physical, 1)) continue;
        const auto write = range.write;
        lock.unlock();
        write(physical, value);
        return;
    }
    CopyIn(physical, &value, 1);
}

ssize_t PhysicalMemory::Read(uint64_t physical, void* buffer, size_t length) {
    auto* to = static_cast<uint8_t*>(buffer);
    for (size_t done = 0; done < length; ++done) {
        {
            const std::lock_guard lock(mutex_);
            if (!Exists(physical + done, 1)) {
                errno = EFAULT;
                return done > 0 ? static_cast<ssize_t>(done) : -1;
            }
        }
        to[done] = Load(physical + done);
    }
    return static_cast<ssize_t>(length);
}

ssize_t PhysicalMemory::Write(uint64_t physical, const void* buffer, size_t length) {
    const auto* from = static_cast<const uint8_t*>(buffer);
    for (size_t done = 0; done < length; ++done) {
        {
            const std::lock_guard lock(mutex_);
            if (!Exists(physical + done, 1)) {
                errno = EFAULT;
                return done > 0 ? static_cast<ssize_t>(done) : -1;
            }
        }
        Store(physical + done, from[done]);
    }
    return static_cast<ssize_t>(length);
}

void* PhysicalMemory::Map(uint64_t physical, size_t length, bool writable) {
    if (length == 0 || physical % kPage != 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    const size_t pages = (length + kPage - 1) / kPage * kPage;
    const std::lock_guard lock(mutex_);
    if (!Exists(physical, pages)) {
        errno = EPERM;
        return MAP_FAILED;
    }
    // The page behind the range is never opened: an access beyond what was asked for ends the test there and then.
    void* base = mmap(nullptr, pages + kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return base;
    mprotect(base, pages, PROT_READ | PROT_WRITE);
    const bool trapped = HasRegister(physical, pages);
    if (trapped) {
        ArmRegisterTrap(
            base, pages, [this, physical](size_t offset) { return Load(physical + offset); },
            [this, physical](size_t offset, uint8_t value) { Store(physical + offset, value); });
    } else {
        CopyOut(physical, static_cast<uint8_t*>(base), pages);
        if (!writable) mprotect(base, pages, PROT_READ);
    }
    mappings_[base] = {physical, pages, writable, trapped};
    return base;
}

int PhysicalMemory::Unmap(void* address, size_t length) {
    const std::lock_guard lock(mutex_);
    const auto found = mappings_.find(address);
    if (found == mappings_.end() || (length + kPage - 1) / kPage * kPage != found->second.length) {
        errno = EINVAL;
        return -1;
    }
    const Mapping mapping = found->second;
    mappings_.erase(found);
    if (mapping.trapped)
        DisarmRegisterTrap(address);
    else if (mapping.writable)
        CopyIn(mapping.physical, static_cast<const uint8_t*>(address), mapping.length);
    return munmap(address, mapping.length + kPage);
}

size_t PhysicalMemory::OpenMaps() const {
    const std::lock_guard lock(mutex_);
    return mappings_.size();
}

}  // namespace sim
