// cdcacm-loopback FRAMES: one fixed run of the PPP data path through a
// loopback modem, for counting instructions (scripts/callgrind.sh). The
// application writes FRAMES frames of 1500 random content bytes, each HDLC
// frame one write; the deframer sends them as modem packets, the
// modem sends each back, the framer makes HDLC frames of them again, and
// the application reads each frame with one read. Everything runs in virtual
// time, so two runs execute the same instructions. Prints the bytes
// written (each also read back) and exits 0 when they came back unchanged.
#define TRACE_FILE "tools/bench/loopback_main"
#include "device_rig.h"
#include "ppp_reference.h"

#include <cstdio>
#include <cstdlib>
#include <random>

using namespace ppp_test;

namespace {

constexpr unsigned kBatch = 8;

int Run(unsigned frames) {
    Bytes special;
    for (unsigned value = 0; value < 0x20; value++)
        special.push_back((uint8_t)value);
    // Four different frames in turn: building the stream costs little
    // beside what the run counts.
    const EscapeSet escapes = EscapeSetOf(special);
    std::mt19937 random(1);
    std::vector<Bytes> framed;
    for (int kind = 0; kind < 4; kind++) {
        Bytes content(1500);
        for (uint8_t& byte : content)
            byte = (uint8_t)random();
        framed.push_back(HdlcFrame(content, escapes));
    }
    Bytes stream;
    for (unsigned frame = 0; frame < frames; frame++)
        stream.insert(stream.end(), framed[frame % 4].begin(), framed[frame % 4].end());

    DeviceRig rig;
    DeviceRigOptions options;
    options.started = true;
    options.loopback = true;
    options.snd_buffer = 8192;
    options.rcv_buffer = 65536;
    bool ok = rig.Build(options) && rig.SwitchToPpp(special);
    Bytes back;
    if (ok) {
        // A write and a read per frame, at most kBatch of each outstanding:
        // the request pool is bounded.
        for (unsigned first = 0; first < frames && ok; first += kBatch) {
            std::vector<AppRequest*> writes, reads;
            for (unsigned frame = first; frame < frames && frame < first + kBatch; frame++) {
                writes.push_back(rig.Write(framed[frame % 4]));
                reads.push_back(rig.Read((ULONG)framed[frame % 4].size()));
            }
            for (size_t i = 0; i < writes.size() && ok; i++) {
                ok = rig.Wait(writes[i], 60000) && rig.Wait(reads[i], 60000);
                Bytes data = reads[i]->Data();
                back.insert(back.end(), data.begin(), data.end());
            }
            rig.DropCompleted();
        }
    }
    rig.TearDown();
    for (const std::string& failure : rig.Failures())
        std::fprintf(stderr, "cdcacm-loopback: %s\n", failure.c_str());
    if (!ok || back != stream) {
        std::fprintf(stderr, "cdcacm-loopback: the frames did not come back unchanged\n");
        for (const std::string& line : hk::Kernel::Current().Dbg().Lines())
            std::fprintf(stderr, "  %s\n", line.c_str());
        return 1;
    }
    std::printf("bytes %zu\n", stream.size());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    unsigned frames = argc > 1 ? (unsigned)std::strtoul(argv[1], nullptr, 10) : 64;
    hk::Kernel kernel;
    ResetDriverState(TL_ASSERT | TL_ERROR);
    return Run(frames);
}
