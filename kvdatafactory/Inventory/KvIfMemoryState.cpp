// What is remembered of memory while the agent runs.
#include "kvdatafactory/Inventory/KvIfMemoryState.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"

namespace {

// Counted by whoever polls events, read by any thread.
std::atomic<unsigned long> g_dwEcc1ErrCount{0};
std::atomic<unsigned long> g_totalMemorySize{0};

std::mutex g_oldMemoryMutex;  // guards the two below
KVDF_TMP_MEMORY* g_oldMemory = nullptr;
unsigned long g_dwMemCount = 0;

void ReplaceOldMemory(std::unique_ptr<KVDF_TMP_MEMORY[]> records, unsigned long count) {
    const std::lock_guard lock(g_oldMemoryMutex);
    delete[] std::exchange(g_oldMemory, records.release());
    g_dwMemCount = count;
}

}  // namespace

unsigned long KvIfGetEcc1ErrorCount() {
    return g_dwEcc1ErrCount;
}

void KvIfSetEcc1ErrorCount(unsigned long count) {
    g_dwEcc1ErrCount = count;
}

void KvIfIncrementEcc1ErrorCount() {
    ++g_dwEcc1ErrCount;
}

uint32_t KvIfSetOldMemory(unsigned long count, const KVDF_TMP_MEMORY* records) {
    ReplaceOldMemory(nullptr, 0);
    if (count == 0 || records == nullptr) return 0;
    std::unique_ptr<KVDF_TMP_MEMORY[]> copy(new (std::nothrow) KVDF_TMP_MEMORY[count]);
    if (copy == nullptr) return PXR_ReportError(MakeResult(fn::kSetOldMemory, Reason::OutOfMemory));
    std::copy_n(records, count, copy.get());
    ReplaceOldMemory(std::move(copy), count);
    return 0;
}

KVDF_TMP_MEMORY* KvIfGetOldMemory() {
    const std::lock_guard lock(g_oldMemoryMutex);
    return g_oldMemory;
}

unsigned long KvIfGetOldMemoryCount() {
    const std::lock_guard lock(g_oldMemoryMutex);
    return g_dwMemCount;
}

void KvIfDeleteOldMemory() {
    ReplaceOldMemory(nullptr, 0);
}

uint32_t KvIfGetOldMemorySize(unsigned long count, const KVDF_TMP_MEMORY* old, const KVDF_MEMSOCKET* socket,
                              unsigned long* size) {
    constexpr uint32_t kNull = MakeResult(fn::kGetOldMemorySize, Reason::NullArgument);
    static_assert(kNull == 0x609C4201);
    if (socket == nullptr || size == nullptr) return PXR_ReportError(kNull);
    *size = socket->size;
    for (unsigned long i = 0; old != nullptr && i < count; ++i) {
        if (old[i].array != socket->array || old[i].socket != socket->number) continue;
        *size = old[i].size;
        break;
    }
    return 0;
}

unsigned long KvIfOldMemorySizeOf(const KVDF_MEMSOCKET& socket) {
    unsigned long size = 0;
    const std::lock_guard lock(g_oldMemoryMutex);
    KvIfGetOldMemorySize(g_dwMemCount, g_oldMemory, &socket, &size);
    return size;
}

void KvIfSetTotalMemorySize(unsigned long size) {
    g_totalMemorySize = size;
}

unsigned long KvIfGetTotalMemorySize() {
    return g_totalMemorySize;
}
