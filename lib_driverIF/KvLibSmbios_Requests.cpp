// The requests: entry point and sizes, structures, slots of the PCI interrupt routing table.

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/ByteReader.h"
#include "common/Checksum.h"
#include "common/PXR_texts.h"
#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

// ---- SMBIOS_GETINFO ----

int CopyOut(void* buffer, uint32_t capacity, const void* data, uint32_t size) {
    const uint32_t length = std::min(capacity, size);
    if (length == 0) return 0;
    if (buffer == nullptr) return sb::Error(-EINVAL);
    memcpy(buffer, data, length);
    return 0;
}

int GetInfo(smbios_getinfo_block& block) {
    if (smbios_major == 0) return sb::Error(-EIO);
    const uint32_t capacity = block.size;
    if (block.mode == SMBIOS_INFO_ENTRY_POINT) {
        block.size = smbios_headsize;
        return CopyOut(block.buffer, capacity, smbios_header, std::min<uint32_t>(smbios_headsize, kSmbiosHeaderSize));
    }
    if (block.mode == SMBIOS_INFO_MAX_SIZE) {
        const uint32_t largest = std::max<uint32_t>(smbios_headsize, sb::LargestStructure());
        const uint32_t slot = (largest + SMBIOS_SLOT_HEADER + 3) / 4 * 4;
        block.size = sizeof(slot);
        return CopyOut(block.buffer, capacity, &slot, sizeof(slot));
    }
    block.status = SMBIOS_STATUS_MODE;
    return 0;
}

// ---- SMBIOS_GETTABLE ----

int CompareTypes(const void* a, const void* b) {
    const uint32_t left = static_cast<const smbios_table_entry*>(a)->type;
    const uint32_t right = static_cast<const smbios_table_entry*>(b)->type;
    return left < right ? -1 : static_cast<int>(left > right);
}

int CompareTypesAndHandles(const void* a, const void* b) {
    if (const int order = CompareTypes(a, b)) return order;
    return static_cast<const smbios_table_entry*>(a)->handle - static_cast<const smbios_table_entry*>(b)->handle;
}

const smbios_table_entry* Find(uint16_t type, uint16_t handle, sb::Compare compare) {
    const smbios_table_entry key = {0, type, 0, handle};
    return static_cast<const smbios_table_entry*>(bsrch(&key, smbios_tableinfo, smbios_tablecnt, sizeof(key), compare));
}

/// The structure with a 1-based index, counted from the first one of the type. Null when there are not so many.
const smbios_table_entry* Advance(const smbios_table_entry* first, uint32_t index) {
    const auto left = static_cast<uint32_t>(smbios_tableinfo + smbios_tablecnt - first);
    if (index == 0 || index > left || first[index - 1].type != first->type) return nullptr;
    return first + (index - 1);
}

uint32_t CountOfType(const smbios_table_entry* first) {
    const smbios_table_entry* const end = smbios_tableinfo + smbios_tablecnt;
    const auto differs = [first](const smbios_table_entry& entry) { return entry.type != first->type; };
    return static_cast<uint32_t>(std::find_if(first, end, differs) - first);
}

int CopyStructure(const smbios_table_entry& entry, smbios_gettable_block& block) {
    const uint32_t length = std::min<uint32_t>(entry.size, block.size);
    if (length != 0 && block.buffer == nullptr) return sb::Error(-EINVAL);
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL, "Get Table Type %d.\n", static_cast<int>(entry.type));
    if (length != 0) {
        if (const int error = sb_cp_rmem2vmem(block.buffer, entry.address, length)) return error;
    }
    block.size = entry.size;
    return 0;
}

int FillSlot(const smbios_table_entry& entry, uint8_t* slot, uint32_t slotSize) {
    memset(slot, 0, SMBIOS_SLOT_HEADER);
    memcpy(slot, &entry.size, sizeof(entry.size));
    const uint32_t length = std::min<uint32_t>(entry.size, slotSize - SMBIOS_SLOT_HEADER);
    return length != 0 ? sb_cp_rmem2vmem(slot + SMBIOS_SLOT_HEADER, entry.address, length) : 0;
}

int GetRun(const smbios_table_entry* first, smbios_gettable_block& block) {
    if (block.buffer == nullptr || block.size < SMBIOS_SLOT_HEADER) return sb::Error(-EINVAL);
    uint32_t filled = 0;
    auto* slot = static_cast<uint8_t*>(block.buffer);
    while (filled < block.count) {
        const smbios_table_entry* const entry = Advance(first, uint32_t{block.index} + filled);
        if (entry == nullptr) break;
        if (const int error = FillSlot(*entry, slot, block.size)) return error;
        slot += block.size;
        ++filled;
    }
    block.count = filled;
    if (filled == 0) block.status = SMBIOS_STATUS_INDEX;
    return 0;
}

int GetByIndex(const smbios_table_entry* first, smbios_gettable_block& block) {
    if (block.index == 0) {
        const uint32_t capacity = block.size;
        const uint32_t count = CountOfType(first);
        block.size = sizeof(count);
        return CopyOut(block.buffer, capacity, &count, sizeof(count));
    }
    const smbios_table_entry* const entry = Advance(first, block.index);
    if (entry != nullptr) return CopyStructure(*entry, block);
    block.status = SMBIOS_STATUS_INDEX;
    return 0;
}

int GetByHandle(smbios_gettable_block& block) {
    const smbios_table_entry* const entry = Find(block.type, block.index, CompareTypesAndHandles);
    if (entry != nullptr) return CopyStructure(*entry, block);
    block.status = SMBIOS_STATUS_INDEX;
    return 0;
}

int GetTable(smbios_gettable_block& block) {
    if (smbios_major == 0) return sb::Error(-EIO);
    if (block.mode < SMBIOS_TABLE_RUN || block.mode > SMBIOS_TABLE_BY_HANDLE) {
        block.status = SMBIOS_STATUS_MODE;
        return 0;
    }
    const smbios_table_entry* const first = Find(block.type, 0, CompareTypes);
    if (first == nullptr) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL, "Table Type %d not found.\n", block.type);
        block.status = SMBIOS_STATUS_TYPE;
        return 0;
    }
    if (block.mode == SMBIOS_TABLE_RUN) return GetRun(first, block);
    return block.mode == SMBIOS_TABLE_BY_INDEX ? GetByIndex(first, block) : GetByHandle(block);
}

// ---- SMBIOS_GETPCI ----

constexpr uint32_t kRoutingArea = 0xF0000;
constexpr uint32_t kRoutingAreaSize = 0xFFFF;
constexpr uint8_t kRoutingSignature[] = {'$', 'P', 'I', 'R'};
constexpr uint8_t kRoutingSkip[] = {1, 1, 2, 3};
constexpr size_t kRoutingSizeOffset = 6;
constexpr size_t kRoutingHeaderSize = 32;
constexpr ptrdiff_t kSkipAfterRejected = 3;

/// As many bytes as the table says that it has which the bytes begin with. Empty when that cannot be.
std::span<const uint8_t> RoutingTableAt(std::span<const uint8_t> bytes) {
    const size_t size = U16At(bytes, kRoutingSizeOffset);
    return size < kRoutingHeaderSize || size > bytes.size() ? std::span<const uint8_t>{} : bytes.first(size);
}

/// Empty when there is none. Firmware has the signature in its code as well, which is how it finds the table: only where
/// no table is sound, a wrong checksum is the administrator's concern.
std::span<const uint8_t> FindRoutingTable(std::span<const uint8_t> area) {
    const sb::Pattern signature = {kRoutingSignature, kRoutingSkip};
    bool damaged = false;
    for (ptrdiff_t at = 0, from = 0; at >= 0; from = at + kSkipAfterRejected) {
        at = sb_search_string(area, static_cast<size_t>(from), signature, kRoutingHeaderSize + 1);
        if (at < 0) break;
        const std::span<const uint8_t> table = RoutingTableAt(area.subspan(static_cast<size_t>(at)));
        if (table.empty()) continue;
        if (IsSumZero(table)) return table;
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "$PIR table has a bad checksum.\n");
        damaged = true;
    }
    if (damaged) texts::Log<texts::Id::RoutingTableChecksum>(LOG_ERR, "PCIBIOS");
    return {};
}

void TraceSlots(std::span<const uint8_t> entries) {
    for (; entries.size() >= SMBIOS_PCI_ENTRY_SIZE; entries = entries.subspan(SMBIOS_PCI_ENTRY_SIZE)) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL, "bus=0x%02x device=0x%02x slot=%d\n", entries[0],
                  entries[1] >> 3, entries[14]);
    }
}

int GetPci(smbios_getpci_block& block) {
    if (block.mode != SMBIOS_PCI_SLOTS) {
        block.status = SMBIOS_STATUS_MODE;
        return 0;
    }
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kRoutingAreaSize]());
    if (buffer == nullptr) return sb::Error(-ENOMEM);
    if (ReadMem(buffer.get(), kRoutingArea, kRoutingAreaSize) == 0) return sb::Error(-EIO);
    const std::span<const uint8_t> table = FindRoutingTable({buffer.get(), kRoutingAreaSize});
    if (table.empty()) return sb::Error(-EIO);

    const auto present = static_cast<uint32_t>((table.size() - kRoutingHeaderSize) / SMBIOS_PCI_ENTRY_SIZE);
    const uint32_t count = std::min(present, block.capacity / SMBIOS_PCI_ENTRY_SIZE);
    const std::span<const uint8_t> entries = table.subspan(kRoutingHeaderSize, count * SMBIOS_PCI_ENTRY_SIZE);
    if (const int error =
            CopyOut(block.buffer, block.capacity, entries.data(), static_cast<uint32_t>(entries.size()))) {
        return error;
    }
    TraceSlots(entries);
    block.count = count;
    return 0;
}

template <typename Block>
int Serve(int (*request)(Block&), void* block, int copyMode) {
    constexpr int kPrivateCopy = 1;
    if (block == nullptr) return sb::Error(-EINVAL);
    Block copy;
    memcpy(&copy, block, sizeof(copy));
    Block& work = copyMode == kPrivateCopy ? copy : *static_cast<Block*>(block);
    work.status = SMBIOS_STATUS_OK;
    const int error = request(work);
    if (error == 0 && copyMode == kPrivateCopy) memcpy(block, &copy, sizeof(copy));
    return error;
}

}  // namespace

int sb_ioctl(uint32_t code, void* block, int copyMode) {
    switch (code) {
        case SMBIOS_GETINFO:
            PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_CALL, "ioctl:call SMBIOS_GETINFO\n");
            return Serve(GetInfo, block, copyMode);
        case SMBIOS_GETTABLE:
            PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_CALL, "ioctl:call SMBIOS_GETTABLE\n");
            return Serve(GetTable, block, copyMode);
        case SMBIOS_GETPCI:
            PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_CALL, "ioctl:call SMBIOS_GETPCI\n");
            return Serve(GetPci, block, copyMode);
        default:
            PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "ioctl:unknown(%d)\n", static_cast<int>(code));
            return sb::Error(-EINVAL);
    }
}

int smbios_getinfo(uint32_t code, void* block) {
    return sb_ioctl(code, block, 2);
}

int smbios_ioctl(uint32_t code, void* block) {
    return sb_ioctl(code, block, 1);
}
