// One IPMI command through the gate and the kernel device's path, to a controller that answers at once.

#include <benchmark/benchmark.h>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/WDTOperationThread.h"
#include "simulator/SimulatedServer.h"

namespace {

constexpr int kHandle = 1;  // the lock is not what is measured
constexpr uint8_t kBmc = 0x20;

void GetDeviceIdThroughTheGate(benchmark::State& state) {
    sim::SimulatedServer server;
    KvSetDeviceOps(server.Ops());
    objOprThread.LOGG_IPMIInit();
    while (state.KeepRunning()) {
        ktx_ipmi::DeviceId id{};
        if (ktx_ipmi::GetDeviceId(kHandle, kBmc, &id) != 0) {
            state.SkipWithError("the controller did not answer");
            break;
        }
        benchmark::DoNotOptimize(id);
    }
    objOprThread.LOGG_IPMIClose();
    KvSetDeviceOps(nullptr);
}
BENCHMARK(GetDeviceIdThroughTheGate);

}  // namespace

BENCHMARK_MAIN();
