// The simulated modems at their own endpoints: the requests a modem
// answers, records or stalls; and the AT command mode: the bytes the host
// writes at given virtual times, the bytes and notifications the modem
// sends back, and what reaches the far end while on-line. (A dial through
// the driver, and the hang-up by DTR, are the simulator's dial_ppp
// scenario.)
#include "kernel_test.h"

#include "simmodem/simmodem.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kBulkOut = 0x01, kBulkIn = 0x81, kInterruptIn = 0x82;

class ModemTest : public KernelTest {
  protected:
    void TearDown() override {
        modem_.reset(); // its timer goes before the kernel does
        KernelTest::TearDown();
    }
    hu::ControlAnswer Request(uint8_t type, uint8_t request, uint16_t value, uint16_t length = 0,
                              Bytes data = {}) {
        return modem_->Control({type, request, value, 0, length}, data);
    }
    void Configure() { ASSERT_FALSE(Request(0x00, USB_REQUEST_SET_CONFIGURATION, 1).stall); }
    std::unique_ptr<sm::Modem> modem_ = std::make_unique<sm::Modem>(sm::OrdinaryModem());
};

// (Break and the special characters are the driver's transport and PPP
// switch tests.)
TEST_F(ModemTest, ClassAndVendorRequestsAreRecordedWithTheirTime) {
    Configure();
    kernel().Sleep(12);
    const Bytes coding = {0x00, 0xc2, 0x01, 0x00, 0, 0, 8};
    EXPECT_FALSE(Request(0x21, sm::kSetLineCoding, 0, 7, coding).stall);
    EXPECT_FALSE(Request(0x21, sm::kSetControlLineState, 3, 0).stall);
    EXPECT_EQ(Request(0xa1, sm::kGetLineCoding, 0, 7).data, coding);
    ASSERT_EQ(modem_->Requests().size(), 3u);
    EXPECT_EQ(modem_->Requests()[0].time_ms, 12);
    EXPECT_EQ(modem_->Requests()[0].data, coding);
    EXPECT_EQ(modem_->ControlLineState(), 3);
}

struct StallCase {
    const char* name;
    bool configured;
    uint8_t type, request;
    uint16_t value, length;
};

class ModemStallTest : public ModemTest, public ::testing::WithParamInterface<StallCase> {};

TEST_P(ModemStallTest, StallsWhatARealModemRefuses) {
    if (GetParam().configured)
        Configure();
    const StallCase& row = GetParam();
    EXPECT_TRUE(Request(row.type, row.request, row.value, row.length).stall);
    EXPECT_TRUE(modem_->Requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, ModemStallTest,
    ::testing::Values(
        StallCase{"ClassBeforeConfiguration", false, 0x21, sm::kSetControlLineState, 0, 0},
        StallCase{"UnknownClassRequest", true, 0x21, 0x42, 0, 0},
        StallCase{"UnknownVendorRequest", true, 0x41, 0x63, 0, 0},
        StallCase{"LineCodingOfWrongLength", true, 0x21, sm::kSetLineCoding, 0, 3},
        StallCase{"UnknownConfiguration", false, 0x00, USB_REQUEST_SET_CONFIGURATION, 7, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// At at_ms (virtual, from the start) the host writes host (nothing when
// empty); expect is everything the modem sent after the previous step up to
// and including this one.
struct Step {
    int64_t at_ms;
    std::string host, expect;
};

// Notifications as short words: S<n> a serial state, F+ and F- the
// requests to start and stop framing.
struct AtCase {
    const char* name;
    void (*tweak)(sm::Profile&);
    std::vector<Step> steps;
    std::string far_end = "";              // what the far end got on-line
    std::vector<std::string> notices = {}; // nothing to check when empty
};

void NoPpp(sm::Profile& p) {
    p.commands.ppp = false;
}
void Busy(sm::Profile& p) {
    p.commands.dial_outcome = sm::DialOutcome::kBusy;
}
void NoAnswer(sm::Profile& p) {
    p.commands.dial_outcome = sm::DialOutcome::kNoAnswer;
}

const std::string kOk = "\r\nOK\r\n", kError = "\r\nERROR\r\n", kNoCarrier = "\r\nNO CARRIER\r\n",
                  kConnect = "\r\nCONNECT 115200\r\n";

AtCase At(const char* name, void (*tweak)(sm::Profile&), std::vector<Step> steps,
          std::string far_end = "", std::vector<std::string> notices = {}) {
    return {name, tweak, steps, far_end, notices};
}

class AtTest : public ModemTest, public ::testing::WithParamInterface<AtCase> {
  protected:
    void Plug(void (*tweak)(sm::Profile&)) {
        sm::Profile profile = sm::OrdinaryModem();
        if (tweak != nullptr)
            tweak(profile);
        modem_ = std::make_unique<sm::Modem>(profile, sm::Modem::DataMode::kCommand);
        Configure();
        ASSERT_FALSE(Request(0x21, sm::kSetControlLineState, 3).stall); // DTR and RTS on
    }
    std::string Drain() {
        std::string text;
        while (auto packet = modem_->In(kBulkIn, 64))
            text.append(packet->begin(), packet->end());
        while (auto packet = modem_->In(kInterruptIn, 16)) {
            const Bytes& p = *packet;
            if (p[0] == 0xa1 && p[1] == sm::kSerialState)
                notices_.push_back("S" + std::to_string(p[8] | p[9] << 8));
            else if (p[0] == 0xc1)
                notices_.push_back(p[1] == sm::kRequestToStartFraming ? "F+" : "F-");
        }
        return text;
    }
    void Run(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            ASSERT_GE(step.at_ms, kernel().NowMs());
            kernel().Sleep(step.at_ms - kernel().NowMs());
            if (!step.host.empty())
                modem_->Out(kBulkOut, Bytes(step.host.begin(), step.host.end()));
            EXPECT_EQ(Drain(), step.expect) << "at " << step.at_ms << " ms after " << step.host;
        }
    }
    std::vector<std::string> notices_;
};

TEST_P(AtTest, AnswersAsScripted) {
    const AtCase& row = GetParam();
    Plug(row.tweak);
    Run(row.steps);
    Bytes far = modem_->Pull();
    EXPECT_EQ(std::string(far.begin(), far.end()), row.far_end);
    if (!row.notices.empty()) {
        EXPECT_EQ(notices_, row.notices);
    }
}

// Dialled at 0 ms with echo off, connected at 2000 ms.
std::vector<Step> Connected(std::vector<Step> more, const std::string& dial = "ATE0D123\r") {
    std::vector<Step> steps = {{0, dial, dial}, {2000, "", kConnect}};
    steps.insert(steps.end(), more.begin(), more.end());
    return steps;
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, AtTest,
    ::testing::Values(
        At("TextBeforeThePrefixIsIgnored", nullptr,
           {{0, "ATE0\r", "ATE0\r" + kOk}, {0, "xyz at\r", kOk}}),
        At("CommandsAndSpacesShareALine", nullptr,
           {{0, "ATE0 V0 Q0\r", "ATE0 V0 Q0\r0\r"}, {0, "ATV1\r", kOk}}),
        At("ErrorStopsTheLineButKeepsWhatWentBefore", nullptr,
           {{0, "ATE0V0Y1V1\r", "ATE0V0Y1V1\r4\r"}, {0, "AT\r", "0\r"}}),
        At("OutOfRangeArgumentIsError", nullptr,
           {{0, "ATE0\r", "ATE0\r" + kOk}, {0, "ATE2\r", kError}, {0, "ATH1\r", kError}}),
        At("RegistersSetReadAndRanges", nullptr,
           {{0, "ATE0S7=30S7?\r", "ATE0S7=30S7?\r\r\n030\r\n" + kOk},
            {0, "ATS3=128\r", kError},
            {0, "ATS7=0\r", kError},
            {0, "ATS1?\r", kError},
            {0, "ATS2?S4?S5?S12?S0?\r",
             "\r\n043\r\n\r\n010\r\n\r\n008\r\n\r\n050\r\n\r\n000\r\n" + kOk}}),
        At("ResultsFollowTheTerminatorRegisters", nullptr,
           {{0, "ATE0S3=64S4=33\r", "ATE0S3=64S4=33\r@!OK@!"}, {0, "AT@", "@!OK@!"}}),
        At("BackspaceEditsTheLine", nullptr,
           {{0, "ATE0\r", "ATE0\r" + kOk}, {0, "ATY\bS12?\r", "\r\n050\r\n" + kOk}}),
        At("ResetAndFactoryDefaults", nullptr,
           {{0, "ATE0V0S7=9\r", "ATE0V0S7=9\r0\r"},
            {0, "ATZ\r", "\r\nOK\r\n"},
            {0, "ATE0V0S12=1&F\r", "ATE0V0S12=1&F\r" + kOk},
            {0, "ATS7?S12?\r", "ATS7?S12?\r\r\n050\r\n\r\n050\r\n" + kOk}}),
        At("RepeatOfTheLastLine", nullptr,
           {{0, "ATE0S7?\r", "ATE0S7?\r\r\n050\r\n" + kOk}, {0, "A/", "\r\n050\r\n" + kOk}}),
        At("QuietKeepsInformationText", nullptr,
           {{0, "ATE0Q1\r", "ATE0Q1\r"}, {0, "ATS0?\r", "\r\n000\r\n"}, {0, "ATY\r", ""}}),
        At("Identification", nullptr,
           {{0, "ATE0I\r", "ATE0I\r\r\nKorva USB Modem\r\n" + kOk}, {0, "ATI9\r", kError}}),
        At("OnLineCommandsNeedAConnection", nullptr,
           {{0, "ATE0\r", "ATE0\r" + kOk}, {0, "ATO\r", kNoCarrier}, {0, "ATH\r", kOk}})),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Dialling, AtTest,
    ::testing::Values(
        At("ConnectRaisesCarrierThenAsksForFraming", nullptr,
           {{0, "ATD123\r", "ATD123\r"}, {1999, "", ""}, {2000, "", kConnect}}, "", {"S3", "F+"}),
        At("WithoutPppNoFramingIsAsked", NoPpp, Connected({}), "", {"S3"}),
        At("NumericConnect", nullptr, {{0, "ATE0V0D\r", "ATE0V0D\r"}, {2000, "", "1\r"}}, "",
           {"S3", "F+"}),
        At("CarrierWaitShorterThanTheAnswer", nullptr,
           {{0, "ATE0S7=1D1\r", "ATE0S7=1D1\r"}, {1000, "", kNoCarrier}, {3000, "", ""}}),
        At("AnswerJustWithinTheCarrierWait", NoPpp, Connected({}, "ATE0S7=2D1\r")),
        At("BusyLine", Busy, {{0, "ATE0D1\r", "ATE0D1\r"}, {2000, "", "\r\nBUSY\r\n"}}),
        At("NobodyAnswersWithinTheCarrierWait", NoAnswer,
           {{0, "ATE0S7=3D1\r", "ATE0S7=3D1\r"}, {2999, "", ""}, {3000, "", "\r\nNO ANSWER\r\n"}}),
        At("AnyByteAbortsTheDial", nullptr,
           {{0, "ATE0D1\r", "ATE0D1\r"}, {500, "x", kNoCarrier}, {3000, "AT\r", kOk}}),
        At("OnLineCommandsAreData", NoPpp, Connected({{2100, "ATH\r", ""}}), "ATH\r", {"S3"})),
    [](const auto& info) { return std::string(info.param.name); });

// The escape: a second of silence (S12 = 50), three "+" within it of each
// other, another second of silence; then OK in on-line command state.
INSTANTIATE_TEST_SUITE_P(
    Escape, AtTest,
    ::testing::Values(
        At("EscapeThenADialIsAnErrorAndATHHangsUp", NoPpp,
           Connected({{3000, "+++", ""},
                      {3999, "", ""},
                      {4000, "", kOk},
                      {4000, "ATD1\r", kError},
                      {4000, "ATH\r", kNoCarrier},
                      {4000, "AT\r", kOk}}),
           "+++", {"S3", "S0"}),
        At("PlusesAGuardTimeApart", NoPpp,
           Connected({{3000, "+", ""}, {4000, "+", ""}, {5000, "+", ""}, {6000, "", kOk}}), "+++"),
        At("PlusesTooFarApart", NoPpp,
           Connected({{3000, "+", ""}, {4001, "+", ""}, {4500, "+", ""}, {6000, "", ""}}), "+++"),
        At("PlusesWithoutTheGuardTimeBeforeAreData", NoPpp,
           Connected({{2000, "+++", ""}, {6000, "", ""}}), "+++"),
        At("FourPlusesAreData", NoPpp, Connected({{3000, "++++", ""}, {6000, "", ""}}), "++++"),
        At("GuardTimeFromS12AndCharacterFromS2", NoPpp,
           Connected({{2100, "---", ""}, {2200, "", kOk}}, "ATE0S12=5S2=45D1\r"), "---"),
        At("EscapeCharacterAbove127DisablesIt", NoPpp,
           Connected({{3000, "\xab\xab\xab", ""}, {6000, "", ""}}, "ATE0S2=171D1\r"),
           "\xab\xab\xab")),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
