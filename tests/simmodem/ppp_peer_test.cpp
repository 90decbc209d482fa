// The modem as a PPP peer after a dial: a client engine on the host's side
// of the modem packets negotiates, pings and echoes; scripted first frames
// get the answers of a peer that opens when the host starts.
#include "kernel_test.h"

#include "simmodem/simmodem.h"

namespace {

using ppp::Bytes;

constexpr uint8_t kBulkOut = 0x01, kBulkIn = 0x81;

class PeerTest : public KernelTest {
  protected:
    void TearDown() override {
        modem_.reset();
        KernelTest::TearDown();
    }
    // Dials, connects and starts framing as the driver would on request.
    void Connect() {
        modem_ = std::make_unique<sm::Modem>(sm::OrdinaryModem(), sm::Modem::DataMode::kCommand);
        ASSERT_FALSE(Control(0x00, USB_REQUEST_SET_CONFIGURATION, 1).stall);
        ASSERT_FALSE(Control(0x21, sm::kSetControlLineState, 3).stall);
        Write({'A', 'T', 'E', '0', 'D', '1', '\r'});
        kernel().Sleep(2000);
        ASSERT_TRUE(modem_->Connected());
        Read(); // the echo and CONNECT
        ASSERT_FALSE(Control(0x41, sm::kStartFraming, 0).stall);
    }
    hu::ControlAnswer Control(uint8_t type, uint8_t request, uint16_t value) {
        return modem_->Control({type, request, value, 0, 0}, {});
    }
    void Write(const Bytes& bytes) { modem_->Out(kBulkOut, bytes); }
    Bytes Read() {
        Bytes bytes;
        while (auto packet = modem_->In(kBulkIn, 64))
            bytes.insert(bytes.end(), packet->begin(), packet->end());
        return bytes;
    }
    // The frames the modem sent, as the host's side of the packets sees them.
    std::vector<Bytes> Frames() { return host_.Decode(Read()); }
    void Send(const Bytes& frame) { Write(host_.Encode(frame)); }

    std::unique_ptr<sm::Modem> modem_;
    ppp::ModemPacketFraming host_{ppp::ModemPacketFraming::Side::kHost};
};

TEST_F(PeerTest, ClientGetsItsAddressAndPingsTheModem) {
    Connect();
    EXPECT_TRUE(Read().empty()) << "the peer waits for the host's first frame";
    ppp::Engine client({}, [this](const Bytes& frame) { Send(frame); });
    client.Open();
    for (int round = 0; round < 20; ++round)
        for (const Bytes& frame : Frames())
            client.Receive(frame);
    ASSERT_EQ(client.Ipcp(), ppp::Engine::State::kOpened);
    EXPECT_EQ(client.LocalAddress(), 0x0a000002u);
    ASSERT_TRUE(client.Ping(1, 1, {'x'}));
    client.SendEcho({});
    for (const Bytes& frame : Frames())
        client.Receive(frame);
    EXPECT_EQ(client.PingReplies(),
              (std::vector<ppp::Engine::PingReply>{{0x0a000001, 1, 1, {'x'}}}));
    EXPECT_EQ(client.EchoReplies(), 1u);
    EXPECT_EQ(modem_->BadFcs() + modem_->BadSequence() + modem_->BadMagic(), 0u);

    // DTR dropped: the call ends and the peer with it.
    ASSERT_FALSE(Control(0x21, sm::kSetControlLineState, 0).stall);
    EXPECT_EQ(modem_->Peer(), nullptr);
    EXPECT_FALSE(modem_->Connected());
}

// The host's first frame and the codes of what the modem answers (LCP).
struct FirstFrameCase {
    const char* name;
    Bytes lcp; // the host's LCP packet
    std::vector<uint8_t> codes;
};

class FirstFrameTest : public PeerTest, public ::testing::WithParamInterface<FirstFrameCase> {};

TEST_P(FirstFrameTest, PeerOpensThenAnswers) {
    Connect();
    Send(ppp::Wrap(ppp::kProtocolLcp, GetParam().lcp));
    std::vector<uint8_t> codes;
    for (const Bytes& frame : Frames()) {
        std::optional<ppp::Packet> packet = ppp::Unwrap(frame);
        ASSERT_TRUE(packet && packet->protocol == ppp::kProtocolLcp);
        codes.push_back(packet->information.at(0));
    }
    EXPECT_EQ(codes, GetParam().codes);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FirstFrameTest,
    ::testing::Values(FirstFrameCase{"RequestIsAckedAfterOurs", {1, 1, 0, 4}, {1, 2}},
                      FirstFrameCase{"SmallMruIsNaked", {1, 1, 0, 8, 1, 4, 0, 10}, {1, 3}},
                      FirstFrameCase{"EchoBeforeOpenIsDropped", {9, 1, 0, 8, 0, 0, 0, 1}, {1}},
                      FirstFrameCase{"TerminateIsAcked", {5, 1, 0, 4}, {1, 6}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
