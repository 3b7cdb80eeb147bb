// Start-up copy of the SMBIOS structures.

#include "lib_driverIF/KvPltfSvcSmbiosMain.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "cover/Heap.h"
#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr uint32_t kCallFailed = 0x10000000;
constexpr uint32_t kStatusFailed = 0x20000000;
constexpr uint32_t kNoMemory = 0x30000001;

/// Zero bytes behind the data of a record: a reader of a field that a short structure does not have finds zeroes.
constexpr uint32_t kRecordPadding = 64;

/// What is asked for at once: slots are as large as the largest structure, of whatever type that is.
constexpr uint32_t kBatchBytes = 256 * 1024;

/// What a request came back with, as one value: 0 when both the call and its status are good.
uint32_t Outcome(int result, int32_t status) {
    if (result != 0) return static_cast<uint32_t>(result) | kCallFailed;
    if (status != SMBIOS_STATUS_OK) return static_cast<uint32_t>(status) | kStatusFailed;
    return 0;
}

uint32_t GetInfo(uint32_t mode, void* buffer, uint32_t size) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "SMBIOS_GETINFO call");
    smbios_getinfo_block block = {};
    block.mode = mode;
    block.buffer = buffer;
    block.size = size;
    const int result = smbios_ioctl(SMBIOS_GETINFO, &block);
    const uint32_t outcome = Outcome(result, block.status);
    if (outcome != 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "SMBIOS_GETINFO failed. 0x%08x", outcome);
    } else {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "SMBIOS_GETINFO success.");
    }
    return outcome;
}

uint32_t TableFailed(uint32_t outcome) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "SMBIOS_GETTABLE failed. 0x%08x", outcome);
    return outcome;
}

uint32_t CountType(uint32_t type, uint32_t* count) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_FINE, "SMBIOS_GETTABLE call");
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_FINE, "SMBIOS TYPE(%u)\n", type);
    *count = 0;
    smbios_gettable_block block = {};
    block.mode = SMBIOS_TABLE_BY_INDEX;
    block.type = static_cast<uint16_t>(type);
    block.buffer = count;
    block.size = sizeof(*count);
    const int result = smbios_ioctl(SMBIOS_GETTABLE, &block);
    const bool absent = result == 0 && block.status == SMBIOS_STATUS_TYPE;
    if (const uint32_t outcome = absent ? 0 : Outcome(result, block.status)) return TableFailed(outcome);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_FINE, "number of data %u\n", *count);
    return 0;
}

/// Makes a record of a structure in a slot, cut to what the slot holds. Null when memory runs out.
KVPS_SMBIOS_TPHEAD* MakeRecord(const uint8_t* slot, uint32_t slotSize) {
    uint16_t claimed = 0;
    memcpy(&claimed, slot, sizeof(claimed));
    const uint32_t size = std::min<uint32_t>(claimed, slotSize - SMBIOS_SLOT_HEADER);
    const auto dataSize = static_cast<uint32_t>(size + sizeof(uint32_t));
    auto* const bytes = static_cast<uint8_t*>(calloc(1, dataSize + kRecordPadding));
    if (bytes == nullptr) return nullptr;
    memcpy(bytes, &dataSize, sizeof(dataSize));
    memcpy(bytes + sizeof(dataSize), slot + SMBIOS_SLOT_HEADER, size);
    return reinterpret_cast<KVPS_SMBIOS_TPHEAD*>(bytes);
}

/// Room for some structures of a type, each as a slot.
struct Batch {
    HeapOwned<uint8_t> slots;
    uint32_t slotSize;
    uint32_t count;
};

/// Copies the structures that come next, as many as the batch holds.
uint32_t CopyNext(uint32_t type, const Batch& batch) {
    SmbiosTypeData& data = g_SmbiosData[type];
    smbios_gettable_block block = {};
    block.mode = SMBIOS_TABLE_RUN;
    block.type = static_cast<uint16_t>(type);
    block.index = static_cast<uint16_t>(data.count + 1);
    block.buffer = batch.slots.get();
    block.size = batch.slotSize;
    block.count = batch.count;
    const int result = smbios_ioctl(SMBIOS_GETTABLE, &block);
    if (const uint32_t outcome = Outcome(result, block.status)) return TableFailed(outcome);
    for (uint32_t i = 0; i < std::min(block.count, batch.count); ++i) {
        KVPS_SMBIOS_TPHEAD* const record = MakeRecord(batch.slots.get() + i * batch.slotSize, batch.slotSize);
        if (record == nullptr) return kNoMemory;
        data.records[data.count++] = record;
        ++g_dwStructCount;
    }
    return 0;
}

uint32_t CopyType(uint32_t type, uint32_t count, uint32_t slotSize) {
    SmbiosTypeData& data = g_SmbiosData[type];
    Batch batch = {nullptr, slotSize, std::clamp(kBatchBytes / slotSize, 1U, count)};
    batch.slots.reset(static_cast<uint8_t*>(calloc(batch.count, slotSize)));
    data.records = static_cast<KVPS_SMBIOS_TPHEAD**>(calloc(count, sizeof(KVPS_SMBIOS_TPHEAD*)));
    if (batch.slots == nullptr || data.records == nullptr) return kNoMemory;
    while (data.count < count) {
        batch.count = std::min(batch.count, count - data.count);
        if (const uint32_t outcome = CopyNext(type, batch)) return outcome;
    }
    return 0;
}

void FreeCopy() {
    for (SmbiosTypeData& data : g_SmbiosData) {
        for (uint32_t i = 0; i < data.count; ++i)
            free(data.records[i]);
        free(data.records);
        data = {};
    }
    g_dwStructCount = 0;
    g_SmbiosHeader = {};
}

/// Reports that start-up failed, with what the table reader said.
uint32_t StartFailed(uint32_t driverResult, const char* what) {
    constexpr uint32_t kCode = MakeResult(fn::kInitializeSmbios, Reason::SmbiosTable);
    static_assert(kCode == 0x6118B802);
    const OwnedText printable(PXR_GetErrCodeString(kCode));
    const OwnedText text(PXR_GetErrCodeMes(texts::kPlatform, kCode));
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "%s", what);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "%s driver_result = 0x%08X %s \n",
              printable != nullptr ? printable.get() : "", driverResult, text != nullptr ? text.get() : "");
    return kCode;
}

}  // namespace

namespace ktx_smbios {

bool InitSmbiosLib() {
    return Init_SmbiosIF() == 0;
}

void TerminateSmbiosLib() {
    Terminate_SmbiosIF();
}

uint32_t GetHeader(KVPS_SMBIOS_HEAD* header) {
    return GetInfo(SMBIOS_INFO_ENTRY_POINT, header, sizeof(*header));
}

uint32_t GetSructurMaxSize(uint32_t* size) {
    return GetInfo(SMBIOS_INFO_MAX_SIZE, size, sizeof(*size));
}

uint32_t GetAllTableData(uint32_t maxSize) {
    for (uint32_t type = 0; type < KVPS_SMBIOS_TYPES; ++type) {
        uint32_t count = 0;
        if (const uint32_t outcome = CountType(type, &count)) return outcome;
        if (count == 0) continue;
        if (const uint32_t outcome = CopyType(type, count, maxSize)) return outcome;
    }
    return 0;
}

}  // namespace ktx_smbios

uint32_t KvPsInitializeSmbios() {
    FreeCopy();
    uint32_t result = ktx_smbios::GetHeader(&g_SmbiosHeader);
    if (result != 0) return StartFailed(result, "Can't get SMBIOS header.\n");
    uint32_t maxSize = 0;
    result = ktx_smbios::GetSructurMaxSize(&maxSize);
    if (result == 0) result = ktx_smbios::GetAllTableData(maxSize);
    if (result != 0) return StartFailed(result, "Can't get SMBIOS structure.\n");
    return 0;
}

uint32_t KvPsTerminateSmbios() {
    FreeCopy();
    ktx_smbios::TerminateSmbiosLib();
    return 0;
}
