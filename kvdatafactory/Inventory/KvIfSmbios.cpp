// Fields of SMBIOS structures.
#include "kvdatafactory/Inventory/KvIfSmbios.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "kvdatafactory/Inventory/KvIfCommon.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvIfConvert";

/// The bytes of a structure that were delivered, from its type byte on.
std::span<const uint8_t> Bytes(const KVPS_SMBIOS_TPHEAD& structure) {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&structure) + sizeof structure.dataSize;
    const uint32_t size = std::max<uint32_t>(structure.dataSize, sizeof structure.dataSize);
    return {bytes, size - sizeof structure.dataSize};
}

std::span<const uint8_t> FormattedArea(const KVPS_SMBIOS_TPHEAD& structure) {
    const std::span<const uint8_t> bytes = Bytes(structure);
    return bytes.first(std::min<size_t>(bytes.size(), structure.length));
}

uint32_t CheckField(uint32_t function, const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, const void* out,
                    std::source_location where = std::source_location::current()) {
    if (structure == nullptr || out == nullptr) {
        return PXR_ReportError(MakeResult(function, Reason::NullArgument), where);
    }
    if (offset > structure->length) return PXR_ReportError(MakeResult(function, Reason::BadData), where);
    return 0;
}

/// A little-endian number of the formatted area.
template <typename Number>
uint32_t GetNumber(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, Number* out,
                   std::source_location where = std::source_location::current()) {
    if (out != nullptr) *out = 0;
    if (const uint32_t rc = CheckField(fn::kGetSmbiosField, structure, offset, out, where)) return rc;
    const std::span<const uint8_t> area = FormattedArea(*structure);
    for (size_t i = 0; i < sizeof(Number) && offset + i < area.size(); ++i)
        *out = static_cast<Number>(*out | static_cast<Number>(area[offset + i]) << 8 * i);
    return 0;
}

/// Gives what a key's field holds.
template <typename Get>
uint32_t GetByKey(const char* key, Get get) {
    const auto tables = g_tables.Get();  // the field lives as long
    CSmbios* field = nullptr;
    if (const uint32_t rc = KvIf_GetSmbiosKey(key, &field)) {
        RAS_FAILED(rc, "KvIf_GetSmbiosKey");
        return rc;
    }
    return get(field->GetOffset());
}

}  // namespace

uint32_t KvIfGetSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, CKvString& out) {
    if (const uint32_t rc = CheckField(fn::kGetSmbiosText, structure, offset, &out)) return rc;
    const std::span<const uint8_t> area = FormattedArea(*structure);
    uint8_t number = offset < area.size() ? area[offset] : 0;
    std::span<const uint8_t> strings = Bytes(*structure).subspan(area.size());
    while (number > 0 && !strings.empty() && strings.front() != 0) {
        const auto end = static_cast<size_t>(std::ranges::find(strings, 0) - strings.begin());
        if (--number == 0) out = std::string(strings.begin(), strings.begin() + static_cast<ptrdiff_t>(end)).c_str();
        strings = strings.subspan(std::min(end + 1, strings.size()));
    }
    return 0;
}

uint32_t KvIfGetSmbiosByte(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned char* out) {
    return GetNumber(structure, offset, out);
}

uint32_t KvIfGetSmbiosWord(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned short* out) {
    return GetNumber(structure, offset, out);
}

uint32_t KvIfGetSmbiosDword(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned long* out) {
    return GetNumber(structure, offset, out);
}

uint32_t KvIfGetSmbiosMultiByte(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, int length,
                                unsigned char* out) {
    if (const uint32_t rc = CheckField(fn::kGetSmbiosField, structure, offset, out)) return rc;
    const std::span<const uint8_t> area = FormattedArea(*structure);
    for (int i = 0; i < length; ++i) {
        const auto at = static_cast<size_t>(offset + i);
        out[i] = at < area.size() ? area[at] : 0;
    }
    return 0;
}

uint32_t KvIfKeyToSmbiosByte(const KVPS_SMBIOS_TPHEAD* structure, const char* key, unsigned char* out) {
    return GetByKey(key, [&](uint8_t offset) { return KvIfGetSmbiosByte(structure, offset, out); });
}

uint32_t KvIfKeyToSmbiosWord(const KVPS_SMBIOS_TPHEAD* structure, const char* key, unsigned short* out) {
    return GetByKey(key, [&](uint8_t offset) { return KvIfGetSmbiosWord(structure, offset, out); });
}

uint32_t KvIfKeyToSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, const char* key, CKvString& out) {
    return GetByKey(key, [&](uint8_t offset) { return KvIfGetSmbiosString(structure, offset, out); });
}

KvIfStructures::KvIfStructures(uint8_t type) {
    Read(type);
}

KvIfStructures::KvIfStructures(const char* key) {
    const auto tables = g_tables.Get();
    CSmbios* field = nullptr;
    code_ = KvIf_GetSmbiosKey(key, &field);
    if (code_ == 0) {
        Read(field->GetStructType());
    } else {
        RAS_FAILED(code_, "KvIf_GetSmbiosKey");
    }
}

void KvIfStructures::Read(uint8_t type) {
    KVPS_SMBIOS_TPHEAD** array = nullptr;
    code_ = KvPsGetTypeData(type, &count_, &array);
    array_.reset(array);
    if (code_ != 0) count_ = 0;
}

bool KvIfHasText(const KVPS_SMBIOS_TPHEAD& structure, unsigned char offset, const char* text) {
    CKvString own(nullptr, KvHeld<CKvString>::kCapacity);
    return KvIfGetSmbiosString(&structure, offset, own) == 0 && own == text;
}
