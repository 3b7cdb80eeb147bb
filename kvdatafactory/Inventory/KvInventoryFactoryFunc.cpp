// Which creator makes which inventory.
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"

#include <algorithm>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvIfAnalyze";

struct Creator {
    unsigned long id;
    const char* name;
    uint32_t (*create)();
};
constexpr Creator kCreators[] = {
    {kInventoryBodyTemp, "CreateBodyTmp", CreateBodyTmp},
    {kInventoryBodyFan, "CreateBodyFan", CreateBodyFan},
    {kInventoryPowerUnit, "CreatePowerUnit", CreatePowerUnit},
    {kInventoryVoltage, "CreateVoltage", CreateVoltage},
    {kInventoryCpu, "CreateCpu", CreateCpu},
    {kInventoryMemory, "CreateMemory", CreateMemory},
};

}  // namespace

uint32_t KvIf_CreateInstance(unsigned long id) {
    const int printed = static_cast<int>(id);
    if (id == 0 || id > kInventoryMemory) {
        RAS_ERROR("Unknown Inventory ID.(dwInvId =%d)", printed);
        return PXR_ReportError(MakeResult(fn::kCreateInstance, Reason::BadData));
    }
    if (g_invFactory.Get()->HasInventory(id)) {
        RAS_INFO("This Inventory has already been made.(dwInvId =%d)", printed);
        return 0;
    }
    RAS_INFO("This Inventory has not been made, yet. Make it.");
    const auto* const creator = std::ranges::find(kCreators, id, &Creator::id);
    if (creator == std::end(kCreators)) {
        RAS_ERROR("Invalidt Parameter.(dwInvId =%d)", printed);
        return PXR_ReportError(MakeResult(fn::kCreateInstance, Reason::BadArgument));
    }
    const uint32_t rc = creator->create();
    if (rc != 0) RAS_FAILED(rc, creator->name);
    return rc;
}
