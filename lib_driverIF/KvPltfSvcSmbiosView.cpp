// The copy of the SMBIOS structures, and views of it.

#include "lib_driverIF/KvPltfSvcSmbiosView.h"

#include <algorithm>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/PXR_trace.h"

KVPS_SMBIOS_HEAD g_SmbiosHeader;
SmbiosTypeData g_SmbiosData[KVPS_SMBIOS_TYPES];
uint32_t g_dwStructCount;

namespace {

constexpr uint8_t kSystemInformation = 1;
static_assert(ktx_smbios::kNoSystemInformation == MakeResult(fn::kGetSmbiosSystemInformation, Reason::SmbiosTable));

std::string_view AsText(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

namespace ktx_smbios {

StructureView::StructureView(const KVPS_SMBIOS_TPHEAD& record) : length_(record.length) {
    const uint32_t size = std::max<uint32_t>(record.dataSize, sizeof(record.dataSize)) - sizeof(record.dataSize);
    bytes_ = {reinterpret_cast<const uint8_t*>(&record) + sizeof(record.dataSize), size};
}

std::optional<std::string_view> StructureView::String(uint8_t number) const {
    std::string_view rest = AsText(bytes_.subspan(std::min<size_t>(length_, bytes_.size())));
    for (; number > 0 && !rest.empty(); --number) {
        const std::string_view text = rest.substr(0, rest.find('\0'));
        if (number == 1) return text;
        rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    }
    return std::nullopt;
}

uint32_t StructureView::Text(uint8_t offset, std::optional<std::string_view>* text) const {
    if (offset > length_) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "out of bouds Offset. DataLen=%d, Offset=%d", length_,
                  offset);
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::BadData));
    }
    if (!HasStrings()) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "out of bounds . DataSize=%d, HeaderSize=%d",
                  static_cast<int>(bytes_.size() + sizeof(KVPS_SMBIOS_TPHEAD::dataSize)), length_);
        return PXR_ReportError(MakeResult(fn::kGetSmbiosString, Reason::BadData));
    }
    // An offset just behind the formatted area passes the check above; that byte belongs to the strings.
    *text = String(bytes_[offset]);
    return 0;
}

std::span<KVPS_SMBIOS_TPHEAD* const> StructuresOf(uint8_t type) {
    const SmbiosTypeData& data = g_SmbiosData[type];
    return {data.records, data.count};
}

void TraceNoStructure(uint8_t type) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "Can't get SMBIOS data Type =%d. \n", type);
}

const KVPS_SMBIOS_TPHEAD* FindSystemInformation() {
    const auto all = StructuresOf(kSystemInformation);
    if (!all.empty()) return all.front();
    TraceNoStructure(kSystemInformation);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "KvPsGetTypeData failed (rc=0x%08x)", 0);
    PXR_ReportError(kNoSystemInformation);
    return nullptr;
}

uint32_t FindSystemText(uint8_t offset, std::string_view* text) {
    const KVPS_SMBIOS_TPHEAD* const structure = FindSystemInformation();
    if (structure == nullptr) return kNoSystemInformation;
    std::optional<std::string_view> found;
    if (const uint32_t result = StructureView(*structure).Text(offset, &found)) return ReportNoSystemField(result);
    *text = found.value_or("").substr(0, KVPS_SMBIOS_TEXT_SIZE - 1);
    return 0;
}

uint32_t ReportNoSystemField(uint32_t reason) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "KvPsGetSmbiosString failed (rc=0x%08x)", reason);
    return PXR_ReportError(kNoSystemInformation);
}

}  // namespace ktx_smbios
