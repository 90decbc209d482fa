// Throughput of the PPP converters over realistic traffic: 1500-byte frames
// of random content, escaped with the default asynchronous control
// character map (0x00..0x1F, plus flag and escape).
#include "ppp_reference.h"
#include "ppp_rig.h"

#include <benchmark/benchmark.h>

#include <random>

using namespace ppp_test;

namespace {

constexpr size_t kFrameContent = 1500;
constexpr size_t kFrames = 64;
constexpr ULONG kBulkInPacket = 64000; // the default receive transfer size
constexpr ULONG kBulkOutPacket = 4096; // the default send transfer size

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

// Modem packets in 64000-byte bulk-in transfers -> HDLC frames.
void BM_Framer(benchmark::State& state) {
    std::mt19937 random(2);
    EscapeSet escapes = EscapeSetOf(DefaultControlChars());
    Bytes stream;
    size_t expected_output = 0;
    for (size_t frame = 0; frame < kFrames; frame++) {
        Bytes content = RandomContent(random);
        Bytes packet = ModemPacketBytes((unsigned)frame, content);
        stream.insert(stream.end(), packet.begin(), packet.end());
        expected_output += HdlcFrame(content, escapes).size();
    }
    PppRig rig;
    rig.StartFraming(DefaultControlChars());
    rig.KeepTraffic(false);
    for (auto _ : state) {
        // Each pass starts at sequence 0 again, as the stream does.
        PppFramerInit(&rig.Framer(), &rig.Device());
        for (size_t at = 0; at < stream.size(); at += kBulkInPacket) {
            ULONG length = (ULONG)std::min<size_t>(kBulkInPacket, stream.size() - at);
            benchmark::DoNotOptimize(
                PppFramerIndicateBuffer(&rig.Framer(), stream.data() + at, length));
        }
    }
    if (rig.ReceivedBytes() != state.iterations() * expected_output)
        state.SkipWithError("the framer delivered the wrong number of bytes");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)stream.size());
}
BENCHMARK(BM_Framer);

// HDLC frames written by the host, byte by byte as the serial port's send
// pass offers them -> modem packets in 4096-byte bulk-out transfers.
void BM_DeFramer(benchmark::State& state) {
    std::mt19937 random(3);
    EscapeSet escapes = EscapeSetOf(DefaultControlChars());
    Bytes stream;
    for (size_t frame = 0; frame < kFrames; frame++) {
        Bytes framed = HdlcFrame(RandomContent(random), escapes);
        stream.insert(stream.end(), framed.begin(), framed.end());
    }
    PppRig rig({.PacketSize = kBulkOutPacket, .Packets = 1, .AutoComplete = true});
    rig.StartFraming(DefaultControlChars());
    rig.KeepTraffic(false);
    for (auto _ : state) {
        for (uint8_t byte : stream) {
            if (!PppDeFramerSendChar(&rig.DeFramer(), byte))
                state.SkipWithError("the deframer refused a byte with a free send packet");
        }
    }
    if (rig.SentChunks() != state.iterations() * kFrames)
        state.SkipWithError("the deframer sent the wrong number of packets");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)stream.size());
}
BENCHMARK(BM_DeFramer);

} // namespace
