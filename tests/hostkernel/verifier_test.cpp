// Each verifier rule fires on a deliberately bad call and stays silent on
// the good one next to it.
#include "kernel_test.h"

namespace {

LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

using VerifierRules = KernelTest;

TEST_F(VerifierRules, BlockingAtDispatchLevel) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    LARGE_INTEGER wait = RelativeMs(10);
    hk::ExpectViolation expect(hk::rule::kBlockingAtDispatch);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero); // a poll is allowed
    EXPECT_EQ(expect.Count(), 0u);
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &wait);
    EXPECT_EQ(expect.Count(), 1u);
    KeDelayExecutionThread(KernelMode, FALSE, &wait);
    EXPECT_EQ(expect.Count(), 2u);
    KeLowerIrql(old);
    KeDelayExecutionThread(KernelMode, FALSE, &wait);
    EXPECT_EQ(expect.Count(), 2u);
}

TEST_F(VerifierRules, SpinLockAboveDispatchLevel) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hk::ExpectViolation expect(hk::rule::kSpinLockIrql);
    KIRQL old, inner;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeAcquireSpinLock(&lock, &inner); // at DISPATCH_LEVEL: fine
    KeReleaseSpinLock(&lock, inner);
    EXPECT_EQ(expect.Count(), 0u);
    KIRQL high;
    KeRaiseIrql(HIGH_LEVEL, &high);
    KeAcquireSpinLock(&lock, &inner);
    EXPECT_EQ(expect.Count(), 1u);
    KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(high);
    KeLowerIrql(old);
}

TEST_F(VerifierRules, ReleasingASpinLockNotHeld) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hk::ExpectViolation expect(hk::rule::kSpinLockNotHeld);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(expect.Count(), 0u);
    KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
    EXPECT_EQ(expect.Count(), 1u);
}

TEST_F(VerifierRules, AcquiringAHeldSpinLockDeadlocksOneProcessor) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hk::ExpectViolation expect(hk::rule::kSpinLockRecursive);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLockAtDpcLevel(&lock);
    EXPECT_EQ(expect.Count(), 1u);
    KeReleaseSpinLock(&lock, old);
}

TEST_F(VerifierRules, DpcLevelAcquireBelowDispatch) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hk::ExpectViolation expect(hk::rule::kSpinLockAtDpcLevel);
    KeAcquireSpinLockAtDpcLevel(&lock);
    EXPECT_EQ(expect.Count(), 1u);
    KeReleaseSpinLockFromDpcLevel(&lock);
}

struct IrqlDpc {
    KSPIN_LOCK lock;
    bool leave_raised;
    KIRQL old;
};

VOID NTAPI DpcThatMayLeaveIrqlRaised(PKDPC, PVOID context, PVOID, PVOID) {
    auto* d = static_cast<IrqlDpc*>(context);
    if (d->leave_raised)
        KeRaiseIrql(HIGH_LEVEL, &d->old);
}

TEST_F(VerifierRules, DpcMustRestoreIrql) {
    IrqlDpc context{};
    KDPC dpc;
    KeInitializeDpc(&dpc, DpcThatMayLeaveIrqlRaised, &context);
    hk::ExpectViolation expect(hk::rule::kIrqlNotRestored);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_EQ(expect.Count(), 0u);
    context.leave_raised = true;
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    EXPECT_EQ(expect.Count(), 1u);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(VerifierRules, TimerCallbackMustRestoreIrql) {
    IrqlDpc context{};
    context.leave_raised = true;
    KTIMER timer;
    KDPC dpc;
    KeInitializeTimer(&timer);
    KeInitializeDpc(&dpc, DpcThatMayLeaveIrqlRaised, &context);
    hk::ExpectViolation expect(hk::rule::kIrqlNotRestored);
    KeSetTimer(&timer, RelativeMs(5), &dpc);
    kernel().Sleep(10);
    EXPECT_EQ(expect.Count(), 1u);
}

TEST_F(VerifierRules, WorkItemMustReturnAtPassiveLevel) {
    hk::ExpectViolation expect(hk::rule::kIrqlNotRestored);
    KIRQL old;
    kernel().QueueSystemWork([&] { KeRaiseIrql(DISPATCH_LEVEL, &old); });
    kernel().Sleep(1);
    EXPECT_EQ(expect.Count(), 1u);
}

struct Holder {
    KTIMER timer;
    KDPC dpc;
};

TEST_F(VerifierRules, TimerOrDpcQueuedInsideFreedPool) {
    hk::ExpectViolation expect(hk::rule::kQueuedInFreedPool);
    auto* good = static_cast<Holder*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Holder), 'tseT'));
    KeInitializeTimer(&good->timer);
    KeInitializeDpc(
        &good->dpc, [](PKDPC, PVOID, PVOID, PVOID) {}, nullptr);
    KeSetTimer(&good->timer, RelativeMs(5), &good->dpc);
    KeCancelTimer(&good->timer);
    ExFreePool(good);
    EXPECT_EQ(expect.Count(), 0u);

    auto* bad = static_cast<Holder*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Holder), 'tseT'));
    KeInitializeTimer(&bad->timer);
    KeInitializeDpc(
        &bad->dpc, [](PKDPC, PVOID, PVOID, PVOID) {}, nullptr);
    KeSetTimer(&bad->timer, RelativeMs(5), &bad->dpc);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeInsertQueueDpc(&bad->dpc, nullptr, nullptr);
    // Take both out of the queues before the memory really goes, so the
    // emulator itself never touches freed memory; the check has run by then.
    hk::Kernel::Current().pool().SetFreeObserver([&](const void*, size_t, ULONG) {
        KeCancelTimer(&bad->timer);
        KeRemoveQueueDpc(&bad->dpc);
    });
    ExFreePool(bad);
    KeLowerIrql(old);
    EXPECT_EQ(expect.Count(), 2u);
}

TEST_F(VerifierRules, BadFreeAndTagMismatch) {
    hk::ExpectViolation bad_free(hk::rule::kBadFree);
    hk::ExpectViolation mismatch(hk::rule::kFreeTagMismatch);
    void* p = ExAllocatePoolWithTag(NonPagedPool, 8, 'AAAA');
    ExFreePoolWithTag(p, 'BBBB');
    EXPECT_EQ(mismatch.Count(), 1u);
    EXPECT_EQ(bad_free.Count(), 0u);
    int not_pool = 0;
    ExFreePool(&not_pool);
    EXPECT_EQ(bad_free.Count(), 1u);
}

TEST_F(VerifierRules, PagedPoolAtDispatchLevel) {
    hk::ExpectViolation expect(hk::rule::kPoolIrql);
    void* ok = ExAllocatePoolWithTag(PagedPool, 8, 'AAAA');
    EXPECT_EQ(expect.Count(), 0u);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    void* bad = ExAllocatePoolWithTag(PagedPool, 8, 'AAAA');
    void* fine = ExAllocatePoolWithTag(NonPagedPool, 8, 'AAAA');
    EXPECT_EQ(expect.Count(), 1u);
    KeLowerIrql(old);
    ExFreePool(ok);
    ExFreePool(bad);
    ExFreePool(fine);
}

TEST_F(VerifierRules, PagedCodeAtDispatchLevel) {
    hk::ExpectViolation expect(hk::rule::kPagedCode);
    PAGED_CODE();
    EXPECT_EQ(expect.Count(), 0u);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    PAGED_CODE();
    KeLowerIrql(old);
    EXPECT_EQ(expect.Count(), 1u);
}

TEST_F(VerifierRules, MutexReleasedByANonOwner) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    hk::ExpectViolation expect(hk::rule::kMutexNotOwned);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(expect.Count(), 1u);
}

// Teardown checks: a kernel torn down with leftovers reports each of them.
TEST(VerifierTeardown, LeakedPoolTimersAndThreadsAreReported) {
    std::vector<std::string> rules;
    std::string pool_message;
    void* leaked = nullptr;
    {
        hk::Kernel kernel;
        kernel.verifier().SetHandler([&](const std::string& rule, const std::string& message) {
            rules.push_back(rule);
            if (rule == hk::rule::kPoolLeak)
                pool_message = message;
        });
        leaked = ExAllocatePoolWithTag(NonPagedPool, 40, 'kaeL');
        static KTIMER timer;
        KeInitializeTimer(&timer);
        LARGE_INTEGER due = RelativeMs(100);
        KeSetTimer(&timer, due, nullptr);
    }
    EXPECT_EQ(rules, (std::vector<std::string>{hk::rule::kTimerLeak, hk::rule::kPoolLeak}));
    EXPECT_NE(pool_message.find("'Leak': 1 block(s), 40 byte(s)"), std::string::npos);
    (void)leaked;
}

TEST(VerifierTeardown, ACleanKernelReportsNothing) {
    int reports = 0;
    {
        hk::Kernel kernel;
        kernel.verifier().SetHandler([&](const std::string&, const std::string&) { ++reports; });
        void* p = ExAllocatePoolWithTag(NonPagedPool, 40, 'naeC');
        ExFreePool(p);
        kernel.Sleep(10);
    }
    EXPECT_EQ(reports, 0);
}

} // namespace
