// The exported queries to the copy of the SMBIOS structures.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "lib_driverIF/KvPltfSvcSmbiosView.h"
#include "libplatform/PXR_trace.h"

namespace {

using ktx_smbios::StructureView;

constexpr size_t kUuidOffset = 8;
constexpr size_t kUuidSize = 16;
constexpr uint8_t kLastSystemField = 24;

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

uint32_t CopyString(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t size, char* buffer) {
    if (structure == nullptr || buffer == nullptr || size == 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter %p, %p",
                  static_cast<const void*>(structure), static_cast<const void*>(buffer));
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::NullArgument));
    }
    std::optional<std::string_view> text;
    if (const uint32_t result = StructureView(*structure).Text(offset, &text)) return result;
    if (!text) return 0;
    memset(buffer, 0, size);
    text->copy(buffer, size - 1);
    return 0;
}

/// Writes the UUID in the order of its bytes. The structure of version 2.0 ends before it: what follows there are strings.
uint32_t FormatUuid(const StructureView& structure, char* text) {
    const std::span<const uint8_t> bytes = structure.Bytes();
    if (std::min<size_t>(structure.Length(), bytes.size()) < kUuidOffset + kUuidSize) {
        return ktx_smbios::ReportNoSystemField(MakeResult(fn::kGetSmbiosMultiByte, Reason::BadArgument));
    }
    const auto u = bytes.subspan(kUuidOffset, kUuidSize);
    snprintf(text, KVPS_SMBIOS_TEXT_SIZE, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0],
             u[1], u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
    return 0;
}

uint32_t CopyUuid(char* text) {
    const KVPS_SMBIOS_TPHEAD* const structure = ktx_smbios::FindSystemInformation();
    return structure != nullptr ? FormatUuid(StructureView(*structure), text) : ktx_smbios::kNoSystemInformation;
}

uint32_t CopySystemText(uint8_t offset, char* text) {
    std::string_view found;
    const uint32_t result = ktx_smbios::FindSystemText(offset, &found);
    found.copy(text, KVPS_SMBIOS_TEXT_SIZE - 1);
    return result;
}

}  // namespace

uint32_t KvPsGetStructureHeader(KVPS_SMBIOS_HEAD* out) {
    if (out != nullptr) *out = g_SmbiosHeader;
    return 0;
}

uint32_t KvPsGetTypeData(uint8_t type, unsigned long* count, KVPS_SMBIOS_TPHEAD*** array) {
    const bool known = type < KVPS_SMBIOS_TYPES || type == KVPS_SMBIOS_ALL_TYPES;
    if (!known || count == nullptr || array == nullptr) {
        return PXR_ReportError(MakeResult(fn::kGetSmbiosTypeData, Reason::BadArgument), texts::kPlatform);
    }
    *count = 0;
    *array = nullptr;
    unsigned long total = 0;
    for (const SmbiosTypeData& data : TypesOf(type))
        total += data.count;
    if (total == 0) {
        ktx_smbios::TraceNoStructure(type);
        return 0;
    }
    auto* const copy = new (std::nothrow) KVPS_SMBIOS_TPHEAD*[total];
    if (copy == nullptr)
        return PXR_ReportError(MakeResult(fn::kGetSmbiosTypeData, Reason::OutOfMemory), texts::kPlatform);
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
    std::unique_ptr<char[]> text(new (std::nothrow) char[KVPS_SMBIOS_TEXT_SIZE]());
    if (text == nullptr) return PXR_ReportError(MakeResult(fn::kGetSmbiosSystemInformation, Reason::OutOfMemory));
    const uint32_t result = offset == kUuidOffset ? CopyUuid(text.get()) : CopySystemText(offset, text.get());
    if (result == 0) *out = text.release();
    return result;
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
    const std::span<const uint8_t> bytes = StructureView(*structure).Bytes();
    const std::span<const uint8_t> rest = bytes.subspan(std::min<size_t>(offset, bytes.size()));
    const size_t there = std::min<size_t>(rest.size(), length);
    memcpy(buffer, rest.data(), there);
    memset(buffer + there, 0, length - there);
    return 0;
}
