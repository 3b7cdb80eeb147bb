// The key of a sensor, from the text of a definition file.
#include "kvdatafactory/KvSensor.h"

#include <cstdlib>

#include "kvdatafactory/KvDfCommon.h"

CKvSensor::CKvSensor(char* text, const char* limit) {
    char* field = text;
    for (uint8_t* const byte : {&owner_, &lun_, &number_, &fourth_}) {
        CKvString number(field, KvHeld<CKvString>::kCapacity);
        KvDf_TrimString(number);
        const char* const digits = number;
        if (digits != nullptr) *byte = static_cast<uint8_t>(strtoul(digits, nullptr, 16));
        char* const before = field;
        KvDf_NextStringPoint(field, limit);
        if (field == before) return;
    }
}
