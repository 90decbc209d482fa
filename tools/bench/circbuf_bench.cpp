// Throughput of the serial port's circular buffer: bytes written in and
// read out in the chunk sizes the data paths use (a 64-byte full-speed
// packet, a 1500-byte frame, a 4096-byte transfer), wrapping around a
// 10000-byte ring.
#include "cdcacm.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr ULONG kRingBytes = 10000;

void BM_CircBufWriteRead(benchmark::State& state) {
    const ULONG chunk = (ULONG)state.range(0);
    CIRC_BUF ring;
    if (!CircBufAlloc(&ring, kRingBytes)) {
        state.SkipWithError("no pool for the ring");
        return;
    }
    std::vector<UCHAR> in(chunk, 0x5A), out(chunk);
    for (auto _ : state) {
        ULONG written = CircBufWrite(&ring, in.data(), chunk);
        ULONG read = CircBufRead(&ring, out.data(), chunk);
        benchmark::DoNotOptimize(written + read);
        benchmark::DoNotOptimize(out.data());
    }
    CircBufFree(&ring);
    state.SetBytesProcessed((int64_t)state.iterations() * chunk);
}
BENCHMARK(BM_CircBufWriteRead)->Arg(64)->Arg(1500)->Arg(4096);

} // namespace
