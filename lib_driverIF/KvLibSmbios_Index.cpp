// The index of the structures: the walk over the table, sorting and searching.

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <optional>

#include "common/ByteReader.h"
#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

// A structure begins with type, length of the formatted area and handle.
constexpr size_t kTypeOffset = 0;
constexpr size_t kLengthOffset = 1;
constexpr size_t kHandleOffset = 2;
constexpr size_t kStructureHeaderSize = 4;

constexpr uint8_t kEndOfTableType = 127;
/// What a structure counts as whose strings do not end inside the table.
constexpr size_t kUnterminatedSize = 12;

constexpr uint8_t kDoubleNul[] = {0, 0};
constexpr uint8_t kDoubleNulSkip[] = {1, 2};

struct Extent {
    size_t size;  ///< up to and including the NUL of the last string
    size_t next;  ///< where the next structure begins; 0: there is none to be found
};

/// How far the structure goes that the bytes begin with. Nothing when its formatted area is not all there.
std::optional<Extent> Measure(std::span<const uint8_t> rest) {
    if (rest.size() < kStructureHeaderSize) return std::nullopt;
    const size_t formatted = rest[kLengthOffset];
    if (formatted < kStructureHeaderSize || formatted > rest.size()) return std::nullopt;
    const sb::Pattern doubleNul = {kDoubleNul, kDoubleNulSkip};
    const ptrdiff_t end = sb_search_string(rest, formatted, doubleNul, sizeof(kDoubleNul));
    if (end < 0) return Extent{std::min(kUnterminatedSize, rest.size()), 0};
    const auto distance = static_cast<size_t>(end);
    return Extent{distance == formatted ? distance : distance + 1, distance + sizeof(kDoubleNul)};
}

void TraceNoData(uint32_t number) {
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_EVENT, "The %dth table has no data.\n", static_cast<int>(number));
}

void TraceStructure(uint32_t number, std::span<const uint8_t> bytes) {
    const int size = static_cast<int>(bytes.size());
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_CALL, "%d: Table Type %d has %d(0x%x)Bytes.\n",
              static_cast<int>(number), bytes[kTypeOffset], size, static_cast<unsigned>(size));
    PXR_mem_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_CALL, "", bytes.data(), size);
}

/// Notes the structures of a table one after the other. @return how many
uint32_t Walk(std::span<const uint8_t> table, uint32_t address, std::span<smbios_table_entry> index,
              bool stopAtMarker) {
    size_t at = 0;
    for (uint32_t number = 0; number < index.size(); ++number) {
        const std::span<const uint8_t> rest = table.subspan(at);
        const std::optional<Extent> extent = Measure(rest);
        if (!extent) {
            TraceNoData(number);
            return number;
        }
        const size_t size = std::min<size_t>(extent->size, UINT16_MAX);
        index[number] = {address + static_cast<uint32_t>(at), rest[kTypeOffset], static_cast<uint16_t>(size),
                         U16At(rest, kHandleOffset)};
        TraceStructure(number, rest.first(size));
        if (extent->next == 0) {
            TraceNoData(number);
            return number + 1;
        }
        if (stopAtMarker && rest[kTypeOffset] == kEndOfTableType) return number + 1;
        at += extent->next;
    }
    return static_cast<uint32_t>(index.size());
}

template <typename T>
int Order(T a, T b) {
    return a < b ? -1 : static_cast<int>(a > b);
}

/// By type, then handle. Firmware that gives a handle twice gets the order of the table.
int CompareEntries(const void* a, const void* b) {
    const auto& left = *static_cast<const smbios_table_entry*>(a);
    const auto& right = *static_cast<const smbios_table_entry*>(b);
    if (left.type != right.type) return Order(left.type, right.type);
    if (left.handle != right.handle) return Order(left.handle, right.handle);
    return Order(left.address, right.address);
}

/// Lets the element at `at` sink in a heap whose largest element is the first.
void SiftDown(uint8_t* base, uint32_t at, uint32_t count, uint32_t size, sb::Compare compare) {
    while (true) {
        uint32_t child = 2 * at + 1;
        if (child >= count) return;
        if (child + 1 < count && compare(base + child * size, base + (child + 1) * size) < 0) ++child;
        if (compare(base + at * size, base + child * size) >= 0) return;
        std::swap_ranges(base + at * size, base + (at + 1) * size, base + child * size);
        at = child;
    }
}

}  // namespace

void hsort(void* base, uint32_t count, uint32_t size, sb::Compare compare) {
    auto* const bytes = static_cast<uint8_t*>(base);
    for (uint32_t at = count / 2; at > 0; --at)
        SiftDown(bytes, at - 1, count, size, compare);
    for (uint32_t last = count; last > 1; --last) {
        std::swap_ranges(bytes, bytes + size, bytes + (last - 1) * size);
        SiftDown(bytes, 0, last - 1, size, compare);
    }
}

void* bsrch(const void* key, const void* base, uint32_t count, uint32_t size, sb::Compare compare) {
    const auto* const bytes = static_cast<const uint8_t*>(base);
    uint32_t low = 0;
    for (uint32_t high = count; low < high;) {
        const uint32_t middle = low + (high - low) / 2;
        if (compare(bytes + middle * size, key) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    if (low == count || compare(bytes + low * size, key) != 0) return nullptr;
    return const_cast<uint8_t*>(bytes + low * size);
}

int sb::IndexTable(std::span<const uint8_t> table, uint32_t address, uint32_t count, bool stopAtMarker) {
    std::unique_ptr<smbios_table_entry[]> index(new (std::nothrow) smbios_table_entry[count]);
    if (index == nullptr) return sb::Error(-ENOMEM);
    const uint32_t found = Walk(table, address, {index.get(), count}, stopAtMarker);
    if (found == 0) return 0;
    hsort(index.get(), found, sizeof(smbios_table_entry), CompareEntries);
    smbios_tableinfo = index.release();
    smbios_tablecnt = found;
    return 0;
}

int sb_set_tableinfo() {
    const std::span<const uint8_t> header = smbios_header;
    const uint32_t length = U16At(header, entry_point::kTableLength);
    const uint32_t address = U32At(header, entry_point::kTableAddress);
    const std::unique_ptr<uint8_t[]> table(new (std::nothrow) uint8_t[length]);
    if (table == nullptr) return sb::Error(-ENOMEM);
    const uint32_t got = ReadMem(table.get(), address, length);
    if (got == 0) return sb::Error(-EIO);
    return sb::IndexTable({table.get(), got}, address, U16At(header, entry_point::kStructureCount), false);
}

uint32_t sb::LargestStructure() {
    uint32_t largest = 0;
    for (uint32_t i = 0; i < smbios_tablecnt; ++i)
        largest = std::max<uint32_t>(largest, smbios_tableinfo[i].size);
    return largest;
}
