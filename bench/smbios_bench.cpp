/// @file
/// What start-up spends on the SMBIOS table: finding, reading, indexing and copying it, per structure. Large servers
/// have a thousand structures and more, so the cost must grow with their number and no faster.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "lib_driverIF/KvLibSmbios.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/SimulatedMemory.h"

namespace {

constexpr int kTypes = 40;

/// Structures of many types in no order, as small as 4,000 of them must be to fit into one table.
sim::SmbiosImage MakeImage(int64_t structures) {
    sim::SmbiosImage image;
    for (int64_t i = 0; i < structures; ++i) {
        const auto type = static_cast<uint8_t>(i * 7 % kTypes);
        const auto handle = static_cast<uint16_t>(i * 40503);
        image.Add(sim::SmbiosStructure(type, handle, 6).String(4, std::to_string(i)));
    }
    return image;
}

void PerStructure(benchmark::State& state) {
    state.SetComplexityN(state.range(0));
    state.counters["per_structure"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void ReadAndIndex(benchmark::State& state) {
    SimulatedMemory memory;
    memory.AddMemory(MakeImage(state.range(0)).Blocks());
    while (state.KeepRunning()) {
        if (Init_SmbiosIF() != 0 || smbios_tablecnt != state.range(0)) {
            state.SkipWithError("the table was not read");
            break;
        }
        Terminate_SmbiosIF();
    }
    PerStructure(state);
}
BENCHMARK(ReadAndIndex)->Arg(100)->Arg(200)->Arg(400)->Arg(1000)->Arg(2000)->Arg(4000)->Complexity();

void CopyAll(benchmark::State& state) {
    SimulatedMemory memory;
    memory.AddMemory(MakeImage(state.range(0)).Blocks());
    bool good = Init_SmbiosIF() == 0;
    while (state.KeepRunning()) {
        good = good && KvPsInitializeSmbios() == 0 && g_dwStructCount == state.range(0);
        if (!good) {
            state.SkipWithError("the structures were not copied");
            break;
        }
    }
    KvPsTerminateSmbios();
    PerStructure(state);
}
BENCHMARK(CopyAll)->Arg(100)->Arg(200)->Arg(400)->Arg(1000)->Arg(2000)->Arg(4000)->Complexity();

}  // namespace

BENCHMARK_MAIN();
