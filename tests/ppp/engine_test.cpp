// The PPP engine: two engines recover a lost request and a magic number
// collision; a server engine answers scripted requests as RFC 1661 and RFC
// 1332 say. (A whole session, negotiation, pings and close, is the
// simulator's dial_ppp scenario through the driver.)
#include "ppp/ppp.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>

namespace {

using ppp::Bytes;
using State = ppp::Engine::State;

constexpr uint32_t kServerAddress = 0x0a000001, kClientAddress = 0x0a000002;

ppp::Config ServerConfig() {
    ppp::Config c;
    c.server = true;
    c.local_address = kServerAddress;
    c.address_for_peer = kClientAddress;
    c.magic = 0x11111111;
    return c;
}

// Two engines joined by a line in each direction; Run delivers what is on
// the lines until both are quiet (in order, never inside a send).
class Link {
  public:
    explicit Link(ppp::Config client_config) {
        client = std::make_unique<ppp::Engine>(client_config, [this](const Bytes& frame) {
            Bytes line = client_framing_.Encode(frame);
            to_server_.insert(to_server_.end(), line.begin(), line.end());
        });
        server = std::make_unique<ppp::Engine>(ServerConfig(), [this](const Bytes& frame) {
            Bytes line = server_framing_.Encode(frame);
            to_client_.insert(to_client_.end(), line.begin(), line.end());
        });
    }
    void Run() {
        for (int round = 0; round < 100 && !(to_server_.empty() && to_client_.empty()); ++round) {
            Bytes up, down;
            up.swap(to_server_);
            down.swap(to_client_);
            for (const Bytes& frame : server_framing_.Decode(up))
                server->Receive(frame);
            for (const Bytes& frame : client_framing_.Decode(down))
                client->Receive(frame);
        }
        ASSERT_TRUE(to_server_.empty() && to_client_.empty()) << "the engines never settle";
        EXPECT_EQ(client_framing_.Errors() + server_framing_.Errors(), 0u);
    }
    void LoseWhatTheClientSent() { to_server_.clear(); }
    bool ClientSentNothing() const { return to_server_.empty(); }
    std::unique_ptr<ppp::Engine> client, server;

  private:
    ppp::HdlcFraming client_framing_, server_framing_;
    Bytes to_server_, to_client_;
};

// A lost configure-request or terminate-request goes again when the owner
// reports the restart timer's expiry; nothing is sent again once answered.
TEST(Session, TheRestartTimerSendsALostRequestAgain) {
    Link link({});
    link.client->Open();
    link.LoseWhatTheClientSent();
    link.server->Open();
    link.Run();
    ASSERT_EQ(link.client->Lcp(), State::kAckSent) << "it acked the server's request";
    link.client->Timeout();
    link.Run();
    ASSERT_EQ(link.client->Ipcp(), State::kOpened);
    ASSERT_EQ(link.server->Ipcp(), State::kOpened);
    link.client->Timeout();
    EXPECT_TRUE(link.ClientSentNothing()) << "an opened link has nothing to send again";

    link.client->Close();
    link.LoseWhatTheClientSent();
    link.Run();
    ASSERT_EQ(link.client->Lcp(), State::kClosing);
    link.client->Timeout();
    link.Run();
    EXPECT_EQ(link.client->Lcp(), State::kClosed);
    EXPECT_EQ(link.server->Lcp(), State::kStopped);
}

// Two engines picking the same magic number: both pick again and still open.
TEST(Session, MagicCollisionIsResolved) {
    ppp::Config client_config;
    client_config.magic = ServerConfig().magic;
    Link link(client_config);
    link.client->Open();
    link.server->Open();
    link.Run();
    EXPECT_EQ(link.client->Lcp(), State::kOpened);
    EXPECT_NE(link.client->Magic(), link.server->Magic());
}

// One request to a server engine and its first answer (nothing when the
// expected answer is empty), in the request's protocol unless the row names
// another. The request's id is 0x40; an answer's id is not compared when
// any_id is set.
struct ScriptCase {
    const char* name;
    bool lcp_open; // LCP brought up by hand first
    uint16_t protocol;
    Bytes request, answer;
    uint16_t answer_protocol;
    bool any_id;
};

ScriptCase Row(const char* name, bool lcp_open, uint16_t protocol, Bytes request, Bytes answer,
               uint16_t answer_protocol = 0, bool any_id = false) {
    const uint16_t reply = answer_protocol ? answer_protocol : protocol;
    return {name, lcp_open, protocol, request, answer, reply, any_id};
}

class ScriptTest : public ::testing::TestWithParam<ScriptCase> {
  protected:
    std::deque<Bytes> sent_;
    ppp::Engine server_{ServerConfig(), [this](const Bytes& frame) { sent_.push_back(frame); }};
};

TEST_P(ScriptTest, AnswersAsTheRfcSays) {
    const ScriptCase& row = GetParam();
    server_.Open();
    if (row.lcp_open) {
        Bytes request = ppp::Unwrap(sent_.front())->information;
        server_.Receive(ppp::Wrap(ppp::kProtocolLcp, {1, 0x30, 0, 4}));
        request[0] = 2; // ack the server's request as it stands
        server_.Receive(ppp::Wrap(ppp::kProtocolLcp, request));
        ASSERT_EQ(server_.Lcp(), State::kOpened);
    }
    sent_.clear();
    server_.Receive(ppp::Wrap(row.protocol, row.request));
    if (row.answer.empty()) {
        EXPECT_TRUE(sent_.empty());
        return;
    }
    ASSERT_FALSE(sent_.empty());
    std::optional<ppp::Packet> answer = ppp::Unwrap(sent_.front());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->protocol, row.answer_protocol);
    Bytes got = answer->information;
    Bytes want = row.answer;
    if (row.any_id && got.size() > 1)
        got[1] = want[1];
    EXPECT_EQ(got, want);
}

constexpr uint16_t kLcp = ppp::kProtocolLcp, kIpcp = ppp::kProtocolIpcp;

INSTANTIATE_TEST_SUITE_P(
    Requests, ScriptTest,
    ::testing::Values(Row("AcceptableRequestIsAcked", false, kLcp,
                          {1, 0x40, 0, 16, 2, 6, 0, 0, 0, 0, 5, 6, 1, 2, 3, 4},
                          {2, 0x40, 0, 16, 2, 6, 0, 0, 0, 0, 5, 6, 1, 2, 3, 4}),
                      Row("SmallMruIsNakedWithTheDefault", false, kLcp,
                          {1, 0x40, 0, 8, 1, 4, 0, 32}, {3, 0x40, 0, 8, 1, 4, 0x05, 0xdc}),
                      Row("UnknownOptionIsRejectedAlone", false, kLcp,
                          {1, 0x40, 0, 10, 1, 4, 0, 32, 7, 2}, {4, 0x40, 0, 6, 7, 2}),
                      Row("WrongLengthIsRejected", false, kLcp, {1, 0x40, 0, 8, 2, 4, 0, 0},
                          {4, 0x40, 0, 8, 2, 4, 0, 0}),
                      Row("UnknownCodeIsCodeRejected", false, kLcp, {12, 0x40, 0, 5, 9},
                          {7, 0, 0, 9, 12, 0x40, 0, 5, 9}, kLcp, true),
                      Row("ShortPacketIsDropped", false, kLcp, {1, 0x40, 0, 3}, {}),
                      Row("NetworkProtocolBeforeLcpIsDropped", false, kIpcp,
                          {1, 0x40, 0, 10, 3, 6, 0, 0, 0, 0}, {}),
                      Row("EchoIsAnsweredWithOurMagic", true, kLcp,
                          {9, 0x40, 0, 10, 0xde, 0xad, 0xbe, 0xef, 'h', 'i'},
                          {10, 0x40, 0, 10, 0x11, 0x11, 0x11, 0x11, 'h', 'i'}),
                      Row("ZeroAddressGetsTheAssignedOne", true, kIpcp,
                          {1, 0x40, 0, 10, 3, 6, 0, 0, 0, 0}, {3, 0x40, 0, 10, 3, 6, 10, 0, 0, 2}),
                      Row("AssignedAddressIsAcked", true, kIpcp,
                          {1, 0x40, 0, 10, 3, 6, 10, 0, 0, 2}, {2, 0x40, 0, 10, 3, 6, 10, 0, 0, 2}),
                      Row("CompressionIsRejected", true, kIpcp,
                          {1, 0x40, 0, 10, 2, 6, 0, 0x2d, 0x0f, 1},
                          {4, 0x40, 0, 10, 2, 6, 0, 0x2d, 0x0f, 1}),
                      Row("UnknownProtocolIsProtocolRejected", true, 0x8057, {1, 1, 0, 4},
                          {8, 0, 0, 10, 0x80, 0x57, 1, 1, 0, 4}, kLcp, true),
                      Row("TerminateIsAcked", true, kLcp, {5, 0x40, 0, 4}, {6, 0x40, 0, 4})),
    [](const auto& info) { return std::string(info.param.name); });

// A zero magic number is naked with another one, never zero.
TEST(Script, ZeroMagicIsNakedWithANonZeroValue) {
    std::deque<Bytes> sent;
    ppp::Engine server(ServerConfig(), [&](const Bytes& frame) { sent.push_back(frame); });
    server.Open();
    sent.clear();
    server.Receive(ppp::Wrap(kLcp, {1, 0x40, 0, 10, 5, 6, 0, 0, 0, 0}));
    ASSERT_EQ(sent.size(), 1u);
    Bytes nak = ppp::Unwrap(sent.front())->information;
    ASSERT_EQ(nak.size(), 10u);
    EXPECT_EQ(Bytes(nak.begin(), nak.begin() + 6), (Bytes{3, 0x40, 0, 10, 5, 6}));
    EXPECT_NE(Bytes(nak.begin() + 6, nak.end()), (Bytes{0, 0, 0, 0}));
}

// Datagrams the server must not answer: another address, a bad header
// checksum, a fragment.
TEST(Script, OnlyWholeIcmpForUsIsAnswered) {
    ppp::Config client_config;
    Link link(client_config);
    link.client->Open();
    link.server->Open();
    link.Run();
    ASSERT_EQ(link.server->Ipcp(), State::kOpened);
    uint32_t dropped = link.server->Dropped();
    // An echo request from 10.0.0.2 to 10.0.0.1 with a good checksum, then
    // spoilt one way each.
    const Bytes good = {0x45, 0, 0,  28, 0, 1, 0, 0, 64,   1,    0x66, 0xde, 10, 0,
                        0,    2, 10, 0,  0, 1, 8, 0, 0xf7, 0xfe, 0,    1,    0,  0};
    Bytes other = good, damaged = good, fragment = good;
    other[19] = 9;
    other[11] = 0xd6; // checksum fixed for the other address
    damaged[11] ^= 1;
    fragment[6] = 0x20; // more fragments
    fragment[10] = 0x46;
    for (const Bytes& d : {other, damaged, fragment})
        link.server->Receive(ppp::Wrap(ppp::kProtocolIp, d));
    link.Run();
    EXPECT_EQ(link.server->Dropped(), dropped + 3);
    link.server->Receive(ppp::Wrap(ppp::kProtocolIp, good));
    link.Run();
    EXPECT_EQ(link.client->PingReplies(),
              (std::vector<ppp::Engine::PingReply>{{kServerAddress, 1, 0, {}}}));
}

} // namespace
