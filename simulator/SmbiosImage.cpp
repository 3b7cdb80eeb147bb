#include "simulator/SmbiosImage.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace sim {

namespace {

void PutNumber(Bytes& bytes, size_t offset, uint64_t value, size_t size) {
    if (offset > bytes.size() || size > bytes.size() - offset) throw std::out_of_range("field outside its structure");
    for (size_t i = 0; i < size; ++i)
        bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutText(Bytes& bytes, size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<ptrdiff_t>(offset));
}

void Append(Bytes& bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
}

// The formatted areas of version 2.8, by type.
constexpr uint8_t kBiosLength = 0x18;
constexpr uint8_t kSystemLength = 0x1B;
constexpr uint8_t kProcessorLength = 0x2A;
constexpr uint8_t kMemoryControllerLength = 0x10;  ///< and two bytes per module
constexpr uint8_t kMemoryModuleLength = 0x0C;
constexpr uint8_t kCacheLength = 0x13;
constexpr uint8_t kMemoryArrayLength = 0x17;
constexpr uint8_t kMemoryDeviceLength = 0x28;
constexpr uint8_t kMemoryErrorLength = 0x17;
constexpr uint8_t kIpmiDeviceLength = 0x12;

constexpr uint8_t kEntryPointLength = 0x1F;
constexpr uint8_t kEntryPoint64Length = 0x18;

}  // namespace

SmbiosStructure::SmbiosStructure(uint8_t type, uint16_t handle, uint8_t length) : formatted_(length) {
    Byte(0, type).Byte(1, length).Word(2, handle);
}

SmbiosStructure& SmbiosStructure::Number(size_t offset, uint64_t value, size_t size) {
    PutNumber(formatted_, offset, value, size);
    return *this;
}

SmbiosStructure& SmbiosStructure::Put(size_t offset, const Bytes& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i)
        Byte(offset + i, bytes[i]);
    return *this;
}

SmbiosStructure& SmbiosStructure::String(size_t offset, const std::string& text) {
    if (text.empty()) return Byte(offset, 0);
    if (strings_.size() >= UINT8_MAX) throw std::out_of_range("more strings than a byte can name");
    strings_.push_back(text.substr(0, text.find('\0')));
    return Byte(offset, static_cast<uint8_t>(strings_.size()));
}

Bytes SmbiosStructure::Encode() const {
    Bytes bytes = formatted_;
    for (const std::string& text : strings_)
        Append(bytes, text);
    if (strings_.empty()) bytes.push_back(0);
    bytes.push_back(0);
    return bytes;
}

uint16_t SmbiosImage::NextHandle(uint8_t type) {
    return static_cast<uint16_t>(type << 8 | perType_[type]++);
}

void SmbiosImage::Add(const SmbiosStructure& structure) {
    AddRaw(structure.Encode());
}

void SmbiosImage::AddRaw(const Bytes& bytes, uint16_t structures) {
    table_.insert(table_.end(), bytes.begin(), bytes.end());
    count_ = static_cast<uint16_t>(count_ + structures);
    largest_ = std::max(largest_, bytes.size());
    if (!bytes.empty()) lastType_ = bytes[0];
}

void SmbiosImage::AddStructures(const Bytes& bytes) {
    constexpr uint8_t kEnd[] = {0, 0};
    for (auto begin = bytes.begin(); begin != bytes.end();) {
        const auto rest = bytes.end() - begin;
        const auto formatted = std::min<ptrdiff_t>(rest > 1 ? begin[1] : rest, rest);
        const auto strings = std::search(begin + formatted, bytes.end(), std::begin(kEnd), std::end(kEnd));
        const auto end = strings != bytes.end() ? strings + sizeof kEnd : strings;
        AddRaw({begin, end});
        begin = end;
    }
}

uint16_t SmbiosImage::Add(const SmbiosBios& bios) {
    const uint16_t handle = NextHandle(0);
    Add(SmbiosStructure(0, handle, kBiosLength)
            .String(0x04, bios.vendor)
            .String(0x05, bios.version)
            .Word(0x06, bios.startSegment)
            .String(0x08, bios.releaseDate)
            .Byte(0x09, bios.romSize)
            .Qword(0x0A, bios.characteristics)
            .Byte(0x14, bios.majorRelease)
            .Byte(0x15, bios.minorRelease)
            .Word(0x16, 0xFFFF));  // no embedded controller
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosSystem& system) {
    const uint16_t handle = NextHandle(1);
    Add(SmbiosStructure(1, handle, kSystemLength)
            .String(0x04, system.manufacturer)
            .String(0x05, system.product)
            .String(0x06, system.version)
            .String(0x07, system.serial)
            .Put(0x08, system.uuid)
            .Byte(0x18, system.wakeUp)
            .String(0x19, system.sku)
            .String(0x1A, system.family));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosProcessor& processor) {
    const uint16_t handle = NextHandle(4);
    Add(SmbiosStructure(4, handle, kProcessorLength)
            .String(0x04, processor.socket)
            .Byte(0x05, 3)  // central processor
            .Byte(0x06, processor.family)
            .String(0x07, processor.manufacturer)
            .Qword(0x08, processor.id)
            .String(0x10, processor.version)
            .Byte(0x11, processor.voltage)
            .Word(0x12, processor.externalClock)
            .Word(0x14, processor.maxSpeed)
            .Word(0x16, processor.currentSpeed)
            .Byte(0x18, processor.status)
            .Byte(0x19, processor.upgrade)
            .Word(0x1A, processor.l1Cache)
            .Word(0x1C, processor.l2Cache)
            .Word(0x1E, processor.l3Cache)
            .String(0x20, processor.serial)
            .String(0x21, processor.assetTag)
            .String(0x22, processor.partNumber)
            .Byte(0x23, processor.cores)
            .Byte(0x24, processor.coresEnabled)
            .Byte(0x25, processor.threads)
            .Word(0x26, 0x0004)  // 64-bit
            .Word(0x28, processor.family));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosMemoryController& controller) {
    const uint16_t handle = NextHandle(5);
    const size_t slots = controller.modules.size();
    const auto length = static_cast<uint8_t>(kMemoryControllerLength + 2 * slots);
    SmbiosStructure structure(5, handle, length);
    structure.Byte(0x04, controller.errorDetection)
        .Byte(0x05, controller.errorCorrection)
        .Byte(0x06, controller.interleave)
        .Byte(0x07, controller.interleave)
        .Byte(0x08, controller.maxModuleSize)
        .Word(0x09, controller.speeds)
        .Word(0x0B, controller.types)
        .Byte(0x0D, controller.voltage)
        .Byte(0x0E, static_cast<uint8_t>(slots));
    for (size_t i = 0; i < slots; ++i)
        structure.Word(0x0F + 2 * i, controller.modules[i]);
    structure.Byte(0x0F + 2 * slots, controller.errorCorrection);
    Add(structure);
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosMemoryModule& module) {
    const uint16_t handle = NextHandle(6);
    Add(SmbiosStructure(6, handle, kMemoryModuleLength)
            .String(0x04, module.socket)
            .Byte(0x05, module.banks)
            .Byte(0x06, module.speed)
            .Word(0x07, module.type)
            .Byte(0x09, module.installedSize)
            .Byte(0x0A, module.enabledSize)
            .Byte(0x0B, module.errorStatus));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosCache& cache) {
    const uint16_t handle = NextHandle(7);
    Add(SmbiosStructure(7, handle, kCacheLength)
            .String(0x04, cache.socket)
            .Word(0x05, cache.configuration)
            .Word(0x07, cache.maxSize)
            .Word(0x09, cache.installedSize)
            .Word(0x0B, cache.sramType)
            .Word(0x0D, cache.sramType)
            .Byte(0x0F, cache.speed)
            .Byte(0x10, cache.errorCorrection)
            .Byte(0x11, cache.kind)
            .Byte(0x12, cache.associativity));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosMemoryArray& array) {
    constexpr uint64_t kUseExtended = 0x80000000;  // KiB; more goes into the 64-bit field, in bytes
    const bool extended = array.capacityKiB >= kUseExtended;
    const uint16_t handle = NextHandle(16);
    Add(SmbiosStructure(16, handle, kMemoryArrayLength)
            .Byte(0x04, array.location)
            .Byte(0x05, array.use)
            .Byte(0x06, array.errorCorrection)
            .Dword(0x07, static_cast<uint32_t>(extended ? kUseExtended : array.capacityKiB))
            .Word(0x0B, array.errorHandle)
            .Word(0x0D, array.devices)
            .Qword(0x0F, extended ? array.capacityKiB * 1024 : 0));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosMemoryDevice& device) {
    constexpr uint32_t kUseExtended = 0x7FFF;  // MiB; this much and more goes into the 32-bit field
    const bool extended = device.sizeMiB >= kUseExtended;
    const uint16_t handle = NextHandle(17);
    Add(SmbiosStructure(17, handle, kMemoryDeviceLength)
            .Word(0x04, device.array)
            .Word(0x06, device.errorHandle)
            .Word(0x08, device.totalWidth)
            .Word(0x0A, device.dataWidth)
            .Word(0x0C, static_cast<uint16_t>(extended ? kUseExtended : device.sizeMiB))
            .Byte(0x0E, device.formFactor)
            .Byte(0x0F, device.set)
            .String(0x10, device.locator)
            .String(0x11, device.bank)
            .Byte(0x12, device.type)
            .Word(0x13, device.typeDetail)
            .Word(0x15, device.speed)
            .String(0x17, device.manufacturer)
            .String(0x18, device.serial)
            .String(0x19, device.assetTag)
            .String(0x1A, device.partNumber)
            .Byte(0x1B, device.ranks)
            .Dword(0x1C, extended ? device.sizeMiB : 0)
            .Word(0x20, device.configuredSpeed));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosMemoryError& error) {
    const uint16_t handle = NextHandle(18);
    Add(SmbiosStructure(18, handle, kMemoryErrorLength)
            .Byte(0x04, error.error)
            .Byte(0x05, error.granularity)
            .Byte(0x06, error.operation)
            .Dword(0x07, error.syndrome)
            .Dword(0x0B, error.arrayAddress)
            .Dword(0x0F, error.deviceAddress)
            .Dword(0x13, error.resolution));
    return handle;
}

uint16_t SmbiosImage::Add(const SmbiosIpmiDevice& device) {
    const uint16_t handle = NextHandle(38);
    Add(SmbiosStructure(38, handle, kIpmiDeviceLength)
            .Byte(0x04, device.interface)
            .Byte(0x05, device.revision)
            .Byte(0x06, device.slaveAddress)
            .Byte(0x07, device.nvStorage)
            .Qword(0x08, device.base)
            .Byte(0x10, device.modifier)
            .Byte(0x11, device.interrupt));
    return handle;
}

void SmbiosImage::AddEndOfTable() {
    constexpr uint8_t kEndOfTable = 127;
    if (lastType_ != kEndOfTable) Add(SmbiosStructure(127, NextHandle(127), 4));
}

Bytes SmbiosImage::EntryPoint() const {
    Bytes entry(32);
    PutText(entry, 0, "_SM_");
    PutText(entry, 16, "_DMI_");
    entry[5] = kEntryPointLength;
    entry[6] = majorVersion;
    entry[7] = minorVersion;
    PutNumber(entry, 8, std::min<size_t>(largest_, UINT16_MAX), 2);
    PutNumber(entry, 22, claimedLength.value_or(static_cast<uint16_t>(std::min<size_t>(table_.size(), UINT16_MAX))), 2);
    PutNumber(entry, 24, tableAddress, 4);
    PutNumber(entry, 28, claimedCount.value_or(count_), 2);
    entry[30] = static_cast<uint8_t>(majorVersion << 4 | (minorVersion & 0x0F));
    entry[21] = SmbiosChecksum(entry, 16, 15);
    entry[4] = SmbiosChecksum(entry, 0, kEntryPointLength);
    return entry;
}

Bytes SmbiosImage::EntryPoint64() const {
    Bytes entry(kEntryPoint64Length);
    PutText(entry, 0, "_SM3_");
    entry[6] = kEntryPoint64Length;
    entry[7] = majorVersion;
    entry[8] = minorVersion;
    entry[10] = 1;  // revision of this form
    PutNumber(entry, 12, table_.size(), 4);
    PutNumber(entry, 16, tableAddress, 8);
    entry[5] = SmbiosChecksum(entry, 0, kEntryPoint64Length);
    return entry;
}

std::map<uint64_t, Bytes> SmbiosImage::Blocks() const {
    return {{entryPointAddress, EntryPoint()}, {tableAddress, table_}};
}

uint8_t SmbiosChecksum(const Bytes& bytes, size_t from, size_t length) {
    unsigned sum = 0;
    for (size_t i = from; i < from + length; ++i)
        sum += bytes.at(i);
    return static_cast<uint8_t>(0U - sum);
}

}  // namespace sim
