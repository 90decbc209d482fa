// Errors on the bulk pipes, injected by the bus's fault knobs: the send
// engine's reset-and-resend and its escalation to re-initialisation, a
// device that is gone, a halted bulk-in endpoint, and a stop that waits for
// transfers the controller is slow to give back.
#define TRACE_FILE "tests/cdcacm/transport"
#include "device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

class PipeErrors : public DeviceFixture {
  protected:
    PipeErrors() { options_.started = true; }
    uint8_t OutEndpoint() const { return dev->WritePipe.Pipe->EndpointAddress; }
    hu::UsbFaultKnob& AddFault(hu::Fault kind, uint32_t match, hu::UsbFaultKnob knob = {}) {
        knob.match = match;
        return bus->AddFault(kind, knob);
    }
    // A knob that never fires counts the endpoint's pipe resets.
    hu::UsbFaultKnob& CountResets(uint8_t endpoint) {
        return AddFault(hu::Fault::kResetPipeFail, hu::EndpointKey(endpoint));
    }
};

TEST_F(PipeErrors, BulkOutErrorsResendOnceThenAskForReinitialisation) {
    struct Row {
        const char* name;
        hu::Fault fault;
        uint64_t errors;    // consecutive failing transfers
        bool any_urb;       // the knob matches every URB, not only bulk-out
        uint64_t resets;    // bulk-out pipe resets, the re-initialisation's included
        size_t reinits;     // ScheduleReinit calls
        bool delivered;     // the written bytes reached the modem
        bool still_enabled; // the send context takes more bytes afterwards
        const char* trace;
    };
    const Row rows[] = {
        {"stall once", hu::Fault::kStall, 1, false, 1, 0, true, true,
         "ACM:COM3:WriteCompletionRoutine: UrbStatus C0000004"},
        {"error once", hu::Fault::kError, 1, false, 1, 0, true, true,
         "ACM:COM3:WriteCompletionRoutine: UrbStatus C0000005"},
        {"two errors", hu::Fault::kError, 2, false, 2, 1, false, true,
         "ACM:COM3:WriteCompletionRoutine: Schedule restart USB read"},
        {"device gone", hu::Fault::kDeviceGone, 1, true, 0, 0, false, false,
         "ACM:COM3:WriteCompletionRoutine USBD_STATUS_DEVICE_GONE"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TearDown();
        SetUp();
        hu::UsbFaultKnob& resets = CountResets(OutEndpoint());
        hu::UsbFaultKnob knob;
        knob.every = 1;
        knob.max_fires = row.errors;
        AddFault(row.fault, row.any_urb ? 0 : hu::EndpointKey(OutEndpoint()), knob);
        TraceMask |= TL_ERROR | TL_INFO;

        AppRequest* write = Write("hello");
        ASSERT_TRUE(Wait(write));
        RunFor(50);
        EXPECT_EQ(write->status, STATUS_SUCCESS);
        EXPECT_EQ(resets.calls, row.resets);
        EXPECT_EQ(dbg().Count("ACM:COM3:ScheduleReinit"), row.reinits);
        EXPECT_EQ(modem->Pull(), Text(row.delivered ? "hello" : ""));
        EXPECT_TRUE(dbg().Contains(row.trace));
        EXPECT_EQ(dev->WritePipe.Enabled != 0, row.still_enabled);

        AppRequest* next = Write("more");
        ASSERT_TRUE(Wait(next));
        RunFor(50);
        EXPECT_EQ(modem->Pull(), Text(row.still_enabled ? "more" : ""));
        EXPECT_EQ(dev->WritePipe.ErrorCount, 0);
    }
}

TEST_F(PipeErrors, AStopWaitsForTransfersInStepsOfOneSecond) {
    hu::UsbFaultKnob slow;
    slow.nth = 1;
    slow.delay_ms = 2500;
    AddFault(hu::Fault::kDelay, hu::EndpointKey(OutEndpoint()), slow);
    TraceMask |= TL_ERROR;
    Write("x");
    RunFor(5);
    ASSERT_EQ(dev->WritePipe.Pool->Count, 0u) << "the transfer is at the bus";

    const int64_t start = kernel().NowMs();
    StopSendAndReceive(dev, TRUE);
    EXPECT_GE(kernel().NowMs() - start, 2500);
    EXPECT_LT(kernel().NowMs() - start, 2510);
    EXPECT_EQ(dbg().Count("ACM:COM3: StopSnd wait for PacketPool: PoolCount:0"), 2u);
    EXPECT_EQ(dbg().Count("StopRcv wait for PacketPool"), 0u) << "aborted reads came back at once";
    EXPECT_EQ(dev->WritePipe.Pool->Count, dev->WritePipe.Pool->PacketCount);
}

} // namespace
