// The wait-on-mask protocol through the I/O manager: masks, pending
// events, waits completed by events, by another wait, by a new mask, by a
// delayed cancellation (100 ms of virtual time) and by removal.
#include "ioctl_rig.h"

class WaitOnMask : public IoctlTest {
  protected:
    void SetMask(ULONG Mask) {
        ASSERT_EQ(Set(IOCTL_SERIAL_SET_WAIT_MASK, Mask).Status, STATUS_SUCCESS);
    }
    void StartWait(PendingIoctl* Wait) {
        Start(Wait, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG));
        EXPECT_EQ(Wait->DispatchResult, STATUS_PENDING);
    }
    static void ExpectCompleted(PendingIoctl& Wait, NTSTATUS Status, ULONG Mask) {
        ASSERT_TRUE(Wait.Completed());
        EXPECT_EQ(Wait.IoStatus.Status, Status);
        EXPECT_EQ(Wait.IoStatus.Information, sizeof(ULONG));
        EXPECT_EQ(Wait.Mask(), Mask);
    }
};

TEST_F(WaitOnMask, MaskRoundTripsAndAnyBitsAreAccepted) {
    SetMask(0xFFFFFFFF);
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), 0xFFFFFFFFu);
    SetMask(SERIAL_EV_RXCHAR | SERIAL_EV_RING);
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), 0x101u);
    EXPECT_TRUE(Traced("ACM:COM3S:Mask: 00000101\n"));
}

TEST_F(WaitOnMask, WaitFailsWithoutMaskOrOutputRoom) {
    IoctlResult Result = Ioctl(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG));
    EXPECT_EQ(Result.Status, STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("ACM:COM3S:IOCTL_SERIAL_WAIT_ON_MASK: failing request, WaitMask==zero\n"));
    SetMask(SERIAL_EV_CTS);
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, 3).Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Dev()->Port.WaitIrp, nullptr);
}

TEST_F(WaitOnMask, AMaskedEventCompletesThePendingWait) {
    SetMask(SERIAL_EV_CTS | SERIAL_EV_DSR);
    PendingIoctl Wait;
    StartWait(&Wait);
    EXPECT_FALSE(Wait.Completed());
    EXPECT_TRUE(Traced("ACM:COM3S:Store new wait IRP: "));
    RaiseEvents(SERIAL_EV_RXCHAR); // not in the mask
    EXPECT_FALSE(Wait.Completed());
    RaiseEvents(SERIAL_EV_DSR | SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_DSR);
    EXPECT_EQ(Dev()->Port.PendingEvents, 0u);
}

TEST_F(WaitOnMask, EventsWithoutAWaitAreDeliveredToTheNextWait) {
    SetMask(SERIAL_EV_CTS);
    RaiseEvents(SERIAL_EV_CTS);
    SetMask(SERIAL_EV_CTS | SERIAL_EV_DSR); // a new mask keeps what is pending
    PendingIoctl Wait;
    Start(&Wait, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG));
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_CTS);

    PendingIoctl Next;
    StartWait(&Next);
    EXPECT_FALSE(Next.Completed()) << "a delivered event is not delivered twice";
    SetMask(SERIAL_EV_CTS);
    ExpectCompleted(Next, STATUS_SUCCESS, 0);
}

TEST_F(WaitOnMask, EventsOutsideTheMaskAreLostWhenTheMaskWidens) {
    SetMask(SERIAL_EV_CTS);
    RaiseEvents(SERIAL_EV_RING);
    SetMask(SERIAL_EV_CTS | SERIAL_EV_RING);
    PendingIoctl Wait;
    StartWait(&Wait);
    EXPECT_FALSE(Wait.Completed());
    SetMask(SERIAL_EV_CTS);
    ExpectCompleted(Wait, STATUS_SUCCESS, 0);
}

TEST_F(WaitOnMask, AMaskOfNeverRaisedEventsEndsOnlyByANewMask) {
    SetMask(SERIAL_EV_PERR);
    PendingIoctl Wait;
    StartWait(&Wait);
    RaiseEvents(0xFFFFFFFF & ~SERIAL_EV_PERR);
    EXPECT_FALSE(Wait.Wait(1000));
    SetMask(SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, 0);
}

TEST_F(WaitOnMask, ASecondWaitCompletesTheFirstWithMaskZero) {
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl First;
    PendingIoctl Second;
    StartWait(&First);
    StartWait(&Second);
    ExpectCompleted(First, STATUS_SUCCESS, 0);
    EXPECT_FALSE(Second.Completed());
    RaiseEvents(SERIAL_EV_RXCHAR);
    ExpectCompleted(Second, STATUS_SUCCESS, SERIAL_EV_RXCHAR);
}

TEST_F(WaitOnMask, TheSameIrpSentAgainStaysPending) {
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl Wait;
    StartWait(&Wait);
    // A driver above sends the pending IRP down once more.
    EXPECT_EQ(DispatchDeviceControl(DataPort(), Wait.Irp), STATUS_PENDING);
    EXPECT_TRUE(Traced("ACM:COM3S:Upper driver sends the same WaitIrp again\n"));
    EXPECT_FALSE(Wait.Completed());
    EXPECT_EQ(Dev()->Port.WaitIrp, Wait.Irp);
    RaiseEvents(SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_RXCHAR);
}

TEST_F(WaitOnMask, ACancelledWaitCompletes100msLaterWithMaskZero) {
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl Wait;
    StartWait(&Wait);
    int64_t CancelledAt = kernel().NowMs();
    IoCancelIrp(Wait.Irp);
    EXPECT_TRUE(Traced("ACM:WaitIrp_IrpCancelRoutine\n"));
    EXPECT_FALSE(Wait.Wait(99));
    EXPECT_TRUE(Wait.Wait(2));
    EXPECT_EQ(kernel().NowMs() - CancelledAt, 100);
    ExpectCompleted(Wait, STATUS_SUCCESS, 0);
    EXPECT_TRUE(Traced("ACM:COM3:DelayWaitCancelFnc\n"));
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

TEST_F(WaitOnMask, AnEventWithinTheCancelDelayCompletesTheWaitAndStopsTheTimer) {
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl Wait;
    StartWait(&Wait);
    IoCancelIrp(Wait.Irp);
    kernel().Sleep(50);
    EXPECT_FALSE(Wait.Completed());
    RaiseEvents(SERIAL_EV_RXCHAR);
    ExpectCompleted(Wait, STATUS_SUCCESS, SERIAL_EV_RXCHAR);
    EXPECT_FALSE(KeReadStateTimer(&Dev()->WaitCancelTimer.Timer));
    kernel().Sleep(200);
    EXPECT_FALSE(Traced("DelayWaitCancelFnc"));
}

TEST_F(WaitOnMask, AWaitCancelledBeforeItArrivesFailsAtOnce) {
    SetMask(SERIAL_EV_RXCHAR);
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK IoStatus = {};
    ULONG Mask = 0;
    PIRP Irp = IoBuildDeviceIoControlRequest(IOCTL_SERIAL_WAIT_ON_MASK, DataPort(), nullptr, 0,
                                             &Mask, sizeof(Mask), FALSE, &Event, &IoStatus);
    ASSERT_NE(Irp, nullptr);
    EXPECT_FALSE(IoCancelIrp(Irp)) << "no cancel routine yet";
    EXPECT_EQ(IoCallDriver(DataPort(), Irp), STATUS_PENDING);
    ASSERT_EQ(KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(IoStatus.Status, STATUS_CANCELLED);
    EXPECT_EQ(IoStatus.Information, 0u);
    EXPECT_EQ(Dev()->Port.WaitIrp, nullptr);
}

TEST_F(WaitOnMask, RemovalCompletesTheWaitWithDeviceRemoved) {
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl Wait;
    StartWait(&Wait);
    KIRQL OldIrql;
    DEVICE_LOCK(Dev(), &OldIrql);
    Dev()->UsbDeviceEnabled = FALSE; // as removal does before completing the wait
    CompleteWaitIrp(&Dev()->Port, 0);
    DEVICE_UNLOCK(Dev(), OldIrql);
    ASSERT_TRUE(Wait.Completed());
    EXPECT_EQ(Wait.IoStatus.Status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Wait.IoStatus.Information, sizeof(ULONG));
    // A failed buffered request copies nothing back to the caller.
    EXPECT_EQ(Wait.Mask(), 0xCCCCCCCCu);
}

TEST_F(WaitOnMask, TraceLinesFollowTheirMaskBits) {
    TraceMask = TL_ERROR;
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG)).Status,
              STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Traced("ACM:COM3S:IOCTL_SERIAL_WAIT_ON_MASK: failing request, WaitMask==zero\n"));
    EXPECT_FALSE(Traced("DispatchDeviceControl"));

    TraceMask = TL_INFO | TL_ASSERT;
    SetMask(SERIAL_EV_RXCHAR);
    PendingIoctl Wait;
    StartWait(&Wait);
    EXPECT_EQ(DispatchDeviceControl(DataPort(), Wait.Irp), STATUS_PENDING);
    EXPECT_TRUE(Traced("ACM:COM3S:Upper driver sends the same WaitIrp again\n"));
    IoCancelIrp(Wait.Irp);
    ASSERT_TRUE(Wait.Wait(200));
    EXPECT_TRUE(Traced("ACM:COM3:DelayWaitCancelFnc\n"));
    for (const char* WaitLine : {"Mask: ", "Store new wait IRP", "WaitIrp_IrpCancelRoutine",
                                 "IndicateWaitEvent", "Complete Wait IRP"})
        EXPECT_FALSE(Traced(WaitLine)) << WaitLine << " belongs to the wait-event bit";
}
