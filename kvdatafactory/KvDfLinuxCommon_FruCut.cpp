// Where the fields of a FRU image lie.

#include <algorithm>
#include <array>
#include <atomic>
#include <source_location>
#include <string_view>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/KvDfLinuxCommon_Fru.h"
#include "lib_driverIF/FruLayout.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/PXR_trace.h"

// clang-format off
const uint8_t szFruOemFmt[32] = {1, 1, 1, 1, 1, 3, 1, 1, 1, 3, 1, kFruVariableLength, 1, kFruVariableLength, 6, 6,
                                 1, 1, 4, 1, 1, kFruVariableLength, 1, 1, 1, 1, 1, 4, 1, 4, 14, 1};
const uint8_t szFruFmt_pilot2[22] = {1, 1, 1, 1, 1, 3, 1, 1, 38, 6, 6, 2, 6, 6, 1, 1, 1, 33, 16, 1, 16, 1};
const uint8_t szFruOem2Fmt[10] = {1, 1, 1, 1, 1, 3, 1, kFruVariableLength, 1, 6};
// clang-format on

namespace {

using Bytes = std::span<const uint8_t>;

constexpr const char* kSource = "kvdatafactory/KvDfLinuxCommon";

constexpr uint32_t kProductArea = KV_FRU_PRODUCT_AREA >> 16;
constexpr uint32_t kOemArea = KV_FRU_OEM_AREA >> 16;
constexpr uint32_t kOem2Area = KV_FRU_SECOND_OEM_AREA >> 16;

std::atomic<FruIndexFunction> g_updateFruIndex{nullptr};

uint32_t IndexOf(uint32_t target) {
    return target & 0xFFFF;
}

uint32_t ReportBadData(std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::BadData), where);
}

uint32_t ReportNullRecord() {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "InValid_Parameter. %s", "pstFruData");
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NullArgument));
}

uint32_t ReportNullImage() {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "InValid_Parameter. %s", "pbData");
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NullArgument));
}

/// The bytes from a position on; none when it lies outside.
Bytes From(Bytes bytes, size_t position) {
    return bytes.subspan(std::min(position, bytes.size()));
}

/// Checks the common header. @return 0
uint32_t CheckCommonHeader(Bytes image) {
    if (image.size() < fru::kCommonHeaderSize) return ReportBadData();
    const int version = image[0] & fru::kVersionBits;
    if (version != 0) return 0;
    KvRasLog(1, kSource, __LINE__, "Not Support Common Header Version<%d>", version);
    return ReportBadData();
}

/// The area that the common header points to; empty when there is none.
Bytes Area(Bytes image, size_t pointer) {
    if (image.size() < fru::kCommonHeaderSize || image[pointer] == 0) return {};
    return From(image, image[pointer] * fru::kAreaUnit);
}

/// The OEM records: those of the image, or else those that the controller keeps behind its OEM command.
struct OemRecords {
    Bytes bytes;
    bool controllers;  ///< the latter
};
OemRecords Records(const FruSource& source) {
    const Bytes area = Area(source.image, fru::kRecordArea);
    return area.empty() ? OemRecords{source.oemRecords, true} : OemRecords{area, false};
}

void Put(Bytes bytes, _KvFruData* out) {
    *out = {};
    out->length = static_cast<uint8_t>(bytes.size());
    std::ranges::copy(bytes, out->data);
}

/// The field at an index of the product area; none when the area ends before it.
Bytes ProductField(Bytes area, uint32_t index) {
    constexpr size_t kFieldsOffset = 3;  // version, length, language
    const size_t claimed = area[1] * fru::kAreaUnit;
    Bytes rest = From(claimed != 0 ? area.first(std::min(claimed, area.size())) : area, kFieldsOffset);
    for (; !rest.empty(); --index) {
        const size_t length = rest[0] & fru::kLengthBits;
        if (length == (fru::kEndOfFields & fru::kLengthBits) || length >= rest.size()) return {};
        if (index == 0) return rest.subspan(1, length);
        rest = rest.subspan(1 + length);
    }
    return {};
}

/// The second record. How far it lies behind the first depends on whether the length in the header of that one counts
/// the header itself: in an image that is a matter of the board, the controller's own records never do.
Bytes SecondRecord(const FruSource& source) {
    const auto [first, controllers] = Records(source);
    if (first.size() < fru::kRecordHeaderSize || (first[1] & fru::kEndOfList) != 0) return {};
    const bool separateHeader = controllers || product::CountsRecordsWithoutHeader(source.version);
    return From(first, first[2] + (separateHeader ? fru::kRecordHeaderSize : 0));
}

/// A field, and how far the next one lies behind it.
struct Cut {
    _KvFruData field{};
    size_t advance = 0;
};

/// @return false: the area has no such bytes
bool Plain(Bytes area, size_t length, Cut& cut) {
    if (length > area.size()) return false;
    Put(area.first(length), &cut.field);
    cut.advance = length;
    return true;
}

/// The Q52 board keeps the two parts of field 11 with eight other bytes between them.
bool Q52Field11(Bytes area, Cut& cut) {
    constexpr size_t kFirstPart = 6, kSecondPart = 14, kEnd = 24;
    if (area.size() < kEnd) return false;
    Put(area.first(kFirstPart), &cut.field);
    std::ranges::copy(area.subspan(kSecondPart, kEnd - kSecondPart), cut.field.data + kFirstPart);
    cut.field.length = kFirstPart + kEnd - kSecondPart;
    cut.advance = kEnd;
    return true;
}

/// And its field 17 lies 24 bytes behind its place.
bool Q52Field17(Bytes area, Cut& cut) {
    constexpr size_t kDistance = 24;
    if (area.size() <= kDistance) return false;
    Put(area.subspan(kDistance, 1), &cut.field);
    cut.advance = 1;
    return true;
}

}  // namespace

void FruFields::Add(std::span<const uint8_t> bytes) {
    if (count_ < fields_.size()) Put(bytes, &fields_[count_++]);
}

void CreateFruFormat(std::span<const uint8_t> area, std::span<const uint8_t> lengths, bool q52, FruFields& out) {
    uint8_t before = 0;  // first byte of the field before
    for (size_t i = 0; i < lengths.size(); ++i) {
        const size_t length = lengths[i] == kFruVariableLength ? before & fru::kLengthBits : lengths[i];
        Cut cut;
        const bool there = q52 && i == 11   ? Q52Field11(area, cut)
                           : q52 && i == 17 ? Q52Field17(area, cut)
                                            : Plain(area, length, cut);
        if (!there) return;
        out.Add({cut.field.data, cut.field.length});
        before = cut.field.data[0];
        area = area.subspan(cut.advance);
    }
}

uint32_t GetProductRecordFormatFruData(std::span<const uint8_t> image, uint32_t index, _KvFruData* out) {
    if (image.data() == nullptr) return ReportNullImage();
    if (out == nullptr) return ReportNullRecord();
    *out = {};
    if (const uint32_t rc = CheckCommonHeader(image)) return rc;
    const Bytes area = Area(image, fru::kProductArea);
    if (area.size() < fru::kAreaUnit) return 0;  // the unit is without a product area, or its image was cut
    const int version = area[0] & fru::kVersionBits;
    if (version == 0) {
        KvRasLog(1, kSource, __LINE__, "Not Support Produbt Area Version<%d>", version);
        return ReportBadData();
    }
    Put(ProductField(area, index), out);
    return 0;
}

uint32_t GetOemRecordFormatFruData(const FruSource& source, uint32_t asked, uint32_t translated, _KvFruData* out) {
    if (source.image.data() == nullptr) return ReportNullImage();
    if (out == nullptr) return ReportNullRecord();
    *out = {};
    const bool adapter = asked == fru::kAdapterA || asked == fru::kAdapterB;
    if (source.boardFru && adapter) return GetVelmoraFruData(asked, out);
    FruFields fields;
    CreateFruFormat(Records(source).bytes, source.pilot2 ? Bytes(szFruFmt_pilot2) : Bytes(szFruOemFmt),
                    product::IsQ52(source.product), fields);
    if (const _KvFruData* const field = fields.Find(IndexOf(translated))) {
        *out = *field;
    } else {
        KvRasLog(2, kSource, __LINE__, "Not Found Target<%d> FRU Data.", static_cast<int>(asked));
    }
    return 0;
}

uint32_t GetOem2RecordFormatFruData(const FruSource& source, uint32_t asked, uint32_t translated, _KvFruData* out) {
    if (source.image.data() == nullptr) return ReportNullImage();
    if (out == nullptr) return ReportNullRecord();
    *out = {};
    if (product::IsQ52(source.product)) return 0;  // these boards have no second record
    if (const uint32_t rc = CheckCommonHeader(source.image)) return rc;
    const Bytes record = SecondRecord(source);
    if (record.empty()) {
        KvRasLog(2, kSource, __LINE__, "Not Found OEM2 Area whit Target<%d> FRU Data.", static_cast<int>(asked));
        return 0;
    }
    FruFields fields;
    CreateFruFormat(record, szFruOem2Fmt, false, fields);
    if (const _KvFruData* const field = fields.Find(IndexOf(translated))) {
        *out = *field;
        KvRasLog(3, kSource, __LINE__, "Succeeded in Getting Target<%d> FRU Data.", static_cast<int>(asked));
    } else {
        KvRasLog(2, kSource, __LINE__, "Not Found Target<%d> FRU Data of OEM2 Area.", static_cast<int>(asked));
    }
    return 0;
}

/// Where these boards' own image holds the adapters' addresses differs from board to board and is not described: no
/// address is better than a wrong one.
uint32_t GetVelmoraFruData(uint32_t target, _KvFruData* out) {
    *out = {};
    KvRasLog(2, kSource, __LINE__, "Not Found Target<%d> FRU Data.", static_cast<int>(target));
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NoData));
}

uint32_t GetFruData(const FruSource& source, uint32_t target, _KvFruData* out) {
    unsigned int translated = target;
    const FruIndexFunction update = g_updateFruIndex;
    if (update != nullptr && update(&translated) == nullptr) {
        KvRasLog(1, kSource, __LINE__, "[GetFruData]UpdateFRUIndex FAIL.");
        return ReportBadData();
    }
    switch (translated >> 16) {
        case kProductArea:
            return GetProductRecordFormatFruData(source.image, IndexOf(translated), out);
        case kOemArea:
            return GetOemRecordFormatFruData(source, target, translated, out);
        case kOem2Area:
            return GetOem2RecordFormatFruData(source, target, translated, out);
        default:
            KvRasLog(1, kSource, __LINE__, "Not Support Target Id<0x%X>", target);
            return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::BadArgument));
    }
}

void SetFruIndexFunction(FruIndexFunction function) {
    g_updateFruIndex = function;
}
