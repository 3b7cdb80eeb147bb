// The alert that a failed database raises.

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "libplatform/PXR_catalogue.h"

namespace {

constexpr uint32_t kAlertDatabaseFailed = 64016;  // its number in the catalogue, too
constexpr uint32_t kLevel = 10;
constexpr uint32_t kPortion = 16;
constexpr int kAlertSet = 2;

void SetText(CKvString& out, int locale) {
    char* text = nullptr;
    GetCatMessage(locale, "KvAgent.cat", kAlertSet, kAlertDatabaseFailed, &text);
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    out = text;
}

void FillAlert(KVDF_ALERT& alert) {
    alert.id = kAlertDatabaseFailed;
    alert.level = kLevel;
    alert.portion = kPortion;
    alert.time = static_cast<uint32_t>(time(nullptr));
    SetText(alert.message, GetLocale());
    SetText(alert.message2, KV_LOCALE_NEUTRAL);
}

/// Takes the failure for who is going to tell of it: true once.
bool TakeDatabaseFailure() {
    SelDbFileState failed = kSelDbFailed;
    return g_eSelDbFileStat.compare_exchange_strong(failed, kSelDbReported);
}

}  // namespace

uint32_t AddAlertOccurredBySELDb(unsigned long* count, KVDF_ALERT** alerts) {
    if (count == nullptr || alerts == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument));
    if (g_eSelDbFileStat != kSelDbFailed) return 0;
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
