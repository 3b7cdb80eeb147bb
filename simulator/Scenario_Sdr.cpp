/// Sensor data records of a scenario, and the sensors behind them.

#include "simulator/BmcStores.h"
#include "simulator/Scenario.h"
#include "simulator/SdrRepository.h"

namespace sim::scenario {
namespace {

/// Everyday words for the numbers of the sensor-type and unit tables.
constexpr std::pair<std::string_view, uint64_t> kSensorTypes[] = {
    {"temperature", 0x01},      {"voltage", 0x02},
    {"current", 0x03},          {"fan", 0x04},
    {"physicalSecurity", 0x05}, {"processor", 0x07},
    {"powerSupply", 0x08},      {"powerUnit", 0x09},
    {"coolingDevice", 0x0A},    {"memory", 0x0C},
    {"driveSlot", 0x0D},        {"systemFirmware", 0x0F},
    {"eventLog", 0x10},         {"criticalInterrupt", 0x13},
    {"button", 0x14},           {"acpiPowerState", 0x22},
    {"watchdog", 0x23},         {"managementHealth", 0x28},
    {"battery", 0x29}};
constexpr std::pair<std::string_view, uint64_t> kUnits[] = {{"unspecified", 0}, {"degreesC", 1}, {"volts", 4},
                                                            {"amps", 5},        {"watts", 6},    {"rpm", 18}};
constexpr std::pair<std::string_view, uint64_t> kCodings[] = {
    {"unicode", 0}, {"bcdPlus", 1}, {"sixBit", 2}, {"eightBit", 3}};

/// Entity as [id, instance].
void TakeEntity(ScenarioNode& node, uint8_t& id, uint8_t& instance) {
    std::array<uint8_t, 2> entity{id, instance};
    node.Take("entity", entity);
    id = entity[0];
    instance = entity[1];
}

void ReadSensor(ScenarioNode& node, SensorRecord& record) {
    node.Take("owner", record.owner);
    node.Take("lun", record.lun);
    node.Need("number", record.number);
    node.Need("name", record.name);
    TakeEntity(node, record.entityId, record.entityInstance);
    node.TakeNamed("sensorType", kSensorTypes, record.sensorType);
    node.Take("eventType", record.eventType);
    auto coding = static_cast<uint8_t>(record.coding);
    node.TakeNamed("coding", kCodings, coding);
    if (coding > 3) node.Fail("there are four codings, 0 to 3");
    record.coding = static_cast<TextCoding>(coding);
}

/// The ten bytes that turn a raw reading into a value: units, then y = (M x + B 10^Bexp) 10^Rexp.
std::array<uint8_t, 10> ReadConversion(ScenarioNode node) {
    std::array<uint8_t, 10> bytes{};
    if (node.Has("raw")) {
        node.Take("raw", bytes);
        node.Done();
        return bytes;
    }
    bool isSigned = false, percent = false;
    uint8_t unit = 0, modifier = 0, linearization = 0, tolerance = 0;
    uint16_t accuracy = 0;
    int16_t m = 1, b = 0, bExponent = 0, resultExponent = 0;
    node.Take("signed", isSigned);
    node.Take("percent", percent);
    node.TakeNamed("unit", kUnits, unit);
    node.Take("modifier", modifier);
    node.Take("linearization", linearization);
    node.Take("tolerance", tolerance);
    node.Take("accuracy", accuracy);
    node.Take("m", m);
    node.Take("b", b);
    node.Take("bExponent", bExponent);
    node.Take("resultExponent", resultExponent);
    node.Done();
    const auto inRange = [](int value, int limit) { return value >= -limit && value < limit; };
    if (!inRange(m, 512) || !inRange(b, 512)) node.Fail("m and b have ten bits");
    if (!inRange(bExponent, 8) || !inRange(resultExponent, 8)) node.Fail("the exponents have four bits");
    if (tolerance > 0x3F || accuracy > 0x3FF) node.Fail("tolerance has six bits, accuracy ten");
    const auto low = [](int value) { return static_cast<uint8_t>(value); };
    const auto high = [](int value) { return static_cast<uint8_t>((value >> 2) & 0xC0); };
    bytes = {static_cast<uint8_t>((isSigned ? 0x80 : 0) | (percent ? 0x01 : 0)),
             unit,
             modifier,
             linearization,
             low(m),
             static_cast<uint8_t>(high(m) | tolerance),
             low(b),
             static_cast<uint8_t>(high(b) | (accuracy & 0x3F)),
             static_cast<uint8_t>((accuracy >> 2) & 0xF0),
             static_cast<uint8_t>((resultExponent & 0x0F) << 4 | (bExponent & 0x0F))};
    return bytes;
}

/// What Get Sensor Reading shows; a sensor without "reading", "flags" or "states" gets the good state.
Sensor ReadState(ScenarioNode& node) {
    Sensor sensor;
    node.Take("reading", sensor.reading);
    node.Take("flags", sensor.flags);
    node.Take("states", sensor.states);
    for (ScenarioNode each : node.List("factors")) {
        uint8_t from = 0;
        each.Need("from", from);
        each.Need("bytes", sensor.factorsFrom[from]);
        each.Done();
    }
    return sensor;
}

Bytes MakeFull(ScenarioNode& node, SensorBank& sensors) {
    FullRecord record;
    ReadSensor(node, record);
    Sensor sensor = ReadState(node);
    if (const auto conversion = node.Child("conversion")) record.conversion = ReadConversion(*conversion);
    record.nominalGiven = node.Has("nominal");
    node.Take("nominal", record.nominal);
    node.Take("upperCritical", record.upperCritical);
    node.Take("upperNonCritical", record.upperNonCritical);
    node.Take("lowerCritical", record.lowerCritical);
    node.Take("lowerNonCritical", record.lowerNonCritical);
    std::copy_n(record.conversion.begin() + 4, sensor.factors.size(), sensor.factors.begin());
    sensors.At(record.number, record.lun) = sensor;
    return record.Encode();
}

SharedRecord ReadShared(ScenarioNode& node) {
    SharedRecord record;
    record.eventType = 0x6F;
    ReadSensor(node, record);
    node.Take("share", record.shareCount);
    node.Take("alpha", record.modifierAlpha);
    node.Take("offset", record.modifierOffset);
    node.Take("instancesIncrease", record.instancesIncrease);
    if (record.shareCount > 15) node.Fail("a record stands for at most 15 sensors");
    return record;
}

Bytes MakeCompact(ScenarioNode& node, SensorBank& sensors) {
    const SharedRecord record = ReadShared(node);
    const Sensor sensor = ReadState(node);
    for (unsigned i = 0; i < std::max<unsigned>(record.shareCount, 1); ++i)
        sensors.At(static_cast<uint8_t>(record.number + i), record.lun) = sensor;
    return record.EncodeCompact();
}

Bytes MakeEventOnly(ScenarioNode& node, SensorBank&) {
    return ReadShared(node).EncodeEventOnly();
}

struct Location {
    uint8_t address = kBmcAddress, entityId = 0, instance = 1;
    std::string name;
};

Location ReadLocation(ScenarioNode& node) {
    Location location;
    node.Take("address", location.address);
    node.Need("name", location.name);
    TakeEntity(node, location.entityId, location.instance);
    return location;
}

Bytes MakeFruLocator(ScenarioNode& node, SensorBank&) {
    const Location location = ReadLocation(node);
    uint8_t device = 0;
    node.Take("device", device);
    return FruLocator(location.address, device, location.entityId, location.instance, location.name);
}

Bytes MakeControllerLocator(ScenarioNode& node, SensorBank&) {
    const Location location = ReadLocation(node);
    uint8_t capabilities = 0xBF;
    node.Take("capabilities", capabilities);
    return ControllerLocator(location.address, capabilities, location.entityId, location.instance, location.name);
}

Bytes MakeGenericLocator(ScenarioNode& node, SensorBank&) {
    const Location location = ReadLocation(node);
    uint8_t deviceType = 0;
    node.Take("deviceType", deviceType);
    return GenericLocator(location.address, deviceType, location.entityId, location.instance, location.name);
}

Bytes MakeAssociation(ScenarioNode& node, SensorBank&) {
    uint8_t id = 0, instance = 1;
    std::array<uint8_t, 8> contained{};
    TakeEntity(node, id, instance);
    node.Need("contained", contained);
    return EntityAssociation(id, instance, contained);
}

Bytes MakeConfirmation(ScenarioNode& node, SensorBank&) {
    uint8_t address = kBmcAddress, deviceId = 0x20;
    node.Take("address", address);
    node.Take("deviceId", deviceId);
    return ControllerConfirmation(address, deviceId);
}

Bytes MakeOem(ScenarioNode& node, SensorBank&) {
    uint32_t manufacturer = 0;
    Bytes data;
    node.Take("manufacturer", manufacturer);
    node.Need("data", data);
    return OemRecord(manufacturer, data);
}

/// A record as it stands, header included; lengths that lie are welcome.
Bytes MakeRaw(ScenarioNode& node, SensorBank&) {
    Bytes bytes;
    node.Need("bytes", bytes);
    return bytes;
}

constexpr struct {
    std::string_view kind;
    Bytes (*make)(ScenarioNode& node, SensorBank& sensors);
} kRecordKinds[] = {
    {"full", MakeFull},
    {"compact", MakeCompact},
    {"eventOnly", MakeEventOnly},
    {"fruLocator", MakeFruLocator},
    {"controllerLocator", MakeControllerLocator},
    {"genericLocator", MakeGenericLocator},
    {"entityAssociation", MakeAssociation},
    {"controllerConfirmation", MakeConfirmation},
    {"oem", MakeOem},
    {"raw", MakeRaw},
};

}  // namespace

void ApplySdrRecord(SdrRepository& repository, SensorBank& sensors, ScenarioNode node) {
    std::string kind;
    node.Need("kind", kind);
    for (const auto& each : kRecordKinds) {
        if (each.kind != kind) continue;
        const Bytes bytes = each.make(node, sensors);
        uint16_t next = 0;
        node.Take("claimedNext", next);
        node.Done();
        if (bytes.size() < 5) node.Fail("a record has at least five bytes");
        const uint16_t id = repository.Add(bytes);
        if (next != 0) repository.LieAboutNext(id, next);
        return;
    }
    node.Fail("\"" + kind + "\" is no kind of record");
}

}  // namespace sim::scenario
