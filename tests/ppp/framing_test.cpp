// The PPP engine's framing: RFC 1662's HDLC-like framing on the line. (The
// FCS of RFC 1662's example, 3b 9d for 01 02 03, ends the encoder's rows.)
#include "ppp/ppp.h"

#include <gtest/gtest.h>

namespace {

using ppp::Bytes;

struct EncodeCase {
    const char* name;
    uint32_t accm;
    Bytes frame, line;
};

EncodeCase Encode(const char* name, uint32_t accm, Bytes frame, Bytes line) {
    return {name, accm, frame, line};
}

class HdlcEncodeTest : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(HdlcEncodeTest, EscapesFlagEscapeAndMappedControls) {
    ppp::HdlcFraming framing;
    framing.SetSendAccm(GetParam().accm);
    EXPECT_EQ(framing.Encode(GetParam().frame), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, HdlcEncodeTest,
    ::testing::Values(Encode("Plain", 0, {1, 2, 3}, {0x7e, 0x01, 0x02, 0x03, 0x3b, 0x9d, 0x7e}),
                      Encode("DefaultMapEscapesControls", 0xffffffff, {1, 2, 3},
                             {0x7e, 0x7d, 0x21, 0x7d, 0x22, 0x7d, 0x23, 0x3b, 0x9d, 0x7e}),
                      Encode("SpaceIsNoControl", 0xffffffff, {0x20, 0x1f},
                             {0x7e, 0x20, 0x7d, 0x3f, 0x7d, 0x22, 0xc4, 0x7e}),
                      Encode("FlagAndEscapeWhateverTheMap", 0, {0x7e, 0x7d, 0x20},
                             {0x7e, 0x7d, 0x5e, 0x7d, 0x5d, 0x20, 0xb1, 0x37, 0x7e}),
                      Encode("OnlyMappedControls", 0x4, {1, 2, 3},
                             {0x7e, 0x01, 0x7d, 0x22, 0x03, 0x3b, 0x9d, 0x7e})),
    [](const auto& info) { return std::string(info.param.name); });

struct DecodeCase {
    const char* name;
    Bytes line;
    std::vector<Bytes> frames;
    uint32_t errors;
};

const Bytes kFrame = {0xff, 0x03, 0xc0, 0x21, 0x7e, 0x7d, 0x01, 0x20};

Bytes Line(const Bytes& frame) {
    ppp::HdlcFraming framing;
    return framing.Encode(frame);
}
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// kFrame's line with XON and XOFF inserted on the way.
Bytes WithInserted() {
    Bytes line = Line(kFrame);
    line.insert(line.begin() + 3, 0x11);
    line.insert(line.begin() + 7, 0x13);
    return line;
}

class HdlcDecodeTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(HdlcDecodeTest, KeepsGoodFramesAndCountsTheRest) {
    const DecodeCase& row = GetParam();
    ppp::HdlcFraming framing;
    std::vector<Bytes> frames;
    for (uint8_t byte : row.line) // one byte at a time: no state may be lost
        for (Bytes& f : framing.Decode({byte}))
            frames.push_back(f);
    EXPECT_EQ(frames, row.frames);
    EXPECT_EQ(framing.Errors(), row.errors);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, HdlcDecodeTest,
    ::testing::Values(
        DecodeCase{"RoundTripWithEscapes", Line(kFrame), {kFrame}, 0},
        DecodeCase{"BackToBackAndSharedFlags",
                   Bytes{0x7e, 0x7e} + Line(kFrame) +
                       Bytes{0x7d, 0x21, 0x7d, 0x22, 0x7d, 0x23, 0x3b, 0x9d, 0x7e},
                   {kFrame, {1, 2, 3}},
                   0},
        DecodeCase{"BadFcs", {0x7e, 1, 2, 3, 0x3b, 0x9c, 0x7e}, {}, 1},
        DecodeCase{"TooShort", {0x7e, 0x3b, 0x9d, 0x7e}, {}, 1},
        DecodeCase{"EmptyFrameWithItsFcs", {0x7e, 0x7d, 0x20, 0x7d, 0x20, 0x7e}, {}, 1},
        DecodeCase{
            "AbortedByEscapeFlag", Bytes{0x7e, 1, 2, 0x7d, 0x7e} + Line({1, 2, 3}), {{1, 2, 3}}, 1},
        DecodeCase{"InsertedControlsAreDropped", WithInserted(), {kFrame}, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HdlcDecode, OverlongFrameIsCountedNotKept) {
    ppp::HdlcFraming framing;
    Bytes big(ppp::HdlcFraming::kMaxFrame + 10, 0x41);
    EXPECT_TRUE(framing.Decode(Line(big)).empty());
    EXPECT_EQ(framing.Errors(), 1u);
    EXPECT_EQ(framing.Decode(Line({1, 2, 3})), (std::vector<Bytes>{{1, 2, 3}}));
}

} // namespace
