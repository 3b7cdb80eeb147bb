// What the library costs beside the field's tools, on the same BMC and in the same minute. Each pair takes turns, and
// the best of each counts: the host that runs this guest has other things to do too.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/WDTOperationThread.h"
#include "libplatform/KvPsSensor.h"
#include "tests/system/guest.h"

namespace {

constexpr int kRounds = 8;

// What goes to the kernel's device.
unsigned g_opens = 0;
unsigned g_commands = 0;

struct Cost {
    double ms = 1e9;
    unsigned commands = 0;
    unsigned opens = 0;
};

void KeepBest(Cost& best, const Cost& next) {
    if (next.ms < best.ms) best = next;
}

/// What an operation of the library costs. One that fails ends the program.
template <typename Operation>
Cost CostOf(const char* name, Operation operation) {
    g_commands = g_opens = 0;
    const auto start = std::chrono::steady_clock::now();
    const bool good = operation();
    const Cost cost{MsSince(start), g_commands, g_opens};
    if (good) return cost;
    fprintf(stderr, "%s failed\n", name);
    exit(1);
}

/// What a tool costs, its own start included, as whoever calls it pays for that.
Cost CostOfTool(std::initializer_list<const char*> words) {
    std::vector<char*> arguments;
    for (const char* const word : words)
        arguments.push_back(const_cast<char*>(word));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    return CostOf(arguments[0], [&] {
        pid_t child = 0;
        int status = 0;
        if (posix_spawnp(&child, arguments[0], &quiet, nullptr, arguments.data(), environ) != 0) return false;
        return waitpid(child, &status, 0) == child && status == 0;
    });
}

std::vector<SDR> AllSensors() {
    unsigned long count = 0;
    SDR* records = nullptr;
    if (KvPsGetAllSdrData(&count, &records) != 0) return {};
    const std::unique_ptr<SDR[], decltype(&free)> owner(records, free);
    return {records, records + count};
}

bool ReadOne(const SDR& sdr) {
    KVPS_SENSOR_DATA data;
    return KvPsGetSensorData(sdr.owner, sdr.lun, sdr.number, &data) == 0;
}

/// Every sensor that has a reading is to give it.
bool ReadAll(const std::vector<SDR>& sensors) {
    constexpr uint8_t kEventOnly = 3;
    std::vector<KVPS_SENSOR_DATA> data(sensors.size());
    std::vector<uint32_t> results(sensors.size());
    if (KvPsGetSensorDataList(sensors.data(), static_cast<unsigned long>(sensors.size()), data.data(),
                              results.data()) != 0) {
        return false;
    }
    for (size_t i = 0; i < sensors.size(); ++i) {
        if (results[i] != 0 && sensors[i].recordType != kEventOnly) return false;
    }
    return true;
}

void Print(const char* name, const Cost& cost) {
    printf("%s-ms %.2f\n%s-commands %u\n%s-opens %u\n", name, cost.ms, name, cost.commands, name, cost.opens);
}

}  // namespace

// The linker leads the callers of CWDTOperationThread's functions here.
extern "C" {
int __real__ZN19CWDTOperationThread13LOGG_IPMIInitEv(CWDTOperationThread* self);
int __wrap__ZN19CWDTOperationThread13LOGG_IPMIInitEv(CWDTOperationThread* self) {
    ++g_opens;
    return __real__ZN19CWDTOperationThread13LOGG_IPMIInitEv(self);
}

using Attempts = CWDTOperationThread::Attempts;
int __real__ZN19CWDTOperationThread16IPMI_ExecCommandEhhtPKhPtPhRNS_8AttemptsE(CWDTOperationThread* self, uint8_t,
                                                                               uint8_t, uint16_t, const uint8_t*,
                                                                               uint16_t*, uint8_t*, Attempts*);
int __wrap__ZN19CWDTOperationThread16IPMI_ExecCommandEhhtPKhPtPhRNS_8AttemptsE(CWDTOperationThread* self,
                                                                               uint8_t command, uint8_t netFn,
                                                                               uint16_t dataLength, const uint8_t* data,
                                                                               uint16_t* responseLength,
                                                                               uint8_t* response, Attempts* attempts) {
    ++g_commands;
    return __real__ZN19CWDTOperationThread16IPMI_ExecCommandEhhtPKhPtPhRNS_8AttemptsE(
        self, command, netFn, dataLength, data, responseLength, response, attempts);
}
}

int Beside() {
    if (!StartLayers()) return 1;

    Cost start, ipmiSensors, reading, readings, sdrList, poll, selList;
    for (int round = 0; round < kRounds; ++round) {
        KeepBest(start, CostOf("start", [] { return KvPsInitializeIpmi() == 0; }));
        CostOfTool({"ipmi-sensors", "--flush-cache"});
        KeepBest(ipmiSensors, CostOfTool({"ipmi-sensors", "--quiet-cache"}));
    }
    const std::vector<SDR> sensors = AllSensors();
    if (sensors.empty() || !Poll()) return 1;
    for (int round = 0; round < kRounds; ++round) {
        KeepBest(reading, CostOf("reading", [&] { return ReadOne(sensors.front()); }));
        KeepBest(readings, CostOf("readings", [&] { return ReadAll(sensors); }));
        KeepBest(sdrList, CostOfTool({"ipmitool", "sdr", "list"}));
        KeepBest(poll, CostOf("poll", [] {
                     const auto entries = Poll();
                     return entries && entries->empty();
                 }));
        KeepBest(selList, CostOfTool({"ipmitool", "sel", "list"}));
    }
    KvPsTerminateIpmi();
    ktx_ipmi::TerminateIpmiLib();

    Print("start", start);
    Print("reading", reading);
    Print("readings", readings);
    Print("poll", poll);
    printf("ipmi-sensors-ms %.2f\nsdr-list-ms %.2f\nsel-list-ms %.2f\n", ipmiSensors.ms, sdrList.ms, selList.ms);
    return 0;
}
