// Timers and DPCs follow the kernel's rules on the virtual clock.
#include "kernel_test.h"

#include <vector>

namespace {

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

// Queued at DISPATCH_LEVEL (under a spin lock), a DPC waits for the IRQL to
// drop, runs once however often it was queued, and not at all once removed;
// queued below DISPATCH_LEVEL it runs at once, at DISPATCH_LEVEL.
TEST_F(Timers, DpcsRunOnceOnTheIrqlDropUnlessRemoved) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_TRUE(log.times_ms.empty());
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(log.times_ms.size(), 1u);

    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    KeLowerIrql(old);
    EXPECT_EQ(log.times_ms.size(), 1u);

    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_EQ(log.irqls, (std::vector<KIRQL>{DISPATCH_LEVEL, DISPATCH_LEVEL}));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
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

} // namespace
