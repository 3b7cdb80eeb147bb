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

/// Where a field lies: up to two parts, from where the field before ended.
struct Place {
    struct Part {
        size_t offset;
        size_t length;
        size_t End() const { return offset + length; }
    };
    Part first;
    Part second;
    size_t advance;  ///< to the next field
};

/// Fields of the Q52 board that do not follow the one before. The first is kept in two parts with eight other bytes between
/// them; the second lies 24 bytes behind its place.
struct Exception {
    size_t index;
    Place place;
};
constexpr std::array<Exception, 2> kQ52Exceptions{{
    {11, {{0, 6}, {14, 10}, 24}},
    {17, {{24, 1}, {}, 1}},
}};

Place PlaceOf(size_t index, size_t length, bool q52) {
    const auto found = std::ranges::find(kQ52Exceptions, index, &Exception::index);
    return q52 && found != kQ52Exceptions.end() ? found->place : Place{{0, length}, {}, length};
}

}  // namespace

bool FruFields::Get(size_t index, _KvFruData* out) const {
    if (index >= count_) return false;
    const auto& [first, second] = fields_[index];
    Put(first, out);
    std::ranges::copy(second, out->data + first.size());
    out->length = static_cast<uint8_t>(first.size() + second.size());
    return true;
}

void FruFields::Add(std::span<const uint8_t> first, std::span<const uint8_t> second) {
    if (count_ < fields_.size()) fields_[count_++] = {first, second};
}

void CreateFruFormat(std::span<const uint8_t> area, std::span<const uint8_t> lengths, bool q52, FruFields& out) {
    uint8_t before = 0;  // first byte of the field before
    for (size_t i = 0; i < lengths.size(); ++i) {
        const size_t length = lengths[i] == kFruVariableLength ? before & fru::kLengthBits : lengths[i];
        const auto [first, second, advance] = PlaceOf(i, length, q52);
        if (std::max(first.End(), second.End()) > area.size()) return;
        const Bytes bytes = area.subspan(first.offset, first.length);
        out.Add(bytes, area.subspan(second.offset, second.length));
        before = bytes.empty() ? uint8_t{0} : bytes[0];
        area = area.subspan(advance);
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
    if (!fields.Get(IndexOf(translated), out)) {
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
    if (fields.Get(IndexOf(translated), out)) {
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
