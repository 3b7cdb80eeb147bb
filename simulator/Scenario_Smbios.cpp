/// The SMBIOS table of a scenario.

#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"
#include "simulator/SmbiosImage.h"

namespace sim::scenario {
namespace {

SmbiosBios ReadBios(ScenarioNode node) {
    SmbiosBios bios;
    node.Take("vendor", bios.vendor);
    node.Take("version", bios.version);
    node.Take("releaseDate", bios.releaseDate);
    node.Take("romSize", bios.romSize);
    node.Take("characteristics", bios.characteristics);
    node.Take("majorRelease", bios.majorRelease);
    node.Take("minorRelease", bios.minorRelease);
    node.Done();
    return bios;
}

SmbiosSystem ReadSystem(ScenarioNode node) {
    SmbiosSystem system;
    std::array<uint8_t, 16> uuid{};
    node.Take("manufacturer", system.manufacturer);
    node.Take("product", system.product);
    node.Take("version", system.version);
    node.Take("serial", system.serial);
    node.Take("uuid", uuid);
    node.Take("wakeUp", system.wakeUp);
    node.Take("sku", system.sku);
    node.Take("family", system.family);
    node.Done();
    system.uuid.assign(uuid.begin(), uuid.end());
    return system;
}

SmbiosCache ReadCache(ScenarioNode node, unsigned& level) {
    SmbiosCache cache;
    level = 1;
    uint32_t kib = 0;
    node.Take("socket", cache.socket);
    node.Take("level", level);
    node.Take("kib", kib);
    node.Take("associativity", cache.associativity);
    node.Take("kind", cache.kind);
    node.Take("errorCorrection", cache.errorCorrection);
    node.Done();
    if (level < 1 || level > 3) node.Fail("the level is 1, 2 or 3");
    constexpr uint16_t kEnabledWriteBack = 0x0180, kUnits64KiB = 0x8000;
    cache.configuration = static_cast<uint16_t>(kEnabledWriteBack | (level - 1));
    if (kib >= kUnits64KiB && kib / 64 >= kUnits64KiB) node.Fail("the cache is too large");
    cache.installedSize = static_cast<uint16_t>(kib < kUnits64KiB ? kib : kUnits64KiB | kib / 64);
    cache.maxSize = cache.installedSize;
    return cache;
}

void AddProcessor(SmbiosImage& image, ScenarioNode node) {
    SmbiosProcessor processor;
    uint16_t* const handles[] = {&processor.l1Cache, &processor.l2Cache, &processor.l3Cache};
    for (const ScenarioNode& each : node.List("caches")) {
        unsigned level = 0;
        const SmbiosCache cache = ReadCache(each, level);
        *handles[level - 1] = image.Add(cache);
    }
    node.Take("socket", processor.socket);
    node.Take("manufacturer", processor.manufacturer);
    node.Take("version", processor.version);
    node.Take("family", processor.family);
    node.Take("id", processor.id);
    node.Take("voltage", processor.voltage);
    node.Take("externalClock", processor.externalClock);
    node.Take("maxSpeed", processor.maxSpeed);
    node.Take("currentSpeed", processor.currentSpeed);
    node.Take("status", processor.status);
    node.Take("upgrade", processor.upgrade);
    node.Take("serial", processor.serial);
    node.Take("assetTag", processor.assetTag);
    node.Take("partNumber", processor.partNumber);
    node.Take("cores", processor.cores);
    node.Take("coresEnabled", processor.coresEnabled);
    node.Take("threads", processor.threads);
    node.Done();
    image.Add(processor);
}

SmbiosMemoryDevice ReadMemoryDevice(SmbiosImage& image, ScenarioNode node) {
    SmbiosMemoryDevice device;
    node.Need("locator", device.locator);
    node.Take("bank", device.bank);
    node.Take("sizeMiB", device.sizeMiB);
    node.Take("formFactor", device.formFactor);
    node.Take("type", device.type);
    node.Take("typeDetail", device.typeDetail);
    node.Take("speed", device.speed);
    node.Take("configuredSpeed", device.configuredSpeed);
    node.Take("manufacturer", device.manufacturer);
    node.Take("serial", device.serial);
    node.Take("assetTag", device.assetTag);
    node.Take("partNumber", device.partNumber);
    node.Take("ranks", device.ranks);
    if (auto error = node.Child("error")) {
        SmbiosMemoryError made;
        error->Take("type", made.error);
        error->Take("granularity", made.granularity);
        error->Take("operation", made.operation);
        error->Done();
        device.errorHandle = image.Add(made);
    }
    node.Done();
    return device;
}

void AddMemoryArray(SmbiosImage& image, ScenarioNode node) {
    SmbiosMemoryArray array;
    const std::vector<ScenarioNode> devices = node.List("devices");
    node.Take("location", array.location);
    node.Take("use", array.use);
    node.Take("errorCorrection", array.errorCorrection);
    node.Take("capacityKiB", array.capacityKiB);
    node.Done();
    array.devices = static_cast<uint16_t>(devices.size());
    const uint16_t handle = image.Add(array);
    for (const ScenarioNode& each : devices) {
        SmbiosMemoryDevice device = ReadMemoryDevice(image, each);
        device.array = handle;
        image.Add(device);
    }
}

/// Types 5 and 6 of old machines: a controller with its modules.
void AddMemoryController(SmbiosImage& image, ScenarioNode node) {
    SmbiosMemoryController controller;
    for (ScenarioNode each : node.List("modules")) {
        SmbiosMemoryModule module;
        each.Need("socket", module.socket);
        each.Take("banks", module.banks);
        each.Take("speed", module.speed);
        each.Take("type", module.type);
        each.Take("installedSize", module.installedSize);
        each.Take("enabledSize", module.enabledSize);
        each.Take("errorStatus", module.errorStatus);
        each.Done();
        controller.modules.push_back(image.Add(module));
    }
    node.Done();
    image.Add(controller);
}

SmbiosIpmiDevice ReadIpmiDevice(ScenarioNode node) {
    SmbiosIpmiDevice device;
    node.Take("interface", device.interface);
    node.Take("revision", device.revision);
    node.Take("slaveAddress", device.slaveAddress);
    node.Take("base", device.base);
    node.Take("modifier", device.modifier);
    node.Take("interrupt", device.interrupt);
    node.Done();
    return device;
}

/// Any structure: its bytes behind the handle, and strings by the offset of the byte that names them.
void AddStructure(SmbiosImage& image, ScenarioNode node) {
    constexpr size_t kHeader = 4, kLongest = 0xFF;
    uint8_t type = 0;
    uint16_t handle = 0;
    Bytes bytes;
    node.Need("type", type);
    node.Need("handle", handle);
    node.Take("bytes", bytes);
    if (kHeader + bytes.size() > kLongest) node.Fail("a structure has at most 255 bytes");
    SmbiosStructure structure(type, handle, static_cast<uint8_t>(kHeader + bytes.size()));
    structure.Put(kHeader, bytes);
    if (auto strings = node.Child("strings")) {
        for (const auto& [key, value] : strings->Members()) {
            const auto offset = ParseNumber(key);
            if (!offset || *offset < kHeader || *offset >= kHeader + bytes.size())
                value.Fail("the name must be an offset within the structure");
            std::string text;
            value.Read(text);
            structure.String(static_cast<size_t>(*offset), text);
        }
    }
    node.Done();
    image.Add(structure);
}

}  // namespace

void ApplySmbios(SimulatedServer& server, ScenarioNode node) {
    SmbiosImage image;
    node.Take("majorVersion", image.majorVersion);
    node.Take("minorVersion", image.minorVersion);
    node.Take("entryPoint", image.entryPointAddress);
    node.Take("table", image.tableAddress);
    if (const auto bios = node.Child("bios")) image.Add(ReadBios(*bios));
    if (const auto system = node.Child("system")) image.Add(ReadSystem(*system));
    for (const ScenarioNode& each : node.List("structures"))
        AddStructure(image, each);
    for (const ScenarioNode& each : node.List("processors"))
        AddProcessor(image, each);
    for (const ScenarioNode& each : node.List("memoryControllers"))
        AddMemoryController(image, each);
    for (const ScenarioNode& each : node.List("memoryArrays"))
        AddMemoryArray(image, each);
    if (const auto device = node.Child("ipmiDevice")) image.Add(ReadIpmiDevice(*device));
    for (const ScenarioNode& each : node.List("raw")) {
        Bytes bytes;
        each.Read(bytes);
        image.AddStructures(bytes);
    }
    image.AddEndOfTable();
    node.Done();
    for (auto& [address, bytes] : image.Blocks())
        server.AddMemory(address, bytes);
}

}  // namespace sim::scenario
