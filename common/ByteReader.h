#pragma once
/// @file
/// Reads little-endian fields off the front of bytes that hardware or a file supplied.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

/// After the first read past the end every further one gives 0, and Ok() tells: a decoder is a plain list of fields
/// with one test at its end.
class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : rest_(bytes) {}

    uint8_t U8() { return static_cast<uint8_t>(Take(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Take(2)); }
    uint32_t U32() { return static_cast<uint32_t>(Take(4)); }

    /// Fills out as far as the bytes go, zeroes behind them.
    void Bytes(std::span<uint8_t> out) {
        const size_t count = std::min(out.size(), rest_.size());
        std::copy_n(rest_.begin(), count, out.begin());
        std::fill(out.begin() + static_cast<ptrdiff_t>(count), out.end(), uint8_t{0});
        ok_ = ok_ && count == out.size();
        rest_ = rest_.subspan(count);
    }

    std::span<const uint8_t> Rest() const { return rest_; }
    bool AtEnd() const { return rest_.empty(); }
    bool Ok() const { return ok_; }

private:
    uint32_t Take(size_t size) {
        if (rest_.size() < size) {
            ok_ = false;
            rest_ = {};
            return 0;
        }
        uint32_t value = 0;
        for (size_t i = size; i-- > 0;)
            value = value << 8 | rest_[i];
        rest_ = rest_.subspan(size);
        return value;
    }

    std::span<const uint8_t> rest_;
    bool ok_ = true;
};

/// A field at an offset; 0 where the bytes end before.
inline uint16_t U16At(std::span<const uint8_t> bytes, size_t offset) {
    return ByteReader(bytes.subspan(std::min(offset, bytes.size()))).U16();
}
inline uint32_t U32At(std::span<const uint8_t> bytes, size_t offset) {
    return ByteReader(bytes.subspan(std::min(offset, bytes.size()))).U32();
}
