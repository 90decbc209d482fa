// Timers and DPCs follow the kernel's rules on the virtual clock.
#include "kernel_test.h"

#include <vector>

namespace {

LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

struct DpcLog {
    std::vector<int64_t> times_ms;
    std::vector<KIRQL> irqls;
};

VOID NTAPI LogDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* log = static_cast<DpcLog*>(context);
    log->times_ms.push_back(hk::Kernel::Current().NowMs());
    log->irqls.push_back(KeGetCurrentIrql());
}

class Timers : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        KeInitializeTimer(&timer);
        KeInitializeDpc(&dpc, LogDpc, &log);
    }
    KTIMER timer;
    KDPC dpc;
    DpcLog log;
};

TEST_F(Timers, FiresOnceIntoItsDpcAtDispatchLevel) {
    EXPECT_FALSE(KeSetTimer(&timer, RelativeMs(500), &dpc));
    kernel().Sleep(499);
    EXPECT_TRUE(log.times_ms.empty());
    kernel().Sleep(1000);
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{500});
    EXPECT_EQ(log.irqls, std::vector<KIRQL>{DISPATCH_LEVEL});
    EXPECT_TRUE(KeReadStateTimer(&timer));
}

TEST_F(Timers, ReArmingASetTimerReturnsTrueAndMovesTheDeadline) {
    EXPECT_FALSE(KeSetTimer(&timer, RelativeMs(100), &dpc));
    kernel().Sleep(50);
    EXPECT_TRUE(KeSetTimer(&timer, RelativeMs(100), &dpc));
    kernel().Sleep(200);
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{150});
    EXPECT_FALSE(KeSetTimer(&timer, RelativeMs(10), &dpc)); // expired: no longer set
    kernel().Sleep(20);
    EXPECT_EQ(log.times_ms, (std::vector<int64_t>{150, 260}));
}

TEST_F(Timers, CancelReportsWhetherItRemovedAPendingTimer) {
    EXPECT_FALSE(KeCancelTimer(&timer));
    KeSetTimer(&timer, RelativeMs(100), &dpc);
    EXPECT_TRUE(KeCancelTimer(&timer));
    EXPECT_FALSE(KeCancelTimer(&timer));
    kernel().Sleep(200);
    EXPECT_TRUE(log.times_ms.empty());
    KeSetTimer(&timer, RelativeMs(10), &dpc);
    kernel().Sleep(20);
    EXPECT_FALSE(KeCancelTimer(&timer)); // already fired
}

TEST_F(Timers, AThreadCanWaitOnATimer) {
    KeSetTimer(&timer, RelativeMs(70), nullptr);
    EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(kernel().NowMs(), 70);
}

TEST_F(Timers, ADpcQueuedTwiceRunsOnce) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    KeLowerIrql(old);
    EXPECT_EQ(log.times_ms.size(), 1u);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr)); // may be queued again once it ran
    EXPECT_EQ(log.times_ms.size(), 2u);
}

TEST_F(Timers, DpcsRunOnTheIrqlDropNotBefore) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_TRUE(log.times_ms.empty());
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(log.times_ms.size(), 1u);

    // Queued below DISPATCH_LEVEL, a DPC runs at once, at DISPATCH_LEVEL.
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_EQ(log.times_ms.size(), 2u);
    EXPECT_EQ(log.irqls[1], DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(Timers, RemovedDpcDoesNotRun) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    KeLowerIrql(old);
    EXPECT_TRUE(log.times_ms.empty());
}

TEST_F(Timers, TimersDueAtTheSameInstantExpireBeforeTheirDpcsRun) {
    KTIMER second;
    KDPC second_dpc;
    KeInitializeTimer(&second);
    struct Seen {
        PKTIMER other;
        bool other_signalled = false;
    } seen{&timer};
    KeInitializeDpc(
        &second_dpc,
        [](PKDPC, PVOID context, PVOID, PVOID) {
            auto* s = static_cast<Seen*>(context);
            s->other_signalled = KeReadStateTimer(s->other);
        },
        &seen);
    KeSetTimer(&second, RelativeMs(10), &second_dpc);
    KeSetTimer(&timer, RelativeMs(10), &dpc);
    kernel().Sleep(10);
    EXPECT_TRUE(seen.other_signalled);
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{10});
}

TEST_F(Timers, SystemTimeAdvancesWithTheVirtualClock) {
    LARGE_INTEGER before, after;
    KeQuerySystemTime(&before);
    kernel().Sleep(1234);
    KeQuerySystemTime(&after);
    EXPECT_EQ(after.QuadPart - before.QuadPart, 1234 * 10000);
    EXPECT_EQ(KeQueryInterruptTime(), 1234ull * 10000);
}

} // namespace
