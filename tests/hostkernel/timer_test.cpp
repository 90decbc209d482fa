// Timers and DPCs follow the kernel's rules on the virtual clock.
#include "kernel_test.h"

#include <vector>

namespace {

struct DpcLog {
    std::vector<int64_t> times_ms;
};

VOID NTAPI LogDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* log = static_cast<DpcLog*>(context);
    log->times_ms.push_back(hk::Kernel::Current().NowMs());
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

// A queued DPC is queued once however often it is inserted, and once
// removed it does not run. (That it waits for the IRQL to drop and runs at
// DISPATCH_LEVEL every driver test's completion DPC shows.)
TEST_F(Timers, ADpcIsQueuedOnceAndRemovedOnce) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
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

} // namespace
