// The event log in words: new events, and what the local database holds.

#include "host/kvhost_Sel.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <span>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "cover/Heap.h"
#include "host/kvhost_Sensors.h"
#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

using Json = nlohmann::ordered_json;
using Entries = std::vector<KVPS_SEL_ENTRY>;

constexpr const char* kLogFolder = "/var/opt/velmora/lantrel/log";

// Record types
constexpr uint8_t kFirstTimedOem = 0xC0;
constexpr uint8_t kFirstTimelessOem = 0xE0;

/// Local time. A controller whose clock was not set yet counts from its own start.
std::string TimeOf(const KVPS_SEL_ENTRY& entry) {
    constexpr uint32_t kClockNotSet = 0x20000000;
    const uint8_t* const bytes = entry.timeStamp;
    const uint32_t seconds = bytes[0] | static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[2]) << 16 |
                             static_cast<uint32_t>(bytes[3]) << 24;
    if (entry.recordType >= kFirstTimelessOem || seconds == 0xFFFFFFFF) return "unknown";
    if (seconds < kClockNotSet) return "start + " + std::to_string(seconds) + " s";
    const time_t time = seconds;
    tm local{};
    char text[32] = "";
    if (localtime_r(&time, &local) != nullptr) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

/// What happened, as far as the standard tells without knowing the sensor.
std::string EventText(const KVPS_SEL_ENTRY& entry) {
    constexpr uint8_t kThreshold = 0x01, kSensorSpecific = 0x6F;
    static constexpr const char* kThresholds[] = {
        "lower non-critical, going low", "lower non-critical, going high",   "lower critical, going low",
        "lower critical, going high",    "lower non-recoverable, going low", "lower non-recoverable, going high",
        "upper non-critical, going low", "upper non-critical, going high",   "upper critical, going low",
        "upper critical, going high",    "upper non-recoverable, going low", "upper non-recoverable, going high",
    };
    const unsigned type = entry.eventType & 0x7Fu;
    const unsigned offset = entry.eventData[0] & 0x0Fu;
    if (type == kThreshold && offset < std::size(kThresholds)) return kThresholds[offset];
    const std::string state = "state " + std::to_string(offset);
    return type == kSensorSpecific ? state : state + " of event type " + Hex(type, 2);
}

/// Names of the sensors, as far as the plug-in knows them.
class SensorNames {
public:
    explicit SensorNames(const Library& library) {
        unsigned long count = 0;
        SDR* records = nullptr;
        if (library.KvPsGetAllSdrData(&count, &records) != 0) return;
        const HeapOwned<SDR[]> owner(records);
        for (const SDR& sdr : std::span(records, count)) {
            const std::string_view name(sdr.name, strnlen(sdr.name, sizeof sdr.name));
            names_[{sdr.owner, sdr.lun, sdr.number}] = Printable(ToUtf8(name, false));
        }
    }
    std::string Of(const KVPS_SEL_ENTRY& entry) const {
        const auto lun = static_cast<uint8_t>(entry.generatorId[1] & 3);
        const auto found = names_.find({entry.generatorId[0], lun, entry.sensorNumber});
        return found != names_.end() ? found->second : "";
    }

private:
    std::map<std::tuple<uint8_t, uint8_t, uint8_t>, std::string> names_;
};

Json Fields(const KVPS_SEL_ENTRY& entry, const SensorNames& names) {
    Json fields{{"record", Hex(entry.recordId, 4)}, {"time", TimeOf(entry)}};
    if (entry.recordType >= kFirstTimedOem) {
        uint8_t bytes[sizeof entry];
        memcpy(bytes, &entry, sizeof entry);
        const size_t data = entry.recordType >= kFirstTimelessOem ? offsetof(KVPS_SEL_ENTRY, timeStamp)
                                                                  : offsetof(KVPS_SEL_ENTRY, generatorId);
        fields.update(Json{{"generator", nullptr},
                           {"sensor", nullptr},
                           {"name", nullptr},
                           {"type", "OEM record " + Hex(entry.recordType, 2)},
                           {"event", nullptr},
                           {"asserted", nullptr},
                           {"data", HexBytes(std::span(bytes).subspan(data))}});
        return fields;
    }
    const std::string name = names.Of(entry);
    fields.update(Json{{"generator", Hex(entry.generatorId[0] | static_cast<unsigned>(entry.generatorId[1]) << 8, 4)},
                       {"sensor", Hex(entry.sensorNumber, 2)},
                       {"name", name.empty() ? Json() : Json(name)},
                       {"type", SensorTypeName(entry.sensorType)},
                       {"event", EventText(entry)},
                       {"asserted", (entry.eventType & 0x80) == 0},
                       {"data", HexBytes(entry.eventData)}});
    return fields;
}

std::string Text(const Json& value) {
    return value.is_string() ? value.get<std::string>() : "";
}

/// The fields that tell people most, so that a line fits.
Row AsRow(const Json& event) {
    const Json& name = event["name"];
    std::string what = Text(event["event"]);
    if (event["asserted"] == false) what += " (deasserted)";
    Row row{Text(event["record"]), Text(event["time"]), Text(name.is_null() ? event["sensor"] : name),
            Text(event["type"]), what.empty() ? Text(event["data"]) : what};
    if (event.contains("device")) row.insert(row.begin(), Text(event["device"]));
    return row;
}

std::string AsTable(const std::vector<Json>& events, const Screen& screen) {
    std::vector<Column> columns{{"record"}, {"time"}, {"sensor"}, {"type"}, {"event"}};
    if (events.front().contains("device")) columns.insert(columns.begin(), {"device"});
    std::vector<Row> rows;
    rows.reserve(events.size());
    for (const Json& event : events)
        rows.push_back(AsRow(event));
    return FormatTable(columns, rows, screen);
}

Entries TakeNewEntries(const Library& library) {
    unsigned long count = 0;
    KVPS_SEL_ENTRY* entries = nullptr;
    library.Check(library.KvPsGetSelAllEntries(&count, &entries));
    const std::unique_ptr<KVPS_SEL_ENTRY[], decltype(library.KvPsFreeDataArray)> owner(entries,
                                                                                       library.KvPsFreeDataArray);
    return {entries, entries + count};
}

std::vector<Json> AllFields(const Entries& entries, const SensorNames& names) {
    std::vector<Json> events;
    events.reserve(entries.size());
    for (const KVPS_SEL_ENTRY& entry : entries)
        events.push_back(Fields(entry, names));
    return events;
}

void Show(const std::vector<Json>& events, const char* none, std::ostream& out, bool json, const Screen& screen) {
    if (json) {
        out << Json(events).dump(2) << '\n';
    } else if (events.empty()) {
        out << none << '\n';
    } else {
        out << AsTable(events, screen);
    }
}

/// Database files by the key of their device.
std::map<std::string, std::filesystem::path> FindDatabases() {
    static const std::regex pattern("ipmi_sel_([0-9a-f]{2}_[0-9a-f]{4})\\.db");
    std::map<std::string, std::filesystem::path> found;
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(kLogFolder, error)) {
        const std::string name = file.path().filename();
        std::smatch match;
        if (std::regex_match(name, match, pattern)) found[match[1]] = file.path();
    }
    return found;
}

/// The records of a database file that hold something.
Entries ReadDatabase(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    Entries entries;
    KVPS_SEL_ENTRY entry;
    static constexpr KVPS_SEL_ENTRY kEmpty{};
    while (in.read(reinterpret_cast<char*>(&entry), sizeof entry)) {
        if (memcmp(&entry, &kEmpty, sizeof entry) != 0) entries.push_back(entry);
    }
    if (!in.eof()) throw std::runtime_error(path.string() + " cannot be read");
    return entries;
}

}  // namespace

StopSignals::StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
}

StopSignals::~StopSignals() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool StopSignals::ArriveWithin(std::chrono::seconds time) const {
    const timespec timeout{static_cast<time_t>(time.count()), 0};
    return sigtimedwait(&signals_, nullptr, &timeout) > 0;
}

void ShowNewEvents(const Library& library, std::ostream& out, bool json, const Screen& screen) {
    const Entries entries = TakeNewEntries(library);
    Show(AllFields(entries, SensorNames(library)), "no new events", out, json, screen);
}

void FollowEvents(const Library& library, const StopSignals& stop, std::ostream& out, bool json, const Screen& screen,
                  const std::function<void(const std::string& text)>& complain) {
    const SensorNames names(library);
    do {
        std::vector<Json> events;
        try {
            events = AllFields(TakeNewEntries(library), names);
        } catch (const std::runtime_error& failure) {
            complain(failure.what());
        }
        if (json) {
            for (const Json& event : events)
                out << event.dump() << '\n';
        } else if (!events.empty()) {
            out << AsTable(events, screen) << '\n';
        }
        out.flush();
        if (!out) throw std::runtime_error("the output could not be written");
    } while (!stop.ArriveWithin(kSelPollInterval));
}

void ShowKnownEvents(const Library& library, std::ostream& out, bool json, const Screen& screen) {
    const SensorNames names(library);
    std::vector<Json> events;
    for (const auto& [key, path] : FindDatabases()) {
        for (const KVPS_SEL_ENTRY& entry : ReadDatabase(path)) {
            Json event{{"device", key}};
            event.update(Fields(entry, names));
            events.push_back(std::move(event));
        }
    }
    Show(events, "no known events", out, json, screen);
}

}  // namespace kvhost
