// Runs every benchmark inside one emulated kernel, with the driver's trace
// mask at its value before driver entry (assertions and errors only).
#include "hostkernel/emu.h"
#include "trace.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    hk::Kernel kernel;
    TraceInit();
    TraceMask = TL_ASSERT | TL_ERROR;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
