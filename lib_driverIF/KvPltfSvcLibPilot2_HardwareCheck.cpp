// Has the hardware been replaced since the last run? The addresses of the onboard network adapters tell: state that was
// saved on the old board must not be taken for that of the new one.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <new>
#include <utility>

#include "lib_driverIF/FruLayout.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_FruReader.h"
#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"
#include "libplatform/PXR_proc.h"

namespace {

constexpr const char* kCurrentList = "/var/opt/velmora/lantrel/dat/HWCheckList.dat";
constexpr const char* kRememberedList = "/var/opt/velmora/lantrel/dat/HWList.dat";
constexpr const char* kListScript = "/opt/velmora/lantrel/rc/HWCheck";

struct Adapter {
    char name;
    uint32_t fruTarget;
};
constexpr std::array<Adapter, 2> kBladeAdapters{{{'A', fru::kAdapterA}, {'B', fru::kAdapterB}}};
constexpr size_t kMacLength = 6;

std::string ReadBladeAdapter(const Adapter& adapter) {
    _KvFruData field = {};
    if (ktx_ipmi::ReadFruField(adapter.fruTarget, &field) != 0) return {};
    if (field.length != kMacLength) {
        LOG_CAPABILITY(kLogError, "GbEther %c MAC address length error(%d).", adapter.name, field.length);
        return {};
    }
    char address[18];
    const uint8_t* const mac = field.data;
    snprintf(address, sizeof address, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    LOG_CAPABILITY(kLogTrace, "GbEther %c MAC address get success(%s).", adapter.name, address);
    return address;
}

bool WriteList(const char* path, const AddressList& addresses) {
    std::string text;
    for (const std::string& address : addresses)
        text += address + '\n';
    return WriteWholeFile(path, text);
}

void BuildBladeList() {
    AddressList addresses;
    for (const Adapter& adapter : kBladeAdapters) {
        std::string address = ReadBladeAdapter(adapter);
        if (!address.empty()) addresses.push_back(std::move(address));
    }
    if (!addresses.empty()) WriteList(kCurrentList, addresses);
}

void BuildRackList() {
    std::string shell = "sh";
    std::string script = kListScript;
    char* const arguments[] = {shell.data(), script.data(), nullptr};
    const int status = PXR_exec_command(nullptr, 0, "/bin/sh", arguments);
    if (status != 0) LOG_CAPABILITY(kLogError, "%s ended with %d.", kListScript, status);
}

/// Leaves no list behind when none can be made: that of an earlier run says nothing about this one.
void BuildCurrentList() {
    unlink(kCurrentList);
    uint32_t family = kFamilyUnknown;
    if (!IsVaristel(&family)) return;
    if (family == kFamilyBlade) {
        BuildBladeList();
    } else {
        BuildRackList();
    }
}

/// @return nothing when there is one that cannot be read now
std::optional<AddressList> ReadList(const char* path) {
    if (access(path, F_OK) != 0 && errno == ENOENT) return AddressList{};
    const std::optional<std::string> text = ReadWholeFile(path);
    if (!text) return std::nullopt;
    return ParseAddressList(*text);
}

/// Compares the lists, and keeps what was found.
class Check {
public:
    Check() {
        try {
            Compare();
        } catch (const std::bad_alloc&) {  // it could not be checked
        }
    }
    int Result() const { return result_; }
    bool Remember() {
        if (result_ != kHardwareChanged) return true;
        if (!WriteList(kRememberedList, exchanged_)) return false;
        result_ = kHardwareSame;
        return true;
    }

private:
    void Compare() {
        BuildCurrentList();
        std::optional<AddressList> current = ReadList(kCurrentList);
        const std::optional<AddressList> remembered = ReadList(kRememberedList);
        if (!current || current->empty() || !remembered) return;
        AddressList matching;
        std::ranges::copy_if(*remembered, std::back_inserter(matching), [&](const std::string& address) {
            return std::ranges::find(*current, address) != current->end();
        });
        if (matching.empty() && !remembered->empty()) {
            exchanged_ = std::move(*current);
            result_ = kHardwareChanged;
        } else if (WriteList(kRememberedList, matching.empty() ? *current : matching)) {
            result_ = kHardwareSame;
        }
    }

    std::atomic<int> result_ = kHardwareUnknown;
    AddressList exchanged_;  // the new addresses, to be remembered
};

Check& CheckedOnce() {
    static Check check;
    return check;
}

}  // namespace

int KvHardWareCheck() {
    return CheckedOnce().Result();
}

bool RememberHardware() {
    try {
        return CheckedOnce().Remember();
    } catch (const std::bad_alloc&) {
        return false;
    }
}
