// Builders of the system resources: I/O port ranges, interrupt lines and DMA channels.

#include "common/PXR_function_numbers.h"
#include "platform_IF/src/platform_if.h"
#include "platform_IF/src/platform_if_Builder.h"
#include "platform_IF/src/proc_if.h"

namespace {

// Addresses go out as they always have: a range in the upper half of the 32-bit space carries its sign upwards.
uint64_t WidenWithSign(uint32_t address) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(address)));
}
uint64_t StartOf(const SysresPort& range) {
    return WidenWithSign(range.start);
}
uint64_t EndOf(const SysresPort& range) {
    return WidenWithSign(range.end);
}

constexpr RecordSource<SysresPort> kPorts{GetSysresPort, FreeSysresPort};
constexpr Column<SysresPort> kPortColumns[] = {
    {KTX_PROP_STARTING_ADDRESS, StartOf},        {KTX_PROP_ENDING_ADDRESS, EndOf},
    {KTX_PROP_INDEX, &SysresPort::index},        {KTX_PROP_DEVICE, &SysresPort::device},
    {KTX_PROP_TYPE_CODE, &SysresPort::typeCode}, {KTX_PROP_TYPE_STRING, &SysresPort::typeText},
};

constexpr RecordSource<SysresIrqDma> kIrqs{GetSysresIrq, FreeSysresIrqDma};
constexpr RecordSource<SysresIrqDma> kDmas{GetSysresDma, FreeSysresIrqDma};

/// Interrupt lines and DMA channels differ in the property of their number.
template <int NumberCode>
constexpr Column<SysresIrqDma> kLineColumns[] = {
    {NumberCode, &SysresIrqDma::number},
    {KTX_PROP_INDEX, &SysresIrqDma::index},
    {KTX_PROP_DEVICE, &SysresIrqDma::device},
    {KTX_PROP_TYPE_CODE, &SysresIrqDma::typeCode},
    {KTX_PROP_TYPE_STRING, &SysresIrqDma::typeText},
};

}  // namespace

uint32_t CreateClassSysresPort(_KVCIM_ENUM* e) {
    return BuildFromRecords(e, KTX_CLS_PORT_RES, fn::kCreateClassSysresPort, kPorts, kPortColumns);
}

uint32_t CreateClassSysresIrq(_KVCIM_ENUM* e) {
    return BuildFromRecords(e, KTX_CLS_IRQ, fn::kCreateClassSysresIrq, kIrqs, kLineColumns<KTX_PROP_IRQ_NUMBER>);
}

uint32_t CreateClassSysresDma(_KVCIM_ENUM* e) {
    return BuildFromRecords(e, KTX_CLS_DMA, fn::kCreateClassSysresDma, kDmas, kLineColumns<KTX_PROP_DMA_CHANEL>);
}
