// The alert that a failed database of the event logs raises.

#include "kvdatafactory/Alert/KvAlertFactoryFunc_SelDb.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

namespace {

constexpr uint32_t kLevel = 10;
constexpr uint32_t kPortion = 16;

void SetText(CKvString& out, int locale) {
    out = texts::Fetch(locale, texts::Id::AlertSelDatabase).get();
}

void FillAlert(KVDF_ALERT& alert) {
    alert.id =
        static_cast<uint32_t>(texts::Of(texts::Id::AlertSelDatabase).number);  // an alert and its text have one number
    alert.level = kLevel;
    alert.portion = kPortion;
    alert.time = static_cast<uint32_t>(time(nullptr));
    SetText(alert.message, GetLocale());
    SetText(alert.message2, KV_LOCALE_NEUTRAL);
}

}  // namespace

uint32_t AddAlertOccurredBySELDb(unsigned long* count, KVDF_ALERT** alerts) {
    if (count == nullptr || alerts == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument));
    if (!IsDatabaseFailureUntold()) return 0;
    const unsigned long before = *alerts != nullptr ? *count : 0;
    std::unique_ptr<KVDF_ALERT[]> longer(new (std::nothrow) KVDF_ALERT[before + 1]);
    if (longer == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    if (!TakeDatabaseFailure()) return 0;
    std::copy_n(*alerts, before, longer.get());
    FillAlert(longer[before]);
    delete[] * alerts;
    *alerts = longer.release();
    *count = before + 1;
    return 0;
}
