// The memory bookkeeping's files: counted errors, and what the sockets held at the last start.
#include "kvdatafactory/KvDfLinuxCommon_Memory.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "common/ByteReader.h"
#include "common/FileText.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvIfMemoryState.h"
#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfRecordArray.h"
#include "libplatform/KvDfHardware.h"
#include "libplatform/KvDfMemory.h"

namespace {

constexpr char kErrorCountFile[] = "/var/opt/velmora/lantrel/dat/KvDfEccData.dat";
constexpr char kMemoryFile[] = "/var/opt/velmora/lantrel/dat/KvDfMemData.dat";
// What the memory was before a change that nobody has been told of yet.
constexpr char kUntoldMemoryFile[] = "/var/opt/velmora/lantrel/dat/KvDfMemData.old";

constexpr size_t kLargestFile = 1024 * 1024;
constexpr size_t kCountSize = 4;
constexpr size_t kRecordSize = 16;
constexpr mode_t kMode = 0644;

using MemoryRecords = std::vector<KVDF_TMP_MEMORY>;

// ---- Bytes of the files, little-endian

void Append(std::string& bytes, uint32_t number) {
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<char>(number >> shift & 0xFF));
}

uint32_t NumberAt(const std::string& bytes, size_t offset) {
    uint32_t number = 0;
    for (size_t i = 4; i-- > 0;)
        number = number << 8 | static_cast<unsigned char>(bytes[offset + i]);
    return number;
}

std::string Encode(unsigned long count, const KVDF_TMP_MEMORY* records) {
    std::string bytes;
    for (unsigned long i = 0; i < count; ++i) {
        for (const uint32_t number : {uint32_t{0}, records[i].array, records[i].socket, records[i].size})
            Append(bytes, number);
    }
    return bytes;
}

KVDF_TMP_MEMORY RecordAt(const std::string& bytes, size_t offset) {
    KVDF_TMP_MEMORY record;
    record.array = NumberAt(bytes, offset + 4);
    record.socket = NumberAt(bytes, offset + 8);
    record.size = NumberAt(bytes, offset + 12);
    return record;
}

MemoryRecords Decode(const std::string& bytes) {
    MemoryRecords records;
    for (size_t offset = 0; offset + kRecordSize <= bytes.size(); offset += kRecordSize)
        records.push_back(RecordAt(bytes, offset));
    return records;
}

bool AreEqual(const MemoryRecords& a, const MemoryRecords& b) {
    return Encode(static_cast<unsigned long>(a.size()), a.data()) ==
           Encode(static_cast<unsigned long>(b.size()), b.data());
}

// ---- Counted errors

std::mutex g_countMutex;                   // guards the one below
std::optional<unsigned long> g_fileCount;  // what the file says; none while it could not be read

/// @return 0, ENOENT, or why the file cannot be read now
int ReadCount(unsigned long& count) {
    std::string bytes;
    const int error = ReadWhole(kErrorCountFile, kLargestFile, bytes);
    count = error == 0 && bytes.size() >= kCountSize ? NumberAt(bytes, 0) : 0;
    return error;
}

// ---- What the sockets hold

/// What they hold now. @return none when not all of them could be read
std::optional<MemoryRecords> ReadSockets(uint32_t& code) {
    unsigned long count = 0;
    KVDF_MEMSOCKET* sockets = nullptr;
    code = KvDfGetMemorySocket(&count, &sockets);
    if (code != 0) return std::nullopt;
    MemoryRecords records(count);
    for (unsigned long i = 0; i < count; ++i) {
        records[i].array = sockets[i].array;
        records[i].socket = sockets[i].number;
        records[i].size = sockets[i].size;
    }
    KvDfFreeDataArray(sockets);
    const auto factory = g_invFactory.Get();
    CKvInventory* inventory = nullptr;
    code = factory->SearchInventory(kInventoryMemory, &inventory);
    if (code == 0 && inventory->GetInstanceCount() == count) return records;
    if (code == 0) code = PXR_ReportError(MakeResult(fn::kStoreMemoryData, Reason::BadData));
    return std::nullopt;
}

void TakeTotal(const MemoryRecords& records) {
    unsigned long total = 0;
    for (const KVDF_TMP_MEMORY& record : records)
        total += record.size;
    KvIfSetTotalMemorySize(total);
}

uint32_t Store(const MemoryRecords& records) {
    return KvDfStoreMemoryData(static_cast<unsigned long>(records.size()),
                               const_cast<KVDF_TMP_MEMORY*>(records.data()));
}

/// Keeps what the memory was before a change until somebody has been told of the change in some life.
/// @param before  what is compared with @param pending  a change of an earlier life waits already
void KeepUntoldChange(const MemoryRecords& before, const MemoryRecords& now, bool pending) {
    if (before.empty() || AreEqual(before, now)) {
        if (pending) unlink(kUntoldMemoryFile);  // it is as it was
    } else if (!pending) {
        ReplaceWhole(kUntoldMemoryFile, Encode(static_cast<unsigned long>(before.size()), before.data()), kMode);
    }
}

void RestoreMemory() {
    std::string stored;
    std::string untold;
    const int storedError = ReadWhole(kMemoryFile, kLargestFile, stored);
    const int untoldError = ReadWhole(kUntoldMemoryFile, kLargestFile, untold);
    const bool pending = untoldError == 0 && !Decode(untold).empty();
    const MemoryRecords before = Decode(pending ? untold : stored);
    if (!before.empty()) KvIfSetOldMemory(static_cast<unsigned long>(before.size()), before.data());

    uint32_t code = 0;
    const std::optional<MemoryRecords> now = ReadSockets(code);
    if (!now) return;
    TakeTotal(*now);
    // What cannot be read now may hold something else than it will then be taken for.
    if ((storedError != 0 && storedError != ENOENT) || (untoldError != 0 && untoldError != ENOENT)) return;
    KeepUntoldChange(before, *now, pending);
    if (!now->empty()) Store(*now);
}

}  // namespace

uint32_t KvDf_WriteFileData(char* path, char* data, unsigned long size) {
    constexpr uint32_t kNull = MakeResult(fn::kWriteFileData, Reason::NullArgument);
    constexpr uint32_t kCannotWrite = MakeResult(fn::kWriteFileData, Reason::FileRead);
    static_assert(kNull == 0x60C04201 && kCannotWrite == 0x60C01301);
    if (path == nullptr || data == nullptr) return PXR_ReportError(kNull);
    return ReplaceWhole(path, {data, size}, kMode) == 0 ? 0 : PXR_ReportError(kCannotWrite);
}

uint32_t KvDfLoadEcc1ErrorCount(unsigned long* count) {
    constexpr uint32_t kNull = MakeResult(fn::kLoadEcc1ErrorCount, Reason::NullArgument);
    static_assert(kNull == 0x60BA4201);
    if (count == nullptr) return PXR_ReportError(kNull);
    ReadCount(*count);
    return 0;
}

uint32_t KvDfStoreEcc1ErrorCount(unsigned long count) {
    std::string bytes;
    const int error = ReadWhole(kErrorCountFile, kLargestFile, bytes);
    if (error != 0 && error != ENOENT) return PXR_ReportError(MakeResult(fn::kReadDefinitionFile, Reason::FileRead));
    std::string block;
    Append(block, static_cast<uint32_t>(count));
    if (bytes.size() > kCountSize) block += bytes.substr(kCountSize);
    return KvDf_WriteFileData(const_cast<char*>(kErrorCountFile), block.data(),
                              static_cast<unsigned long>(block.size()));
}

void StoreCountedErrors() {
    const std::lock_guard lock(g_countMutex);
    unsigned long inFile = 0;
    const int error = ReadCount(inFile);
    if (error != 0 && error != ENOENT) return;
    unsigned long counted = KvIfGetEcc1ErrorCount();
    // The file could not be read at the start: what was counted since then comes on top of what it says.
    if (!g_fileCount) counted += inFile;
    KvIfSetEcc1ErrorCount(counted);
    if (error == ENOENT || counted != inFile) {
        if (KvDfStoreEcc1ErrorCount(counted) != 0) return;
    }
    g_fileCount = counted;
}

uint32_t KvDfLoadMemoryDataCount(unsigned long* count) {
    constexpr uint32_t kNull = MakeResult(fn::kLoadMemoryDataCount, Reason::NullArgument);
    static_assert(kNull == 0x60BC4201);
    if (count == nullptr) return PXR_ReportError(kNull);
    std::string bytes;
    const int error = ReadWhole(kMemoryFile, kLargestFile, bytes);
    *count = static_cast<unsigned long>(bytes.size() / kRecordSize);
    if (error == 0 || error == ENOENT) return 0;
    return PXR_ReportError(MakeResult(fn::kLoadMemoryDataCount, Reason::FileRead));
}

uint32_t KvDfLoadMemoryData(unsigned long count, KVDF_TMP_MEMORY* records) {
    const auto failed = [](Reason reason) { return PXR_ReportError(MakeResult(fn::kLoadMemoryData, reason)); };
    if (records == nullptr) return failed(Reason::NullArgument);
    std::string bytes;
    if (ReadWhole(kMemoryFile, kLargestFile, bytes) != 0) return failed(Reason::FileRead);
    if (bytes.size() / kRecordSize != count) return failed(Reason::BadData);
    for (unsigned long i = 0; i < count; ++i)
        records[i] = RecordAt(bytes, i * kRecordSize);
    return 0;
}

uint32_t KvDfStoreMemoryData(unsigned long count, KVDF_TMP_MEMORY* records) {
    if (count == 0 || records == nullptr) {
        return PXR_ReportError(MakeResult(fn::kStoreMemoryData, Reason::NullArgument));
    }
    std::string bytes = Encode(count, records);
    std::string before;
    if (ReadWhole(kMemoryFile, kLargestFile, before) == 0 && before == bytes) return 0;
    return KvDf_WriteFileData(const_cast<char*>(kMemoryFile), bytes.data(), static_cast<unsigned long>(bytes.size()));
}

uint32_t KvDfSaveNewMemoryDatas() {
    uint32_t code = 0;
    const std::optional<MemoryRecords> now = ReadSockets(code);
    if (!now) return code;
    TakeTotal(*now);
    return Store(*now);
}

void RestoreMemoryBookkeeping() {
    {
        const std::lock_guard lock(g_countMutex);
        unsigned long count = 0;
        const int error = ReadCount(count);
        g_fileCount.reset();
        if (error == 0 || error == ENOENT) g_fileCount = count;
        KvIfSetEcc1ErrorCount(count);
    }
    try {
        RestoreMemory();
    } catch (const std::bad_alloc&) {  // nothing is compared, and nothing written
    }
}

unsigned long KvDfGetTotalMemorySize() {
    return KvIfGetTotalMemorySize();
}

uint32_t KvDfGetMemoryError(unsigned long* count, KVDF_MEMERROR** records) {
    constexpr uint32_t kCorrectable = 1;
    if (const uint32_t rc = EmptyOutputs(fn::kGetMemoryError, count, records)) return rc;
    return FillRecords(fn::kGetMemoryError, 1, count, records, [](KVDF_MEMERROR& record, unsigned long) {
        record.kind = kCorrectable;
        record.count = static_cast<uint32_t>(KvIfGetEcc1ErrorCount());
        return 0u;
    });
}
