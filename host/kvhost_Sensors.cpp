#include "host/kvhost_Sensors.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <vector>

#include "cover/Heap.h"
#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

using Json = nlohmann::ordered_json;

// Flags of a reading.
constexpr uint8_t kScanningEnabled = 1u << 6;
constexpr uint8_t kReadingUnavailable = 1u << 5;

struct Records {
    HeapOwned<SDR[]> owner;
    std::span<const SDR> all;
};

Records ReadRecords(const Library& library) {
    unsigned long count = 0;
    SDR* records = nullptr;
    library.Check(library.KvPsGetAllSdrData(&count, &records));
    return {HeapOwned<SDR[]>(records), {records, count}};
}

std::string NameOf(const SDR& sdr) {
    const std::string_view name(sdr.name, strnlen(sdr.name, sizeof sdr.name));
    return Printable(ToUtf8(name, false));
}

/// What the sensors read now. Nothing for those that do not answer or scan, and those that only log events.
std::vector<std::optional<KVPS_SENSOR_DATA>> ReadAll(const Library& library, std::span<const SDR> records) {
    std::vector<KVPS_SENSOR_DATA> data(records.size());
    std::vector<uint32_t> results(records.size());
    if (!records.empty()) {
        library.Check(library.KvPsGetSensorDataList(records.data(), static_cast<unsigned long>(records.size()),
                                                    data.data(), results.data()));
    }
    std::vector<std::optional<KVPS_SENSOR_DATA>> readings;
    for (size_t i = 0; i < records.size(); ++i) {
        const bool available =
            results[i] == 0 && (data[i].flags & (kScanningEnabled | kReadingUnavailable)) == kScanningEnabled;
        readings.push_back(available ? std::optional(data[i]) : std::nullopt);
    }
    return readings;
}

Json ReadingFields(const SDR& sdr, const std::optional<KVPS_SENSOR_DATA>& data) {
    return {{"owner", Hex(sdr.owner, 2)},
            {"lun", sdr.lun},
            {"number", sdr.number},
            {"name", NameOf(sdr)},
            {"type", SensorTypeName(sdr.sensorType)},
            {"reading", data ? Json(Hex(data->reading, 2)) : Json()},
            {"states", data ? Json(HexBytes(data->states)) : Json()}};
}

const char* KindName(uint8_t recordType) {
    switch (recordType) {
        case 1:
            return "full";
        case 2:
            return "compact";
        default:
            return "event-only";
    }
}

Json PackedFields(const SDR& sdr) {
    return {{"owner", Hex(sdr.owner, 2)},
            {"lun", sdr.lun},
            {"number", sdr.number},
            {"kind", KindName(sdr.recordType)},
            {"name", NameOf(sdr)},
            {"entity", std::to_string(sdr.entityId) + "." + std::to_string(sdr.entityInstance)},
            {"sensor type", Hex(sdr.sensorType, 2)},
            {"reading type", Hex(sdr.readingType, 2)},
            {"conversion", HexBytes(sdr.conversion)},
            {"nominal", sdr.nominalSpecified != 0 ? Json(Hex(sdr.nominal, 2)) : Json()}};
}

}  // namespace

std::string SensorTypeName(uint8_t type) {
    static constexpr const char* kNames[] = {nullptr,
                                             "temperature",
                                             "voltage",
                                             "current",
                                             "fan",
                                             "physical security",
                                             "platform security",
                                             "processor",
                                             "power supply",
                                             "power unit",
                                             "cooling device",
                                             "other units",
                                             "memory",
                                             "drive slot",
                                             "memory resize",
                                             "firmware progress",
                                             "event log",
                                             "watchdog 1",
                                             "system event",
                                             "critical interrupt",
                                             "button",
                                             "module",
                                             "microcontroller",
                                             "add-in card",
                                             "chassis",
                                             "chip set",
                                             "other FRU",
                                             "cable",
                                             "terminator",
                                             "boot initiated",
                                             "boot error",
                                             "system boot",
                                             "system stop",
                                             "slot",
                                             "ACPI power state",
                                             "watchdog 2",
                                             "platform alert",
                                             "entity presence",
                                             "monitor",
                                             "LAN",
                                             "management health",
                                             "battery",
                                             "session audit",
                                             "version change",
                                             "FRU state"};
    return type > 0 && type < std::size(kNames) ? kNames[type] : Hex(type, 2);
}

void ShowSensors(const Library& library, SensorView view, std::ostream& out, bool json, const Screen& screen) {
    const Records records = ReadRecords(library);
    Json list = Json::array();
    if (view == SensorView::kPacked) {
        for (const SDR& sdr : records.all)
            list.push_back(PackedFields(sdr));
    } else {
        const auto readings = ReadAll(library, records.all);
        for (size_t i = 0; i < readings.size(); ++i)
            list.push_back(ReadingFields(records.all[i], readings[i]));
    }
    if (json) {
        out << list.dump(2) << '\n';
    } else if (list.empty()) {
        out << "no sensors\n";
    } else {
        out << FormatObjects(list, screen);
    }
}

}  // namespace kvhost
