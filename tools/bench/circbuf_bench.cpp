// Throughput of the serial port's circular buffer: bytes written in and
// read out in the chunk sizes the data paths use (a 64-byte full-speed
// packet, a 1500-byte frame, a 4096-byte transfer), wrapping around a
// 10000-byte ring; and, as its yardstick, the same chunks copied in and out
// of a flat buffer with memcpy.
//
// Both take their chunks from, and give them to, the same two places of one
// page-aligned arena, 64-byte aligned and at different offsets within a
// page: wherever the heap happened to put them, a load could alias a store
// 4 KiB away and halve memcpy's speed from one run to the next.
#include "cdcacm.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr ULONG kRingBytes = 10000;

constexpr size_t kPage = 4096;
struct Arena {
    alignas(kPage) UCHAR bytes[6 * kPage];
    UCHAR* in() { return bytes; }
    UCHAR* flat() { return bytes + kPage + 1024; }    // kRingBytes from here
    UCHAR* out() { return bytes + 5 * kPage + 2048; } // at most 2048 bytes
};
Arena arena;

void BM_CircBufWriteRead(benchmark::State& state) {
    const ULONG chunk = (ULONG)state.range(0);
    CIRC_BUF ring;
    if (!CircBufAlloc(&ring, kRingBytes)) {
        state.SkipWithError("no pool for the ring");
        return;
    }
    std::vector<UCHAR> in(chunk, 0x5A), out(chunk);
    UCHAR* from = chunk <= 2048 ? arena.in() : in.data();
    UCHAR* to = chunk <= 2048 ? arena.out() : out.data();
    for (auto _ : state) {
        ULONG written = CircBufWrite(&ring, from, chunk);
        ULONG read = CircBufRead(&ring, to, chunk);
        benchmark::DoNotOptimize(written + read);
        benchmark::DoNotOptimize(to);
    }
    CircBufFree(&ring);
    state.SetBytesProcessed((int64_t)state.iterations() * chunk);
}
BENCHMARK(BM_CircBufWriteRead)->Arg(64)->Arg(1500)->Arg(4096);

void BM_MemcpyWriteRead(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    for (auto _ : state) {
        std::memcpy(arena.flat(), arena.in(), chunk);
        benchmark::ClobberMemory();
        std::memcpy(arena.out(), arena.flat(), chunk);
        benchmark::DoNotOptimize(arena.out());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)chunk);
}
BENCHMARK(BM_MemcpyWriteRead)->Arg(64);

} // namespace
