// The classes that the library lists, and the way from a class to its builder.

#include "platform_IF/src/platform_if_Classes.h"

#include <algorithm>
#include <iterator>

#include "platform_IF/src/platform_if.h"

namespace {

constexpr ClassRow kClasses[] = {
    {KTX_CLS_PROVIDER, CreateClassProvider, false},
    {KTX_CLS_KEYBOARD, nullptr, false},
    {KTX_CLS_SYSTEM_BIOS, nullptr, false},
    {KTX_CLS_OPERATING_SYSTEM, nullptr, false},
    {KTX_CLS_COMPUTER_SYSTEM, nullptr, false},
    {KTX_CLS_BODY_TEMP_SENSOR, nullptr, false},
    {KTX_CLS_PROC_TEMP_SENSOR, nullptr, false},
    {KTX_CLS_BODY_FAN, nullptr, false},
    {KTX_CLS_PROC_FAN, nullptr, false},
    {KTX_CLS_UPS_BATTERY, nullptr, false},
    {KTX_CLS_POWER_UNIT, nullptr, false},
    {KTX_CLS_VOLTAGE_SENSOR, nullptr, false},
    {KTX_CLS_PROCESSOR, nullptr, false},
    {KTX_CLS_CACHE_MEMORY, nullptr, false},
    {KTX_CLS_PHISICAL_MEM_ARRAY, nullptr, false},
    {KTX_CLS_PHISICAL_MEM_SOCKET, nullptr, false},
    {KTX_CLS_PHISICAL_MEM_DEVICE, nullptr, false},
    {KTX_CLS_SCSI_CONTROLLER, nullptr, false},
    {KTX_CLS_SCSI_PORT, nullptr, false},
    {KTX_CLS_SCSI_BUS, nullptr, false},
    {KTX_CLS_SCSI_DEV, nullptr, false},
    {KTX_CLS_SCSI_DEV_STATISTICS, nullptr, false},
    {KTX_CLS_SCSI_DEV_ERRCOUNTS, nullptr, false},
    {KTX_CLS_PCI_BRIDGE, nullptr, false},
    {KTX_CLS_PCI_SLOT, nullptr, false},
    {KTX_CLS_EISA_SLOT, nullptr, false},
    {KTX_CLS_PCI_CARD, nullptr, false},
    {KTX_CLS_EISA_CARD, nullptr, false},
    {KTX_CLS_MEMORY_RES, nullptr, false},
    {KTX_CLS_PORT_RES, CreateClassSysresPort, false},
    {KTX_CLS_IRQ, CreateClassSysresIrq, false},
    {KTX_CLS_DMA, CreateClassSysresDma, false},
    {KTX_CLS_ALERT_DATA, nullptr, false},
    {KTX_CLS_TIME_ZONE, nullptr, false},
    {KTX_CLS_ALERT_RECORD, nullptr, false},
    {KTX_CLS_FILE_SYSTEM, nullptr, false},
    {KTX_CLS_POWER_CTRL, ExecuteCommand, true, KV_MODE_ACTION},
    {KTX_CLS_CHASSIS_INFO, nullptr, false},
    {KTX_CLS_COD_INFO, nullptr, false},
    {KTX_CLS_HOSTID_INFO, nullptr, false},
};
static_assert(std::size(kClasses) == 40, "hosts know as many");

}  // namespace

std::span<const ClassRow> Classes() {
    return kClasses;
}

const ClassRow* FindClass(uint32_t id) {
    const auto* const row = std::ranges::find(kClasses, id, &ClassRow::id);
    return row != std::end(kClasses) ? row : nullptr;
}

uint32_t DispatchCommand(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* /*param*/) {
    const ClassRow* const row = FindClass(e->classId);
    if (row == nullptr || row->build == nullptr) return 0;
    const uint32_t result = row->build(e);
    return row->resultReturned ? result : 0;
}
