#pragma once
/// @file
/// The pattern that all class builders share.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <type_traits>
#include <variant>

#include "common/PXR_result.h"
#include "libplatform/CKvString.h"
#include "libplatform/PXR_data_access.h"

/// Sets properties one after the other and stops at the first failure.
class PropertyWriter {
public:
    explicit PropertyWriter(_KVCIM_CLASS* instance) : instance_(instance) {}

    PropertyWriter& Text(int code, const char* value) { return Set(SetPropertyStr, code, value); }
    PropertyWriter& Time(int code, const char* value) { return Set(SetPropertyTime, code, value); }
    PropertyWriter& U8(int code, uint8_t value) { return Set(SetProperyUint8, code, value); }
    PropertyWriter& U16(int code, uint16_t value) { return Set(SetPropertyUint16, code, value); }
    PropertyWriter& U32(int code, uint32_t value) { return Set(SetPropertyUint32, code, value); }
    PropertyWriter& U64(int code, uint64_t value) { return Set(SetPropertyUint64, code, value); }
    PropertyWriter& S16(int code, int16_t value) { return Set(SetPropertySint16, code, value); }
    PropertyWriter& S32(int code, int32_t value) { return Set(SetPropertySint32, code, value); }

    uint32_t Result() const { return result_; }

private:
    template <typename Setter, typename Value>
    PropertyWriter& Set(Setter setter, int code, Value value) {
        if (result_ == 0) result_ = static_cast<uint32_t>(setter(instance_, code, value));
        return *this;
    }

    _KVCIM_CLASS* instance_;
    uint32_t result_ = 0;
};

/// Appends one instance of a class to the enumeration and fills it.
/// @param function  number of the builder
/// @param fill      uint32_t(PropertyWriter&): sets the properties, gives Result() back
/// @return 0 or the code of the first failing step
template <typename Fill>
uint32_t AppendInstance(_KVCIM_ENUM* e, int classId, uint32_t function, Fill fill) {
    _KVCIM_CLASS* instance = nullptr;
    if (const int rc = CreateClass(classId, &instance)) return static_cast<uint32_t>(rc);
    if (instance == nullptr) return PXR_ReportError(MakeResult(function, Reason::NullArgument));
    if (const int rc = InsertClass(e, instance)) {
        FreeClass(instance);
        return static_cast<uint32_t>(rc);
    }
    PropertyWriter properties(instance);
    return fill(properties);
}

/// Ends a builder: a request yields all instances or none.
inline uint32_t AllOrNone(_KVCIM_ENUM* e, uint32_t result) {
    if (result != 0) FreeEnumContents(e);
    return result;
}

/// Where records come from, and how they go.
template <typename Record>
struct RecordSource {
    uint32_t (*get)(int* count, Record** list);
    void (*release)(Record* list, int count);
};

/// The records of a source, for a scope.
template <typename Record>
class Records {
public:
    explicit Records(const RecordSource<Record>& source) : source_(source), result_(source.get(&count_, &list_)) {}
    ~Records() { source_.release(list_, count_); }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    /// What the source gave.
    uint32_t Result() const { return result_; }
    std::span<const Record> All() const { return {list_, static_cast<size_t>(count_)}; }

private:
    const RecordSource<Record>& source_;
    Record* list_ = nullptr;
    int count_ = 0;
    uint32_t result_;
};

// ---- Columns: what a builder sets, and from where

/// A value that is the same in every instance.
struct FixedNumber {
    uint32_t value;
};
struct FixedText {
    const char* value;
};

/// One property and its source: a field of the record, a function of it, or a fixed value. The property's type follows
/// from that of the source.
template <typename Record>
struct Column {
    using Source = std::variant<uint32_t Record::*, uint64_t Record::*, int32_t Record::*, char * Record::*,
                                CKvString Record::*, uint32_t (*)(const Record&), uint64_t (*)(const Record&),
                                int32_t (*)(const Record&), const char* (*)(const Record&), FixedNumber, FixedText>;
    int code;
    Source source;
};

/// Sets a value with the setter of its type.
inline void SetValue(PropertyWriter& properties, int code, uint32_t value) {
    properties.U32(code, value);
}
inline void SetValue(PropertyWriter& properties, int code, uint64_t value) {
    properties.U64(code, value);
}
inline void SetValue(PropertyWriter& properties, int code, int32_t value) {
    properties.S32(code, value);
}
inline void SetValue(PropertyWriter& properties, int code, const char* value) {
    properties.Text(code, value);
}

template <typename Record>
void SetColumn(PropertyWriter& properties, const Record& record, const Column<Record>& column) {
    std::visit(
        [&](const auto& source) {
            if constexpr (requires { source.value; }) {
                SetValue(properties, column.code, source.value);
            } else {
                SetValue(properties, column.code, std::invoke(source, record));
            }
        },
        column.source);
}

/// A builder of one instance per record: fetches, sets the columns in their order, releases.
template <typename Record>
uint32_t BuildFromRecords(_KVCIM_ENUM* e, int classId, uint32_t function, const RecordSource<Record>& source,
                          std::type_identity_t<std::span<const Column<Record>>> columns) {
    const Records<Record> records(source);
    uint32_t result = records.Result();
    for (const Record& record : records.All()) {
        if (result != 0) break;
        result = AppendInstance(e, classId, function, [&](PropertyWriter& properties) {
            for (const Column<Record>& column : columns)
                SetColumn(properties, record, column);
            return properties.Result();
        });
    }
    return AllOrNone(e, result);
}
