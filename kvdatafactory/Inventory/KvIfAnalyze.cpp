// Inventory sections: [BodyFan] TYPE(1) INSTANCE(SENSOR(20,0,30,0),STRING(System Fan 1),VALUE(1)) ...
#include "kvdatafactory/Inventory/KvIfAnalyze.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "kvdatafactory/DefinitionReport.h"
#include "kvdatafactory/DefinitionText.h"
#include "kvdatafactory/KvDfCommon.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvIfAnalyze";

constexpr size_t kLongestColumn = 255;
constexpr char kInstanceTag[] = "INSTANCE(";
constexpr std::string_view kTypeTag = "TYPE(";

struct ColumnTag {
    const char* tag;
    unsigned long type;
};
constexpr ColumnTag kColumnTags[] = {{"SENSOR(", kColumnSensor},
                                     {"IDSTRING(", kColumnIdString},
                                     {"STRING(", kColumnString},
                                     {"VALUE(", kColumnValue},
                                     {"RSCSTRING(", kColumnRscString}};

uint32_t BadData(uint32_t function, std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(function, Reason::BadData), where);
}

const char* TagOf(unsigned long type) {
    for (const ColumnTag& entry : kColumnTags) {
        if (entry.type == type) return entry.tag;
    }
    return nullptr;
}

/// The fields of an element, as the copying tokenizer gives them.
class Fields {
public:
    Fields() = default;
    ~Fields() {
        for (CKvString* field = nullptr; list_.RemoveHead(field) != 0;)
            delete field;
    }
    Fields(const Fields&) = delete;
    Fields& operator=(const Fields&) = delete;

    CKvList<CKvString*>* List() { return &list_; }
    unsigned long Count() const { return list_.GetCount(); }
    /// @param index  below Count
    char* At(unsigned long index) const {
        CKvString* field = nullptr;
        list_.GetAt(index, field);
        return const_cast<char*>(static_cast<const char*>(*field));
    }

private:
    CKvList<CKvString*> list_;
};

uint8_t HexByte(const char* field) {
    CKvString number(field, KvHeld<CKvString>::kCapacity);
    KvDf_TrimString(number);
    return static_cast<uint8_t>(strtoul(static_cast<const char*>(number), nullptr, 16));
}

std::unique_ptr<CKvColumn> MakeColumn(unsigned long type) {
    switch (type) {
        case kColumnSensor:
            return std::unique_ptr<CKvColumn>(new (std::nothrow) CKvSensorColumn);
        case kColumnString:
            return std::unique_ptr<CKvColumn>(new (std::nothrow) CKvStringColumn);
        default:
            return std::unique_ptr<CKvColumn>(new (std::nothrow) CKvValueColumn);
    }
}

/// Says why there is no column of that type.
uint32_t RefuseColumn(const char* text, unsigned long type) {
    if (type == kColumnIdString) {
        RAS_SKIPPED(text, "KVIF_COLTP_IDSTRING is don't yet suppoted.");
    } else if (type == kColumnRscString) {
        RAS_SKIPPED(text, "KVIF_COLTP_RSCSTRING is don't yet suppoted.");
    } else {
        RAS_SKIPPED(text, "Unknown Column Type: type=%d", static_cast<int>(type));
    }
    return BadData(fn::kAddColumn);
}

/// Fills a column from the fields of its element.
uint32_t FillColumn(CKvColumn& column, const Fields& fields, const char* text, unsigned long type) {
    constexpr unsigned long kSensorFields = 4;
    if (fields.Count() < (type == kColumnSensor ? kSensorFields : 1)) {
        RAS_SKIPPED(text, "Missing Column data. Quit CreateInstance.");
        return BadData(fn::kAddColumn);
    }
    if (type == kColumnSensor) {
        column.SetData(HexByte(fields.At(0)), HexByte(fields.At(1)), HexByte(fields.At(2)), HexByte(fields.At(3)));
    } else {
        char* const first = fields.At(0);
        column.SetData(first, first + strlen(first));
    }
    return 0;
}

/// One instance, with all its columns or those before the first that makes no sense.
uint32_t AddInstance(CKvInventory& inventory, const Fields& fields) {
    auto instance = std::unique_ptr<CKvInstance>(new (std::nothrow) CKvInstance(0, nullptr));
    if (instance == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    CKvInstance* const added = instance.get();
    if (const uint32_t rc = inventory.AddInstance(instance.release())) return rc;
    RAS_DEBUG("InstanceElements.GetCount()=%d", static_cast<int>(fields.Count()));
    for (unsigned long i = 0; i < fields.Count(); ++i) {
        char* const field = fields.At(i);
        RAS_DEBUG("InstanceElements.GetAt(%d,%s)", static_cast<int>(i), field);
        char text[kLongestColumn + 1];
        const size_t length = strlen(field);
        if (length > kLongestColumn) {
            RAS_SKIPPED(field, "Column length too long! Quit CreateInstance.");
            return BadData(fn::kCreateInstance);
        }
        memcpy(text, field, length + 1);
        if (const uint32_t rc = KvIf_AddColumn(added, text, text + length)) return rc;
    }
    return 0;
}

/// The inventory of that id, a new one when there is none. @return null without memory
CKvInventory* InventoryOf(unsigned long id) {
    const auto factory = g_invFactory.Get();
    CKvInventory* inventory = nullptr;
    if (factory->HasInventory(id) && factory->SearchInventory(id, &inventory) == 0) return inventory;
    RAS_INFO("This Inventory has not been made, yet. Make it.");
    inventory = new (std::nothrow) CKvInventory(id, 0);
    return inventory != nullptr && factory->AddInventory(id, inventory) == 0 ? inventory : nullptr;
}

void ReadType(CKvInventory& inventory, const char* section, const char* end) {
    if (!std::string_view(section, static_cast<size_t>(end - section)).starts_with(kTypeTag)) return;
    Fields fields;
    const char* close = nullptr;
    if (KvDf_GetElementData(fields.List(), section, &close, end, kTypeTag.data()) != 0 || fields.Count() == 0) return;
    CKvString number(fields.At(0), KvHeld<CKvString>::kCapacity);
    KvDf_TrimString(number);
    const unsigned long type = strtoul(static_cast<const char*>(number), nullptr, 16);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "SetType(%#x)", static_cast<unsigned>(type));
    inventory.SetType(type);
}

}  // namespace

uint32_t KvIf_CreateInstance(char* section, unsigned long id, const char* limit) {
    if (section == nullptr || limit == nullptr) {
        RAS_BAD_ARGUMENTS("Invalid Parameter. pData=0x%08p, pLmd=0x%08p", static_cast<void*>(section), limit);
        return PXR_ReportError(MakeResult(fn::kCreateInstance, Reason::NullArgument));
    }
    if (section >= limit) return BadData(fn::kCreateInstance);
    if (id == 0 || id > kInventoryMemory) {
        RAS_ERROR("Unknown Inventory ID.(dwInvId =%d)", static_cast<int>(id));
        return BadData(fn::kCreateInstance);
    }
    RAS_INFO("Analyze Inventory.(dwInvId=%d)", static_cast<int>(id));
    CKvInventory* const inventory = InventoryOf(id);
    if (inventory == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    const char* const end = section + definition::SectionFrom(section, limit).size();
    ReadType(*inventory, section, end);
    const char* at = section;
    while ((at = definition::FindElement(section, at, end, kInstanceTag)) != nullptr) {
        Fields fields;
        const char* const element = at;
        definition::Begun(element);
        const char* close = nullptr;
        uint32_t rc = KvDf_GetElementData(fields.List(), element, &close, end, kInstanceTag);
        if (rc == 0) rc = AddInstance(*inventory, fields);
        if (rc != 0) {
            definition::Skipped({element, static_cast<size_t>((close != nullptr ? close : end) - element)},
                                "the section ends here");
            return rc;
        }
        definition::Kept(element);
        at = close;
    }
    return 0;
}

unsigned long KvIf_GetColumnType(const char* text) {
    for (const ColumnTag& entry : kColumnTags) {
        if (strncmp(text, entry.tag, strlen(entry.tag)) == 0) return entry.type;
    }
    RAS_ERROR("Unknown Column Type: %s", text);
    return kColumnUnknown;
}

uint32_t KvIf_AddColumn(CKvInstance* instance, char* text, const char* limit) {
    if (instance == nullptr || text == nullptr || limit == nullptr) {
        RAS_BAD_ARGUMENTS("Invalid Parameter. pInstance=0x%08p, pData =0x%08p, pLmd=0x%08p",
                          static_cast<void*>(instance), static_cast<void*>(text), limit);
        return PXR_ReportError(MakeResult(fn::kAddColumn, Reason::NullArgument));
    }
    for (char* at = text; at < limit; ++at) {
        const unsigned long type = KvIf_GetColumnType(at);
        if (type != kColumnSensor && type != kColumnString && type != kColumnValue) return RefuseColumn(at, type);
        std::unique_ptr<CKvColumn> column = MakeColumn(type);
        if (column == nullptr) {
            RAS_ERROR("Get Column Type=%d", static_cast<int>(type));
            RAS_ERROR("Memory Allocation Failed. (%dBytes)", static_cast<int>(sizeof(CKvSensorColumn)));
            return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
        }
        CKvColumn* const added = column.get();
        if (const uint32_t rc = instance->AddColumn(column.release())) return rc;
        if (const uint32_t rc = KvIf_SetColumn(added, at, limit, type)) return rc;
    }
    return 0;
}

uint32_t KvIf_SetColumn(CKvColumn* column, char*& text, const char* limit, unsigned long type) {
    if (column == nullptr || text == nullptr || limit == nullptr) {
        return PXR_ReportError(MakeResult(fn::kAddColumn, Reason::NullArgument));
    }
    const char* const tag =
        type == kColumnSensor || type == kColumnString || type == kColumnValue ? TagOf(type) : nullptr;
    if (tag == nullptr) {
        RAS_ERROR("Unknown Colunm Type = %d", static_cast<int>(type));
        return BadData(fn::kAddColumn);
    }
    Fields fields;
    const char* close = nullptr;
    if (const uint32_t rc = KvDf_GetElementData(fields.List(), text, &close, limit, tag)) return rc;
    if (const uint32_t rc = FillColumn(*column, fields, text, type)) return rc;
    text += close - text;
    return 0;
}
