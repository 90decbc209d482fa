// Fuzzes the PPP framer with arbitrary modem bytes, arbitrary special
// characters and arbitrary acceptance limits of the serial port.
//
// Input: a count n and n special characters; then records of a chunk
// length, an acceptance byte and that many modem bytes. Each chunk is added
// to the bytes the framer has not taken yet, and everything is offered the
// way the receive engine offers a bulk-in packet. At the end the serial
// port takes everything.
#include "fuzz_support.h"
#include "ppp_reference.h"
#include "ppp_rig.h"

#include <cstring>

using namespace ppp_test;

namespace {

void CheckFramer(PppRig& rig, const UCHAR (&table)[256]) {
    PPP_FRAMER& framer = rig.Framer();
    PUCHAR buffer_end = framer.Buffer + sizeof(framer.Buffer);
    FUZZ_CHECK(framer.Device == &rig.Device());
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

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::Init(TL_ASSERT | TL_ERROR | TL_PPP);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::BeginInput();
    fuzz::Reader input(data, size);
    PppRig rig;
    Bytes special = input.Take(input.Byte());
    rig.StartFraming(special);
    UCHAR table[256];
    std::memcpy(table, rig.Framer().EscapeTable, sizeof(table));

    Bytes pending;
    while (!input.Empty()) {
        size_t length = input.Byte();
        uint8_t accept = input.Byte();
        Bytes chunk = input.Take(length);
        pending.insert(pending.end(), chunk.begin(), chunk.end());
        if (accept != 0xFF)
            rig.LimitReceive({accept * 17u, accept % 16u, accept});
        size_t taken = rig.FeedModem(pending);
        FUZZ_CHECK(taken <= pending.size());
        pending.erase(pending.begin(), pending.begin() + taken);
        CheckFramer(rig, table);
        fuzz::CheckTrace();
    }
    // The rest of a frame goes out when the next modem byte is offered.
    rig.LimitReceive({});
    pending.push_back(PPP_MAGIC_LO);
    FUZZ_CHECK(rig.FeedModem(pending) == pending.size());
    FUZZ_CHECK(rig.Framer().State != PPP_FRAMER_DELIVER);
    CheckFramer(rig, table);
    CheckReceived(rig.Received(), EscapeSetOf(special));
    FUZZ_CHECK(rig.Violations().empty());
    fuzz::CheckTrace();
    return 0;
}
