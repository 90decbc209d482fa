// The wait-on-mask protocol through the I/O manager: masks, pending
// events, waits completed by events, by another wait, by a new mask, by a
// delayed cancellation (100 ms of virtual time) and by removal.
#include "ioctl_rig.h"

class WaitOnMask : public IoctlTest {
  protected:
    bool WaitMs(AppRequest* Request, int64_t Ms) { return DeviceFixture::Wait(Request, Ms); }
    static void ExpectCompleted(AppRequest* Wait, NTSTATUS Status, ULONG Mask) {
        ASSERT_TRUE(Wait->completed);
        EXPECT_EQ(Wait->status, Status);
        EXPECT_EQ(Wait->information, sizeof(ULONG));
        EXPECT_EQ(IoctlTest::Mask(Wait), Mask);
    }
};

TEST_F(WaitOnMask, MaskRoundTripsAndAnyBitsAreAccepted) {
    SetMask(0xFFFFFFFF);
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), 0xFFFFFFFFu);
    SetMask(SERIAL_EV_RXCHAR | SERIAL_EV_RING);
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), 0x101u);
    EXPECT_TRUE(Traced("ACM:COM3S:Mask: 00000101\n"));
}

TEST_F(WaitOnMask, AMaskedEventCompletesThePendingWait) {
    SetMask(SERIAL_EV_CTS | SERIAL_EV_DSR);
    AppRequest* Wait = StartWait();
    EXPECT_FALSE(Wait->completed);
    EXPECT_TRUE(Traced("ACM:COM3S:Store new wait IRP: "));
    RaiseEvents(SERIAL_EV_RXCHAR); // not in the mask
    EXPECT_FALSE(Wait->completed);
    RaiseEvents(SERIAL_EV_DSR | SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_DSR);
    EXPECT_EQ(dev->Port.PendingEvents, 0u);
}

TEST_F(WaitOnMask, EventsWithoutAWaitAreDeliveredToTheNextWait) {
    SetMask(SERIAL_EV_CTS);
    RaiseEvents(SERIAL_EV_CTS);
    SetMask(SERIAL_EV_CTS | SERIAL_EV_DSR); // a new mask keeps what is pending
    AppRequest* Wait = Control(IOCTL_SERIAL_WAIT_ON_MASK, {}, sizeof(ULONG));
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_CTS);

    AppRequest* Next = StartWait();
    EXPECT_FALSE(Next->completed) << "a delivered event is not delivered twice";
    SetMask(SERIAL_EV_CTS);
    ExpectCompleted(Next, STATUS_SUCCESS, 0);
}

// Events outside the mask are lost, even when the mask widens later; such a
// wait ends only by a new mask.
TEST_F(WaitOnMask, EventsOutsideTheMaskAreLost) {
    SetMask(SERIAL_EV_PERR);
    RaiseEvents(SERIAL_EV_RING);
    SetMask(SERIAL_EV_PERR | SERIAL_EV_RING);
    AppRequest* Wait = StartWait();
    RaiseEvents(0xFFFFFFFF & ~(SERIAL_EV_PERR | SERIAL_EV_RING));
    EXPECT_FALSE(WaitMs(Wait, 1000));
    SetMask(SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, 0);
}

TEST_F(WaitOnMask, ASecondWaitCompletesTheFirstWithMaskZero) {
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* First = StartWait();
    AppRequest* Second = StartWait();
    ExpectCompleted(First, STATUS_SUCCESS, 0);
    EXPECT_FALSE(Second->completed);
    RaiseEvents(SERIAL_EV_RXCHAR);
    ExpectCompleted(Second, STATUS_SUCCESS, SERIAL_EV_RXCHAR);
}

TEST_F(WaitOnMask, ACancelledWaitCompletes100msLaterWithMaskZero) {
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* Wait = StartWait();
    int64_t CancelledAt = kernel().NowMs();
    IoCancelIrp(Wait->irp);
    EXPECT_TRUE(Traced("ACM:WaitIrp_IrpCancelRoutine\n"));
    EXPECT_FALSE(WaitMs(Wait, 99));
    EXPECT_TRUE(WaitMs(Wait, 2));
    EXPECT_EQ(kernel().NowMs() - CancelledAt, 100);
    ExpectCompleted(Wait, STATUS_SUCCESS, 0);
    EXPECT_TRUE(Traced("ACM:COM3:DelayWaitCancelFnc\n"));
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

TEST_F(WaitOnMask, AnEventWithinTheCancelDelayCompletesTheWaitAndStopsTheTimer) {
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* Wait = StartWait();
    IoCancelIrp(Wait->irp);
    kernel().Sleep(50);
    EXPECT_FALSE(Wait->completed);
    RaiseEvents(SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_RXCHAR);
    EXPECT_FALSE(KeReadStateTimer(&dev->WaitCancelTimer.Timer));
    kernel().Sleep(200);
    EXPECT_FALSE(Traced("DelayWaitCancelFnc"));
}

TEST_F(WaitOnMask, AWaitCancelledBeforeItArrivesFailsAtOnce) {
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* Wait = Prepare(IRP_MJ_DEVICE_CONTROL, sizeof(ULONG));
    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Wait->irp);
    Stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_SERIAL_WAIT_ON_MASK;
    Stack->Parameters.DeviceIoControl.OutputBufferLength = sizeof(ULONG);
    Send(Wait, /*cancel_first=*/true);
    EXPECT_EQ(Wait->returned, STATUS_PENDING);
    ASSERT_TRUE(WaitMs(Wait, 0));
    EXPECT_EQ(Wait->status, STATUS_CANCELLED);
    EXPECT_EQ(Wait->information, 0u);
    EXPECT_EQ(dev->Port.WaitIrp, nullptr);
}

TEST_F(WaitOnMask, RemovalCompletesTheWaitWithDeviceRemoved) {
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* Wait = StartWait();
    Locked([&] {
        dev->UsbDeviceEnabled = FALSE; // as removal does before completing the wait
        CompleteWaitIrp(&dev->Port, 0);
    });
    ASSERT_TRUE(Wait->completed);
    EXPECT_EQ(Wait->status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Wait->information, sizeof(ULONG));
}

TEST_F(WaitOnMask, TraceLinesFollowTheirMaskBits) {
    TraceMask = TL_ERROR;
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG)).Status,
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("ACM:COM3S:IOCTL_SERIAL_WAIT_ON_MASK: failing request, WaitMask==zero\n"));
    EXPECT_FALSE(Traced("DispatchDeviceControl"));

    TraceMask = TL_INFO | TL_ASSERT;
    SetMask(SERIAL_EV_RXCHAR);
    AppRequest* Wait = StartWait();
    // A driver above sends the pending IRP down once more: it stays the wait.
    EXPECT_EQ(DispatchDeviceControl(data_port, Wait->irp), STATUS_PENDING);
    EXPECT_TRUE(Traced("ACM:COM3S:Upper driver sends the same WaitIrp again\n"));
    EXPECT_FALSE(Wait->completed);
    EXPECT_EQ(dev->Port.WaitIrp, Wait->irp);
    IoCancelIrp(Wait->irp);
    ASSERT_TRUE(WaitMs(Wait, 200));
    EXPECT_TRUE(Traced("ACM:COM3:DelayWaitCancelFnc\n"));
    for (const char* WaitLine : {"Mask: ", "Store new wait IRP", "WaitIrp_IrpCancelRoutine",
                                 "IndicateWaitEvent", "Complete Wait IRP"})
        EXPECT_FALSE(Traced(WaitLine)) << WaitLine << " belongs to the wait-event bit";
}
