// The campaign's judgement of a run: what the application read against
// what the modems sent, and the fault points as replay commands name them.
#include "delivery.h"
#include "fault_point.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes B(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

struct DeliveryCase {
    const char* name;
    std::vector<std::string> sent_text; // one stream per modem, in plug order
    std::vector<std::string> sent_frames;
    std::vector<std::pair<std::string, bool>> reads; // bytes, read by the PPP client
    std::vector<std::string> accepted_frames;
    bool passes;
};

DeliveryCase Row(const char* name, std::vector<std::string> sent_text,
                 std::vector<std::string> sent_frames,
                 std::vector<std::pair<std::string, bool>> reads,
                 std::vector<std::string> accepted_frames, bool passes) {
    return {name, sent_text, sent_frames, reads, accepted_frames, passes};
}

TEST(Delivery, TheApplicationMayLoseButNeverInventReorderOrRepeat) {
    const DeliveryCase cases[] = {
        Row("everything, over two modems", {"AT\r\nOK\r\n", "back"}, {},
            {{"AT\r\nOK\r\nback", false}}, {}, true),
        Row("lost bytes (a purge)", {"abcdef"}, {}, {{"abf", false}}, {}, true),
        Row("a byte repeated", {"abc"}, {}, {{"abbc", false}}, {}, false),
        Row("bytes reordered", {"abc"}, {}, {{"acb", false}}, {}, false),
        Row("a byte altered", {"abc"}, {}, {{"abd", false}}, {}, false),
        Row("a byte from another modem's stream first", {"ab", "cd"}, {}, {{"cab", false}}, {},
            false),
        Row("frames are left to the PPP client", {"CONNECT\r\n", "\r\nNO CARRIER\r\n"},
            {"lcp", "ipcp"},
            {{"CONNECT\r\n", false}, {"~\x01\x02~junk~", true}, {"\r\nNO CARRIER\r\n", false}},
            {"lcp", "ipcp"}, true),
        Row("a frame's tail read as text still counts as the frame's", {"x"}, {"lcp"},
            {{"~ab", true}, {"cd~x", false}}, {"lcp"}, true),
        Row("text the client read is not judged", {"OK"}, {}, {{"zz", true}}, {}, true),
        Row("a frame accepted twice", {}, {"lcp"}, {}, {"lcp", "lcp"}, false),
        Row("frames out of order", {}, {"a", "b"}, {}, {"b", "a"}, false),
        Row("a frame lost", {}, {"a", "b", "c"}, {}, {"a", "c"}, true),
    };
    for (const DeliveryCase& c : cases) {
        std::vector<sm::Modem::ToHost> sent;
        for (const std::string& text : c.sent_text)
            sent.push_back({B(text), {}});
        if (sent.empty())
            sent.emplace_back();
        for (const std::string& frame : c.sent_frames)
            sent.back().frames.push_back(B(frame));
        sim::Reception reception;
        for (const auto& [bytes, by_client] : c.reads)
            reception.Read(B(bytes), by_client);
        for (const std::string& frame : c.accepted_frames)
            reception.Frame(B(frame));
        std::optional<std::string> problem = sim::CheckDelivery(reception, sent);
        EXPECT_EQ(!problem.has_value(), c.passes) << c.name << ": " << problem.value_or("none");
    }
}

TEST(FaultPoint, ParsesWhatTheReplayCommandsPrint) {
    for (sim::FaultKind kind : sim::kFaultKinds) {
        std::string error;
        std::string text = sim::FaultPointText({kind, 37});
        std::optional<sim::FaultPoint> point = sim::ParseFaultPoint(text, &error);
        ASSERT_TRUE(point) << text << ": " << error;
        EXPECT_EQ(point->kind, kind);
        EXPECT_EQ(point->nth, 37u);
    }
    for (const char* bad : {"pool", "pool:", "pool:0", "pool:x", "pool:1x", "flood:3", ":3"}) {
        std::string error;
        EXPECT_FALSE(sim::ParseFaultPoint(bad, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    sim::FaultSites sites{10, 20, 30};
    EXPECT_EQ(sites.For(sim::FaultKind::kPool), 10u);
    EXPECT_EQ(sites.For(sim::FaultKind::kNoAnswer), 20u);
    EXPECT_EQ(sites.For(sim::FaultKind::kGone), 30u);
    EXPECT_EQ(sites.For(sim::FaultKind::kRemoval), 30u);
}

} // namespace
