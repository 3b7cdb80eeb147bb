#pragma once
/// @file
/// What fillers of records are made of.

#include <initializer_list>

#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvInventoryFactory.h"

/// Checks what a filler is given.
inline uint32_t KvIfCheckFilling(uint32_t function, const void* record, const CKvInstance* instance,
                                 unsigned long columns, std::source_location where = std::source_location::current()) {
    if (record == nullptr || instance == nullptr) {
        return PXR_ReportError(MakeResult(function, Reason::NullArgument), where);
    }
    if (instance->GetColumnCount() != columns) {
        return PXR_ReportError(MakeResult(function, Reason::BadData), where);
    }
    return 0;
}

/// Fills fields from an instance's columns, up to the first failure.
class KvIfFilling {
public:
    explicit KvIfFilling(const CKvInstance& instance) : instance_(instance) {}

    KvIfFilling& Number(unsigned long column, uint32_t& field) {
        return Convert(column, field, [](CKvColumn* source, unsigned long* out) { return source->GetUlong(*out); });
    }
    KvIfFilling& Text(unsigned long column, CKvString& field) {
        if (code_ == 0) code_ = instance_.GetStringColumn(column, field);
        return *this;
    }
    /// @param convert  uint32_t (CKvColumn*, unsigned long*)
    template <typename ConvertColumn>
    KvIfFilling& Convert(unsigned long column, uint32_t& field, ConvertColumn convert) {
        if (code_ != 0) return *this;
        CKvColumn* source = nullptr;
        unsigned long value = 0;
        code_ = instance_.GetColumn(column, &source);
        if (code_ == 0) code_ = convert(source, &value);
        field = static_cast<uint32_t>(value);
        return *this;
    }
    uint32_t Code() const { return code_; }

private:
    const CKvInstance& instance_;
    uint32_t code_ = 0;
};

/// Any structure with an instance's designation will do.
inline constexpr long kKvAnyStructure = -1;

/// The instances of an inventory that carry the same designation: the n-th of them means the n-th structure with it.
struct KvIfEqual {
    unsigned long before = 0;  ///< this instance
    unsigned long all = 0;     ///< this instance included
    /// The structure that is meant, from 0; kKvAnyStructure where only one instance carries the designation.
    long Only() const { return all > 1 ? static_cast<long>(before) : kKvAnyStructure; }
};
/// @param columns  the texts that make the designation
KvIfEqual KvIfFindEqual(const CKvInventory& inventory, const CKvInstance& instance,
                        std::initializer_list<unsigned long> columns);

/// Turns a filler into what GetInventoryRecords calls.
template <typename Record>
auto KvIfWith(uint32_t (*filler)(Record*, CKvInstance*)) {
    return [filler](Record& record, CKvInstance& instance, const CKvInventory&) { return filler(&record, &instance); };
}
