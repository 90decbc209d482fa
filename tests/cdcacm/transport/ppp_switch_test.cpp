// The PPP mode switch end to end: the modem asks for framing, the host's
// next flag switches the port, frames travel as modem packets both ways, and
// the modem's stop returns the port to plain bytes; time-outs and failures
// leave framing off.
#define TRACE_FILE "tests/cdcacm/transport"
#include "device_fixture.h"
#include "ppp_reference.h"

namespace {

using ppp_test::Bytes;

constexpr int64_t kPoll = 20; // a notification's way through the interrupt endpoint

class PppSwitch : public DeviceFixture {
  protected:
    Options DeviceOptions() override {
        Options options;
        options.started = true;
        options.snd_buffer = 8192;
        return options;
    }
    void SetUp() override {
        DeviceFixture::SetUp();
        modem_->SetSpecialChars({0x11, 0x13});
    }
    // The modem asks for framing; the host's bytes up to its next flag go out
    // as they are.
    void SwitchOn(const Bytes& before_flag) {
        modem_->RequestFraming(true);
        RunFor(kPoll);
        ASSERT_EQ(dev_->PppState, ULONG(PPP_STATE_STARTING));
        Bytes bytes = before_flag;
        bytes.push_back(0x7E);
        ASSERT_TRUE(Wait(Write(bytes)));
        RunFor(50);
    }
    Bytes Requested() {
        Bytes codes;
        for (const sm::RecordedRequest& request : modem_->Requests())
            codes.push_back(request.setup.request);
        return codes;
    }
};

TEST_F(PppSwitch, FramesTravelAsModemPacketsBetweenTheFlagAndTheStop) {
    SwitchOn({'A', 'T'});
    EXPECT_EQ(modem_->Pull(), Bytes({'A', 'T'})) << "the flag itself is consumed";
    EXPECT_EQ(dev_->PppState, ULONG(PPP_STATE_ON));
    EXPECT_EQ(Requested(), Bytes({0x60, 0x61}));
    ASSERT_TRUE(modem_->Framing());

    const ppp_test::EscapeSet escape = ppp_test::EscapeSetOf({0x11, 0x13});
    const Bytes up = {0xFF, 0x03, 0xC0, 0x21, 0x11, 0x7E, 0x7D, 0x42};
    Bytes frame = ppp_test::HdlcFrame(up, escape);
    // The opening flag was the one the switch consumed.
    ASSERT_TRUE(Wait(Write(Bytes(frame.begin() + 1, frame.end()))));
    RunFor(20);
    std::vector<Bytes> frames = modem_->TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].end() - 2), up);
    EXPECT_EQ(modem_->BadFcs(), 0u);
    EXPECT_EQ(modem_->BadSequence(), 0u);

    const Bytes down = {0xFF, 0x03, 0x80, 0x21, 0x13, 0x00, 0x7E};
    modem_->PushFrame(down);
    const Bytes expected = ppp_test::HdlcFrame(down, escape);
    AppRequest* read = Read(ULONG(expected.size()));
    ASSERT_TRUE(Wait(read));
    EXPECT_EQ(read->Data(), expected) << "escaped with the modem's table, good FCS";

    modem_->RequestFraming(false);
    RunFor(kPoll + 10);
    EXPECT_EQ(dev_->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_EQ(Requested(), Bytes({0x60, 0x61, 0x62}));
    ASSERT_TRUE(Wait(Write("ok")));
    RunFor(20);
    EXPECT_EQ(modem_->Pull(), Bytes({'o', 'k'}));
}

TEST_F(PppSwitch, WithoutAFlagWithin300msFramingStaysOffAndSendingGoesOn) {
    TraceMask |= TL_ERROR;
    modem_->RequestFraming(true);
    RunFor(kPoll);
    ASSERT_TRUE(Wait(Write("no flag")));
    RunFor(350);
    EXPECT_EQ(dev_->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:SwitchToPppMode failed with timeout!!!"));
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(modem_->Pull(), Bytes({'n', 'o', ' ', 'f', 'l', 'a', 'g'}));
}

TEST_F(PppSwitch, AFailedSpecialCharacterRequestKeepsTheOldTable) {
    SwitchOn({});
    modem_->RequestFraming(false);
    RunFor(kPoll + 10);
    modem_->SetSpecialChars({0x05});
    modem_->StallNextGetSpecialChars();
    // The host's stream is still at the flag: the switch goes ahead at once.
    modem_->RequestFraming(true);
    RunFor(kPoll + 10);
    EXPECT_EQ(dev_->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dev_->PppFramer.EscapeTable[0x11]);
    EXPECT_FALSE(dev_->PppFramer.EscapeTable[0x05]);
    EXPECT_EQ(Requested(), Bytes({0x60, 0x61, 0x62})) << "no start after the failed read";
}

// The deframer sends from inside the serial port's locked pass. When the bus
// fails that transfer inside IoCallDriver, the completion must not wait for
// the lock its own submitter holds.
TEST_F(PppSwitch, AnInlineCompletionUnderTheDeviceLockFinishesAfterTheLock) {
    SwitchOn({});
    ASSERT_EQ(dev_->PppState, ULONG(PPP_STATE_ON));
    hu::UsbFaultKnob gone;
    gone.every = 1;
    gone.match = hu::EndpointKey(uint8_t(dev_->Cfg.DataOutPipe));
    gone.status = USBD_STATUS_DEVICE_GONE;
    hu::UsbFaultKnob& knob = bus_->AddFault(hu::Fault::kInline, gone);
    Bytes frame = ppp_test::HdlcFrame({1, 2, 3}, ppp_test::EscapeSetOf({}));
    ASSERT_TRUE(Wait(Write(Bytes(frame.begin() + 1, frame.end()))));
    RunFor(20);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_FALSE(dev_->WritePipe.Enabled) << "device gone disables the send context";
    EXPECT_EQ(dev_->WritePipe.Pool->Count, 1u) << "the packet came back";
    EXPECT_TRUE(modem_->TakeFrames().empty());
}

} // namespace
