// Cancellation racing completion, on two processors with seeded preemption
// at every platform call: a read whose bytes arrive while it is cancelled, a
// wait whose event arrives while it is cancelled, and a new wait that comes
// in as the cancel timer of the old one fires. Each scenario runs on a fresh
// machine per seed and checks one completion per request with the right
// mask, no verifier report, and no read of an IRP after its completion.
#include "ioctl_rig.h"

#include <string>

namespace {

constexpr uint64_t kSeeds = 100;

// Once completed, an IRP's memory is its owner's again: the rig scribbles
// over its CancelIrql, so a cancel routine that reads it after the
// completion fails the verifier, and keeps the IRP allocated until nobody
// can cancel it any more, as an owner that cancels its own IRPs keeps it.
class CancelRace : public IoctlTest {
  protected:
    CancelRace() { options_.keep_irps = true; }

    // The second wait of an application: nothing but its event ends it.
    void ExpectOnlyTheEventEnds(AppRequest* Next, ULONG Event) {
        EXPECT_EQ(Next->returned, STATUS_PENDING);
        EXPECT_FALSE(Wait(Next, 300))
            << "a wait nobody cancelled completed with mask " << Mask(Next);
        RaiseEvents(Event);
        EXPECT_TRUE(Wait(Next, 10));
        EXPECT_EQ(Next->status, STATUS_SUCCESS);
        EXPECT_EQ(Mask(Next), Event);
        EXPECT_EQ(Next->completions, 1);
    }
};

TEST_F(CancelRace, AReadCancelledAsItsBytesArriveCompletesOnce) {
    ForEachSeed(kSeeds, 100, [this] {
        AppRequest* Request = Read(10);
        EXPECT_EQ(Request->returned, STATUS_PENDING);
        {
            hk::Thread Modem("modem", [this] { Receive("0123456789"); });
            IoCancelIrp(Request->irp);
            Modem.Join();
        }
        ASSERT_TRUE(Wait(Request, 100));
        if (Request->status == STATUS_SUCCESS) {
            EXPECT_EQ(std::string(Request->buffer.begin(),
                                  Request->buffer.begin() + Request->information),
                      "0123456789");
        } else {
            EXPECT_EQ(Request->status, STATUS_CANCELLED);
            EXPECT_EQ(Request->information, 0u);
        }
        EXPECT_FALSE(Traced("ASSERTION FAILED"));
        EXPECT_EQ(Request->completions, 1);
    });
}

TEST_F(CancelRace, AWaitCancelledAsItsEventArrivesLeavesTheNextWaitAlone) {
    ForEachSeed(kSeeds, 100, [this] {
        SetMask(SERIAL_EV_CTS | SERIAL_EV_RXCHAR);
        AppRequest* First = StartWait();
        AppRequest* Second = nullptr;
        {
            // Another thread of the application cancels the wait while the
            // modem's event completes it, and the next wait follows at once.
            hk::Thread Modem("modem", [this] { RaiseEvents(SERIAL_EV_CTS); });
            hk::Thread Canceller("canceller", [First] { IoCancelIrp(First->irp); });
            // A cancelled wait takes 100 ms to complete: the event is first
            // whichever way the race went.
            ASSERT_TRUE(Wait(First, 50));
            Second = StartWait();
            Modem.Join();
            Canceller.Join();
        }
        EXPECT_EQ(First->status, STATUS_SUCCESS);
        EXPECT_EQ(First->information, sizeof(ULONG));
        EXPECT_EQ(Mask(First), ULONG(SERIAL_EV_CTS));
        EXPECT_EQ(First->completions, 1);
        ExpectOnlyTheEventEnds(Second, SERIAL_EV_RXCHAR);
    });
}

TEST_F(CancelRace, ANewWaitArrivingAsTheCancelTimerFiresIsLeftAlone) {
    // The timer is due 1 ms after the new wait arrives: preemption points
    // within 2 ms may fire it while the new wait is dispatched.
    ForEachSeed(kSeeds, 2000, [this] {
        SetMask(SERIAL_EV_CTS);
        AppRequest* First = StartWait();
        EXPECT_TRUE(IoCancelIrp(First->irp));
        kernel().Sleep(99);
        AppRequest* Second = StartWait();
        // Completed by the timer or, with mask 0, by the new wait.
        ASSERT_TRUE(Wait(First, 10));
        EXPECT_EQ(First->status, STATUS_SUCCESS);
        EXPECT_EQ(Mask(First), 0u);
        EXPECT_EQ(First->completions, 1);
        ExpectOnlyTheEventEnds(Second, SERIAL_EV_CTS);
    });
}

} // namespace
