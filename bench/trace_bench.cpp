/// @file
/// What a trace call costs where nobody listens: every function of the library traces, so this is paid all the time.

#include <benchmark/benchmark.h>

#include "libplatform/PXR_data_access.h"
#include "libplatform/PXR_trace.h"

namespace {

void TraceMessage(benchmark::State& state) {
    while (state.KeepRunning()) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "sensor %d of %s reads %d\n", 7, "board", 42);
    }
}
BENCHMARK(TraceMessage);

/// The dump that the entry points make before and after each request, for one instance.
void TraceEnumeration(benchmark::State& state) {
    _KVCIM_ENUM* e = nullptr;
    _KVCIM_CLASS* irq = nullptr;
    if (CreateEnum(KTX_CLS_IRQ, &e) != 0 || CreateClass(KTX_CLS_IRQ, &irq) != 0 || InsertClass(e, irq) != 0) {
        state.SkipWithError("memory exhausted");
    }
    SetPropertyStr(irq, KTX_PROP_DEVICE, "ahci[0000:00:1f.2]");
    while (state.KeepRunning()) {
        TraceEnum(PXR_TRACE_MASK_PLUGIN, e);
    }
    FreeEnum(e);
}
BENCHMARK(TraceEnumeration);

}  // namespace

int main(int argc, char** argv) {
    if (PXR_trace_init() == 0) {
        PXR_trace_term();
        benchmark::AddCustomContext("trace daemon", "listening, switched off for this run");
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
