// The sections that definition files share: names for numbers, kinds of sensors, fields of SMBIOS structures.
#include "kvdatafactory/KvDfCommon_Maps.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "kvdatafactory/DefinitionReport.h"
#include "kvdatafactory/KvDfCommon.h"

Published<KvDfTables> g_tables;

namespace {

constexpr char kRasSource[] = "kvdatafactory/KvDfCommon";

constexpr unsigned long kDefaultVersion = 0x300;
constexpr unsigned long kLargestTable = 16384;  // searched from the front: more would cost every look-up dear
constexpr uint32_t kNoElement = MakeResult(fn::kGetElementData, Reason::BadData);

constexpr char kTooMany[] = "The table is full.";

/// The fields of an element that was taken apart in place, one after another.
class Fields {
public:
    Fields(char* first, const char* end) : at_(first), end_(end) {}
    /// The next one, trimmed. @return false behind the last
    bool Next(CKvString& field) {
        if (at_ == nullptr) return false;
        field = at_;
        KvDf_TrimString(field);
        char* const before = at_;
        KvDf_NextStringPoint(at_, end_);
        if (at_ == before) at_ = nullptr;
        return true;
    }

private:
    char* at_;
    const char* end_;
};

class Field : public CKvString {
public:
    Field() : CKvString(nullptr, KvHeld<CKvString>::kCapacity) {}
    const char* Text() const { return *this; }
};

/// Calls take(fields, element) for each element of a section.
template <typename Take>
uint32_t ForEachElement(char* section, const char* limit, const char* tag, Take take) {
    const size_t tagLength = strlen(tag);
    const char* const end = section + definition::SectionFrom(section, limit).size();
    uint32_t result = kNoElement;
    const char* at = section;
    while (const char* const found = definition::FindElement(section, at, end, tag)) {
        char* start = section + (found - section);
        char* stop = nullptr;
        result = KvDf_GetElementData(start, &stop, end, tag, tagLength);
        if (result != 0) {
            RAS_FAILED(result, "KvDf_GetElementData");
            definition::Skipped({found, tagLength}, "the element has no content, or does not end");
            at = found + tagLength;
            continue;
        }
        take(Fields(start, stop), std::string_view(found, static_cast<size_t>(stop - found)));
        at = stop;
    }
    return result;
}

/// A field that may name an entry of a map.
bool NameOrNumber(const KvEnumMap& map, const CKvString& field, unsigned long& number) {
    const char* const text = field;
    return text != nullptr && (map.Lookup(field, number) != 0 || definition::ReadNumber(text, number));
}

void AddSensorType(CKvList<CKvSensorType*>& list, const KvDfTables& tables, Fields fields, std::string_view element) {
    Field id;
    Field type;
    Field entity;
    Field idString;
    unsigned long idNumber = 0;
    unsigned long typeNumber = 0;
    unsigned long entityNumber = 0;
    if (list.GetCount() >= kLargestTable) {
        RAS_SKIPPED(element, "%s", kTooMany);
    } else if (!fields.Next(id) || !NameOrNumber(tables.mapSnsId, id, idNumber)) {
        RAS_SKIPPED(element, "Invalid map file. strSnsId=%s", id.Text());
    } else if (!fields.Next(type) || !NameOrNumber(tables.mapSnsType, type, typeNumber)) {
        RAS_SKIPPED(element, "Invalid map file. strSnsTypeId=%s", type.Text());
    } else if (!fields.Next(entity) || !NameOrNumber(tables.mapEntityId, entity, entityNumber)) {
        RAS_SKIPPED(element, "Invalid map file. strEntId=%s", entity.Text());
    } else if (auto* const kind = new (std::nothrow) CKvSensorType) {
        kind->SetSensorId(idNumber);
        kind->SetSensorType(typeNumber);
        kind->SetEntityId(entityNumber);
        if (fields.Next(idString)) {
            kind->SetIdString(idString);
            CKvSensorType* const general = KvDf_SearchSensor(typeNumber, entityNumber, nullptr);
            if (general != nullptr) general->AddSubClass(kind);
        }
        list.AddTail(kind);
        definition::Kept(element.data());
    }
}

void AddSmbios(CKvList<CSmbios*>& list, const KvDfTables& tables, Fields fields, std::string_view element) {
    Field id;
    Field type;
    Field offset;
    unsigned long idNumber = 0;
    unsigned long typeNumber = 0;
    unsigned long offsetNumber = 0;
    if (list.GetCount() >= kLargestTable) {
        RAS_SKIPPED(element, "%s", kTooMany);
    } else if (!fields.Next(id) || !NameOrNumber(tables.mapSmbiosId, id, idNumber)) {
        RAS_SKIPPED(element, "Invalid map file. InstansId=%s", id.Text());
    } else if (!fields.Next(type) || !NameOrNumber(tables.mapStructType, type, typeNumber)) {
        RAS_SKIPPED(element, "Invalid map file. Structure Type=%s", type.Text());
    } else if (!fields.Next(offset) || !NameOrNumber(tables.mapOffset, offset, offsetNumber)) {
        RAS_SKIPPED(element, "Invalid map file. Offset=%s", offset.Text());
    } else if (auto* const field = new (std::nothrow) CSmbios) {
        field->SetInstanceId(idNumber);
        field->SetStructType(static_cast<uint8_t>(typeNumber));
        field->SetOffset(static_cast<uint8_t>(offsetNumber));
        list.AddTail(field);
        definition::Kept(element.data());
    }
}

void AddName(KvEnumMap& map, Fields fields, std::string_view element) {
    Field name;
    Field number;
    unsigned long value = 0;
    unsigned long replaced = 0;
    if (map.GetCount() >= kLargestTable) {
        RAS_SKIPPED(element, "%s", kTooMany);
    } else if (fields.Next(name) && fields.Next(number) && definition::ReadNumber(number.Text(), value)) {
        map.SetAt(name, value, replaced);
        definition::Kept(element.data());
    } else {
        RAS_SKIPPED(element, "Enum ID [%s] have invalid number [%s]", name.Text(), number.Text());
    }
}

uint32_t ReportNull(uint32_t function) {
    return PXR_ReportError(MakeResult(function, Reason::NullArgument));
}

std::atomic<void (*)()> g_retry{nullptr};

template <typename Object>
void DeleteAll(CKvList<Object*>& list) {
    for (Object* object = nullptr; list.RemoveHead(object) != 0;)
        delete object;
}

}  // namespace

void SetDefinitionsRetry(void (*retry)()) {
    g_retry = retry;
}

void RetryDefinitionsIfDue() {
    if (void (*const retry)() = g_retry) retry();
}

KvDfTables::~KvDfTables() {
    DeleteAll(listSensorType);
    DeleteAll(listSmbios);
}

int CKvSensorType::CompareSensor(unsigned long type, unsigned long entity, const char* idString) const {
    if (sensorType_ != type || entityId_ != entity) return 0;
    const char* const own = idString_;
    const bool hasOwn = own != nullptr && *own != '\0';
    if (hasOwn && (idString == nullptr || strstr(idString, own) == nullptr)) return 0;
    const auto fits = [&](const CKvSensorType* kind) { return kind->CompareSensor(type, entity, idString) != 0; };
    return subClasses_.AnyOf(fits) ? 0 : 1;
}

uint32_t KvDf_CreateVersion(char* section, const char* limit, const char* tag, unsigned long* version) {
    constexpr uint32_t kNull = MakeResult(fn::kCreateVersion, Reason::NullArgument);
    constexpr uint32_t kAtEnd = MakeResult(fn::kCreateVersion, Reason::BadData);
    static_assert(kNull == 0x60604201 && kAtEnd == 0x60601302);
    if (version != nullptr) *version = kDefaultVersion;
    if (section == nullptr || limit == nullptr || tag == nullptr || version == nullptr) {
        RAS_BAD_ARGUMENTS("Invalid Parameter. pData=0x%08p, pLmd=0x%08p", static_cast<void*>(section), limit);
        return PXR_ReportError(kNull);
    }
    if (section >= limit) {
        RAS_ERROR("Reached at end of Data");
        return PXR_ReportError(kAtEnd);
    }
    const char* const element = definition::FindElement(section, section, limit, tag);
    const char* const end = section + definition::SectionFrom(section, limit).size();
    if (element == nullptr || element >= end) {
        RAS_ERROR("Version element is out of range.");
        return element == nullptr ? PXR_ReportError(kNoElement) : 0;
    }
    return ForEachElement(section, limit, tag, [&](Fields fields, std::string_view text) {
        Field field;
        unsigned long number = 0;
        fields.Next(field);
        if (strncmp(field.Text(), "0x", 2) != 0 || !definition::ReadNumber(field.Text(), number)) {
            definition::Skipped(text, "the version is no hexadecimal number");
            return;
        }
        *version = number;
        definition::Kept(text.data());
    });
}

uint32_t KvDf_CreateEnumMap(char* section, const char* limit, const char* tag, KvEnumMap* map) {
    if (section == nullptr || limit == nullptr || tag == nullptr || map == nullptr)
        return ReportNull(fn::kCreateEnumMap);
    return ForEachElement(section, limit, tag,
                          [map](Fields fields, std::string_view element) { AddName(*map, fields, element); });
}

uint32_t KvDf_CreateSensorTypeList(char* section, const char* limit, const char* tag, CKvList<CKvSensorType*>* list) {
    if (section == nullptr || limit == nullptr || tag == nullptr || list == nullptr) {
        return ReportNull(fn::kCreateSensorTypeList);
    }
    const auto tables = g_tables.Get();
    return ForEachElement(section, limit, tag, [&](Fields fields, std::string_view element) {
        AddSensorType(*list, *tables, fields, element);
    });
}

uint32_t KvDf_CreateSmbiosList(char* section, const char* limit, const char* tag, CKvList<CSmbios*>* list) {
    if (section == nullptr || limit == nullptr || tag == nullptr || list == nullptr) {
        return ReportNull(fn::kCreateSmbiosList);
    }
    const auto tables = g_tables.Get();
    return ForEachElement(section, limit, tag,
                          [&](Fields fields, std::string_view element) { AddSmbios(*list, *tables, fields, element); });
}

CKvSensorType* KvDf_SearchSensor(unsigned long type, unsigned long entity, const char* idString) {
    CKvSensorType* found = nullptr;
    g_tables.Get()->listSensorType.AnyOf([&](CKvSensorType* kind) {
        if (kind->CompareSensor(type, entity, idString) == 0) return false;
        found = kind;
        return true;
    });
    return found;
}
