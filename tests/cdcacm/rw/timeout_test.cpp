// The queue timer in virtual time: a stopped timer no longer ticks, one
// timer is armed however often it is started, and a stop waits at most one
// second for a tick. (When a read times out on the ticks the timed-queue
// tests show.)
#include "device_fixture.h"

namespace {

class ReadTimeouts : public DeviceFixture {
  protected:
    void SetUp() override {
        DeviceFixture::SetUp();
        StartTimer(dev);
    }
};

TEST_F(ReadTimeouts, StoppedTimerNoLongerTicks) {
    SetReadTimeouts(0, 0, 50);
    StopTimer(dev);
    EXPECT_EQ(dev->TimerPending, 0);
    EXPECT_FALSE(dev->TimerActive);
    AppRequest* read = Read(1);
    RunFor(500);
    EXPECT_FALSE(read->completed);
    StartTimer(dev);
    ASSERT_TRUE(Wait(read, 100));
    EXPECT_EQ(read->status, STATUS_TIMEOUT);
}

TEST_F(ReadTimeouts, StartingTwiceArmsOneTimer) {
    StartTimer(dev);
    EXPECT_EQ(dev->TimerPending, 1);
    RunFor(35);
    EXPECT_EQ(dev->TimerPending, 1) << "each tick re-arms the one timer";
}

using QueueTimer = DeviceFixture;

TEST_F(QueueTimer, StopGivesUpAfterOneSecondOnATickThatNeverEnds) {
    dev->TimerPending = 1; // a tick that never finishes
    int64_t before = kernel().NowMs();
    StopTimer(dev);
    EXPECT_EQ(kernel().NowMs() - before, 1000);
    EXPECT_TRUE(dbg().Contains("ACM:COM3:PwrSetDevicePowerState KeWaitForSingleObject 1"));
    dev->TimerPending = 0;
}

TEST_F(QueueTimer, TickThatFindsTheTimerArmedByAStartDuringItCountsItOnce) {
    StartTimer(dev);
    // The timer fires: its tick now stands for the one pending count.
    ASSERT_TRUE(KeCancelTimer(&dev->QueueTimer.Timer));
    // An open on another processor starts the timer while the tick runs.
    StartTimer(dev);
    ASSERT_EQ(dev->TimerPending, 2);
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    TimerDpcRoutine(&dev->QueueTimer, dev);
    KeLowerIrql(irql);
    EXPECT_EQ(dev->TimerPending, 1) << "one armed timer, counted once";

    int64_t before = kernel().NowMs();
    StopTimer(dev);
    EXPECT_EQ(dev->TimerPending, 0);
    EXPECT_EQ(kernel().NowMs(), before) << "nothing left to wait for";
    EXPECT_FALSE(dbg().Contains("PwrSetDevicePowerState KeWaitForSingleObject"));
}

} // namespace
