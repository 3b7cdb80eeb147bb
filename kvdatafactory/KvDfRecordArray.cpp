// The end of record arrays.
#include "kvdatafactory/KvDfRecordArray.h"

#include <type_traits>
#include <typeinfo>

namespace {

/// An array is deleted by the type that it was made with; all its records have that of the first one.
template <typename... Records>
void FreeAsOneOf(KVDF_BASE* records) {
    const std::type_info& type = typeid(*records);
    const auto freeAs = [&]<typename Record>(std::type_identity<Record>) {
        if (type != typeid(Record)) return false;
        delete[] static_cast<Record*>(records);
        return true;
    };
    static_cast<void>((freeAs(std::type_identity<Records>{}) || ...));
}

}  // namespace

void KvDfFreeDataArray(KVDF_BASE* records) {
    if (records == nullptr) return;
    FreeAsOneOf<KVDF_TEMPERATURE, KVDF_FAN, KVDF_POWUNIT, KVDF_VOLTAGE, KVDF_SYSBIOS, KVDF_SYSINFO, KVDF_PRODUCT,
                KVDF_CPU, KVDF_CACHE, KVDF_CPUBOARD, KVDF_MEMARRAY, KVDF_MEMSOCKET, KVDF_MEMERROR, KVDF_TMP_MEMORY,
                KVDF_ALERT>(records);
}
