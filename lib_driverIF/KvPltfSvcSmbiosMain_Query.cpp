// Queries to the copy of the SMBIOS structures.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr const char* kPlatformCatalogue = "KvPlatform.cat";
constexpr uint8_t kSystemInformation = 1;
constexpr uint8_t kUuidOffset = 8;
constexpr uint32_t kUuidSize = 16;
constexpr uint8_t kLastSystemField = 24;

/// The bytes of a structure that are really there, from its type byte on.
std::span<const uint8_t> Data(const KVPS_SMBIOS_TPHEAD& structure) {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&structure);
    const uint32_t size = std::max<uint32_t>(structure.dataSize, sizeof(structure.dataSize));
    return {bytes + sizeof(structure.dataSize), size - sizeof(structure.dataSize)};
}

// The compiler warns of the zero in %08p, which the C library honours; those who search the trace know the texts so.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
void TraceBadSystemField(uint8_t offset, const void* out) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter. ucOffset=%d, psvSysInfo=0x%08p",
              offset, out);
}

void TraceMissingArgument(const void* structure, const void* buffer) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter. pTpInfo=0x%08p, svSmbiosInfo=0x%08p",
              structure, buffer);
}
#pragma GCC diagnostic pop

/// The structures asked for, as (count, array of them) per type.
std::span<const SmbiosTypeData> TypesOf(uint8_t type) {
    const std::span<const SmbiosTypeData> all = g_SmbiosData;
    return type == KVPS_SMBIOS_ALL_TYPES ? all : all.subspan(type, 1);
}

/// The string with a 1-based number in a set of NUL-terminated strings. Null data when the set has not so many.
std::span<const uint8_t> NthString(std::span<const uint8_t> strings, uint8_t number) {
    while (number > 0 && !strings.empty()) {
        const auto end = std::find(strings.begin(), strings.end(), uint8_t{0});
        const auto length = static_cast<size_t>(end - strings.begin());
        if (--number == 0) return strings.first(length);
        strings = strings.subspan(std::min(length + 1, strings.size()));
    }
    return {};
}

uint32_t CopyString(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t size, char* buffer) {
    if (structure == nullptr || buffer == nullptr || size == 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter %p, %p",
                  static_cast<const void*>(structure), static_cast<const void*>(buffer));
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::NullArgument));
    }
    if (offset > structure->length) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "out of bouds Offset. DataLen=%d, Offset=%d",
                  structure->length, offset);
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::BadData));
    }
    const std::span<const uint8_t> data = Data(*structure);
    if (data.size() <= structure->length) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "out of bounds . DataSize=%d, HeaderSize=%d",
                  static_cast<int>(structure->dataSize), structure->length);
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::BadData));
    }
    // An offset just behind the formatted area passes the check above; that byte belongs to the strings.
    const std::span<const uint8_t> text = NthString(data.subspan(structure->length), data[offset]);
    if (text.data() == nullptr) return 0;
    memset(buffer, 0, size);
    memcpy(buffer, text.data(), std::min<size_t>(text.size(), size - 1));
    return 0;
}

KVPS_SMBIOS_TPHEAD* FirstSystemInformation(uint32_t* result) {
    unsigned long count = 0;
    KVPS_SMBIOS_TPHEAD** array = nullptr;
    *result = KvPsGetTypeData(kSystemInformation, &count, &array);
    if (*result != 0 || array == nullptr) return nullptr;
    // The checker does not see that the array is filled as far as it was counted. NOLINTNEXTLINE(clang-analyzer-*)
    KVPS_SMBIOS_TPHEAD* const first = *array;
    delete[] array;
    return first;
}

/// Writes the UUID in the order of its bytes. The structure of version 2.0 ends before it: what follows there are strings.
uint32_t FormatUuid(KVPS_SMBIOS_TPHEAD* structure, char* text) {
    const size_t formatted = std::min<size_t>(structure->length, Data(*structure).size());
    if (formatted < kUuidOffset + kUuidSize) return MakeResult(fn::kGetSmbiosMultiByte, Reason::BadArgument);
    uint8_t u[kUuidSize] = {};
    if (const uint32_t result = KvPsGetSmbiosMultiByte(structure, kUuidOffset, sizeof(u), u)) return result;
    snprintf(text, KVPS_SMBIOS_TEXT_SIZE, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0],
             u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
    return 0;
}

}  // namespace

uint32_t KvPsGetStructureHeader(KVPS_SMBIOS_HEAD* out) {
    if (out != nullptr) *out = g_SmbiosHeader;
    return 0;
}

uint32_t KvPsGetTypeData(uint8_t type, unsigned long* count, KVPS_SMBIOS_TPHEAD*** array) {
    const bool known = type < KVPS_SMBIOS_TYPES || type == KVPS_SMBIOS_ALL_TYPES;
    if (!known || count == nullptr || array == nullptr) {
        return PXR_ReportError(MakeResult(fn::kGetSmbiosTypeData, Reason::BadArgument), kPlatformCatalogue);
    }
    *count = 0;
    *array = nullptr;
    unsigned long total = 0;
    for (const SmbiosTypeData& data : TypesOf(type))
        total += data.count;
    if (total == 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "Can't get SMBIOS data Type =%d. \n", type);
        return 0;
    }
    auto* const copy = new (std::nothrow) KVPS_SMBIOS_TPHEAD*[total];
    if (copy == nullptr)
        return PXR_ReportError(MakeResult(fn::kGetSmbiosTypeData, Reason::OutOfMemory), kPlatformCatalogue);
    KVPS_SMBIOS_TPHEAD** next = copy;
    for (const SmbiosTypeData& data : TypesOf(type))
        next = std::copy_n(data.records, data.count, next);
    *count = total;
    *array = copy;
    return 0;
}

uint32_t KvPsGetSystemInformation(uint8_t offset, char** out) {
    if (offset > kLastSystemField || out == nullptr) {
        TraceBadSystemField(offset, out);
        return PXR_ReportError(MakeResult(fn::kGetSmbiosSystemInformation, Reason::BadArgument));
    }
    constexpr uint32_t kNotFound = MakeResult(fn::kGetSmbiosSystemInformation, Reason::SmbiosTable);
    uint32_t result = 0;
    KVPS_SMBIOS_TPHEAD* const structure = FirstSystemInformation(&result);
    if (structure == nullptr) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "KvPsGetTypeData failed (rc=0x%08x)", result);
        return PXR_ReportError(kNotFound);
    }
    std::unique_ptr<char[]> text(new (std::nothrow) char[KVPS_SMBIOS_TEXT_SIZE]());
    if (text == nullptr) return PXR_ReportError(MakeResult(fn::kGetSmbiosSystemInformation, Reason::OutOfMemory));
    result = offset == kUuidOffset ? FormatUuid(structure, text.get())
                                   : KvPsGetSmbiosString(structure, offset, KVPS_SMBIOS_TEXT_SIZE, text.get());
    if (result != 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "KvPsGetSmbiosString failed (rc=0x%08x)", result);
        return PXR_ReportError(kNotFound);
    }
    *out = text.release();
    return 0;
}

void KvPsFreeTypeData(KVPS_SMBIOS_TPHEAD** array) {
    delete[] array;
}

void KvPsFreeSystemInformation(char* text) {
    delete[] text;
}

uint32_t KvPsGetSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t size, char* buffer) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_CALL, "Enter %s", __func__);
    const uint32_t result = CopyString(structure, offset, size, buffer);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_CALL, "Exit %s", __func__);
    return result;
}

uint32_t KvPsGetSmbiosMultiByte(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t length, uint8_t* buffer) {
    constexpr uint32_t kBadArgument = MakeResult(fn::kGetSmbiosMultiByte, Reason::BadArgument);
    if (structure == nullptr || buffer == nullptr) {
        TraceMissingArgument(structure, buffer);
        return PXR_ReportError(kBadArgument);
    }
    if (offset > structure->length) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "out of bouds Offset. DataLen=%d, Offset=%d",
                  structure->length, offset);
        return PXR_ReportError(kBadArgument);
    }
    const std::span<const uint8_t> data = Data(*structure);
    const std::span<const uint8_t> rest = data.subspan(std::min<size_t>(offset, data.size()));
    const size_t there = std::min<size_t>(rest.size(), length);
    memcpy(buffer, rest.data(), there);
    memset(buffer + there, 0, length - there);
    return 0;
}
