// Follows the event log as an agent does, only faster, while entries are added and cleared by other means.

#include <signal.h>

#include <cstdio>
#include <ctime>
#include <memory>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"
#include "tests/system/guest.h"

namespace {

/// Prints the bytes of each new entry in a line.
bool PrintNewEntries() {
    const auto entries = Poll();
    if (!entries) return false;
    const auto* byte = reinterpret_cast<const unsigned char*>(entries->data());
    constexpr size_t kSize = sizeof(KVPS_SEL_ENTRY);
    for (size_t i = 1; i <= entries->size() * kSize; ++i, ++byte)
        printf(" %02x%s", *byte, i % kSize == 0 ? "\n" : "");
    fflush(stdout);
    return true;
}

}  // namespace

bool StartLayers() {
    return ktx_smbios::InitSmbiosLib() && KvPsInitializeSmbios() == 0 && ktx_ipmi::InitIpmiLib();
}

std::optional<std::vector<KVPS_SEL_ENTRY>> Poll() {
    unsigned long count = 0;
    KVPS_SEL_ENTRY* entries = nullptr;
    if (KvPsGetSelAllEntries(&count, &entries) != 0) return std::nullopt;
    const std::unique_ptr<KVPS_SEL_ENTRY[], decltype(&KvPsFreeDataArray)> owner(entries, KvPsFreeDataArray);
    return std::vector(entries, entries + count);
}

int Follow() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGUSR1);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    if (!StartLayers() || KvPsInitializeIpmi() != 0 || !PrintNewEntries()) return 1;
    puts("following");
    fflush(stdout);
    constexpr timespec kInterval{0, 50'000'000};
    bool good = true;
    while (good && sigtimedwait(&stop, nullptr, &kInterval) < 0)
        good = PrintNewEntries();
    KvPsTerminateIpmi();
    ktx_ipmi::TerminateIpmiLib();
    return good ? 0 : 1;
}
