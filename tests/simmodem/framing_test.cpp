// The simulated modem as a host meets it on the bus: the modem packets of
// the PPP framing mode from the host and how pushes are paced into bulk-in
// transfers. (Its notifications, the stalled special-character request,
// loopback and the device's numbering restarted at each start of framing
// are the driver's transport and PPP switch tests and the second session of
// the dial_ppp scenario.)
#include "bus_client.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Frames = std::vector<Bytes>;

// Host frames with their FCS: RFC 1662's example, another, a damaged one.
const Bytes kFrameA = {1, 2, 3, 0x3b, 0x9d}, kFrameB = {4, 5, 0x8a, 0x3f},
            kBadFcs = {1, 2, 3, 0x3b, 0x9c};

Bytes Packet(uint8_t sequence, const Bytes& content, uint8_t magic_high = 0xbb) {
    size_t word = size_t(sequence) << 11 | (content.size() + 4);
    Bytes packet = {0xaa, magic_high, uint8_t(word >> 8), uint8_t(word)};
    packet.insert(packet.end(), content.begin(), content.end());
    return packet;
}
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
const Bytes kA = Packet(0, kFrameA);

class ModemOnBus : public BusTest {
  protected:
    void PlugModem(sm::Modem::DataMode mode, hu::Speed speed = hu::Speed::kFull) {
        bus_ = std::make_unique<hu::Bus>();
        modem_ = std::make_shared<sm::Modem>(sm::OrdinaryModem(speed), mode);
        port_ = bus_->Plug(modem_, speed);
        pdo_ = bus_->Pdo(port_);
        ASSERT_EQ(Select(0), STATUS_SUCCESS);
    }
    void Vendor(uint8_t request) {
        ASSERT_TRUE(Wait(ClassOrVendor(URB_FUNCTION_VENDOR_INTERFACE, false, request, 0, 0, {})));
    }
    void Write(const Bytes& bytes) { ASSERT_TRUE(Wait(Transfer(0x01, false, bytes))); }
    Bytes Read(uint8_t endpoint = 0x81, ULONG length = 256) {
        BusRequest* in = Transfer(endpoint, true, {}, length);
        EXPECT_TRUE(Wait(in));
        in->buffer.resize(in->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength);
        return in->buffer;
    }
};

struct FramingCase {
    const char* name;
    Bytes stream;
    std::vector<size_t> cuts; // where one bulk-out transfer ends and the next begins
    Frames frames;
    uint32_t bad_magic, bad_sequence, bad_fcs;
};

FramingCase Case(const char* name, Bytes stream, std::vector<size_t> cuts, Frames frames,
                 uint32_t bad_magic, uint32_t bad_sequence, uint32_t bad_fcs) {
    return {name, stream, cuts, frames, bad_magic, bad_sequence, bad_fcs};
}

class FramingTest : public ModemOnBus, public ::testing::WithParamInterface<FramingCase> {};

TEST_P(FramingTest, HostStreamIsParsedIntoCheckedFrames) {
    const FramingCase& row = GetParam();
    PlugModem(sm::Modem::DataMode::kTest);
    Vendor(sm::kStartFraming);
    size_t from = 0;
    for (size_t cut : row.cuts) {
        Write(Bytes(row.stream.begin() + long(from), row.stream.begin() + long(cut)));
        from = cut;
    }
    Write(Bytes(row.stream.begin() + long(from), row.stream.end()));
    EXPECT_EQ(modem_->TakeFrames(), row.frames);
    EXPECT_EQ(modem_->BadMagic(), row.bad_magic);
    EXPECT_EQ(modem_->BadSequence(), row.bad_sequence);
    EXPECT_EQ(modem_->BadFcs(), row.bad_fcs);
    EXPECT_TRUE(modem_->Pull().empty()) << "framed bytes are not kept raw";
}

INSTANTIATE_TEST_SUITE_P(
    Packets, FramingTest,
    ::testing::Values(
        Case("SplitOverThreeTransfers", kA, {1, 5}, {kFrameA}, 0, 0, 0),
        Case("TwoInOneTransfer", kA + Packet(1, kFrameB), {}, {kFrameA, kFrameB}, 0, 0, 0),
        Case("StrayBytesCountOnce", Bytes{0x11, 0x22, 0x33} + kA, {1}, {kFrameA}, 1, 0, 0),
        Case("BadMagic", Packet(0, kFrameB, 0xbc) + kA, {}, {kFrameA}, 1, 0, 0),
        Case("LengthBelowHeader", Bytes{0xaa, 0xbb, 0, 3} + kA, {}, {kFrameA}, 1, 0, 0),
        Case("BadSequenceIsDroppedAndFollowed", Packet(1, kFrameA) + Packet(2, kFrameB), {},
             {kFrameB}, 0, 1, 0),
        Case("BadFcsIsKept", Packet(0, kBadFcs) + Packet(1, kFrameB), {}, {kBadFcs, kFrameB}, 0, 0,
             1)),
    [](const auto& info) { return std::string(info.param.name); });

// Each start of framing numbers the host's packets from 0 again. (A modem
// that did not would drop the first packet of a second session and follow
// the host's numbering: PPP recovers, so no dial shows it.)
TEST_F(ModemOnBus, EachStartOfFramingRestartsTheHostsNumbering) {
    PlugModem(sm::Modem::DataMode::kTest);
    for (int start = 0; start < 2; ++start) {
        Vendor(sm::kStartFraming);
        Write(kA);
        Vendor(sm::kStopFraming);
    }
    EXPECT_EQ(modem_->TakeFrames(), (Frames{kFrameA, kFrameA}));
    EXPECT_EQ(modem_->BadSequence(), 0u);
}

struct PacingCase {
    const char* name;
    hu::Speed speed;
    std::vector<size_t> pushes;
    ULONG transfer_length;
    std::vector<size_t> received;
};

class PacingTest : public ModemOnBus, public ::testing::WithParamInterface<PacingCase> {};

TEST_P(PacingTest, TransfersEndAtShortPacketsAndNeverJoinPushes) {
    const PacingCase& row = GetParam();
    PlugModem(sm::Modem::DataMode::kTest, row.speed);
    Bytes pushed, read;
    for (size_t size : row.pushes) {
        modem_->Push(Bytes(size, uint8_t(size)));
        pushed = pushed + Bytes(size, uint8_t(size));
    }
    std::vector<size_t> received;
    for (size_t i = 0; i < row.received.size(); ++i) {
        read = read + Read(0x81, row.transfer_length);
        received.push_back(read.size());
    }
    EXPECT_EQ(received, row.received) << "bytes read after each transfer";
    EXPECT_EQ(read, pushed);
}

INSTANTIATE_TEST_SUITE_P(
    Pushes, PacingTest,
    ::testing::Values(PacingCase{"ShortPacketEnds", hu::Speed::kFull, {100, 30}, 256, {100, 130}},
                      PacingCase{"EmptyPush", hu::Speed::kFull, {128, 0, 5}, 256, {128, 128, 133}},
                      PacingCase{"LongPush", hu::Speed::kFull, {200}, 128, {128, 200}},
                      PacingCase{"HighSpeed", hu::Speed::kHigh, {1000, 24}, 2048, {1000, 1024}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
