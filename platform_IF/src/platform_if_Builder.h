#pragma once
/// @file
/// The pattern that all class builders share.

#include <cstdint>

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

/// Appends one instance per record; a request yields all instances or none.
/// @param records  a range of records
/// @param fill     uint32_t(PropertyWriter&, const Record&)
template <typename Records, typename Fill>
uint32_t AppendInstances(_KVCIM_ENUM* e, int classId, uint32_t function, const Records& records, Fill fill) {
    for (const auto& record : records) {
        const auto fillOne = [&](PropertyWriter& properties) { return fill(properties, record); };
        if (const uint32_t rc = AppendInstance(e, classId, function, fillOne)) return rc;
    }
    return 0;
}

/// Ends a builder: empties the enumeration after a failure.
inline uint32_t AllOrNone(_KVCIM_ENUM* e, uint32_t result) {
    if (result != 0) FreeEnumContents(e);
    return result;
}
