// The transport end to end on the device rig (a data port on a simulated
// modem, port started), inside the bench's one kernel: one rig and fresh
// driver-wide state per benchmark run. Bytes per CPU second is what the
// simulation costs; the counters give the virtual throughput (virtual bytes
// per second of the kernel's virtual clock) as a share of the bus limit:
// 19 x 64 bytes per 1 ms frame at full speed (1,216,000 B/s), 13 x 512
// bytes per 125 us microframe at high speed (53,248,000 B/s).
//
// Send direction: one bulk-out transfer in flight by design, so every
// transfer starts in the frame after the one before it completed, and a
// 4096-byte chunk (a multiple of 64) is followed by its zero-length packet
// as a transfer of its own. At full speed the chunk takes ceil(4096 / 1216)
// = 4 frames and the zero-length packet a fifth: 4096 / (5 x 1216) = 67 % of
// the limit. At high speed each takes one microframe: 4096 / (2 x 6656) =
// 31 %. Receive direction: five bulk-in transfers queued behind one another
// share every frame's budget and reach the limit.
#include "device_rig.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr ULONG kChunk = 4096;
constexpr int kChunksPerPass = 16;
constexpr double kFullSpeedLimit = 1216000;
constexpr double kHighSpeedLimit = 53248000;

hu::Speed SpeedOf(const benchmark::State& state) {
    return state.range(0) != 0 ? hu::Speed::kHigh : hu::Speed::kFull;
}

// Deterministic bytes that differ from chunk to chunk, so that a lost,
// doubled or reordered chunk shows.
Bytes Chunk(uint64_t index) {
    Bytes bytes(kChunk);
    for (ULONG i = 0; i < kChunk; i++)
        bytes[i] = uint8_t(index * 31 + i * 7 + (i >> 8));
    return bytes;
}

// A started port on a fresh rig for one benchmark run; failures end the run.
class Session {
  public:
    Session(benchmark::State& state, bool loopback) : state_(state) {
        ResetDriverState(TL_ASSERT | TL_ERROR);
        DeviceRigOptions options;
        options.started = true;
        options.loopback = loopback;
        options.speed = SpeedOf(state);
        options.snd_buffer = 2 * kChunk; // a chunk leaves in one transfer
        options.rcv_buffer = kChunksPerPass * kChunk;
        built_ = rig.Build(options);
        start_ = hk::Kernel::Current().Now();
    }
    ~Session() {
        rig.TearDown();
        if (!rig.Failures().empty())
            state_.SkipWithError(rig.Failures().front().c_str());
        else if (MemoryCounter != 0)
            state_.SkipWithError("the driver still counts pool after teardown");
    }
    bool Ok() const { return built_ && rig.Failures().empty(); }
    bool Fail(const char* why) {
        state_.SkipWithError(why);
        return false;
    }
    // Sets bytes per CPU second and the virtual throughput counters.
    void Report(uint64_t bytes) {
        double seconds = double(hk::Kernel::Current().Now() - start_) / 1e7;
        double limit = SpeedOf(state_) == hu::Speed::kHigh ? kHighSpeedLimit : kFullSpeedLimit;
        state_.SetBytesProcessed(int64_t(bytes));
        if (seconds > 0) {
            state_.counters["virtual_B/s"] = double(bytes) / seconds;
            state_.counters["bus_share"] = double(bytes) / seconds / limit;
        }
    }

    DeviceRig rig;

  private:
    benchmark::State& state_;
    bool built_ = false;
    int64_t start_ = 0;
};

// Write IRP -> send engine -> bus -> loopback modem -> receive engine -> read
// IRP: each pass writes 16 chunks and reads them back, all outstanding at
// once, and checks they came back whole and in order.
void BM_LoopbackThroughput(benchmark::State& state) {
    Session session(state, true);
    uint64_t moved = 0;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        std::vector<AppRequest*> writes, reads;
        for (int i = 0; i < kChunksPerPass; i++) {
            writes.push_back(session.rig.Write(Chunk(moved / kChunk + i)));
            reads.push_back(session.rig.Read(kChunk));
        }
        bool whole = true;
        for (int i = 0; i < kChunksPerPass; i++)
            whole = whole && session.rig.Wait(writes[i], 20000) &&
                    session.rig.Wait(reads[i], 20000) &&
                    reads[i]->Data() == Chunk(moved / kChunk + i);
        if (!whole && !session.Fail("the loopback lost, changed or reordered bytes"))
            break;
        moved += kChunksPerPass * kChunk;
        session.rig.DropCompleted();
    }
    session.Report(moved);
}
BENCHMARK(BM_LoopbackThroughput)->ArgName("high_speed")->Arg(0)->Arg(1);

// Send direction alone: the modem in test mode sinks bulk-out; each pass
// writes 16 chunks, and the run ends when the modem holds every byte.
void BM_SendThroughput(benchmark::State& state) {
    Session session(state, false);
    uint64_t written = 0, arrived = 0;
    Bytes tail; // bytes at the modem not yet checked against their chunk
    for (auto _ : state) {
        if (!session.Ok())
            break;
        std::vector<AppRequest*> writes;
        for (int i = 0; i < kChunksPerPass; i++)
            writes.push_back(session.rig.Write(Chunk(written / kChunk + i)));
        bool done = true;
        for (AppRequest* write : writes)
            done = done && session.rig.Wait(write, 20000) && write->information == kChunk;
        if (!done && !session.Fail("a write did not complete whole"))
            break;
        written += kChunksPerPass * kChunk;
        session.rig.DropCompleted();
        Bytes pulled = session.rig.modem->Pull();
        tail.insert(tail.end(), pulled.begin(), pulled.end());
        for (; tail.size() >= kChunk; arrived += kChunk) {
            if (!std::equal(tail.begin(), tail.begin() + kChunk, Chunk(arrived / kChunk).begin()))
                return void(session.Fail("the modem received other bytes"));
            tail.erase(tail.begin(), tail.begin() + kChunk);
        }
    }
    for (int ms = 0; arrived + tail.size() < written && ms < 20000; ms++) {
        session.rig.RunFor(1);
        Bytes pulled = session.rig.modem->Pull();
        tail.insert(tail.end(), pulled.begin(), pulled.end());
    }
    if (arrived + tail.size() != written)
        session.Fail("bytes written never reached the modem");
    session.Report(written);
}
BENCHMARK(BM_SendThroughput)->ArgName("high_speed")->Arg(0)->Arg(1);

// Receive direction alone: the modem in test mode has 16 chunks ready at
// every pass, so the bus takes them as fast as it can, into the receive
// engine's five bulk-in transfers; the application has 16 reads outstanding.
void BM_ReceiveThroughput(benchmark::State& state) {
    Session session(state, false);
    uint64_t received = 0;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        Bytes pass;
        for (int i = 0; i < kChunksPerPass; i++) {
            Bytes chunk = Chunk(received / kChunk + i);
            pass.insert(pass.end(), chunk.begin(), chunk.end());
        }
        session.rig.modem->Push(pass);
        std::vector<AppRequest*> reads;
        for (int i = 0; i < kChunksPerPass; i++)
            reads.push_back(session.rig.Read(kChunk));
        bool whole = true;
        for (int i = 0; i < kChunksPerPass; i++)
            whole = whole && session.rig.Wait(reads[i], 20000) &&
                    reads[i]->Data() == Chunk(received / kChunk + i);
        if (!whole && !session.Fail("the reads lost, changed or reordered bytes"))
            break;
        received += kChunksPerPass * kChunk;
        session.rig.DropCompleted();
    }
    session.Report(received);
}
BENCHMARK(BM_ReceiveThroughput)->ArgName("high_speed")->Arg(0)->Arg(1);

// CPU cost of one 1-byte write end to end: from the write IRP to its
// completion and the byte at the modem.
void BM_OneByteWrite(benchmark::State& state) {
    Session session(state, false);
    const Bytes byte{0x5A};
    for (auto _ : state) {
        if (!session.Ok())
            break;
        AppRequest* write = session.rig.Write(byte);
        if (!session.rig.Wait(write) && !session.Fail("the write never completed"))
            break;
        Bytes pulled;
        for (int ms = 0; pulled.empty() && ms < 1000; ms++) {
            session.rig.RunFor(1);
            pulled = session.rig.modem->Pull();
        }
        if (pulled != byte && !session.Fail("the byte did not reach the modem alone"))
            break;
        session.rig.DropCompleted();
    }
}
BENCHMARK(BM_OneByteWrite)->ArgName("high_speed")->Arg(0)->Unit(benchmark::kMicrosecond);

} // namespace
