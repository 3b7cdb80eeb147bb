#pragma once
/// @file
/// The pattern that all class builders share.

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/PXR_result.h"
#include "libplatform/PXR_data_access.h"

/// Sets properties one after the other and stops at the first failure.
class PropertyWriter {
public:
    explicit PropertyWriter(_KVCIM_CLASS* instance) : instance_(instance) {}

    PropertyWriter& Text(int code, const char* value) { return Set(SetPropertyStr, code, value); }
    PropertyWriter& U32(int code, uint32_t value) { return Set(SetPropertyUint32, code, value); }
    PropertyWriter& U64(int code, uint64_t value) { return Set(SetPropertyUint64, code, value); }

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

/// A builder of one instance per record: fetches, appends, releases.
/// @param fill  uint32_t(PropertyWriter&, const Record&)
template <typename Record, typename Fill>
uint32_t BuildFromRecords(_KVCIM_ENUM* e, int classId, uint32_t function, const RecordSource<Record>& source,
                          Fill fill) {
    const Records<Record> records(source);
    uint32_t result = records.Result();
    for (const Record& record : records.All()) {
        if (result != 0) break;
        result =
            AppendInstance(e, classId, function, [&](PropertyWriter& properties) { return fill(properties, record); });
    }
    return AllOrNone(e, result);
}
