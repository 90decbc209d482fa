// Throughput of the serial port's circular buffer: bytes written in and
// read out in the chunk sizes the data paths use (a 64-byte full-speed
// packet, a 1500-byte frame, a 4096-byte transfer), wrapping around a
// 10000-byte ring; and, as its yardstick, the same chunks copied in and out
// of a flat buffer with memcpy.
#include "cdcacm.h"

#include <benchmark/benchmark.h>

#include <cstring>
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

void BM_MemcpyWriteRead(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    std::vector<UCHAR> in(chunk, 0x5A), out(chunk), flat(kRingBytes);
    for (auto _ : state) {
        std::memcpy(flat.data(), in.data(), chunk);
        benchmark::ClobberMemory();
        std::memcpy(out.data(), flat.data(), chunk);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)chunk);
}
BENCHMARK(BM_MemcpyWriteRead)->Arg(64);

} // namespace
