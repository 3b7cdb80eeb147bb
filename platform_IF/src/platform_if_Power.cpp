// Power commands.

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "platform_IF/src/platform_if.h"

uint32_t ExecuteCommand(_KVCIM_ENUM* e) {
    const _KVCIM_PROP* command = e != nullptr ? SearchProperty(e->first, KTX_PROP_COMMAND_ID) : nullptr;
    if (command == nullptr || command->value == nullptr) {
        return PXR_ReportError(MakeResult(fn::kExecuteCommand, Reason::NullArgument));
    }
    // No command is carried out, and a host that asks for one is told so.
    return PXR_ReportError(MakeResult(fn::kExecuteCommand, Reason::BadArgument));
}
