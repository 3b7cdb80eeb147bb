#pragma once
/// @file
/// SMBIOS tables as firmware leaves them in memory, for simulated machines and tests.
///
///   sim::SmbiosImage image;
///   image.Add(sim::SmbiosBios{.vendor = "Example", .version = "1.02"});
///   const uint16_t cpu = image.Add(sim::SmbiosProcessor{.socket = "CPU1"});
///   image.Add(sim::SmbiosStructure(0x8A, 0x8A00, 6).Word(4, cpu));  // a vendor's own type
///   for (auto& [address, bytes] : image.Blocks()) server.AddMemory(address, bytes);

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;

/// One structure: a formatted area, and the strings that its fields name by number.
class SmbiosStructure {
public:
    /// @param length  of the formatted area, 4 or more; zeroes at first
    SmbiosStructure(uint8_t type, uint16_t handle, uint8_t length);

    /// Little-endian fields. Offsets count from the type byte and must lie in the formatted area.
    SmbiosStructure& Byte(size_t offset, uint8_t value) { return Number(offset, value, 1); }
    SmbiosStructure& Word(size_t offset, uint16_t value) { return Number(offset, value, 2); }
    SmbiosStructure& Dword(size_t offset, uint32_t value) { return Number(offset, value, 4); }
    SmbiosStructure& Qword(size_t offset, uint64_t value) { return Number(offset, value, 8); }
    SmbiosStructure& Put(size_t offset, const Bytes& bytes);
    /// Appends a string and makes the byte at the offset name it; an empty one is no string (number 0).
    SmbiosStructure& String(size_t offset, const std::string& text);

    uint8_t Type() const { return formatted_[0]; }
    /// With the strings and the NULs that end them.
    Bytes Encode() const;

private:
    SmbiosStructure& Number(size_t offset, uint64_t value, size_t size);

    Bytes formatted_;
    std::vector<std::string> strings_;
};

inline constexpr uint16_t kSmbiosNoHandle = 0xFFFF;

/// Type 0.
struct SmbiosBios {
    std::string vendor = {};
    std::string version = {};
    std::string releaseDate = {};  ///< "mm/dd/yyyy"
    uint16_t startSegment = 0xF000;
    uint8_t romSize = 0xFF;  ///< n: 64 KiB * (n + 1)
    uint64_t characteristics = 0x0000'0000'0801'1880;
    uint8_t majorRelease = 0xFF;
    uint8_t minorRelease = 0xFF;
};

/// Type 1.
struct SmbiosSystem {
    std::string manufacturer = {};
    std::string product = {};
    std::string version = {};
    std::string serial = {};
    Bytes uuid = Bytes(16);  ///< in stored order
    uint8_t wakeUp = 6;      ///< power switch
    std::string sku = {};
    std::string family = {};
};

/// Type 4.
struct SmbiosProcessor {
    std::string socket = {};
    std::string manufacturer = {};
    std::string version = {};
    uint8_t family = 0xB3;
    uint64_t id = 0;
    uint8_t voltage = 0x8A;        ///< 0x80 + tenths of a volt
    uint16_t externalClock = 100;  ///< MHz
    uint16_t maxSpeed = 0;         ///< MHz
    uint16_t currentSpeed = 0;     ///< MHz
    uint8_t status = 0x41;         ///< populated, enabled
    uint8_t upgrade = 6;           ///< none
    uint16_t l1Cache = kSmbiosNoHandle;
    uint16_t l2Cache = kSmbiosNoHandle;
    uint16_t l3Cache = kSmbiosNoHandle;
    std::string serial = {};
    std::string assetTag = {};
    std::string partNumber = {};
    uint8_t cores = 1;
    uint8_t coresEnabled = 1;
    uint8_t threads = 1;
};

/// Type 5, of old machines.
struct SmbiosMemoryController {
    uint8_t errorDetection = 3;   ///< none
    uint8_t errorCorrection = 8;  ///< none
    uint8_t interleave = 3;       ///< one-way
    uint8_t maxModuleSize = 10;   ///< n: 2^n MB
    uint16_t speeds = 1;
    uint16_t types = 4;
    uint8_t voltage = 2;                 ///< 3.3 V
    std::vector<uint16_t> modules = {};  ///< handles of type 6
};

/// Type 6, of old machines.
struct SmbiosMemoryModule {
    std::string socket = {};
    uint8_t banks = 0xFF;
    uint8_t speed = 0;  ///< ns
    uint16_t type = 4;
    uint8_t installedSize = 0x7F;  ///< n: 2^n MB; 0x7F not installed
    uint8_t enabledSize = 0x7F;
    uint8_t errorStatus = 0;
};

/// Type 7.
struct SmbiosCache {
    std::string socket = {};
    uint16_t configuration = 0x0180;  ///< bits 0-2: level - 1
    uint16_t maxSize = 0;             ///< KiB; bit 15: units of 64 KiB
    uint16_t installedSize = 0;
    uint16_t sramType = 2;
    uint8_t speed = 0;            ///< ns
    uint8_t errorCorrection = 5;  ///< single-bit
    uint8_t kind = 5;             ///< unified
    uint8_t associativity = 7;    ///< 8-way
};

/// Type 16.
struct SmbiosMemoryArray {
    uint8_t location = 3;         ///< system board
    uint8_t use = 3;              ///< system memory
    uint8_t errorCorrection = 6;  ///< multi-bit
    uint64_t capacityKiB = 0;
    uint16_t errorHandle = 0xFFFE;
    uint16_t devices = 0;
};

/// Type 17.
struct SmbiosMemoryDevice {
    uint16_t array = 0;
    uint16_t errorHandle = 0xFFFE;
    uint16_t totalWidth = 72;
    uint16_t dataWidth = 64;
    uint32_t sizeMiB = 0;  ///< 0: empty socket
    uint8_t formFactor = 9;
    uint8_t set = 0;
    std::string locator = {};
    std::string bank = {};
    uint8_t type = 0x1A;
    uint16_t typeDetail = 0x2080;
    uint16_t speed = 0;  ///< MT/s
    std::string manufacturer = {};
    std::string serial = {};
    std::string assetTag = {};
    std::string partNumber = {};
    uint8_t ranks = 2;
    uint16_t configuredSpeed = 0;
};

/// Type 18.
struct SmbiosMemoryError {
    uint8_t error = 3;  ///< none
    uint8_t granularity = 2;
    uint8_t operation = 2;
    uint32_t syndrome = 0;
    uint32_t arrayAddress = 0x80000000;
    uint32_t deviceAddress = 0x80000000;
    uint32_t resolution = 0x80000000;
};

/// Type 38.
struct SmbiosIpmiDevice {
    uint8_t interface = 1;  ///< 1 KCS, 2 SMIC, 3 BT, 4 SSIF
    uint8_t revision = 0x20;
    uint8_t slaveAddress = 0x20;
    uint8_t nvStorage = 0xFF;
    uint64_t base = 0xCA3;  ///< bit 0: I/O space
    uint8_t modifier = 0;   ///< bits 6-7: register spacing, bit 4: bit 0 of the address
    uint8_t interrupt = 0;
};

class SmbiosImage {
public:
    uint8_t majorVersion = 2;
    uint8_t minorVersion = 8;
    uint32_t entryPointAddress = 0xF0000;
    uint32_t tableAddress = 0xE0000;
    /// What the entry point says instead of the truth.
    std::optional<uint16_t> claimedCount;
    std::optional<uint16_t> claimedLength;

    /// Adds a structure. Those of a given type get the handles type * 256, type * 256 + 1 and so on.
    /// @return its handle
    uint16_t Add(const SmbiosBios& bios);
    uint16_t Add(const SmbiosSystem& system);
    uint16_t Add(const SmbiosProcessor& processor);
    uint16_t Add(const SmbiosMemoryController& controller);
    uint16_t Add(const SmbiosMemoryModule& module);
    uint16_t Add(const SmbiosCache& cache);
    uint16_t Add(const SmbiosMemoryArray& array);
    uint16_t Add(const SmbiosMemoryDevice& device);
    uint16_t Add(const SmbiosMemoryError& error);
    uint16_t Add(const SmbiosIpmiDevice& device);
    /// Adds a structure with its own handle.
    void Add(const SmbiosStructure& structure);
    /// Adds bytes as they are. @param structures  by how many the entry point's count grows
    void AddRaw(const Bytes& bytes, uint16_t structures = 1);
    /// Adds the structures that lie one behind the other in the bytes: one, or a whole table.
    void AddStructures(const Bytes& bytes);
    /// Type 127, the last structure of a table; unless one is there.
    void AddEndOfTable();

    /// The structures one after the other.
    const Bytes& Table() const { return table_; }
    /// The 32-bit entry point ("_SM_"), 32 bytes, with good checksums.
    Bytes EntryPoint() const;
    /// The 64-bit entry point ("_SM3_"), 24 bytes.
    Bytes EntryPoint64() const;
    /// What lies in memory: address and bytes of the table and of the 32-bit entry point.
    std::map<uint64_t, Bytes> Blocks() const;

private:
    uint16_t NextHandle(uint8_t type);

    Bytes table_;
    uint16_t count_ = 0;
    uint8_t lastType_ = 0;
    size_t largest_ = 0;
    std::map<uint8_t, uint16_t> perType_;
};

/// The value that makes bytes sum to 0 modulo 256.
uint8_t SmbiosChecksum(const Bytes& bytes, size_t from, size_t length);

}  // namespace sim
