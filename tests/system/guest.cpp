// Runs inside the booted guest, as root, on real devices: what cannot be asked through kvhost.
//
//   guest kcs      device id through the library's own KCS driver on the real ports (no kernel driver bound)
//   guest kernel   device id through /dev/ipmi0 and the command gate
//   guest times    what the library's layers cost beside the bare system calls
//   guest follow   follows the event log
//   guest beside   what the library costs beside the field's tools

#include <fcntl.h>
#include <linux/ipmi.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/ipmi_ioctl.h"
#include "tests/system/guest.h"

namespace {

using std::chrono::steady_clock;

constexpr int kRounds = 100;

void Print(std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes)
        printf(" %02x", byte);
    printf("\n");
}

int Kcs() {
    if (!ktx_smbios::InitSmbiosLib() || Init_IpmiIF() != 0) return 1;
    std::array<uint8_t, 2> request{0x18, 0x01};
    std::array<uint8_t, 64> response{};
    KvIpmiExecBlock block{};
    block.targetAddress = 0x20;
    block.requestLength = request.size();
    block.request = request.data();
    block.responseLength = response.size();
    block.response = response.data();
    const int rc = ipmi_ioctl(IPMI_EXECCMD, reinterpret_cast<unsigned long>(&block));
    constexpr size_t kHeader = 3;  // NetFn, command, completion code
    if (rc == 0 && block.responseLength >= kHeader + sizeof(ktx_ipmi::DeviceId)) {
        Print(std::span(response).subspan(kHeader, sizeof(ktx_ipmi::DeviceId)));  // not what a BMC may add
    }
    Terminate_IpmiIF();
    return rc == 0 ? 0 : 1;
}

int Kernel() {
    if (!ktx_smbios::InitSmbiosLib() || !ktx_ipmi::InitIpmiLib()) return 1;
    uint32_t rc = 1;
    ktx_ipmi::DeviceId id{};
    {
        const ktx_ipmi::IpmiBracket bracket;
        if (bracket) rc = ktx_ipmi::GetDeviceId(bracket.Handle(), 0x20, &id);
    }
    if (rc == 0) Print({reinterpret_cast<const uint8_t*>(&id), sizeof id});
    ktx_ipmi::TerminateIpmiLib();
    return rc == 0 ? 0 : 1;
}

/// Get Device ID as a program without any library would ask for it.
bool BareDeviceId(int fd, long id) {
    ipmi_system_interface_addr address{IPMI_SYSTEM_INTERFACE_ADDR_TYPE, IPMI_BMC_CHANNEL, 0};
    ipmi_req request{};
    request.addr = reinterpret_cast<unsigned char*>(&address);
    request.addr_len = sizeof address;
    request.msgid = id;
    request.msg.netfn = 6;
    request.msg.cmd = 1;
    if (ioctl(fd, IPMICTL_SEND_COMMAND, &request) != 0) return false;
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, 1000) != 1) return false;
    unsigned char data[64];
    ipmi_addr from{};
    ipmi_recv response{};
    response.addr = reinterpret_cast<unsigned char*>(&from);
    response.addr_len = sizeof from;
    response.msg.data = data;
    response.msg.data_len = sizeof data;
    return ioctl(fd, IPMICTL_RECEIVE_MSG_TRUNC, &response) == 0 && response.msgid == id;
}

double CpuMilliseconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto ms = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

double TimeBareLoop() {
    const int fd = open("/dev/ipmi0", O_RDWR | O_CLOEXEC);
    const auto start = steady_clock::now();
    for (int i = 0; i < kRounds; ++i) {
        if (!BareDeviceId(fd, i + 1)) return -1;
    }
    const double spent = MsSince(start);
    close(fd);
    return spent;
}

double TimeGate() {
    const ktx_ipmi::IpmiBracket bracket;
    if (!bracket) return -1;
    const auto start = steady_clock::now();
    for (int i = 0; i < kRounds; ++i) {
        ktx_ipmi::DeviceId id{};
        if (ktx_ipmi::GetDeviceId(bracket.Handle(), 0x20, &id) != 0) return -1;
    }
    return MsSince(start);
}

double CpuOfSmbiosStart() {
    const double before = CpuMilliseconds(RUSAGE_SELF);
    if (KvPsInitializeSmbios() != 0) return -1;
    return CpuMilliseconds(RUSAGE_SELF) - before;
}

double CpuOfDmidecode() {
    const double before = CpuMilliseconds(RUSAGE_CHILDREN);
    if (system("dmidecode >/dev/null") != 0) return -1;
    return CpuMilliseconds(RUSAGE_CHILDREN) - before;
}

int Times() {
    const double start = CpuMilliseconds(RUSAGE_SELF);
    if (!ktx_smbios::InitSmbiosLib()) return 1;
    const double smbios = CpuMilliseconds(RUSAGE_SELF) - start + CpuOfSmbiosStart();
    const double dmidecode = CpuOfDmidecode();
    printf("smbios-cpu-ms %.2f\ndmidecode-cpu-ms %.2f\n", smbios, dmidecode);

    if (!ktx_ipmi::InitIpmiLib()) return 1;
    // In turn, the best of sixty each: the host that runs this guest has other things to do too.
    double bare = 1e9;
    double gate = 1e9;
    for (int round = 0; round < 60; ++round) {
        bare = std::min(bare, TimeBareLoop());
        gate = std::min(gate, TimeGate());
    }
    ktx_ipmi::TerminateIpmiLib();
    printf("bare-ms %.2f\ngate-ms %.2f\n", bare, gate);
    return bare > 0 && gate > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "kcs") return Kcs();
    if (what == "kernel") return Kernel();
    if (what == "times") return Times();
    if (what == "follow") return Follow();
    if (what == "beside") return Beside();
    fprintf(stderr, "usage: guest kcs|kernel|times|follow|beside\n");
    return 2;
}
