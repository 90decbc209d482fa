// The DPC queue's answers. (Timers due at one instant expiring before their
// DPCs run are the race tests' and the interleaved demo's.)
#include "kernel_test.h"

namespace {

using Timers = KernelTest;

// A queued DPC is queued once however often it is inserted, and once
// removed it does not run. (That it waits for the IRQL to drop and runs at
// DISPATCH_LEVEL every driver test's completion DPC shows.)
TEST_F(Timers, ADpcIsQueuedOnceAndRemovedOnce) {
    int runs = 0;
    KDPC dpc;
    KeInitializeDpc(
        &dpc, [](PKDPC, PVOID context, PVOID, PVOID) { ++*static_cast<int*>(context); }, &runs);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    KeLowerIrql(old);
    EXPECT_EQ(runs, 0);
}

} // namespace
