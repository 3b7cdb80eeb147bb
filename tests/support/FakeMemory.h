#pragma once
/// @file
/// Physical memory made of blocks, in place of the machine's devices for the life of the object. Strict: what a mapping
/// does not cover is guarded by the heap (AddressSanitizer, valgrind), and reads outside all blocks fail.

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "libplatform/KvDeviceOps.h"

class FakeMemory {
public:
    using Bytes = std::vector<uint8_t>;

    FakeMemory() {
        ops_.context = this;
        ops_.open = [](void* self, const char* path, int /*flags*/) { return Self(self).Open(path); };
        ops_.close = [](void* self, int /*fd*/) { return --Self(self).openNow, 0; };
        ops_.seek = [](void* self, int /*fd*/, int64_t offset) { return Self(self).position_ = offset; };
        ops_.read = [](void* self, int /*fd*/, void* buffer, size_t length) { return Self(self).Read(buffer, length); };
        ops_.map = [](void* self, int /*fd*/, int64_t offset, size_t length, int /*writable*/) {
            return Self(self).Map(offset, length);
        };
        ops_.unmap = [](void* self, void* address, size_t /*length*/) {
            --Self(self).mappedNow;
            delete[] static_cast<uint8_t*>(address);
            return 0;
        };
        ops_.ioctl = [](void* self, int /*fd*/, unsigned long request, void* argument) {
            return Self(self).Ioctl(request, static_cast<uint32_t*>(argument));
        };
        KvSetDeviceOps(&ops_);
    }
    ~FakeMemory() { KvSetDeviceOps(nullptr); }
    FakeMemory(const FakeMemory&) = delete;
    FakeMemory& operator=(const FakeMemory&) = delete;

    void Put(uint64_t address, Bytes bytes) { blocks_[address] = std::move(bytes); }
    void Put(const std::map<uint64_t, Bytes>& blocks) {
        for (const auto& [address, bytes] : blocks)
            Put(address, bytes);
    }
    void Clear() { blocks_.clear(); }

    std::map<std::string, int> opens;  ///< by path
    int openNow = 0;
    int mappedNow = 0;
    int failOpen = 0;          ///< errno of openings, when not 0
    int interruptions = 0;     ///< reads that a signal ends before they begin
    size_t atMost = SIZE_MAX;  ///< bytes that one read gives

private:
    static FakeMemory& Self(void* self) { return *static_cast<FakeMemory*>(self); }

    int Open(const char* path) {
        ++opens[path];
        errno = failOpen;
        if (failOpen != 0) return -1;
        ++openNow;
        return 100;
    }

    /// The bytes of a range; firmware's area below 1 MiB reads as zero where nothing was put.
    bool Copy(uint64_t address, uint8_t* to, size_t length) const {
        bool known = address + length <= 0x100000;
        std::fill_n(to, length, uint8_t{0});
        for (const auto& [start, bytes] : blocks_) {
            const uint64_t first = std::max(start, address);
            const uint64_t last = std::min(start + bytes.size(), address + length);
            if (first >= last) continue;
            known = true;
            memcpy(to + (first - address), bytes.data() + (first - start), static_cast<size_t>(last - first));
        }
        return known;
    }

    ssize_t Read(void* buffer, size_t length) {
        errno = EINTR;
        if (interruptions > 0) return --interruptions, -1;
        const size_t count = std::min(length, atMost);
        errno = EFAULT;
        if (!Copy(static_cast<uint64_t>(position_), static_cast<uint8_t*>(buffer), count)) return -1;
        position_ += static_cast<int64_t>(count);
        return static_cast<ssize_t>(count);
    }

    void* Map(int64_t offset, size_t length) {
        auto* const copy = new uint8_t[length];
        if (offset % 4096 == 0 && Copy(static_cast<uint64_t>(offset), copy, length)) return ++mappedNow, copy;
        delete[] copy;
        errno = offset % 4096 == 0 ? EPERM : EINVAL;
        return MAP_FAILED;
    }

    int Ioctl(unsigned long request, const uint32_t* block) {
        errno = ENOTTY;
        if (request != 0x80044501) return -1;
        errno = EFAULT;
        return Copy(block[1], reinterpret_cast<uint8_t*>(block[2]), block[3]) ? 0 : -1;
    }

    KvDeviceOps ops_ = {};
    std::map<uint64_t, Bytes> blocks_;
    int64_t position_ = 0;
};
