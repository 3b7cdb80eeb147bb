#pragma once
/// @file
/// What the definition files know about sensors and SMBIOS fields: names for numbers, the kinds of sensors, the fields.

#include "common/CKvList.h"
#include "common/CKvMap.h"
#include "common/Published.h"
#include "libplatform/CKvString.h"

/// One kind of sensor: what the definitions call a body fan, say.
class CKvSensorType {
public:
    virtual ~CKvSensorType() = default;

    void SetSensorId(unsigned long id) { sensorId_ = id; }
    void SetSensorType(unsigned long type) { sensorType_ = type; }
    void SetEntityId(unsigned long entity) { entityId_ = entity; }
    void SetIdString(const CKvString& text) { idString_ = text; }
    /// Adds a more specific kind, which is preferred for the sensors that it fits. It stays the list's.
    void AddSubClass(CKvSensorType* kind) { subClasses_.AddTail(kind); }
    unsigned long GetSensorId() const { return sensorId_; }
    unsigned long GetSensorType() const { return sensorType_; }
    unsigned long GetEntityId() const { return entityId_; }
    void GetIdStringList(CKvString& text) const { text = idString_; }

    /// @param type      of the sensor, as IPMI numbers them @param entity  what it measures
    /// @param idString  its name; null: asks for the kind without a name of its own
    /// @return 1 when the sensor is of this kind and of no more specific one
    int CompareSensor(unsigned long type, unsigned long entity, const char* idString) const;

private:
    uint32_t sensorId_ = 0;
    uint32_t sensorType_ = 0;
    uint32_t entityId_ = 0;
    CKvString idString_{nullptr, KvHeld<CKvString>::kCapacity};  // part of the names that belong to this kind
    CKvList<CKvSensorType*> subClasses_;
};

/// One field of an SMBIOS structure.
class CSmbios {
public:
    virtual ~CSmbios() = default;

    void SetInstanceId(unsigned long id) { instanceId_ = id; }
    void SetStructType(uint8_t type) { structType_ = type; }
    void SetOffset(uint8_t offset) { offset_ = offset; }
    unsigned long GetInstanceId() const { return instanceId_; }
    uint8_t GetStructType() const { return structType_; }
    uint8_t GetOffset() const { return offset_; }  ///< in bytes from the structure's beginning

private:
    uint32_t instanceId_ = 0;
    uint8_t structType_ = 0;
    uint8_t offset_ = 0;
};

using KvEnumMap = CKvMap<CKvString, unsigned long>;

/// All tables that come from the files' common sections. Owns the kinds and the fields.
struct KvDfTables {
    KvDfTables() = default;
    ~KvDfTables();
    KvDfTables(const KvDfTables&) = delete;
    KvDfTables& operator=(const KvDfTables&) = delete;

    KvEnumMap mapSnsType;     ///< [EnumSensorType]
    KvEnumMap mapSnsId;       ///< [EnumSensorId]
    KvEnumMap mapEntityId;    ///< [EnumEntityId]
    KvEnumMap mapStructType;  ///< [EnumStructureType]
    KvEnumMap mapOffset;      ///< [EnumOffset]
    KvEnumMap mapSmbiosId;    ///< [EnumSmbiosId]
    CKvList<CKvSensorType*> listSensorType;
    CKvList<CSmbios*> listSmbios;
};

extern Published<KvDfTables> g_tables;

/// Registers who reads files again that could not be read at the start.
void SetDefinitionsRetry(void (*retry)());
/// To be called before the tables are used on behalf of a host.
void RetryDefinitionsIfDue();

extern "C" {

// The sections' readers. Elements that make no sense are logged and left out.
//
// section  its content, from behind the tag; it is taken apart @param limit  where the whole text ends
// tag      of the elements, with its parenthesis
// Results: that of the last element's KvDf_GetElementData; 0x63F51302 the section holds none

/// @param version  receives 0x300 where the section gives none
/// @return as above; 0x60604201 null argument; 0x60601302 the text is at its end
uint32_t KvDf_CreateVersion(char* section, const char* limit, const char* tag, unsigned long* version);
uint32_t KvDf_CreateEnumMap(char* section, const char* limit, const char* tag, KvEnumMap* map);
uint32_t KvDf_CreateSensorTypeList(char* section, const char* limit, const char* tag, CKvList<CKvSensorType*>* list);
uint32_t KvDf_CreateSmbiosList(char* section, const char* limit, const char* tag, CKvList<CSmbios*>* list);

/// The kind that fits a sensor best; null when none fits. It lives as long as the tables that were asked (g_tables.Get).
CKvSensorType* KvDf_SearchSensor(unsigned long type, unsigned long entity, const char* idString);

}  // extern "C"
