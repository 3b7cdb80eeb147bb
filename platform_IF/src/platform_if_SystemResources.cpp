// Builders of the system resources: I/O port ranges, interrupt lines and DMA channels.

#include <memory>
#include <span>

#include "common/PXR_function_numbers.h"
#include "platform_IF/src/platform_if.h"
#include "platform_IF/src/platform_if_Builder.h"
#include "platform_IF/src/proc_if.h"

namespace {

// Addresses go out as they always have: a range in the upper half of the 32-bit space carries its sign upwards.
uint64_t WidenWithSign(uint32_t address) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(address)));
}

template <typename Record>
struct Records {
    using Getter = uint32_t (*)(int* count, Record** list);
    using Releaser = void (*)(Record* list, int count);

    Records(Getter get, Releaser release) : release_(release) { result = get(&count_, &list_); }
    ~Records() { release_(list_, count_); }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    std::span<const Record> All() const { return {list_, static_cast<size_t>(count_)}; }

    uint32_t result;

private:
    Releaser release_;
    Record* list_ = nullptr;
    int count_ = 0;
};

uint32_t CreateIrqDma(_KVCIM_ENUM* e, int classId, uint32_t function, int numberCode,
                      Records<SysresIrqDma>::Getter getter) {
    const Records<SysresIrqDma> records(getter, FreeSysresIrqDma);
    if (records.result != 0) return AllOrNone(e, records.result);
    return AllOrNone(e, AppendInstances(e, classId, function, records.All(),
                                        [numberCode](PropertyWriter& properties, const SysresIrqDma& line) {
                                            return properties.U32(numberCode, line.number)
                                                .U32(KTX_PROP_INDEX, line.index)
                                                .Text(KTX_PROP_DEVICE, line.device)
                                                .U32(KTX_PROP_TYPE_CODE, line.typeCode)
                                                .Text(KTX_PROP_TYPE_STRING, line.typeText)
                                                .Result();
                                        }));
}

}  // namespace

uint32_t CreateClassSysresPort(_KVCIM_ENUM* e) {
    const Records<SysresPort> records(GetSysresPort, FreeSysresPort);
    if (records.result != 0) return AllOrNone(e, records.result);
    return AllOrNone(e, AppendInstances(e, KTX_CLS_PORT_RES, fn::kCreateClassSysresPort, records.All(),
                                        [](PropertyWriter& properties, const SysresPort& range) {
                                            return properties.U64(KTX_PROP_STARTING_ADDRESS, WidenWithSign(range.start))
                                                .U64(KTX_PROP_ENDING_ADDRESS, WidenWithSign(range.end))
                                                .U32(KTX_PROP_INDEX, range.index)
                                                .Text(KTX_PROP_DEVICE, range.device)
                                                .U32(KTX_PROP_TYPE_CODE, range.typeCode)
                                                .Text(KTX_PROP_TYPE_STRING, range.typeText)
                                                .Result();
                                        }));
}

uint32_t CreateClassSysresIrq(_KVCIM_ENUM* e) {
    return CreateIrqDma(e, KTX_CLS_IRQ, fn::kCreateClassSysresIrq, KTX_PROP_IRQ_NUMBER, GetSysresIrq);
}

uint32_t CreateClassSysresDma(_KVCIM_ENUM* e) {
    return CreateIrqDma(e, KTX_CLS_DMA, fn::kCreateClassSysresDma, KTX_PROP_DMA_CHANEL, GetSysresDma);
}
