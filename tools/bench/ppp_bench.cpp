// Throughput of the PPP converters over realistic traffic, on the device rig
// with framing switched on: 1500-byte frames of random content, escaped with
// the default asynchronous control character map (0x00..0x1F, plus flag and
// escape).
#define TRACE_FILE "tools/bench/ppp_bench"
#include "device_rig.h"
#include "ppp_reference.h"

#include <benchmark/benchmark.h>

#include <random>

using namespace ppp_test;

namespace {

constexpr size_t kFrameContent = 1500;
constexpr size_t kFrames = 64;
constexpr ULONG kBulkInPacket = 64000; // the default receive transfer size

Bytes RandomContent(std::mt19937& random) {
    Bytes content(kFrameContent);
    for (uint8_t& byte : content)
        byte = (uint8_t)random();
    return content;
}

Bytes DefaultControlChars() {
    Bytes chars;
    for (unsigned value = 0; value < 0x20; value++)
        chars.push_back((uint8_t)value);
    return chars;
}

void BM_Fcs(benchmark::State& state) {
    std::mt19937 random(1);
    Bytes content = RandomContent(random);
    for (auto _ : state) {
        USHORT fcs = PppFcs16(PPP_FCS_INITIAL, content.data(), (ULONG)content.size());
        benchmark::DoNotOptimize(fcs);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)content.size());
}
BENCHMARK(BM_Fcs);

// A started port switched to framing on a fresh rig; failures end the run.
class PppSession {
  public:
    explicit PppSession(benchmark::State& state) : state_(state) {
        ResetDriverState(TL_ASSERT | TL_ERROR);
        DeviceRigOptions options;
        options.started = true;
        options.snd_buffer = 8192;
        options.rcv_buffer = 65536;
        ok_ = rig.Build(options) && rig.SwitchToPpp(DefaultControlChars()) &&
              rig.SetReadTimeouts(0xFFFFFFFF, 0, 0); // reads return what is there
    }
    ~PppSession() {
        rig.TearDown();
        if (!rig.Failures().empty())
            state_.SkipWithError(rig.Failures().front().c_str());
        else if (MemoryCounter != 0)
            state_.SkipWithError("the driver still counts pool after teardown");
    }
    bool Ok() const { return ok_ && rig.Failures().empty(); }

    DeviceRig rig;

  private:
    benchmark::State& state_;
    bool ok_ = false;
};

// Modem packets in 64000-byte bulk-in transfers, offered to the framer under
// the device lock as the receive engine does -> HDLC frames through the
// serial port's receive buffer to the application's reads.
void BM_Framer(benchmark::State& state) {
    std::mt19937 random(2);
    EscapeSet escapes = EscapeSetOf(DefaultControlChars());
    Bytes stream;
    size_t expected_output = 0, last_frame = 0;
    for (size_t frame = 0; frame < kFrames; frame++) {
        Bytes content = RandomContent(random);
        Bytes packet = ModemPacketBytes((unsigned)frame, content);
        stream.insert(stream.end(), packet.begin(), packet.end());
        last_frame = HdlcFrame(content, escapes).size();
        expected_output += last_frame;
    }
    PppSession session(state);
    DeviceRig& rig = session.rig;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        size_t received = 0;
        KIRQL irql;
        // Each pass starts at sequence 0 again, as the stream does.
        DEVICE_LOCK(rig.dev, &irql);
        PppFramerInit(&rig.dev->PppFramer, rig.dev);
        DEVICE_UNLOCK(rig.dev, irql);
        for (size_t at = 0; at < stream.size();) {
            ULONG length = (ULONG)std::min<size_t>(kBulkInPacket, stream.size() - at);
            DEVICE_LOCK(rig.dev, &irql);
            at += PppFramerIndicateBuffer(&rig.dev->PppFramer, stream.data() + at, length);
            DEVICE_UNLOCK(rig.dev, irql);
            AppRequest* read = rig.Read(65536);
            if (!rig.Wait(read))
                return state.SkipWithError("an immediate read did not complete");
            received += read->information;
        }
        rig.DropCompleted();
        // The last frame goes out only when the next modem byte is offered.
        if (received > expected_output || received < expected_output - last_frame)
            return state.SkipWithError("the framer delivered the wrong number of bytes");
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)stream.size());
}
BENCHMARK(BM_Framer);

// HDLC frames written by the host -> the serial port's send pass -> the
// deframer -> modem packets through the send engine's 4096-byte bulk-out
// transfers to the modem, which checks and keeps them.
void BM_DeFramer(benchmark::State& state) {
    std::mt19937 random(3);
    EscapeSet escapes = EscapeSetOf(DefaultControlChars());
    Bytes stream;
    for (size_t frame = 0; frame < kFrames; frame++) {
        Bytes framed = HdlcFrame(RandomContent(random), escapes);
        stream.insert(stream.end(), framed.begin(), framed.end());
    }
    PppSession session(state);
    DeviceRig& rig = session.rig;
    size_t frames = 0, passes = 0;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        if (!rig.Wait(rig.Write(stream), 20000))
            return state.SkipWithError("the write of the frames never completed");
        passes++;
        for (int ms = 0; frames < passes * kFrames && ms < 20000; ms++) {
            rig.RunFor(1);
            frames += rig.modem->TakeFrames().size();
        }
        rig.DropCompleted();
    }
    if (frames != passes * kFrames || rig.modem->BadFcs() != 0)
        state.SkipWithError("the modem did not receive every frame intact");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)stream.size());
}
BENCHMARK(BM_DeFramer);

} // namespace
