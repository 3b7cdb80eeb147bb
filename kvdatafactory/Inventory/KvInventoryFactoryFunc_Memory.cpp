// Memory arrays and sockets.
#include <algorithm>
#include <atomic>
#include <vector>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvIfFill.h"
#include "kvdatafactory/Inventory/KvIfMemoryState.h"
#include "kvdatafactory/Inventory/KvIfSmbios.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"
#include "kvdatafactory/KvDfRecordArray.h"
#include "kvdatafactory/KvDfTexts.h"
#include "libplatform/KvDfHardware.h"
#include "libplatform/KvPsBmc.h"

namespace {

// Columns of the memory inventory.
constexpr unsigned long kArray = 0;
constexpr unsigned long kSocket = 1;
constexpr unsigned long kDesignation = 2;
constexpr unsigned long kBank = 3;

// Memory modules (type 6). The standard has the type word at 7 and its DIMM bit at 8; the readers of these codes know them
// as they have always been read.
constexpr uint8_t kModule = 6;
constexpr uint8_t kModuleSocket = 0x04;
constexpr uint8_t kModuleType = 0x06;
constexpr uint16_t kModuleTypeDimm = 1 << 6;
constexpr uint8_t kModuleInstalledSize = 0x09;
constexpr uint8_t kModuleErrorStatus = 0x0B;
constexpr uint8_t kModuleErrors = 0x03;
constexpr uint8_t kSizeNotDeterminable = 0x7D;
constexpr uint8_t kSizeNotEnabled = 0x7E;
constexpr uint8_t kSizeNotInstalled = 0x7F;

// Memory devices (type 17) and their error information (type 18).
constexpr uint8_t kDevice = 17;
constexpr uint8_t kDeviceError = 0x06;
constexpr uint8_t kDeviceSize = 0x0C;
constexpr uint8_t kDeviceLocator = 0x10;
constexpr uint8_t kDeviceBank = 0x11;
constexpr uint8_t kDeviceExtendedSize = 0x1C;
constexpr uint16_t kSizeUnknown = 0xFFFF;
constexpr uint16_t kSizeIsExtended = 0x7FFF;
constexpr uint16_t kErrorNotProvided = 0xFFFE;  // and 0xFFFF: no error was found
constexpr uint8_t kErrorInformation = 18;
constexpr uint8_t kErrorType = 0x04;
constexpr uint8_t kErrorTypeOk = 3;

enum SocketState : uint32_t {
    kSocketUnknown = 0,
    kSocketNormal = 1,
    kSocketNotInstalled = 3,
    kSocketNotEnabled = 4,
    kSocketFaulty = 5,
    kSocketChanged = 6,
    kSocketSpare = 7,           // shown as normal, with a text of its own
    kSocketErrorPredicted = 8,  // shown as faulty, with a text of its own
};

// ---- Variants of the board

constexpr unsigned long kUsualVariant = 1;
std::atomic<KvOemDimmFunction> g_oemDimm{nullptr};
std::atomic<unsigned long> g_OEM_HW{0};  // 0: not asked yet

unsigned long Variant() {
    unsigned long variant = g_OEM_HW;
    if (variant == 0) {
        const KvOemDimmFunction ask = g_oemDimm;
        variant = ask != nullptr ? ask() : kUsualVariant;
        g_OEM_HW = variant;
    }
    return variant;
}

bool IsOemVariant() {
    return Variant() == 2 || Variant() == 3;
}

uint8_t BoardOf(unsigned long variant, uint32_t array) {
    return static_cast<uint8_t>(variant == 3 ? array : 5 - array);
}

uint8_t SlotBitOf(unsigned long variant, uint32_t socket) {
    constexpr uint8_t kBitsOf3[] = {0x80, 0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40};
    constexpr uint8_t kBitsOf2[] = {0x04, 0x02, 0x01, 0x08};
    return variant == 3 ? kBitsOf3[socket & 7] : kBitsOf2[socket & 3];
}

// ---- Sockets

/// The n-th structure of a type, from 0, with these texts. @return null: there is none
const KVPS_SMBIOS_TPHEAD* FindStructure(const KvIfStructures& structures, uint8_t offset, const char* text,
                                        const char* bank, unsigned long nth) {
    for (const KVPS_SMBIOS_TPHEAD* const structure : structures.All()) {
        const bool meant =
            KvIfHasText(*structure, offset, text) && (bank == nullptr || KvIfHasText(*structure, kDeviceBank, bank));
        if (meant && nth-- == 0) return structure;
    }
    return nullptr;
}

bool HasChanged(const KVDF_MEMSOCKET& socket) {
    return KvIfOldMemorySizeOf(socket) != socket.size;
}

void FillFromModule(const KVPS_SMBIOS_TPHEAD& module, KVDF_MEMSOCKET& record) {
    uint8_t size = 0;
    uint8_t errors = 0;
    uint16_t type = 0;
    KvIfGetSmbiosByte(&module, kModuleInstalledSize, &size);
    KvIfGetSmbiosByte(&module, kModuleErrorStatus, &errors);
    KvIfGetSmbiosWord(&module, kModuleType, &type);
    size &= 0x7F;
    const bool isNumber = size < kSizeNotDeterminable;
    record.size = isNumber && size < 32 ? 1u << size : 0;
    switch (size) {
        case kSizeNotDeterminable:
            record.state = kSocketUnknown;
            break;
        case kSizeNotEnabled:
            record.state = kSocketNotEnabled;
            break;
        case kSizeNotInstalled:
            record.state = kSocketNotInstalled;
            break;
        default:
            record.state = kSocketNormal;
    }
    if (size != kSizeNotDeterminable && size != kSizeNotEnabled && HasChanged(record)) record.state = kSocketChanged;
    const bool mayBeFaulty = size != kSizeNotEnabled && size != kSizeNotInstalled;
    if (mayBeFaulty && (type & kModuleTypeDimm) != 0 && (errors & kModuleErrors) != 0) record.state = kSocketFaulty;
}

uint32_t SizeOfDevice(const KVPS_SMBIOS_TPHEAD& device) {
    uint16_t size = 0;
    KvIfGetSmbiosWord(&device, kDeviceSize, &size);
    if (size == kSizeUnknown) return 0;
    if (size == kSizeIsExtended && device.length >= kDeviceExtendedSize + sizeof(uint32_t)) {
        unsigned long extended = 0;
        KvIfGetSmbiosDword(&device, kDeviceExtendedSize, &extended);
        return static_cast<uint32_t>(extended & 0x7FFFFFFF);
    }
    const bool inKilobytes = (size & 0x8000) != 0;
    return (size & 0x7FFFu) >> (inKilobytes ? 10 : 0);
}

uint32_t StateOfDevice(const KVPS_SMBIOS_TPHEAD& device, uint32_t size) {
    const uint32_t bySize = size == 0 ? kSocketNotInstalled : kSocketNormal;
    uint16_t handle = 0;
    KvIfGetSmbiosWord(&device, kDeviceError, &handle);
    if (handle >= kErrorNotProvided) return bySize;
    const KvIfStructures errors(kErrorInformation);
    const auto all = errors.All();
    const auto found =
        std::ranges::find_if(all, [handle](const KVPS_SMBIOS_TPHEAD* error) { return error->handle == handle; });
    if (found == all.end()) return bySize;
    uint8_t type = 0;
    KvIfGetSmbiosByte(*found, kErrorType, &type);
    return type == kErrorTypeOk ? kSocketNormal : kSocketNotInstalled;
}

void FillFromDevice(const KVPS_SMBIOS_TPHEAD& device, KVDF_MEMSOCKET& record) {
    record.size = SizeOfDevice(device);
    record.state = StateOfDevice(device, record.size);
    if (HasChanged(record)) record.state = kSocketChanged;
}

bool IsDeviceType(unsigned long type) {
    return type == kMemoryDevices || type == kMemoryBanks;
}

/// What tells an instance's structure.
struct SocketKey {
    CKvString designation{nullptr, KvHeld<CKvString>::kCapacity};
    CKvString bank{nullptr, KvHeld<CKvString>::kCapacity};
};

uint32_t ReadKey(unsigned long type, const CKvInstance& instance, SocketKey& key) {
    const uint32_t rc = instance.GetStringColumn(kDesignation, key.designation);
    return rc != 0 || type != kMemoryBanks ? rc : instance.GetStringColumn(kBank, key.bank);
}

unsigned long IndexAmongEqual(const CKvInventory& inventory, const CKvInstance& instance) {
    return inventory.GetType() == kMemoryBanks ? KvIfFindEqual(inventory, instance, {kDesignation, kBank}).before
                                               : KvIfFindEqual(inventory, instance, {kDesignation}).before;
}

uint32_t FillFromSmbios(unsigned long type, const SocketKey& key, KVDF_MEMSOCKET* record, unsigned long nth) {
    if (!IsDeviceType(type)) return KvIfSetSmbiosMemorySocket6(key.designation, record, nth);
    if (IsOemVariant()) return KvIfSetSmbiosMemorySocket17OEM_HE_Intel(key.designation, record, nth);
    return KvIfSetSmbiosMemorySocket17_2(type, key.designation, key.bank, record, nth);
}

uint32_t SetMemorySocket(unsigned long type, KVDF_MEMSOCKET* record, CKvInstance* instance, unsigned long nth) {
    constexpr uint32_t kNull = MakeResult(fn::kSetMemorySocket, Reason::NullArgument);
    static_assert(kNull == 0x608B4201);
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetMemorySocket, record, instance, KvIfGetMaxRowCount(type)))
        return rc;
    KvIfFilling filling(*instance);
    filling.Number(kArray, record->array).Number(kSocket, record->number);
    if (filling.Code() != 0) return filling.Code();
    SocketKey key;
    if (const uint32_t rc = ReadKey(type, *instance, key)) return rc;
    if (const uint32_t rc = FillFromSmbios(type, key, record, nth)) return rc;
    if (IsOemVariant()) KvIfGetDIMMStateHWIntel(record);
    if (const uint32_t rc = KvIfSetMemorySocketString(record)) return rc;
    if (record->state == kSocketSpare) record->state = kSocketNormal;
    if (record->state == kSocketErrorPredicted) record->state = kSocketFaulty;
    return 0;
}

// ---- Arrays

/// The distinct array numbers of an inventory, in the order of its instances.
uint32_t ListArrays(uint32_t function, CKvInventory* inventory, std::vector<unsigned long>& arrays,
                    std::source_location where = std::source_location::current()) {
    CKvInstance* instance = nullptr;
    for (unsigned long i = 0; i < inventory->GetInstanceCount(); ++i) {
        if (const uint32_t rc = inventory->GetInstance(i, &instance)) return rc;
        if (instance->GetColumnCount() != KvIfGetMaxRowCount(inventory->GetType())) {
            return PXR_ReportError(MakeResult(function, Reason::BadData), where);
        }
        unsigned long number = 0;
        if (const uint32_t rc = instance->GetUlongColumn(kArray, number)) return rc;
        if (std::ranges::find(arrays, number) == arrays.end()) arrays.push_back(number);
    }
    return 0;
}

/// A socket counts where firmware describes it; the maker's own boards describe only those that hold something.
bool Counts(const CKvInventory& inventory, const CKvInstance& instance) {
    if (IsOemVariant()) return true;
    SocketKey key;
    return ReadKey(inventory.GetType(), instance, key) == 0 &&
           KvIfCheckSmbiosMemorySocket_2(inventory.GetType(), key.designation, key.bank,
                                         IndexAmongEqual(inventory, instance)) == 0;
}

}  // namespace

void KvIfSetOemDimmFunction(KvOemDimmFunction function) {
    g_oemDimm = function;
    g_OEM_HW = 0;
}

unsigned long KvIfGetMaxRowCount(unsigned long type) {
    switch (type) {
        case kMemoryModules:
        case kMemoryDevices:
        case kMemoryOther:
            return 3;
        case kMemoryBanks:
            return 4;
        default:
            return 0;
    }
}

uint32_t KvIfSetSmbiosMemorySocket6(const char* key, KVDF_MEMSOCKET* record, unsigned long nth) {
    const auto failed = [](Reason reason) { return PXR_ReportError(MakeResult(fn::kSetSmbiosMemorySocket6, reason)); };
    if (key == nullptr || record == nullptr) return failed(Reason::NullArgument);
    const KvIfStructures modules(kModule);
    const KVPS_SMBIOS_TPHEAD* const module = FindStructure(modules, kModuleSocket, key, nullptr, nth);
    if (module == nullptr) return failed(Reason::BadData);
    FillFromModule(*module, *record);
    return 0;
}

uint32_t KvIfSetSmbiosMemorySocket17_2(unsigned long type, const char* key, const char* bank, KVDF_MEMSOCKET* record,
                                       unsigned long nth) {
    const auto failed = [](Reason reason) { return PXR_ReportError(MakeResult(fn::kSetSmbiosMemorySocket17, reason)); };
    const char* const wantedBank = type == kMemoryBanks ? bank : nullptr;
    if (key == nullptr || record == nullptr || (type == kMemoryBanks && bank == nullptr)) {
        return failed(Reason::NullArgument);
    }
    const KvIfStructures devices(kDevice);
    const KVPS_SMBIOS_TPHEAD* const device = FindStructure(devices, kDeviceLocator, key, wantedBank, nth);
    if (device == nullptr) return failed(Reason::BadData);
    FillFromDevice(*device, *record);
    return 0;
}

uint32_t KvIfSetSmbiosMemorySocket17OEM_HE_Intel(const char* key, KVDF_MEMSOCKET* record, unsigned long nth) {
    if (key == nullptr || record == nullptr) {
        return PXR_ReportError(MakeResult(fn::kSetSmbiosMemorySocket17, Reason::NullArgument));
    }
    const KvIfStructures devices(kDevice);
    const KVPS_SMBIOS_TPHEAD* const device = FindStructure(devices, kDeviceLocator, key, nullptr, nth);
    if (device != nullptr) {
        FillFromDevice(*device, *record);
    } else {
        record->size = 0;
        record->state = kSocketNotInstalled;
    }
    return 0;
}

uint32_t KvIfGetDIMMStateHWIntel(KVDF_MEMSOCKET* record) {
    constexpr uint32_t kNoAnswer = MakeResult(fn::kGetDimmState, Reason::BadArgument);
    static_assert(kNoAnswer == 0x63FF4202);
    constexpr uint32_t kBoards = 4;
    if (record == nullptr || !IsOemVariant() || record->array == 0 || record->array > kBoards) {
        return PXR_ReportError(kNoAnswer);
    }
    uint32_t state = record->state;
    if (!KvPsGetDIMMStateHWIntel(record->number, BoardOf(Variant(), record->array),
                                 SlotBitOf(Variant(), record->number), &state)) {
        return PXR_ReportError(kNoAnswer);
    }
    record->state = state;
    return 0;
}

uint32_t KvIfCheckSmbiosMemorySocket_2(unsigned long type, const char* key, const char* bank, unsigned long nth) {
    const bool ofDevice = IsDeviceType(type);
    const KvIfStructures structures(ofDevice ? kDevice : kModule);
    const uint8_t offset = ofDevice ? kDeviceLocator : kModuleSocket;
    const char* const wantedBank = type == kMemoryBanks ? bank : nullptr;
    if (key != nullptr && FindStructure(structures, offset, key, wantedBank, nth) != nullptr) return 0;
    return MakeResult(fn::kSetMemorySocketCount, Reason::BadData);
}

uint32_t KvIfSetMemorySocket(unsigned long type, KVDF_MEMSOCKET* record, CKvInstance* instance) {
    return SetMemorySocket(type, record, instance, 0);
}

uint32_t KvIfSetMemorySocketString(KVDF_MEMSOCKET* record) {
    constexpr uint32_t kNull = MakeResult(fn::kSetMemorySocketString, Reason::NullArgument);
    static_assert(kNull == 0x60924201);
    if (record == nullptr) return PXR_ReportError(kNull);
    return SetCodeText(record->stateText, kMemoryTexts, record->state);
}

uint32_t KvIfGetMemoryArrayCount(CKvInventory* inventory, unsigned long* count) {
    constexpr uint32_t kNull = MakeResult(fn::kGetMemoryArrayCount, Reason::NullArgument);
    static_assert(kNull == 0x60884201);
    if (inventory == nullptr || count == nullptr) return PXR_ReportError(kNull);
    std::vector<unsigned long> arrays;
    const uint32_t rc = ListArrays(fn::kGetMemoryArrayCount, inventory, arrays);
    *count = rc == 0 ? static_cast<unsigned long>(arrays.size()) : 0;
    return rc;
}

uint32_t KvIfGetMemoryArrayIndex(CKvInventory* inventory, unsigned long n, unsigned long* number) {
    const auto failed = [](Reason reason) { return PXR_ReportError(MakeResult(fn::kGetMemoryArrayIndex, reason)); };
    if (inventory == nullptr || number == nullptr) return failed(Reason::NullArgument);
    std::vector<unsigned long> arrays;
    if (const uint32_t rc = ListArrays(fn::kGetMemoryArrayIndex, inventory, arrays)) return rc;
    if (n >= arrays.size()) return failed(Reason::BadData);
    *number = arrays[n];
    return 0;
}

uint32_t KvIfSetMemorySocketCount(KVDF_MEMARRAY* record, CKvInventory* inventory) {
    constexpr uint32_t kNull = MakeResult(fn::kSetMemorySocketCount, Reason::NullArgument);
    static_assert(kNull == 0x608A4201);
    if (record == nullptr || inventory == nullptr) return PXR_ReportError(kNull);
    record->sockets = 0;
    CKvInstance* instance = nullptr;
    for (unsigned long i = 0; i < inventory->GetInstanceCount(); ++i) {
        if (const uint32_t rc = inventory->GetInstance(i, &instance)) return rc;
        unsigned long array = 0;
        if (const uint32_t rc = instance->GetUlongColumn(kArray, array)) return rc;
        if (array == record->number && Counts(*inventory, *instance)) ++record->sockets;
    }
    return 0;
}

// ---- Getters

uint32_t KvDfGetMemoryArray(unsigned long* count, KVDF_MEMARRAY** records) {
    if (const uint32_t rc = EmptyOutputs(fn::kGetMemoryArray, count, records)) return rc;
    const auto factory = g_invFactory.Get();
    CKvInventory* inventory = nullptr;
    if (const uint32_t rc = factory->SearchInventory(kInventoryMemory, &inventory)) return rc;
    unsigned long arrays = 0;
    if (const uint32_t rc = KvIfGetMemoryArrayCount(inventory, &arrays)) return rc;
    return FillRecords(fn::kGetMemoryArray, arrays, count, records, [&](KVDF_MEMARRAY& record, unsigned long i) {
        unsigned long number = 0;
        if (const uint32_t rc = KvIfGetMemoryArrayIndex(inventory, i, &number)) return rc;
        record.number = static_cast<uint32_t>(number);
        return KvIfSetMemorySocketCount(&record, inventory);
    });
}

uint32_t KvDfGetMemorySocket(unsigned long* count, KVDF_MEMSOCKET** records) {
    const auto fill = [](KVDF_MEMSOCKET& record, CKvInstance& instance, const CKvInventory& inventory) {
        return SetMemorySocket(inventory.GetType(), &record, &instance, IndexAmongEqual(inventory, instance));
    };
    return GetInventoryRecords(fn::kGetMemorySocket, kInventoryMemory, count, records, fill);
}
