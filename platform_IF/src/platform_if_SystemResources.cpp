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

/// The properties that the three kinds have in common, in template order behind their own.
template <typename Record>
uint32_t DescribeResource(PropertyWriter& properties, const Record& record) {
    return properties.U32(KTX_PROP_INDEX, record.index)
        .Text(KTX_PROP_DEVICE, record.device)
        .U32(KTX_PROP_TYPE_CODE, record.typeCode)
        .Text(KTX_PROP_TYPE_STRING, record.typeText)
        .Result();
}

}  // namespace

uint32_t CreateClassSysresPort(_KVCIM_ENUM* e) {
    constexpr RecordSource<SysresPort> kPorts{GetSysresPort, FreeSysresPort};
    return BuildFromRecords(e, KTX_CLS_PORT_RES, fn::kCreateClassSysresPort, kPorts,
                            [](PropertyWriter& properties, const SysresPort& range) {
                                properties.U64(KTX_PROP_STARTING_ADDRESS, WidenWithSign(range.start))
                                    .U64(KTX_PROP_ENDING_ADDRESS, WidenWithSign(range.end));
                                return DescribeResource(properties, range);
                            });
}

uint32_t CreateClassSysresIrq(_KVCIM_ENUM* e) {
    constexpr RecordSource<SysresIrqDma> kLines{GetSysresIrq, FreeSysresIrqDma};
    return BuildFromRecords(e, KTX_CLS_IRQ, fn::kCreateClassSysresIrq, kLines,
                            [](PropertyWriter& properties, const SysresIrqDma& line) {
                                return DescribeResource(properties.U32(KTX_PROP_IRQ_NUMBER, line.number), line);
                            });
}

uint32_t CreateClassSysresDma(_KVCIM_ENUM* e) {
    constexpr RecordSource<SysresIrqDma> kChannels{GetSysresDma, FreeSysresIrqDma};
    return BuildFromRecords(e, KTX_CLS_DMA, fn::kCreateClassSysresDma, kChannels,
                            [](PropertyWriter& properties, const SysresIrqDma& channel) {
                                return DescribeResource(properties.U32(KTX_PROP_DMA_CHANEL, channel.number), channel);
                            });
}
