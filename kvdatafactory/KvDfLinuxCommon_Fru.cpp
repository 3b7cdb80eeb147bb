// The FRU inventory of the machine: read once, then asked for single fields.

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>

#include <syslog.h>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "common/PXR_trace_internal.h"
#include "kvdatafactory/KvDfLinuxCommon_Fru.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Fru.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr const char* kSource = "kvdatafactory/KvDfLinuxCommon";

constexpr uint32_t kOtherProduct = MakeResult(fn::kGetFruInventoryData, Reason::FruOtherProduct);

/// The inventory, as it was read.
struct Inventory {
    bool read = false;
    uint32_t result = 0;  ///< of the reading, for good
    bool boardFru = false;
    std::unique_ptr<uint8_t[]> image;
    size_t imageSize = 0;
    std::array<uint8_t, ktx_ipmi::kOemFruRecordsSize> records{};
    uint32_t recordsLength = 0;
};

std::mutex g_fruMutex;
Inventory g_inventory;  // written once under g_fruMutex, read-only from then on

uint32_t OutOfMemory() {
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::OutOfMemory));
}

/// Takes size bytes as the image.
uint32_t TakeImage(Inventory& inventory, const uint8_t* bytes, size_t size) {
    inventory.image.reset(new (std::nothrow) uint8_t[size]);
    if (inventory.image == nullptr) return OutOfMemory();
    std::copy_n(bytes, size, inventory.image.get());
    inventory.imageSize = size;
    return 0;
}

uint32_t ReadBoardFru(ktx_ipmi::IpmiBracket& bracket, Inventory& inventory) {
    const std::unique_ptr<uint8_t[]> whole(new (std::nothrow) uint8_t[ktx_ipmi::kLargestFruImage]);
    if (whole == nullptr) return OutOfMemory();
    uint32_t size = 0;
    if (const uint32_t rc = ktx_ipmi::ReadVelmoraFruData(bracket, whole.get(), &size)) {
        KvRasLog(1, kSource, __LINE__, "An error occurred in OEM Read Velmora FRU Data Command.");
        return rc;
    }
    return TakeImage(inventory, whole.get(), size);
}

uint32_t ReadStandardFru(ktx_ipmi::IpmiBracket& bracket, Inventory& inventory) {
    constexpr uint8_t kBmcFru = 0;
    uint16_t size = 0;
    if (const uint32_t rc = KvPsGetFruInventoryAreaSize(kBmcFru, &size)) return rc;
    inventory.image.reset(new (std::nothrow) uint8_t[std::max<size_t>(size, 1)]);
    if (inventory.image == nullptr) return OutOfMemory();
    inventory.imageSize = size;
    return ktx_ipmi::ReadFruImage(bracket, kBmcFru, 0, {inventory.image.get(), inventory.imageSize}, &size);
}

void ReportToSyslog() {
    trace::CommandName name;
    trace::CopyCommandName(name);
    texts::Log<texts::Id::FruNotRead>(LOG_ERR, name);
}

/// The process is ending: the reading was broken off, and nothing is known about the inventory.
bool IsBrokenOff(uint32_t result) {
    return result == MakeResult(fn::kNone, ktx_ipmi::service_reason::kTerminating);
}

/// @param bracket  one for all of it; others are let in on the way
uint32_t ReadImage(ktx_ipmi::IpmiBracket& bracket, Inventory& inventory) {
    uint32_t rc = ktx_ipmi::reason::kNotOpened;
    if (!bracket) {
        ktx_ipmi::ReportNotOpened(rc);
    } else {
        rc = inventory.boardFru ? ReadBoardFru(bracket, inventory) : ReadStandardFru(bracket, inventory);
    }
    if (rc != 0 && !inventory.boardFru && !IsBrokenOff(rc)) ReportToSyslog();
    return rc;
}

/// @param opened  out: false when there is no driver for boards that cannot do without
uint32_t ReadInventory(Inventory& inventory, bool& opened) {
    inventory.boardFru = ktx_ipmi::CheckReadVelmoraFruData();
    ktx_ipmi::IpmiBracket bracket;
    opened = bracket || !inventory.boardFru;
    uint32_t rc = ReadImage(bracket, inventory);
    if (rc != 0 || CheckSMBIOSCode() <= kSmbiosCodeUnknown) return rc;
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "[KvDf_GetFruInventoryData] PilotX.");
    rc = ktx_ipmi::ReadOEMFRURecords(bracket, inventory.records.data(), &inventory.recordsLength);
    if (rc != 0) {
        KvRasLog(1, kSource, __LINE__, "OEM Read OEM FRU Command Error:Return Code[%d]", static_cast<int>(rc));
    }
    return rc;
}

/// Reads the inventory unless that was done before.
uint32_t EnsureInventory() {
    bool opened = true;
    uint32_t result = 0;
    {
        const std::lock_guard lock(g_fruMutex);
        if (!g_inventory.read) {
            g_inventory.result = ReadInventory(g_inventory, opened);
            g_inventory.read = !IsBrokenOff(g_inventory.result);
        }
        result = g_inventory.result;
    }
    if (!opened) KvPsTerminateIpmi();  // without the lock: it waits for those who may wait for us
    return result;
}

// The compiler warns of the zero in %08p, which the C library honours; those who search the trace know the text so.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
void TraceMissingRecord(const void* record) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Invalid Parameter. szFruData=0x%08p", record);
}
#pragma GCC diagnostic pop

}  // namespace

uint32_t KvDf_GetFruInventoryData(FruProductAreaNumber target, _KvFruData* out) {
    if (out == nullptr) {
        TraceMissingRecord(out);
        return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NullArgument));
    }
    std::string_view name;
    if (const uint32_t rc = product::Name(&name)) return rc;
    if (!product::IsBlade(name)) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
                  "KvDf_GetFruInventoryData() Don't yet support \"%.*s\".", static_cast<int>(name.size()), name.data());
        return PXR_ReportError(kOtherProduct);
    }
    if (const uint32_t rc = EnsureInventory()) return rc;
    std::string_view version;
    if (const uint32_t rc = product::Name(&name)) return rc;  // the copy may be another one by now
    product::SystemVersion(&version);
    return GetFruData({.image = {g_inventory.image.get(), g_inventory.imageSize},
                       .oemRecords = {g_inventory.records.data(), g_inventory.recordsLength},
                       .product = name,
                       .version = version,
                       .pilot2 = CheckBMCType() != 0,
                       .boardFru = g_inventory.boardFru},
                      target, out);
}
