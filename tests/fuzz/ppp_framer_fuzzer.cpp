// Fuzzes the PPP framer with arbitrary modem bytes, arbitrary special
// characters and arbitrary room in the serial port's receive buffer, on the
// device rig with framing switched on as a modem does.
//
// Input: an options byte (bit 0: trace errors and PPP too, not only
// assertions); a count n and n special characters (the modem's answer); then
// records of a chunk length, a drain byte and that many modem bytes. Each
// chunk is added to the bytes the framer has not taken yet, and everything
// is offered under the device lock the way the receive engine offers a
// bulk-in packet; then the application reads up to 17 times the drain byte
// from the port. At the end the application reads until everything is taken.
// One rig serves every input (see Rig below).
#define TRACE_FILE "tests/fuzz/ppp_framer_fuzzer"
#include "device_rig.h"
#include "fuzz_support.h"
#include "ppp_reference.h"

#include <algorithm>
#include <cstring>

using namespace ppp_test;

namespace {

void CheckFramer(DeviceRig& rig, const UCHAR (&table)[256]) {
    PPP_FRAMER& framer = rig.dev->PppFramer;
    PUCHAR buffer_end = framer.Buffer + sizeof(framer.Buffer);
    FUZZ_CHECK(framer.Device == rig.dev);
    FUZZ_CHECK(std::memcmp(framer.EscapeTable, table, sizeof(table)) == 0);
    switch (framer.State) {
    case PPP_FRAMER_HUNT:
    case PPP_FRAMER_RESYNC:
        break;
    case PPP_FRAMER_HEADER:
        FUZZ_CHECK(framer.WritePtr > framer.Header &&
                   framer.WritePtr < framer.Header + PPP_HEADER_SIZE);
        FUZZ_CHECK(framer.Count == (ULONG)(framer.Header + PPP_HEADER_SIZE - framer.WritePtr));
        break;
    case PPP_FRAMER_CONTENT:
        // Room for the rest escaped, the escaped FCS and the closing flag.
        FUZZ_CHECK(framer.WritePtr > framer.Buffer && framer.WritePtr < buffer_end);
        FUZZ_CHECK(framer.Count > 0 && framer.Count <= PPP_LENGTH_MASK - PPP_HEADER_SIZE);
        FUZZ_CHECK(2 * (size_t)framer.Count + 5 <= (size_t)(buffer_end - framer.WritePtr));
        break;
    case PPP_FRAMER_DELIVER:
        FUZZ_CHECK(framer.WritePtr >= framer.Buffer && framer.Count > 0);
        FUZZ_CHECK((size_t)framer.Count <= (size_t)(buffer_end - framer.WritePtr));
        break;
    default:
        FUZZ_CHECK(!"framer state out of range");
    }
}

// The host receives whole frames only: flag, escaped content and FCS, flag.
void CheckReceived(const Bytes& received, const EscapeSet& escapes) {
    size_t at = 0;
    while (at < received.size()) {
        FUZZ_CHECK(received[at] == PPP_FLAG);
        Bytes content;
        for (at++; at < received.size() && received[at] != PPP_FLAG; at++) {
            uint8_t byte = received[at];
            if (byte == PPP_ESCAPE) {
                FUZZ_CHECK(at + 1 < received.size());
                byte = received[++at] ^ PPP_ESCAPE_XOR;
                FUZZ_CHECK(escapes[byte]);
            } else {
                FUZZ_CHECK(!escapes[byte]);
            }
            content.push_back(byte);
        }
        FUZZ_CHECK(at < received.size()); // the closing flag
        at++;
        FUZZ_CHECK(content.size() >= 3 && content.size() <= 2043 + 2);
        FUZZ_CHECK(ReferenceFcs(content) == kFcsGood);
    }
}

// Offers the bytes to the framer as the receive engine does; returns how
// many it took.
size_t FeedModem(DeviceRig& rig, const Bytes& bytes) {
    KIRQL irql;
    DEVICE_LOCK(rig.dev, &irql);
    size_t taken = PppFramerIndicateBuffer(&rig.dev->PppFramer, bytes.data(), (ULONG)bytes.size());
    DEVICE_UNLOCK(rig.dev, irql);
    return taken;
}

// What the application reads at once (the read time-outs return at once).
void ReadPort(DeviceRig& rig, ULONG length, Bytes& received) {
    if (length == 0)
        return;
    AppRequest* read = rig.Read(length);
    FUZZ_CHECK(rig.Wait(read) && read->status == STATUS_SUCCESS);
    Bytes data = read->Data();
    received.insert(received.end(), data.begin(), data.end());
    rig.DropCompleted();
}

// One rig serves every input: built at the first, with framing on, and
// taken apart at exit. Each input sets its special characters and starts
// the framer afresh as the driver's switch to framing does.
DeviceRig& Rig() {
    static DeviceRig* rig = nullptr;
    if (rig == nullptr) {
        fuzz::SharedKernel();
        ResetDriverState(TL_ASSERT);
        rig = new DeviceRig();
        DeviceRigOptions options;
        options.started = true;
        FUZZ_CHECK(rig->Build(options) && rig->SwitchToPpp({}) &&
                   rig->SetReadTimeouts(0xFFFFFFFF, 0, 0));
        rig->DropCompleted();
        fuzz::OnTearDown([] {
            rig->TearDown();
            FUZZ_CHECK(rig->Failures().empty());
            delete rig;
            FUZZ_CHECK(MemoryCounter == 0);
        });
    }
    return *rig;
}

void StartFramer(DeviceRig& rig, const Bytes& special) {
    KIRQL irql;
    DEVICE_LOCK(rig.dev, &irql);
    PppSetSpecialChars(&rig.dev->PppFramer, special.data(), (ULONG)special.size());
    PppFramerInit(&rig.dev->PppFramer, rig.dev);
    DEVICE_UNLOCK(rig.dev, irql);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DeviceRig& rig = Rig();
    fuzz::Input scope;
    fuzz::Reader input(data, size);
    TraceMask = fuzz::TraceMaskFor(input.Byte(), TL_ERROR | TL_PPP);
    Bytes special = input.Take(std::min<size_t>(input.Byte(), PPP_SPECIAL_CHARS_BYTES));
    StartFramer(rig, special);
    UCHAR table[256];
    std::memcpy(table, rig.dev->PppFramer.EscapeTable, sizeof(table));
    size_t rcv_buffer = rig.dev->Cfg.ReadCircBufferSize;

    Bytes pending, received;
    while (!input.Empty()) {
        size_t length = input.Byte();
        uint8_t drain = input.Byte();
        Bytes chunk = input.Take(length);
        pending.insert(pending.end(), chunk.begin(), chunk.end());
        size_t taken = FeedModem(rig, pending);
        FUZZ_CHECK(taken <= pending.size());
        pending.erase(pending.begin(), pending.begin() + taken);
        ReadPort(rig, drain * 17u, received);
        CheckFramer(rig, table);
        fuzz::CheckTrace();
    }
    // The rest of a frame goes out when the next modem byte is offered;
    // each read makes room for more.
    pending.push_back(PPP_MAGIC_LO);
    for (int rounds = 0; !pending.empty(); rounds++) {
        FUZZ_CHECK(rounds < 100);
        size_t taken = FeedModem(rig, pending);
        pending.erase(pending.begin(), pending.begin() + taken);
        ReadPort(rig, rcv_buffer, received);
        // A magic byte taken as a frame's last content byte leaves the frame
        // waiting for room; the next byte offered delivers it.
        if (pending.empty() && rig.dev->PppFramer.State == PPP_FRAMER_DELIVER)
            pending.push_back(PPP_MAGIC_LO);
    }
    ReadPort(rig, rcv_buffer, received);
    FUZZ_CHECK(rig.dev->PppFramer.State != PPP_FRAMER_DELIVER);
    FUZZ_CHECK(rig.ser->CircRcvBuf.Count == 0);
    CheckFramer(rig, table);
    CheckReceived(received, EscapeSetOf(special));
    FUZZ_CHECK(rig.Failures().empty());
    FUZZ_CHECK(rig.port->RequestPool.Count == 0);
    rig.modem->ForgetRequests();
    return 0;
}
