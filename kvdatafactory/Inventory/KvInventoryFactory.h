#pragma once
/// @file
/// Inventories: what says where every value of a record comes from. An inventory is a table of instances, one for each
/// record, with a column for each value: a sensor, a text, or a number.

#include <mutex>
#include <vector>

#include "common/CKvList.h"
#include "common/CKvMap.h"
#include "common/Published.h"
#include "kvdatafactory/KvSensor.h"
#include "libplatform/KvPsSensor.h"

/// Ids of the inventories.
enum KvInventoryId : unsigned long {
    kInventoryBodyTemp = 1,
    kInventoryBodyFan = 2,
    kInventoryPowerUnit = 3,
    kInventoryVoltage = 4,
    kInventoryCpu = 5,
    kInventoryCpuBoard = 6,
    kInventoryMemory = 7,
};

/// What a column holds. A sensor column without a sensor counts as a value.
enum KvColumnType : unsigned long {
    kColumnUnknown = 0,
    kColumnSensor = 1,
    kColumnIdString = 2,
    kColumnString = 3,
    kColumnValue = 4,
    kColumnRscString = 5,
};

/// A column. What a kind of column cannot give or take fails, or changes nothing.
/// The order of the virtual functions is fixed.
class CKvColumn {
public:
    explicit CKvColumn(unsigned long type) : type_(type) {}
    CKvColumn(const CKvColumn&) = delete;
    CKvColumn& operator=(const CKvColumn&) = delete;

    virtual uint32_t GetUlong(unsigned long& value);
    virtual uint32_t GetString(CKvString& text);
    /// Reads the sensor now. @param data  receives a new block, freed by the caller (delete)
    virtual uint32_t GetSensor(KVPS_SENSOR_DATA*& data);
    /// Whether the sensor is there. @param status  0: it is not
    virtual uint32_t GetSensorStatus(unsigned long* status);
    virtual void SetData(char* text, const char* limit);
    virtual void SetData(unsigned long value);
    virtual void SetData(unsigned char owner, unsigned char lun, unsigned char number, unsigned char fourth);
    virtual void SetData(const CKvString& text);
    virtual void SetValue(unsigned long value);
    virtual ~CKvColumn() = default;

    unsigned long GetType() const { return type_; }
    void SetType(unsigned long type) { type_ = static_cast<uint32_t>(type); }

private:
    uint32_t type_;
};

class CKvSensorColumn final : public CKvColumn {
public:
    CKvSensorColumn() : CKvColumn(kColumnSensor) {}
    using CKvColumn::SetData;

    uint32_t GetUlong(unsigned long& value) override;
    uint32_t GetString(CKvString& text) override;
    uint32_t GetSensor(KVPS_SENSOR_DATA*& data) override;
    uint32_t GetSensorStatus(unsigned long* status) override;
    void SetData(char* text, const char* limit) override;
    void SetData(unsigned char owner, unsigned char lun, unsigned char number, unsigned char fourth) override;

    const CKvSensor& GetKey() const { return sensor_; }

private:
    CKvSensor sensor_;
};

class CKvStringColumn final : public CKvColumn {
public:
    CKvStringColumn() : CKvColumn(kColumnString) {}
    using CKvColumn::SetData;

    uint32_t GetUlong(unsigned long& value) override;
    uint32_t GetString(CKvString& text) override;
    uint32_t GetSensor(KVPS_SENSOR_DATA*& data) override;
    /// Takes blanks and double quotes off both ends.
    void SetData(char* text, const char* limit) override;
    void SetData(const CKvString& text) override;

private:
    CKvString text_{nullptr, KvHeld<CKvString>::kCapacity};
};

class CKvValueColumn final : public CKvColumn {
public:
    CKvValueColumn() : CKvColumn(kColumnValue) {}
    using CKvColumn::SetData;

    uint32_t GetUlong(unsigned long& value) override;
    uint32_t GetString(CKvString& text) override;
    uint32_t GetSensor(KVPS_SENSOR_DATA*& data) override;
    /// A hexadecimal number.
    void SetData(char* text, const char* limit) override;
    void SetData(unsigned long value) override;
    void SetValue(unsigned long value) override;

private:
    uint32_t value_ = 0;
};

/// One row. Owns its columns.
class CKvInstance {
public:
    CKvInstance(unsigned long index, const char* design);
    ~CKvInstance();
    CKvInstance(const CKvInstance&) = delete;
    CKvInstance& operator=(const CKvInstance&) = delete;

    void SetIndex(unsigned long index) { index_ = static_cast<uint32_t>(index); }
    void SetDesign(const char* design) { design_.SetString(design); }
    /// Takes the column over. @return 0; 0x609D1202 out of memory: the column is deleted
    uint32_t AddColumn(CKvColumn* column);
    unsigned long GetColumnCount() const { return columns_.GetCount(); }
    /// @return 0; 0x609D1302 no such column; 0x609D4201 null argument
    uint32_t GetColumn(unsigned long index, CKvColumn** column) const;
    uint32_t GetUlongColumn(unsigned long index, unsigned long& value) const;
    uint32_t GetStringColumn(unsigned long index, CKvString& text) const;
    uint32_t GetSensorColumn(unsigned long index, KVPS_SENSOR_DATA*& data) const;
    /// Appends the sensors of its columns.
    void AppendSensors(std::vector<CKvSensor>& sensors) const;

private:
    uint32_t index_;
    CKvString design_;
    CKvList<CKvColumn*> columns_;
};

/// One inventory. Owns its instances.
class CKvInventory {
public:
    CKvInventory(unsigned long id, unsigned long type);
    ~CKvInventory();
    CKvInventory(const CKvInventory&) = delete;
    CKvInventory& operator=(const CKvInventory&) = delete;

    void SetId(unsigned long id) { id_ = static_cast<uint32_t>(id); }
    void SetType(unsigned long type) { type_ = static_cast<uint32_t>(type); }
    unsigned long GetId() const { return id_; }
    unsigned long GetType() const { return type_; }
    /// Takes the instance over. @return 0; 0x609E1202 out of memory: the instance is deleted
    uint32_t AddInstance(CKvInstance* instance);
    unsigned long GetInstanceCount() const { return instances_.GetCount(); }
    /// @return 0; 0x609E1302 no such instance; 0x609E4201 null argument
    uint32_t GetInstance(unsigned long index, CKvInstance** instance) const;
    /// The sensors of all columns; some of them several times.
    std::vector<CKvSensor> GetSensors() const;

private:
    uint32_t id_;
    uint32_t type_;
    CKvList<CKvInstance*> instances_;
};

/// All inventories, by their ids. Owns them. An inventory that is in stays as it is, so several threads may read it;
/// one may be added while others search.
class CKvInventoryFactory {
public:
    explicit CKvInventoryFactory(unsigned long version = 0) : version_(static_cast<uint32_t>(version)) {}
    ~CKvInventoryFactory();
    CKvInventoryFactory(const CKvInventoryFactory&) = delete;
    CKvInventoryFactory& operator=(const CKvInventoryFactory&) = delete;

    /// Takes the inventory over; one that it replaces is deleted, so replace only before others search.
    /// @return 0; 0x609F4201 null; 0x609F1202 out of memory: the inventory is deleted
    uint32_t AddInventory(unsigned long id, CKvInventory* inventory);
    /// @return 0; 0x609F1302 there is none; 0x609F4201 null argument
    uint32_t SearchInventory(unsigned long id, CKvInventory** inventory);
    /// Asks without reporting that there is none.
    bool HasInventory(unsigned long id);
    unsigned long GetInventoryCount();
    void SetVersion(unsigned long version) { version_ = static_cast<uint32_t>(version); }

private:
    uint32_t version_;
    std::mutex mutex_;  // guards the map
    CKvMap<unsigned long, CKvInventory*> inventories_;
};

extern Published<CKvInventoryFactory> g_invFactory;
