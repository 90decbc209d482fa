// The PPP mode switch's failures: time-outs and failed requests leave
// framing off, and a transfer that fails inside the framed send pass. (The
// switch and the stop of a working session are the simulator's dial-up
// scenarios; the frames both ways are the PPP frame tests.)
#define TRACE_FILE "tests/cdcacm/transport"
#include "device_fixture.h"
#include "ppp_reference.h"

namespace {

using ppp_test::Bytes;

constexpr int64_t kPoll = 20; // a notification's way through the interrupt endpoint

class PppSwitch : public DeviceFixture {
  protected:
    PppSwitch() {
        options_.started = true;
        options_.snd_buffer = 8192;
    }
    Bytes Requested() {
        Bytes codes;
        for (const sm::RecordedRequest& request : modem->Requests())
            codes.push_back(request.setup.request);
        return codes;
    }
};

TEST_F(PppSwitch, WithoutAFlagWithin300msFramingStaysOffAndSendingGoesOn) {
    TraceMask |= TL_ERROR;
    modem->RequestFraming(true);
    RunFor(kPoll);
    ASSERT_TRUE(Wait(Write("no flag")));
    RunFor(350);
    EXPECT_EQ(dev->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:SwitchToPppMode failed with timeout!!!"));
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(modem->Pull(), Bytes({'n', 'o', ' ', 'f', 'l', 'a', 'g'}));
}

TEST_F(PppSwitch, AFailedSpecialCharacterRequestKeepsTheOldTable) {
    ASSERT_TRUE(SwitchToPpp({0x11, 0x13}));
    modem->RequestFraming(false);
    RunFor(kPoll + 10);
    modem->SetSpecialChars({0x05});
    modem->StallNextGetSpecialChars();
    // The host's stream is still at the flag: the switch goes ahead at once.
    modem->RequestFraming(true);
    RunFor(kPoll + 10);
    EXPECT_EQ(dev->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dev->PppFramer.EscapeTable[0x11]);
    EXPECT_FALSE(dev->PppFramer.EscapeTable[0x05]);
    EXPECT_EQ(Requested(), Bytes({0x60, 0x61, 0x62})) << "no start after the failed read";
}

// The deframer sends from inside the serial port's locked pass. When the bus
// fails that transfer inside IoCallDriver, the completion must not wait for
// the lock its own submitter holds.
TEST_F(PppSwitch, AnInlineCompletionUnderTheDeviceLockFinishesAfterTheLock) {
    ASSERT_TRUE(SwitchToPpp({0x11, 0x13}));
    hu::UsbFaultKnob gone;
    gone.every = 1;
    gone.match = hu::EndpointKey(uint8_t(dev->Cfg.DataOutPipe));
    gone.status = USBD_STATUS_DEVICE_GONE;
    hu::UsbFaultKnob& knob = bus->AddFault(hu::Fault::kInline, gone);
    Bytes frame = ppp_test::HdlcFrame({1, 2, 3}, ppp_test::EscapeSetOf({}));
    ASSERT_TRUE(Wait(Write(Bytes(frame.begin() + 1, frame.end()))));
    RunFor(20);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_FALSE(dev->WritePipe.Enabled) << "device gone disables the send context";
    EXPECT_EQ(dev->WritePipe.Pool->Count, 1u) << "the packet came back";
    EXPECT_TRUE(modem->TakeFrames().empty());
}

} // namespace
