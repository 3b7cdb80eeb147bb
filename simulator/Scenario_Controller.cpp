/// A controller of a scenario: identity, repositories, logs, OEM records.

#include "simulator/Bmc.h"
#include "simulator/Scenario.h"

namespace sim::scenario {
namespace {

void ApplyDeviceId(DeviceId& id, ScenarioNode node) {
    node.Take("id", id.id);
    node.Take("revision", id.revision);
    node.Take("firmwareMajor", id.firmwareMajor);
    node.Take("firmwareMinor", id.firmwareMinor);
    node.Take("ipmiVersion", id.ipmiVersion);
    node.Take("support", id.support);
    node.Take("manufacturer", id.manufacturer);
    node.Take("product", id.product);
    node.Done();
}

void TakeTexts(ScenarioNode& node, const char* key, std::vector<std::string>& texts) {
    for (const ScenarioNode& text : node.List(key))
        text.Read(texts.emplace_back());
}

void ApplyFru(FruStore& store, ScenarioNode node) {
    uint8_t device = 0;
    node.Take("device", device);
    if (node.Has("raw")) {
        Bytes raw;
        node.Take("raw", raw);
        store.Set(device, std::move(raw));
        node.Done();
        return;
    }
    FruImage image;
    node.Take("size", image.size);
    node.Take("internal", image.internalUse);
    node.Take("chassisType", image.chassisType);
    TakeTexts(node, "chassis", image.chassis);
    TakeTexts(node, "board", image.board);
    TakeTexts(node, "product", image.product);
    for (ScenarioNode record : node.List("records")) {
        FruImage::MultiRecord made{};
        record.Need("type", made.type);
        record.Take("version", made.version);
        record.Need("data", made.data);
        record.Done();
        image.records.push_back(std::move(made));
    }
    node.Done();
    try {
        store.Set(device, image.Encode());
    } catch (const std::length_error& error) {
        node.Fail(error.what());
    }
}

uint8_t MemberNumber(const std::string& key, const ScenarioNode& node) {
    const auto number = ParseNumber(key);
    if (!number || *number > 0xFF) node.Fail("the name must be a number up to 255");
    return static_cast<uint8_t>(*number);
}

void ApplyChannels(LanChannels& lan, ScenarioNode node) {
    for (auto& [key, value] : node.Members()) {
        Channel& channel = lan.channels[MemberNumber(key, value)];
        value.Take("medium", channel.medium);
        value.Take("protocol", channel.protocol);
        value.Take("sessions", channel.sessions);
        if (auto parameters = value.Child("parameters"))
            for (const auto& [selector, bytes] : parameters->Members())
                bytes.Read(channel.lanParameters[MemberNumber(selector, bytes)]);
        value.Done();
    }
}

template <class T>
void TakeOptional(ScenarioNode& node, const char* key, std::optional<T>& target) {
    if (node.Has(key)) node.Take(key, target.emplace());
}

void TakeBySelector(ScenarioNode& node, const char* key, std::map<uint8_t, Bytes>& target) {
    if (auto records = node.Child(key))
        for (const auto& [selector, bytes] : records->Members())
            bytes.Read(target[MemberNumber(selector, bytes)]);
}

void ApplyOem(OemData& oem, ScenarioNode node) {
    TakeOptional(node, "capability", oem.capability);
    TakeOptional(node, "modelModifiers", oem.modelModifiers);
    TakeOptional(node, "productName", oem.productName);
    TakeOptional(node, "processorName", oem.processorName);
    TakeOptional(node, "fru", oem.fru);
    TakeOptional(node, "secondFru", oem.secondFru);
    TakeBySelector(node, "capacity", oem.capacity);
    TakeBySelector(node, "dimmStates", oem.dimmStates);
    node.Take("acceptsSvp", oem.acceptsSvp);
    node.Done();
}

SelEntry ReadEntry(const EventLog& log, ScenarioNode node) {
    SelEntry entry{};
    if (node.Has("raw")) {
        node.Take("raw", entry);
        node.Done();
        return entry;
    }
    uint8_t sensorType = 0, sensor = 0, eventType = 0x6F;
    uint16_t generator = kBmcAddress, id = 0;
    uint32_t time = 0, ago = 0;
    bool deasserted = false;
    std::array<uint8_t, 3> data{0, 0xFF, 0xFF};
    node.Take("id", id);
    node.Need("sensorType", sensorType);
    node.Need("sensor", sensor);
    node.Take("eventType", eventType);
    node.Take("deasserted", deasserted);
    node.Take("data", data);
    node.Take("generator", generator);
    node.Take("time", time);
    if (node.Has("ago")) {
        node.Take("ago", ago);
        time = log.Time() - ago;
    }
    node.Done();
    if (deasserted) eventType |= 0x80;
    entry = SystemEvent(sensorType, sensor, eventType, data, time, generator);
    entry[0] = static_cast<uint8_t>(id);
    entry[1] = static_cast<uint8_t>(id >> 8);
    return entry;
}

std::vector<SelEntry> ReadEntries(const EventLog& log, const std::vector<ScenarioNode>& nodes) {
    std::vector<SelEntry> entries;
    entries.reserve(nodes.size());
    for (const ScenarioNode& node : nodes)
        entries.push_back(ReadEntry(log, node));
    return entries;
}

/// What happens to the log while the machine runs: entries are added, or the log is cleared, or rewritten.
void ApplyLater(EventLog& log, ScenarioNode node) {
    uint32_t afterMs = 0;
    bool clear = false;
    node.Need("afterMs", afterMs);
    node.Take("clear", clear);
    const std::vector<SelEntry> entries = ReadEntries(log, node.List("entries"));
    node.Done();
    log.Schedule(std::chrono::milliseconds(afterMs), [clear, entries](EventLog& later) {
        if (clear) later.Clear();
        for (const SelEntry& entry : entries)
            later.Add(entry);
    });
}

}  // namespace

void ApplyEventLog(EventLog& log, ScenarioNode node) {
    size_t capacity = 0;
    node.Take("capacity", capacity);
    if (capacity > 0) log.SetCapacity(capacity);
    if (node.Has("reservable")) {
        bool reservable = true;
        node.Take("reservable", reservable);
        log.SetReservable(reservable);
    }
    unsigned erasePolls = 0;
    node.Take("erasePolls", erasePolls);
    log.SetErasePolls(erasePolls);
    if (node.Has("time")) {
        uint32_t time = 0;
        node.Take("time", time);
        log.SetTime(time);
    }
    for (const SelEntry& entry : ReadEntries(log, node.List("entries")))
        log.Add(entry);
    for (const ScenarioNode& later : node.List("later"))
        ApplyLater(log, later);
    node.Done();
}

void ApplyController(Controller& controller, ScenarioNode node) {
    if (const auto id = node.Child("deviceId")) ApplyDeviceId(*controller.Identity(), *id);
    for (const ScenarioNode& record : node.List("sdr"))
        ApplySdrRecord(*controller.Sdr(), *controller.Sensors(), record);
    if (const auto sel = node.Child("sel")) ApplyEventLog(*controller.Sel(), *sel);
    for (const ScenarioNode& fru : node.List("fru"))
        ApplyFru(*controller.Fru(), fru);
    if (const auto channels = node.Child("channels")) ApplyChannels(*controller.Lan(), *channels);
    if (const auto oem = node.Child("oem")) ApplyOem(*controller.Oem(), *oem);
    node.Done();
}

}  // namespace sim::scenario
