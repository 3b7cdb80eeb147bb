// The tables that the sensor data repository is read into.

#include <algorithm>
#include <mutex>
#include <new>
#include <span>
#include <utility>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"

std::shared_mutex g_sdrMutex;
DEVICE_INFO g_stSnsDev[kMaxDevices];
uint32_t g_dwSnsDevCnt = 0;
SDR (*g_pSdr)[kSlotsPerDevice] = nullptr;
uint32_t g_dwSdrBlocks = 0;
DEVICE_INFO g_stSelDev[kMaxDevices];
uint32_t g_dwSelDevCnt = 0;

namespace ktx_ipmi {

namespace {

std::span<const DEVICE_INFO> SensorDevices() {
    return std::span(g_stSnsDev).first(g_dwSnsDevCnt);
}

std::span<const DEVICE_INFO> SelDevices() {
    return std::span(g_stSelDev).first(g_dwSelDevCnt);
}

// These expect g_sdrMutex to be held.

int IndexOf(uint8_t owner, uint8_t lun) {
    const auto devices = SensorDevices();
    const auto found = std::ranges::find_if(
        devices, [=](const DEVICE_INFO& device) { return device.address == owner && device.lun == lun; });
    return found == devices.end() ? -1 : static_cast<int>(found - devices.begin());
}

bool IsNewSel(const DEVICE_INFO& device) {
    return g_dwSelDevCnt < kMaxDevices && std::ranges::none_of(SelDevices(), [&](const DEVICE_INFO& known) {
               return known.address == device.address && known.recordId == device.recordId;
           });
}

SdrLookup Find(uint8_t owner, uint8_t lun, uint8_t sensor, SDR*& slot) {
    if (g_pSdr == nullptr) return SdrLookup::kNoTable;
    if (sensor >= kSlotsPerDevice) return SdrLookup::kNoNumber;
    const int device = IndexOf(owner, lun);
    if (device < 0 || static_cast<uint32_t>(device) >= g_dwSdrBlocks) return SdrLookup::kNoDevice;
    slot = &g_pSdr[device][sensor];
    return slot->recordType == 0 ? SdrLookup::kEmpty : SdrLookup::kFound;
}

void FreeBlocks() {
    delete[] std::exchange(g_pSdr, nullptr);
    g_dwSdrBlocks = 0;
}

}  // namespace

void ClearSensorTables() {
    const std::unique_lock lock(g_sdrMutex);
    FreeBlocks();
    std::ranges::fill(g_stSnsDev, DEVICE_INFO{});
    g_dwSnsDevCnt = 0;
    std::ranges::fill(g_stSelDev, DEVICE_INFO{});
    g_dwSelDevCnt = 0;
}

void AddSensorDevice(const DEVICE_INFO& device) {
    const std::unique_lock lock(g_sdrMutex);
    if (g_dwSnsDevCnt < kMaxDevices && IndexOf(device.address, device.lun) < 0) g_stSnsDev[g_dwSnsDevCnt++] = device;
}

bool IsNewSelDevice(const DEVICE_INFO& device) {
    const std::shared_lock lock(g_sdrMutex);
    return IsNewSel(device);
}

void AddSelDevice(const DEVICE_INFO& device) {
    const std::unique_lock lock(g_sdrMutex);
    if (IsNewSel(device)) g_stSelDev[g_dwSelDevCnt++] = device;
}

bool MakeSdrTable() {
    const std::unique_lock lock(g_sdrMutex);
    FreeBlocks();
    g_pSdr = new (std::nothrow) SDR[g_dwSnsDevCnt][kSlotsPerDevice]();
    if (g_pSdr == nullptr) return false;
    g_dwSdrBlocks = g_dwSnsDevCnt;
    return true;
}

void FreeSdrTable() {
    const std::unique_lock lock(g_sdrMutex);
    FreeBlocks();
}

bool StoreSdr(const SDR& sdr) {
    const std::unique_lock lock(g_sdrMutex);
    SDR* slot = nullptr;
    Find(sdr.owner, sdr.lun, sdr.number, slot);
    if (slot == nullptr) return false;
    *slot = sdr;
    return true;
}

SdrLookup FindSdr(uint8_t owner, uint8_t lun, uint8_t sensor, SDR* copy) {
    const std::shared_lock lock(g_sdrMutex);
    SDR* slot = nullptr;
    const SdrLookup found = Find(owner, lun, sensor, slot);
    if (copy != nullptr) *copy = slot != nullptr ? *slot : SDR{};
    return found;
}

bool HasSensorRecord(uint8_t owner, uint8_t lun, uint8_t sensor) {
    return FindSdr(owner, lun, sensor, nullptr) == SdrLookup::kFound;
}

int GetSensorDeviceNo(uint8_t owner, uint8_t lun) {
    const std::shared_lock lock(g_sdrMutex);
    return IndexOf(owner, lun);
}

uint32_t SdrInstanceCnt() {
    const std::shared_lock lock(g_sdrMutex);
    uint32_t count = 0;
    ForEachSdr([&](const SDR&) { ++count; });
    return count;
}

std::optional<uint16_t> SensorRefusal(uint8_t owner, uint8_t lun, uint8_t sensor) {
    if (owner & 1) return service_reason::kSoftwareId;
    if (lun > kLastLun) return service_reason::kBadLun;
    if (sensor == kNoSensor) return service_reason::kNoSuchSensor;
    return std::nullopt;
}

}  // namespace ktx_ipmi

using namespace ktx_ipmi;

uint32_t IsSensorExist(uint8_t owner, uint8_t lun, uint8_t sensor, unsigned long* flag) {
    if (flag == nullptr) return ReportNull();
    *flag = 0;
    switch (FindSdr(owner, lun, sensor, nullptr)) {
        case SdrLookup::kFound:
            *flag = 1;
            return 0;
        case SdrLookup::kNoTable:
            return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoRecords));
        case SdrLookup::kNoNumber:
            return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoSuchSensor));
        case SdrLookup::kNoDevice:
        case SdrLookup::kEmpty:
            break;
    }
    return 0;
}
