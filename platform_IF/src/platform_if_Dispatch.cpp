// From class id to class builder.

#include <algorithm>
#include <array>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "platform_IF/src/platform_if.h"

namespace {

struct DispatchRow {
    uint32_t classId;
    uint32_t (*builder)(_KVCIM_ENUM* e);
    bool resultReturned;  ///< else a failure shows only by an empty enumeration
};

// A class without a row leaves the host's enumeration as it came.
constexpr std::array kDispatch = {
    DispatchRow{KTX_CLS_PROVIDER, CreateClassProvider, false},
    DispatchRow{KTX_CLS_PORT_RES, CreateClassSysresPort, false},
    DispatchRow{KTX_CLS_IRQ, CreateClassSysresIrq, false},
    DispatchRow{KTX_CLS_DMA, CreateClassSysresDma, false},
    DispatchRow{KTX_CLS_POWER_CTRL, ExecuteCommand, true},
};

}  // namespace

uint32_t DispatchCommand(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* /*param*/) {
    const auto* row = std::ranges::find(kDispatch, e->classId, &DispatchRow::classId);
    if (row == kDispatch.end()) return 0;
    const uint32_t result = row->builder(e);
    return row->resultReturned ? result : 0;
}

uint32_t ExecuteCommand(_KVCIM_ENUM* e) {
    const _KVCIM_PROP* command = e != nullptr ? SearchProperty(e->first, KTX_PROP_COMMAND_ID) : nullptr;
    if (command == nullptr || command->value == nullptr) {
        return PXR_ReportError(MakeResult(fn::kExecuteCommand, Reason::NullArgument));
    }
    // No command is carried out, and a host that asks for one is told so.
    return PXR_ReportError(MakeResult(fn::kExecuteCommand, Reason::BadArgument));
}
