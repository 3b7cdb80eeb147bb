#pragma once
/// @file
/// Cutting single fields out of the FRU image.
///
/// An image begins with a common header of 8 bytes that says, in units of 8 bytes, where its areas begin. The product
/// area holds texts, each behind a byte that gives its type and length. The record area holds records of the product's
/// own; they have a fixed layout, told by a table of field lengths.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "libplatform/KvDfFru.h"

/// Field lengths of the records, in order. kFruVariableLength: the field is as long as the low 6 bits of the byte
/// before it say.
inline constexpr uint8_t kFruVariableLength = 255;
extern const uint8_t szFruOemFmt[32];      ///< first OEM record
extern const uint8_t szFruFmt_pilot2[22];  ///< first OEM record on Pilot2 boards
extern const uint8_t szFruOem2Fmt[10];     ///< second OEM record

/// A record split into its fields, which are views of its bytes. A field may lie in two parts.
class FruFields {
public:
    void Add(std::span<const uint8_t> first, std::span<const uint8_t> second);
    /// @return false, out being untouched, when the record has no such field
    bool Get(size_t index, _KvFruData* out) const;

private:
    struct Field {
        std::span<const uint8_t> first;
        std::span<const uint8_t> second;
    };
    std::array<Field, 32> fields_{};
    size_t count_ = 0;
};

/// Splits an area into its fields, as far as its bytes go: what does not lie in it whole is left out.
/// @param area  from the first field to the end of what was read
/// @param q52   the layout of the Q52 board, which has two fields that lie elsewhere
void CreateFruFormat(std::span<const uint8_t> area, std::span<const uint8_t> lengths, bool q52, FruFields& out);

/// What there is to cut from.
struct FruSource {
    std::span<const uint8_t> image{};
    /// Of the controller's OEM FRU; they stand in where the image has no records.
    std::span<const uint8_t> oemRecords{};
    std::string_view product{};  ///< names of the machine in SMBIOS
    std::string_view version{};
    bool pilot2 = false;    ///< layout of the first OEM record
    bool boardFru = false;  ///< the image is that of the board's own command
};

/// Cuts one field. @param target  as asked for; its index is translated for the machine here
/// @return as KvDf_GetFruInventoryData
uint32_t GetFruData(const FruSource& source, uint32_t target, _KvFruData* out);
uint32_t GetProductRecordFormatFruData(std::span<const uint8_t> image, uint32_t index, _KvFruData* out);
/// @param asked       the target before its index was translated
/// @param translated  and after it
uint32_t GetOemRecordFormatFruData(const FruSource& source, uint32_t asked, uint32_t translated, _KvFruData* out);
uint32_t GetOem2RecordFormatFruData(const FruSource& source, uint32_t asked, uint32_t translated, _KvFruData* out);
uint32_t GetVelmoraFruData(uint32_t target, _KvFruData* out);

/// Replaces an index by that of the machine at hand (UpdateFRUIndex). @return index; null when it has none
using FruIndexFunction = unsigned int* (*)(unsigned int* index);
/// Registers the translation; null: indexes stay as they are.
void SetFruIndexFunction(FruIndexFunction function);
