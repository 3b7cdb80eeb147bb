// The inventory of memory sockets, from SMBIOS.
#include <memory>
#include <new>
#include <set>
#include <vector>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "kvdatafactory/Inventory/KvIfBuild.h"
#include "kvdatafactory/Inventory/KvIfSmbios.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvInventoryFactoryFunc";

constexpr uint16_t kNoMemoryArray = 0xB118;

/// One instance. @param key  of the definitions: the field that designates the socket
uint32_t AddSocket(CKvInventory& inventory, unsigned long array, unsigned long socket,
                   const KVPS_SMBIOS_TPHEAD& structure, const char* key) {
    CKvString designation(nullptr, KvHeld<CKvString>::kCapacity);
    if (const uint32_t rc = KvIfKeyToSmbiosString(&structure, key, designation)) return rc;
    CKvInstance* instance = nullptr;
    if (const uint32_t rc = KvIfAddInstance(inventory, instance)) return rc;
    uint32_t rc = KvIfAddValue(*instance, array);
    if (rc == 0) rc = KvIfAddValue(*instance, socket);
    return rc != 0 ? rc : KvIfAddText(*instance, designation);
}

/// The handles of a controller's modules.
uint32_t ReadSlots(const KVPS_SMBIOS_TPHEAD& controller, std::set<uint16_t>& handles) {
    uint8_t slots = 0;
    if (const uint32_t rc = KvIfKeyToSmbiosByte(&controller, "SmbiosMemory5SlotNum", &slots)) return rc;
    uint16_t* list = nullptr;
    const uint32_t rc = MemSlotHandleList(&controller, slots, &list);
    const std::unique_ptr<uint16_t[]> owner(list);
    if (rc == 0 && list != nullptr) handles.insert(list, list + slots);
    return rc;
}

/// Makes the inventory, and its instances with build.
template <typename Build>
uint32_t MakeInventory(KvMemoryType type, const KvIfStructures& structures, Build build) {
    auto inventory = std::unique_ptr<CKvInventory>(new (std::nothrow) CKvInventory(kInventoryMemory, type));
    if (inventory == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    const auto all = structures.All();
    const uint32_t rc =
        build(inventory.get(), const_cast<KVPS_SMBIOS_TPHEAD**>(all.data()), static_cast<unsigned long>(all.size()));
    const uint32_t added = g_invFactory.Get()->AddInventory(kInventoryMemory, inventory.release());
    return rc != 0 ? rc : added;
}

}  // namespace

uint32_t MemSlotHandleList(const KVPS_SMBIOS_TPHEAD* controller, unsigned long slots, unsigned short** handles) {
    if (controller == nullptr || handles == nullptr) {
        return PXR_ReportError(MakeResult(fn::kGetKey, Reason::NullArgument));
    }
    *handles = nullptr;
    if (slots == 0) {
        RAS_INFO("No Exist MemSlot.MemSlot = 0");
        return 0;
    }
    const auto tables = g_tables.Get();
    CSmbios* field = nullptr;
    if (const uint32_t rc = KvIf_GetSmbiosKey("SmbiosMemory5SlotList", &field)) return rc;
    std::unique_ptr<uint16_t[]> list(new (std::nothrow) uint16_t[slots]());
    if (list == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    std::vector<uint8_t> bytes(slots * 2);
    const uint32_t rc =
        KvIfGetSmbiosMultiByte(controller, field->GetOffset(), static_cast<int>(bytes.size()), bytes.data());
    if (rc != 0) return rc;
    for (unsigned long i = 0; i < slots; ++i)
        list[i] = static_cast<uint16_t>(bytes[i * 2] | bytes[i * 2 + 1] << 8);
    *handles = list.release();
    return 0;
}

uint32_t CreateMemory5(CKvInventory* inventory, KVPS_SMBIOS_TPHEAD** controllers, unsigned long count) {
    if (inventory == nullptr || controllers == nullptr) {
        return PXR_ReportError(MakeResult(fn::kGetKey, Reason::NullArgument));
    }
    const KvIfStructures modules("SmbiosMemory6");
    if (modules.Code() != 0) return modules.Code();
    unsigned long socket = 0;
    for (unsigned long i = 0; i < count; ++i) {
        std::set<uint16_t> handles;
        if (const uint32_t rc = ReadSlots(*controllers[i], handles)) return rc;
        for (const KVPS_SMBIOS_TPHEAD* const module : modules.All()) {
            uint16_t handle = 0;
            if (const uint32_t rc = KvIfKeyToSmbiosWord(module, "SmbiosMemory6Handle", &handle)) return rc;
            if (!handles.contains(handle)) continue;
            if (const uint32_t rc = AddSocket(*inventory, i + 1, ++socket, *module, "SmbiosMemory6Str")) return rc;
        }
    }
    return 0;
}

uint32_t CreateMemory16(CKvInventory* inventory, KVPS_SMBIOS_TPHEAD** arrays, unsigned long count) {
    if (inventory == nullptr || (arrays == nullptr && count != 0)) {
        return PXR_ReportError(MakeResult(fn::kGetKey, Reason::NullArgument));
    }
    if (count == 0) {
        RAS_ERROR("No Exist MemAry16. MemAry16Cnt = 0");
        return PXR_ReportError(MakeResult(fn::kNone, kNoMemoryArray));
    }
    const KvIfStructures devices("SmbiosMemory17");
    if (devices.Code() != 0) return devices.Code();
    unsigned long socket = 0;
    for (unsigned long i = 0; i < count; ++i) {
        uint16_t array = 0;
        if (const uint32_t rc = KvIfKeyToSmbiosWord(arrays[i], "SmbiosMemory16Handle", &array)) return rc;
        for (const KVPS_SMBIOS_TPHEAD* const device : devices.All()) {
            uint16_t handle = 0;
            if (const uint32_t rc = KvIfKeyToSmbiosWord(device, "SmbiosMemory17AryHandle", &handle)) return rc;
            if (handle != array) continue;
            if (const uint32_t rc = AddSocket(*inventory, i + 1, ++socket, *device, "SmbiosMemory17Str")) return rc;
        }
    }
    return 0;
}

uint32_t CreateMemory() {
    const auto tables = g_tables.Get();
    const KvIfStructures controllers("SmbiosMemory5");
    if (!controllers.IsEmpty()) {
        RAS_INFO(" INVENTORY_MEMORY_TYPE5");
        return MakeInventory(kMemoryModules, controllers, CreateMemory5);
    }
    const KvIfStructures arrays("SmbiosMemory16");
    if (!arrays.IsEmpty()) {
        RAS_INFO(" INVENTORY_MEMORY_TYPE16");
        return MakeInventory(kMemoryDevices, arrays, CreateMemory16);
    }
    RAS_INFO("NO EXIST INVENTORY [MEMORY]");
    return 0;
}
