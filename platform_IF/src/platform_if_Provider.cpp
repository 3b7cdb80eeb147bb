// The provider class: one instance that tells the version of this provider.

#include "common/PXR_function_numbers.h"
#include "platform_IF/src/platform_if.h"
#include "platform_IF/src/platform_if_Builder.h"

namespace {

constexpr const char* kProviderVersion = "04-08-00";

}  // namespace

uint32_t CreateClassProvider(_KVCIM_ENUM* e) {
    return AllOrNone(e, AppendInstance(e, KTX_CLS_PROVIDER, fn::kCreateClassProvider, [](PropertyWriter& properties) {
                         return properties.Text(KTX_PROP_VERSION, kProviderVersion).Result();
                     }));
}
