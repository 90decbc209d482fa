// Throughput of the PPP converters and of the driver's data paths around
// them, over realistic traffic: 64 frames of 1500 random content bytes,
// escaped with the default asynchronous control character map (0x00..0x1F,
// plus flag and escape). Beside them, what the converters are measured
// against: a table-driven FCS loop and a plain byte-at-a-time async-HDLC
// encoder and decoder of the kind small PPP stacks use, written here and
// built with the same flags.
//
// The converters and paths run on the device rig with framing switched on
// and the transfers then stopped: a send packet handed to the send engine
// goes back to its pool at once (its pipe is disabled), so the figures are
// the driver's CPU cost up to the bus, without the simulated bus itself.
//   - framer: modem packets in 4096-byte bulk-in pieces, offered under the
//     device lock; its frames go through the serial port's receive path
//     into the circular receive buffer, read out after each piece;
//   - receive path: the same pieces as bulk-in packets of the receive
//     engine, delivered by it (packet queue -> framer -> circular buffer);
//   - deframer: the host's HDLC bytes in 8192-byte pieces offered to the
//     deframer under the device lock, each frame one send packet;
//   - send path: the same pieces written into the circular send buffer and
//     sent by the serial port's send pass (circular buffer -> deframer ->
//     send packet).
#define TRACE_FILE "tools/bench/ppp_bench"
#include "device_rig.h"
#include "ppp_reference.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>

using namespace ppp_test;

namespace {

constexpr size_t kFrameContent = 1500;
constexpr size_t kFrames = 64;
constexpr ULONG kBulkInPiece = 4096; // the default bulk-in transfer size
constexpr ULONG kSendPiece = 8192;   // the circular send buffer of the session
constexpr ULONG kRcvBuffer = 65536;

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

// The traffic of every benchmark here, made once.
struct Traffic {
    std::vector<Bytes> contents;
    Bytes modem_stream; // the contents as modem packets, numbered from 0
    Bytes host_stream;  // the contents as HDLC frames
    size_t content_bytes = 0;
};

const Traffic& TheTraffic() {
    static const Traffic traffic = [] {
        Traffic t;
        std::mt19937 random(2);
        EscapeSet escapes = EscapeSetOf(DefaultControlChars());
        for (size_t frame = 0; frame < kFrames; frame++) {
            Bytes content = RandomContent(random);
            Bytes packet = ModemPacketBytes((unsigned)frame, content);
            Bytes framed = HdlcFrame(content, escapes);
            t.modem_stream.insert(t.modem_stream.end(), packet.begin(), packet.end());
            t.host_stream.insert(t.host_stream.end(), framed.begin(), framed.end());
            t.content_bytes += content.size();
            t.contents.push_back(std::move(content));
        }
        return t;
    }();
    return traffic;
}

// ---- What the converters are measured against ----

// The FCS of every frame's content, with the driver's table.
void BM_PppFcsTableLoop(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    for (auto _ : state) {
        for (const Bytes& content : t.contents) {
            uint32_t fcs = 0xFFFF;
            for (uint8_t byte : content)
                fcs = (fcs >> 8) ^ PppFcsTable[(fcs ^ byte) & 0xFF];
            benchmark::DoNotOptimize(fcs);
        }
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.content_bytes);
}
BENCHMARK(BM_PppFcsTableLoop);

// Content -> flag, escaped content and FCS, flag, with a 32-bit ACCM.
void BM_PppReferenceEncoder(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    const uint32_t accm = 0xFFFFFFFF;
    std::vector<uint8_t> out(2 * kFrameContent + 8);
    for (auto _ : state) {
        for (const Bytes& content : t.contents) {
            uint8_t* o = out.data();
            uint32_t fcs = 0xFFFF;
            *o++ = 0x7E;
            auto put = [&](uint8_t c) {
                if ((c < 0x20 && (accm >> c) & 1) || c == 0x7E || c == 0x7D) {
                    *o++ = 0x7D;
                    *o++ = c ^ 0x20;
                } else {
                    *o++ = c;
                }
            };
            for (uint8_t c : content) {
                fcs = (fcs >> 8) ^ PppFcsTable[(fcs ^ c) & 0xFF];
                put(c);
            }
            fcs ^= 0xFFFF;
            put((uint8_t)fcs);
            put((uint8_t)(fcs >> 8));
            *o++ = 0x7E;
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.content_bytes);
}
BENCHMARK(BM_PppReferenceEncoder);

// HDLC bytes -> unescaped frames, each copied whole into a packet buffer at
// its closing flag; no FCS, as the deframer computes none.
void BM_PppReferenceDecoder(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    constexpr size_t kMax = 4102;
    std::vector<uint8_t> frame(kMax), packet(kMax);
    size_t frames = 0;
    for (auto _ : state) {
        size_t length = 0;
        bool escaped = false;
        for (uint8_t c : t.host_stream) {
            if (c == 0x7E) {
                if (length > 0) {
                    std::memcpy(packet.data(), frame.data(), length);
                    benchmark::DoNotOptimize(packet.data());
                    frames++;
                }
                length = 0;
                escaped = false;
            } else if (c == 0x7D) {
                escaped = true;
            } else {
                if (escaped) {
                    c ^= 0x20;
                    escaped = false;
                }
                if (length < kMax)
                    frame[length++] = c;
            }
        }
    }
    if (frames != state.iterations() * kFrames)
        state.SkipWithError("the reference decoder lost frames");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.host_stream.size());
}
BENCHMARK(BM_PppReferenceDecoder);

// ---- The driver ----

// A started port switched to framing on a fresh rig, its transfers then
// stopped; failures end the run.
class PppSession {
  public:
    explicit PppSession(benchmark::State& state) : state_(state) {
        ResetDriverState(TL_ASSERT | TL_ERROR);
        DeviceRigOptions options;
        options.started = true;
        options.snd_buffer = kSendPiece;
        options.rcv_buffer = kRcvBuffer;
        options.read_packet = kBulkInPiece;
        ok_ = rig.Build(options) && rig.SwitchToPpp(DefaultControlChars());
        // The aborted bulk-in reads and the packets dropped by the disabled
        // pipe trace errors.
        TraceMask = TL_ASSERT;
        if (ok_)
            StopSendAndReceive(rig.dev, TRUE);
    }
    ~PppSession() {
        rig.TearDown();
        if (!rig.Failures().empty())
            state_.SkipWithError(rig.Failures().front().c_str());
        else if (MemoryCounter != 0)
            state_.SkipWithError("the driver still counts pool after teardown");
    }
    bool Ok() const { return ok_ && rig.Failures().empty(); }

    // Both converters as the switch to framing leaves them.
    void Restart() {
        KIRQL irql;
        DEVICE_LOCK(rig.dev, &irql);
        PppFramerInit(&rig.dev->PppFramer, rig.dev);
        PppDeFramerInit(&rig.dev->PppDeFramer, rig.dev);
        DEVICE_UNLOCK(rig.dev, irql);
    }
    // What the application's reads take out of the receive buffer.
    size_t ReadOut() {
        KIRQL irql;
        DEVICE_LOCK(rig.dev, &irql);
        size_t taken = 0;
        while (ULONG n = CircBufRead(&rig.ser->CircRcvBuf, app_.data(), (ULONG)app_.size()))
            taken += n;
        DEVICE_UNLOCK(rig.dev, irql);
        return taken;
    }
    // Every frame went out as one packet and nothing waits.
    bool AllSent() const {
        const PPP_DEFRAMER& deframer = rig.dev->PppDeFramer;
        return deframer.Sequence == kFrames + 1 && deframer.State == PPP_DEFRAMER_IN_FRAME &&
               deframer.Count == 0 && rig.ser->CircSendBuf.Empty && !rig.ser->PendingValid;
    }

    DeviceRig rig;

  private:
    benchmark::State& state_;
    bool ok_ = false;
    std::vector<UCHAR> app_ = std::vector<UCHAR>(kRcvBuffer);
};

size_t ExpectedFramerOutput() {
    const Traffic& t = TheTraffic();
    EscapeSet escapes = EscapeSetOf(DefaultControlChars());
    size_t total = 0;
    for (const Bytes& content : t.contents)
        total += HdlcFrame(content, escapes).size();
    return total;
}

// The modem's packets, piece by piece, straight to the framer.
void BM_PppFramer(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    const size_t expected = ExpectedFramerOutput();
    PppSession session(state);
    DeviceRig& rig = session.rig;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        session.Restart();
        size_t received = 0;
        for (size_t at = 0; at < t.modem_stream.size();) {
            ULONG length = (ULONG)std::min<size_t>(kBulkInPiece, t.modem_stream.size() - at);
            KIRQL irql;
            DEVICE_LOCK(rig.dev, &irql);
            ULONG taken =
                PppFramerIndicateBuffer(&rig.dev->PppFramer, t.modem_stream.data() + at, length);
            DEVICE_UNLOCK(rig.dev, irql);
            if (taken != length)
                return state.SkipWithError("the framer refused bytes");
            at += length;
            received += session.ReadOut();
        }
        if (received != expected)
            return state.SkipWithError("the framer delivered the wrong number of bytes");
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.modem_stream.size());
}
BENCHMARK(BM_PppFramer);

// The same pieces as bulk-in packets of the receive engine.
void BM_PppReceivePath(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    const size_t expected = ExpectedFramerOutput();
    PppSession session(state);
    DeviceRig& rig = session.rig;
    PSNDRCV_PIPE pipe = &rig.dev->ReceivePipe;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        session.Restart();
        size_t received = 0;
        for (size_t at = 0; at < t.modem_stream.size();) {
            ULONG length = (ULONG)std::min<size_t>(kBulkInPiece, t.modem_stream.size() - at);
            KIRQL irql;
            DEVICE_LOCK(rig.dev, &irql);
            PUSB_PACKET packet = UsbPacketGet(pipe->Pool);
            if (packet != nullptr) {
                // As the bus leaves a completed bulk-in transfer.
                std::memcpy(packet->Buffer, t.modem_stream.data() + at, length);
                packet->Data = packet->Buffer;
                packet->Length = length;
                InsertTailList(&pipe->Queue, &packet->Link);
                SndRcvCheckRcvQueue(pipe);
            }
            bool delivered = IsListEmpty(&pipe->Queue);
            DEVICE_UNLOCK(rig.dev, irql);
            if (packet == nullptr || !delivered)
                return state.SkipWithError("the receive engine kept a packet");
            at += length;
            received += session.ReadOut();
        }
        if (received != expected)
            return state.SkipWithError("the receive path delivered the wrong number of bytes");
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.modem_stream.size());
}
BENCHMARK(BM_PppReceivePath);

// The host's frames, piece by piece, straight to the deframer.
void BM_PppDeFramer(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    PppSession session(state);
    DeviceRig& rig = session.rig;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        session.Restart();
        for (size_t at = 0; at < t.host_stream.size();) {
            ULONG length = (ULONG)std::min<size_t>(kSendPiece, t.host_stream.size() - at);
            const UCHAR* data = t.host_stream.data() + at;
            KIRQL irql;
            DEVICE_LOCK(rig.dev, &irql);
            ULONG taken = PppDeFramerSendBuffer(&rig.dev->PppDeFramer, data, length);
            DEVICE_UNLOCK(rig.dev, irql);
            if (taken != length)
                return state.SkipWithError("the deframer refused bytes");
            at += length;
        }
        if (!session.AllSent())
            return state.SkipWithError("the deframer did not send every frame");
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.host_stream.size());
}
BENCHMARK(BM_PppDeFramer);

// The same pieces through the circular send buffer and the send pass.
void BM_PppSendPath(benchmark::State& state) {
    const Traffic& t = TheTraffic();
    PppSession session(state);
    DeviceRig& rig = session.rig;
    for (auto _ : state) {
        if (!session.Ok())
            break;
        session.Restart();
        for (size_t at = 0; at < t.host_stream.size();) {
            ULONG length = (ULONG)std::min<size_t>(kSendPiece, t.host_stream.size() - at);
            KIRQL irql;
            DEVICE_LOCK(rig.dev, &irql);
            // As the send queue copies a write request's bytes.
            ULONG written = CircBufWrite(&rig.ser->CircSendBuf, t.host_stream.data() + at, length);
            DEVICE_UNLOCK(rig.dev, irql);
            if (written != length)
                return state.SkipWithError("the send buffer had no room");
            SerPortSend(rig.ser, FALSE);
            at += length;
        }
        if (!session.AllSent())
            return state.SkipWithError("the send path did not send every frame");
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.host_stream.size());
}
BENCHMARK(BM_PppSendPath);

} // namespace
