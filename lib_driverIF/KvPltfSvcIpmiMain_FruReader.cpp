// The data factory's reader of FRU fields, as it registered it.

#include "lib_driverIF/KvPltfSvcIpmiMain_FruReader.h"

#include <atomic>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "libplatform/KvPsBmc.h"

namespace {

std::atomic<KvPsFruReader> g_fruReader{nullptr};

}  // namespace

uint32_t ktx_ipmi::ReadFruField(uint32_t target, _KvFruData* out) {
    const KvPsFruReader reader = g_fruReader;
    return reader != nullptr ? reader(target, out) : PXR_ReportError(MakeResult(fn::kNone, Reason::NoData));
}

uint32_t KvPsSetKvDf_GetFruInventoryDataFunc(KvPsFruReader reader) {
    g_fruReader = reader;
    return 0;
}
