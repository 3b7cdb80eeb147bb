/// @file
/// What an answer costs: building and freeing an enumeration, per instance. A request for ten interrupts and one for a
/// hundred thousand log records should cost the same per row.

#include <benchmark/benchmark.h>

#include "libplatform/PXR_data_access.h"

namespace {

/// One instance with a number, an index and three texts, as the system-resource builders make them.
bool AppendInterrupt(_KVCIM_ENUM* e, uint32_t number) {
    _KVCIM_CLASS* irq = nullptr;
    if (CreateClass(KTX_CLS_IRQ, &irq) != 0) return false;
    SetPropertyUint32(irq, KTX_PROP_IRQ_NUMBER, number);
    SetPropertyUint32(irq, KTX_PROP_INDEX, number);
    SetPropertyStr(irq, KTX_PROP_DEVICE, "ahci[0000:00:1f.2]");
    SetPropertyUint32(irq, KTX_PROP_TYPE_CODE, 0x80000000);
    SetPropertyStr(irq, KTX_PROP_TYPE_STRING, "unknown");
    return InsertClass(e, irq) == 0;
}

void BuildAndFree(benchmark::State& state) {
    const auto instances = static_cast<uint32_t>(state.range(0));
    while (state.KeepRunning()) {
        _KVCIM_ENUM* e = nullptr;
        bool made = CreateEnum(KTX_CLS_IRQ, &e) == 0;
        for (uint32_t i = 0; made && i < instances; ++i) {
            made = AppendInterrupt(e, i);
        }
        FreeEnum(e);
        if (!made) {
            state.SkipWithError("memory exhausted");
            break;
        }
    }
    state.counters["per_instance"] =
        benchmark::Counter(instances, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BuildAndFree)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
