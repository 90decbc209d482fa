// The PPP framer (modem packets -> HDLC frames) and deframer (HDLC frames ->
// modem packets) against fixed vectors, their failure paths, and a
// round-trip property over random frames and escape tables.
#include "ppp_reference.h"
#include "ppp_rig.h"

#include "driver_test.h"

#include <algorithm>
#include <random>
#include <string>

using namespace ppp_test;

namespace {

Bytes Range(uint8_t first, uint8_t last) {
    Bytes bytes;
    for (unsigned value = first; value <= last; value++)
        bytes.push_back((uint8_t)value);
    return bytes;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

class PppTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        Rig(SendEngineOptions{});
    }
    void TearDown() override {
        EXPECT_TRUE(rig_->Violations().empty()) << rig_->Violations().front();
        rig_.reset();
        DriverTest::TearDown();
    }
    // A fresh rig with other send packets; framing is switched on with the
    // control characters 0x00..0x1F escaped.
    PppRig& Rig(SendEngineOptions send) {
        rig_.reset();
        rig_ = std::make_unique<PppRig>(send);
        rig_->StartFraming(Range(0x00, 0x1F));
        return *rig_;
    }
    size_t AssertionLines() { return dbg().Count("ASSERTION FAILED"); }

    std::unique_ptr<PppRig> rig_;
};

// ---------------------------------------------------------------- FCS

TEST_F(PppTest, FcsTableIsTheBitwisePolynomial) {
    for (unsigned byte = 0; byte < 256; byte++)
        ASSERT_EQ(PppFcsTable[byte], ReferenceFcsByte(0, (uint8_t)byte)) << "entry " << byte;
}

TEST_F(PppTest, FcsKnownValuesAndIncrementalUse) {
    const UCHAR check[] = "123456789";
    EXPECT_EQ(PppFcs16(PPP_FCS_INITIAL, check, 9) ^ 0xFFFF, 0x906E);
    const UCHAR content[] = {1, 2, 3};
    EXPECT_EQ(PppFcs16(PPP_FCS_INITIAL, content, 3) ^ 0xFFFF, 0x9D3B);
    // Content followed by its FCS (low byte first) leaves the good residue.
    const UCHAR with_fcs[] = {1, 2, 3, 0x3B, 0x9D};
    EXPECT_EQ(PppFcs16(PPP_FCS_INITIAL, with_fcs, 5), kFcsGood);
    // Continued from a running value, as the framer does byte by byte.
    EXPECT_EQ(PppFcs16(PppFcs16(PPP_FCS_INITIAL, check, 4), check + 4, 5) ^ 0xFFFF, 0x906E);
    EXPECT_EQ(PppFcs16(0x1234, content, 0), 0x1234);
}

// ---------------------------------------------------------------- framer

TEST_F(PppTest, FramerEscapesDeviceCharactersAndAppendsFcs) {
    Bytes packet{0xAA, 0xBB, 0x00, 0x07, 0x01, 0x02, 0x03};
    EXPECT_EQ(rig_->FeedModem(packet), packet.size());
    EXPECT_EQ(rig_->Received(),
              (Bytes{0x7E, 0x7D, 0x21, 0x7D, 0x22, 0x7D, 0x23, 0x3B, 0x9D, 0x7E}));
    EXPECT_EQ(rig_->Framer().State, (ULONG)PPP_FRAMER_HUNT);
    EXPECT_EQ(rig_->Framer().Sequence, 1u);
    EXPECT_TRUE(dbg().Lines().empty());
}

TEST_F(PppTest, FramerAlwaysEscapesFlagAndEscapeWhateverTheDeviceList) {
    PppSetSpecialChars(&rig_->Framer(), nullptr, 0);
    Bytes content{0x7E, 0x41, 0x7D, 0x01};
    rig_->FeedModem(ModemPacketBytes(0, content));
    EXPECT_EQ(rig_->Received(), HdlcFrame(content, EscapeSetOf({})));
    EXPECT_EQ(Bytes(rig_->Received().begin(), rig_->Received().begin() + 5),
              (Bytes{0x7E, 0x7D, 0x5E, 0x41, 0x7D}));
    // A new table replaces the old one entirely.
    const UCHAR only_a[] = {0x41};
    PppSetSpecialChars(&rig_->Framer(), only_a, 1);
    EXPECT_TRUE(rig_->Framer().EscapeTable[0x41] && rig_->Framer().EscapeTable[0x7E]);
    EXPECT_FALSE(rig_->Framer().EscapeTable[0x01]);
    EXPECT_EQ(AssertionLines(), 0u);
}

TEST_F(PppTest, FramerDropsWrongSequenceAndFollowsTheDevice) {
    Bytes content{0x10, 0x20};
    rig_->FeedModem(ModemPacketBytes(0, content));
    size_t first_frame = rig_->Received().size();

    rig_->FeedModem(ModemPacketBytes(5, content));
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppFramerIndicateChar invalid Sequence: got:5, exp:1"));
    EXPECT_EQ(rig_->Received().size(), first_frame) << "the packet is dropped";
    EXPECT_EQ(rig_->Framer().Sequence, 6u);

    rig_->FeedModem(ModemPacketBytes(6, {0x30}));
    EXPECT_EQ(Bytes(rig_->Received().begin() + first_frame, rig_->Received().end()),
              HdlcFrame({0x30}, EscapeSetOf(Range(0, 0x1F))));
    EXPECT_EQ(dbg().Count("invalid Sequence"), 1u);
}

TEST_F(PppTest, FramerSequenceWrapsAfter31) {
    for (unsigned sequence = 0; sequence < 40; sequence++)
        rig_->FeedModem(ModemPacketBytes(sequence, {(uint8_t)(0x40 + sequence)}));
    EXPECT_EQ(HdlcSplit(rig_->Received()).size(), 40u);
    EXPECT_FALSE(dbg().Contains("invalid"));
}

TEST_F(PppTest, FramerSkipsBadMagicAndStrayBytesUpToTheNextAA) {
    Bytes good = ModemPacketBytes(0, {0x55});
    Bytes bad_magic{0xAA, 0xBC, 0x00, 0x05, 0x99, 0x13, 0x14};
    EXPECT_EQ(rig_->FeedModem(Concat({bad_magic, good})), bad_magic.size() + good.size());
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppFramerIndicateChar invalid Magic:bcaa"));
    EXPECT_EQ(rig_->Received(), HdlcFrame({0x55}, EscapeSetOf(Range(0, 0x1F))));

    // Outside a packet only the first stray byte is reported.
    rig_->FeedModem(Concat({Bytes{0x12, 0x13, 0x14}, ModemPacketBytes(1, {0x66})}));
    EXPECT_EQ(dbg().Count("ACM:COM5:PppFramerIndicateChar unexpected magic_lo:12"), 1u);
    EXPECT_EQ(dbg().Count("unexpected magic_lo"), 1u);
    EXPECT_EQ(HdlcSplit(rig_->Received()).size(), 2u);
    // A bad magic does not disturb the sequence count.
    EXPECT_EQ(rig_->Framer().Sequence, 2u);
}

TEST_F(PppTest, FramerSkipsPacketsWithoutContent) {
    // Lengths 0..4 describe no content; each is skipped and its number counts.
    for (unsigned length = 0; length <= 4; length++) {
        unsigned word = length << 11 | length;
        rig_->FeedModem({0xAA, 0xBB, (uint8_t)(word >> 8), (uint8_t)word});
    }
    EXPECT_EQ(dbg().Count("PppFramerIndicateChar invalid Length:"), 5u);
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppFramerIndicateChar invalid Length:4"));
    EXPECT_TRUE(rig_->Received().empty());
    EXPECT_EQ(rig_->Framer().WritePtr, rig_->Framer().Header + PPP_HEADER_SIZE);
    rig_->FeedModem(ModemPacketBytes(5, {0x42}));
    EXPECT_EQ(rig_->Received(), HdlcFrame({0x42}, EscapeSetOf(Range(0, 0x1F))));
    EXPECT_FALSE(dbg().Contains("invalid Sequence"));
}

TEST_F(PppTest, FramerLargestPacketFullyEscapedFitsTheBuffer) {
    PppSetSpecialChars(&rig_->Framer(), Range(0, 0xFF).data(), 256);
    Bytes content(2043, 0x7E);
    rig_->FeedModem(ModemPacketBytes(0, content));
    Bytes expected = HdlcFrame(content, EscapeSetOf(Range(0, 0xFF)));
    EXPECT_EQ(expected.size(), 4092u);
    EXPECT_EQ(rig_->Received(), expected);
}

TEST_F(PppTest, FramerHoldsAnUndeliveredFrameUntilTheSerialPortTakesIt) {
    Bytes first = ModemPacketBytes(0, {1, 2, 3});
    Bytes frame = HdlcFrame({1, 2, 3}, EscapeSetOf(Range(0, 0x1F)));
    rig_->LimitReceive({3});
    // The bulk-in packet ends with the frame's last content byte: all of it
    // is accepted, and the frame's rest waits in the framer.
    EXPECT_EQ(rig_->FeedModem(first), first.size());
    EXPECT_EQ(rig_->Framer().State, (ULONG)PPP_FRAMER_DELIVER);
    EXPECT_EQ(rig_->Framer().Count, frame.size() - 3);

    // The next modem bytes are refused while the rest still does not fit.
    Bytes second = ModemPacketBytes(1, {4});
    rig_->LimitReceive({2});
    EXPECT_EQ(rig_->FeedModem(second), 0u);
    EXPECT_EQ(rig_->Received().size(), 5u);
    EXPECT_EQ(rig_->Framer().Count, frame.size() - 5);

    // Once it fits, the rest goes first and the refused byte is parsed.
    EXPECT_EQ(rig_->FeedModem(second), second.size());
    EXPECT_EQ(rig_->Received(), Concat({frame, HdlcFrame({4}, EscapeSetOf(Range(0, 0x1F)))}));
    EXPECT_EQ(rig_->ReceiveCalls(), 4u);
}

TEST_F(PppTest, FramerTracesEachFrameWithPppMask) {
    TraceMask = 3 | TL_PPP;
    rig_->FeedModem(ModemPacketBytes(0, {0x41, 0x42}));
    EXPECT_TRUE(dbg().Contains("ACM:COM5:Read DRV->PC: %n"));
    EXPECT_EQ(dbg().Count("0000: 7E 41 42"), 1u);
    EXPECT_FALSE(dbg().Contains("..."));
    rig_->FeedModem(ModemPacketBytes(1, Bytes(70, 0x41)));
    EXPECT_EQ(dbg().Count("0030: "), 1u) << "64 bytes dumped at most";
    EXPECT_FALSE(dbg().Contains("0040: "));
    EXPECT_EQ(dbg().Count("..."), 1u);
}

// ---------------------------------------------------------------- deframer

TEST_F(PppTest, DeFramerTurnsTheFirstHostFrameIntoPacketZero) {
    EXPECT_TRUE(rig_->WriteHost({0x7E, 0x01, 0x7D, 0x22, 0x03, 0x3B, 0x9D, 0x7E}));
    ASSERT_EQ(rig_->Chunks().size(), 1u);
    EXPECT_EQ(rig_->Chunks()[0], (Bytes{0xAA, 0xBB, 0x00, 0x09, 0x01, 0x02, 0x03, 0x3B, 0x9D}));
    EXPECT_EQ(rig_->DeFramer().State, (ULONG)PPP_DEFRAMER_IN_FRAME);
    EXPECT_TRUE(dbg().Lines().empty());
}

TEST_F(PppTest, DeFramerIgnoresEmptyFramesAndNumbersPacketsModulo32) {
    EXPECT_TRUE(rig_->WriteHost({0x7E, 0x7E, 0x7E}));
    EXPECT_TRUE(rig_->Chunks().empty());
    for (unsigned frame = 0; frame < 34; frame++)
        rig_->WriteHost({(uint8_t)(0x80 + frame), 0x7E});
    auto packets = ParseModemPackets(rig_->SentStream());
    ASSERT_TRUE(packets.has_value());
    ASSERT_EQ(packets->size(), 34u);
    for (unsigned frame = 0; frame < 34; frame++) {
        EXPECT_EQ((*packets)[frame].sequence, frame % 32);
        EXPECT_EQ((*packets)[frame].content, Bytes{(uint8_t)(0x80 + frame)});
    }
}

TEST_F(PppTest, DeFramerTraceNamesTheContentLength) {
    TraceMask = 3 | TL_PPP;
    rig_->WriteHost({0x01, 0x02, 0x7E});
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppDeFramerSendChar: DeFramer->Count: 2"));
}

TEST_F(PppTest, DeFramerSplitsAPacketOverSeveralSendPackets) {
    Rig({.PacketSize = 64, .Packets = 1, .AutoComplete = false});
    Bytes content(150, 0x33);
    for (uint8_t byte : content)
        ASSERT_TRUE(PppDeFramerSendChar(&rig_->DeFramer(), byte));
    EXPECT_TRUE(PppDeFramerSendChar(&rig_->DeFramer(), 0x7E));
    EXPECT_TRUE(dbg().Contains("ACM:COM5:Incomplete write operation Count:90, LengthBuffer:64"));
    EXPECT_EQ(rig_->DeFramer().State, (ULONG)PPP_DEFRAMER_SUBMIT_PENDING);

    // The next host byte waits while the one send packet is in flight.
    EXPECT_FALSE(PppDeFramerSendChar(&rig_->DeFramer(), 0x44));
    rig_->CompleteSend();
    EXPECT_FALSE(PppDeFramerSendChar(&rig_->DeFramer(), 0x44));
    EXPECT_TRUE(dbg().Contains("Incomplete write operation Count:26, LengthBuffer:64"));
    rig_->CompleteSend();
    EXPECT_TRUE(PppDeFramerSendChar(&rig_->DeFramer(), 0x44));

    std::vector<size_t> sizes;
    for (const Bytes& chunk : rig_->Chunks())
        sizes.push_back(chunk.size());
    EXPECT_EQ(sizes, (std::vector<size_t>{64, 64, 26}));
    auto packets = ParseModemPackets(rig_->SentStream());
    ASSERT_TRUE(packets.has_value());
    EXPECT_EQ((*packets)[0].content, content);
    // The refused byte became the first byte of the next frame.
    EXPECT_EQ(rig_->DeFramer().Count, 1u);
    EXPECT_EQ(rig_->DeFramer().Buffer[0], 0x44);
}

TEST_F(PppTest, DeFramerWaitsForASendPacketThenTakesTheKeptByte) {
    Rig({.PacketSize = 64, .Packets = 1, .AutoComplete = false});
    EXPECT_TRUE(rig_->WriteHost({0x01, 0x7E}));
    EXPECT_TRUE(rig_->WriteHost({0x02, 0x7E})); // finished, but no packet is free
    EXPECT_EQ(rig_->Chunks().size(), 1u);
    EXPECT_EQ(rig_->DeFramer().State, (ULONG)PPP_DEFRAMER_SUBMIT_PENDING);
    EXPECT_FALSE(PppDeFramerSendChar(&rig_->DeFramer(), 0x03));

    // The send buffer ran empty: the serial port retries the waiting packet.
    rig_->SubmitWaiting();
    EXPECT_EQ(rig_->Chunks().size(), 1u);
    EXPECT_FALSE(dbg().Contains("PppDeFramerSubmitBuffer"));
    TraceMask = 3 | TL_PPP;
    rig_->CompleteSend();
    rig_->SubmitWaiting();
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppDeFramerSubmitBuffer PppDeFramerSubmitData true"));
    EXPECT_EQ(rig_->DeFramer().State, (ULONG)PPP_DEFRAMER_IN_FRAME);
    rig_->CompleteSend();

    // Nothing waits now: no send packet is asked for.
    unsigned asked = rig_->GetWriteBufferCalls();
    rig_->SubmitWaiting();
    EXPECT_EQ(rig_->GetWriteBufferCalls(), asked);

    EXPECT_TRUE(PppDeFramerSendChar(&rig_->DeFramer(), 0x03));
    EXPECT_TRUE(rig_->WriteHost({0x7E}));
    auto packets = ParseModemPackets(rig_->SentStream());
    ASSERT_TRUE(packets.has_value());
    ASSERT_EQ(packets->size(), 3u);
    EXPECT_EQ((*packets)[1].content, Bytes{0x02});
    EXPECT_EQ((*packets)[2].content, Bytes{0x03});
    EXPECT_EQ((*packets)[2].sequence, 2u);
}

TEST_F(PppTest, DeFramerDiscardsFramesOf4102ContentBytes) {
    rig_->WriteHost({0x01, 0x7E}); // packet 0
    Bytes too_long(4101, 0x21);
    rig_->WriteHost(too_long);
    EXPECT_FALSE(dbg().Contains("to long"));
    EXPECT_EQ(rig_->DeFramer().Count, 4101u);
    rig_->WriteHost({0x7D, 0x01}); // the 4102nd content byte, escaped
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppDeFramerSendChar PPP Frame to long, discard it"));
    EXPECT_EQ(rig_->DeFramer().State, (ULONG)PPP_DEFRAMER_HUNT);
    EXPECT_EQ(rig_->DeFramer().WritePtr, rig_->DeFramer().Buffer);

    // The rest of that frame is skipped; the next flag opens a frame, which
    // takes the number the discarded frame would have had.
    rig_->WriteHost({0x22, 0x7D, 0x23, 0x7E, 0x02, 0x7E});
    auto packets = ParseModemPackets(rig_->SentStream());
    ASSERT_TRUE(packets.has_value());
    ASSERT_EQ(packets->size(), 2u);
    EXPECT_EQ((*packets)[1].content, Bytes{0x02});
    EXPECT_EQ((*packets)[1].sequence, 1u);
}

TEST_F(PppTest, DeFramerDropsFramesTheLengthFieldCannotDescribe) {
    rig_->WriteHost(Concat({Bytes(2043, 0x30), Bytes{0x7E}}));
    rig_->WriteHost(Concat({Bytes(2044, 0x31), Bytes{0x7E}}));
    rig_->WriteHost(Concat({Bytes(4101, 0x32), Bytes{0x7E}}));
    rig_->WriteHost({0x33, 0x7E});
    EXPECT_EQ(dbg().Count("too long for a packet, discard it"), 2u);
    EXPECT_TRUE(dbg().Contains("ACM:COM5:PppDeFramerSendChar PPP Frame of 2044 bytes too long"));
    auto packets = ParseModemPackets(rig_->SentStream());
    ASSERT_TRUE(packets.has_value());
    ASSERT_EQ(packets->size(), 2u);
    EXPECT_EQ((*packets)[0].length, 2047u);
    EXPECT_EQ((*packets)[0].content, Bytes(2043, 0x30));
    EXPECT_EQ((*packets)[1].content, Bytes{0x33});
    EXPECT_EQ((*packets)[1].sequence, 1u) << "dropped frames leave no gap in the numbering";
}

// ---------------------------------------------------------------- round trip

// Random PPP frames written by a host through the deframer become modem
// packets carrying exactly the unescaped frame; the same contents sent by
// the modem come back through the framer as HDLC frames that verify.
TEST_F(PppTest, RoundTripOfRandomFramesAndEscapeTables) {
    std::mt19937 random(20240611);
    // 0x5E is left out: escaped, it would be sent as 7D 7E, which a host
    // reads as an aborted frame; no modem asks for it.
    auto random_set = [&] {
        Bytes special;
        unsigned count = random() % 40;
        for (unsigned i = 0; i < count; i++) {
            uint8_t byte = (uint8_t)random();
            if (byte != 0x5E)
                special.push_back(byte);
        }
        return special;
    };
    for (int round = 0; round < 6; round++) {
        Rig({.PacketSize = (ULONG)(16 + random() % 100),
             .Packets = 1 + (unsigned)(random() % 3),
             .AutoComplete = round % 2 == 0});
        Bytes device_chars = random_set();
        rig_->StartFraming(device_chars);
        EscapeSet host_escapes = EscapeSetOf(random_set());

        std::vector<Bytes> contents;
        Bytes host_stream{0x7E};
        Bytes modem_stream;
        for (int frame = 0; frame < 60; frame++) {
            size_t length = random() % 8 == 0 ? 1 + random() % 2041 : 1 + random() % 120;
            Bytes content(length);
            for (uint8_t& byte : content)
                byte = (uint8_t)random();
            contents.push_back(content);
            Bytes framed = HdlcFrame(content, host_escapes);
            // Frames share their flags half of the time.
            host_stream.insert(host_stream.end(), framed.begin() + (random() % 2), framed.end());
            Bytes packet = ModemPacketBytes((unsigned)frame, content);
            modem_stream.insert(modem_stream.end(), packet.begin(), packet.end());
        }

        ASSERT_TRUE(rig_->WriteHost(host_stream));
        ASSERT_TRUE(rig_->Drain());
        auto packets = ParseModemPackets(rig_->SentStream());
        ASSERT_TRUE(packets.has_value()) << "round " << round;
        ASSERT_EQ(packets->size(), contents.size());
        for (size_t i = 0; i < contents.size(); i++) {
            const ModemPacket& packet = (*packets)[i];
            EXPECT_EQ(packet.sequence, i % 32);
            ASSERT_EQ(packet.content.size(), contents[i].size() + 2);
            EXPECT_TRUE(std::equal(contents[i].begin(), contents[i].end(), packet.content.begin()));
            EXPECT_EQ(ReferenceFcs(packet.content), kFcsGood);
        }

        // The modem's bytes arrive in bulk-in packets of random size, and
        // the serial port takes random amounts of each frame.
        std::deque<ULONG> limits;
        for (int i = 0; i < 2000; i++)
            limits.push_back((ULONG)(random() % 600));
        rig_->LimitReceive(limits);
        size_t at = 0;
        while (at < modem_stream.size()) {
            size_t chunk = std::min<size_t>(1 + random() % 700, modem_stream.size() - at);
            Bytes bulk(modem_stream.begin() + at, modem_stream.begin() + at + chunk);
            size_t taken = rig_->FeedModem(bulk);
            if (taken == 0 && rig_->ReceiveCalls() > 100000)
                FAIL() << "no progress";
            at += taken;
        }
        while (rig_->Framer().State == PPP_FRAMER_DELIVER)
            rig_->FeedModem({0xAA}); // offers the rest; the 0xAA starts a header
        EscapeSet device_escapes = EscapeSetOf(device_chars);
        Bytes expected;
        for (const Bytes& content : contents) {
            Bytes frame = HdlcFrame(content, device_escapes);
            expected.insert(expected.end(), frame.begin(), frame.end());
        }
        ASSERT_EQ(rig_->Received(), expected) << "round " << round;
        std::vector<Bytes> frames = HdlcSplit(rig_->Received());
        ASSERT_EQ(frames.size(), contents.size());
        for (size_t i = 0; i < frames.size(); i++) {
            EXPECT_EQ(ReferenceFcs(frames[i]), kFcsGood);
            EXPECT_TRUE(std::equal(contents[i].begin(), contents[i].end(), frames[i].begin()));
        }
    }
    EXPECT_EQ(AssertionLines(), 0u);
    EXPECT_FALSE(dbg().Contains("invalid"));
}

} // namespace
