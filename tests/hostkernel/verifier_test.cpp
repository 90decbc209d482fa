// Each verifier rule of the kernel executive fires on a deliberately wrong
// call and stays silent on the right one next to it. (The I/O manager's
// rules, and the reports of leftovers at teardown, are tested with its fake
// drivers in iomgr_test.cpp.)
#include "kernel_test.h"

#include <functional>
#include <string>

namespace {

// Runs fn at the given IRQL and comes back to the one it was called at.
void AtIrql(KIRQL irql, const std::function<void()>& fn) {
    KIRQL old;
    KeRaiseIrql(irql, &old);
    fn();
    KeLowerIrql(old);
}

struct Locks {
    KSPIN_LOCK a, b, c;
    KMUTEX m, n;
    Locks() {
        for (PKSPIN_LOCK lock : {&a, &b, &c})
            KeInitializeSpinLock(lock);
        KeInitializeMutex(&m, 0);
        KeInitializeMutex(&n, 0);
    }
};

void Take(PKSPIN_LOCK first, PKSPIN_LOCK second) {
    KIRQL outer;
    KeAcquireSpinLock(first, &outer);
    KeAcquireSpinLockAtDpcLevel(second);
    KeReleaseSpinLockFromDpcLevel(second);
    KeReleaseSpinLock(first, outer);
}

void Wait(PVOID object) {
    KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
}

void TakeBoth(PKMUTEX first, PKMUTEX second) {
    Wait(first);
    Wait(second);
    KeReleaseMutex(second, FALSE);
    KeReleaseMutex(first, FALSE);
}

void* Block(bool paged) {
    return ExAllocatePoolWithTag(paged ? PagedPool : NonPagedPool, 8, 'gaPT');
}

// Reads and writes the first byte of a block.
void Touch(PVOID block) {
    auto* bytes = static_cast<volatile char*>(block);
    bytes[0] = char(bytes[0] + 1);
}

// Queues a DPC that touches the block; it runs before this returns.
void TouchFromDpc(PVOID block) {
    KDPC dpc;
    KeInitializeDpc(
        &dpc, [](PKDPC, PVOID context, PVOID, PVOID) { Touch(context); }, block);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
}

// A DPC, timer DPC or work item that leaves the IRQL raised when told to.
VOID NTAPI MayLeaveIrqlRaised(PKDPC, PVOID leave_raised, PVOID, PVOID) {
    KIRQL old;
    if (*static_cast<bool*>(leave_raised))
        KeRaiseIrql(HIGH_LEVEL, &old);
}

struct Holder {
    KTIMER timer;
    KDPC dpc;
};

// run(false) is the right use, which the rule must not flag; run(true) the
// wrong one, which it must flag `fires` times.
struct RuleCase {
    const char* name;
    const char* rule;
    std::function<void(bool wrong)> run;
    uint64_t fires = 1;
};

class VerifierRules : public KernelTest, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(VerifierRules, FiresOnTheWrongCallOnly) {
    const RuleCase& c = GetParam();
    hk::ExpectViolation expect(c.rule);
    c.run(false);
    EXPECT_EQ(expect.Count(), 0u) << "the right call was flagged";
    c.run(true);
    EXPECT_EQ(expect.Count(), c.fires) << "the wrong call was not flagged";
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

const RuleCase kRuleCases[] = {
    {"BlockingAtDispatch", hk::rule::kBlockingAtDispatch,
     [](bool wrong) {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         LARGE_INTEGER timeout = RelativeMs(wrong ? 10 : 0); // a zero time-out only polls
         AtIrql(DISPATCH_LEVEL,
                [&] { KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout); });
     }},
    {"SpinLockAboveDispatch", hk::rule::kSpinLockIrql,
     [](bool wrong) {
         Locks l;
         AtIrql(wrong ? HIGH_LEVEL : DISPATCH_LEVEL, [&] {
             KIRQL old;
             KeAcquireSpinLock(&l.a, &old);
             KeReleaseSpinLock(&l.a, old);
         });
     }},
    {"SpinLockReleasedNotHeld", hk::rule::kSpinLockNotHeld,
     [](bool wrong) {
         Locks l;
         KIRQL old = PASSIVE_LEVEL;
         if (!wrong)
             KeAcquireSpinLock(&l.a, &old);
         KeReleaseSpinLock(&l.a, old);
     }},
    {"SpinLockRecursive", hk::rule::kSpinLockRecursive,
     [](bool wrong) {
         Locks l;
         KIRQL old;
         KeAcquireSpinLock(&l.a, &old);
         KeAcquireSpinLockAtDpcLevel(wrong ? &l.a : &l.b);
         if (!wrong)
             KeReleaseSpinLockFromDpcLevel(&l.b);
         KeReleaseSpinLock(&l.a, old);
     }},
    {"DpcLevelAcquireBelowDispatch", hk::rule::kSpinLockAtDpcLevel,
     [](bool wrong) {
         Locks l;
         AtIrql(wrong ? APC_LEVEL : DISPATCH_LEVEL, [&] {
             KeAcquireSpinLockAtDpcLevel(&l.a);
             KeReleaseSpinLockFromDpcLevel(&l.a);
         });
     }},
    {"PagedCodeAtDispatch", hk::rule::kPagedCode,
     [](bool wrong) { AtIrql(wrong ? DISPATCH_LEVEL : APC_LEVEL, [] { PAGED_CODE(); }); }},
    {"PagedAllocationAtDispatch", hk::rule::kPoolIrql,
     [](bool wrong) {
         void* block = nullptr;
         AtIrql(DISPATCH_LEVEL, [&] { block = Block(wrong); });
         ExFreePool(block);
     }},
    {"PagedFreeAtDispatch", hk::rule::kPoolIrql,
     [](bool wrong) {
         void* block = Block(wrong);
         AtIrql(DISPATCH_LEVEL, [&] { ExFreePool(block); });
     }},
    {"PagedPoolTouchedAtDispatch", hk::rule::kPagedPoolAtDispatch,
     [](bool wrong) {
         void* block = Block(true);
         Touch(block);
         AtIrql(DISPATCH_LEVEL, [&] {
             for (int i = 0; wrong && i < 2; ++i)
                 Touch(block); // reported once per stretch at DISPATCH_LEVEL
         });
         Touch(block); // accessible again once the IRQL is back down
         ExFreePool(block);
     }},
    {"PagedPoolTouchedByADpc", hk::rule::kPagedPoolAtDispatch,
     [](bool wrong) {
         void* block = Block(wrong);
         TouchFromDpc(block);
         ExFreePool(block);
     }},
    {"FreeOfABlockNotAllocated", hk::rule::kBadFree,
     [](bool wrong) {
         int not_pool = 0;
         ExFreePool(wrong ? &not_pool : Block(true));
     }},
    {"FreeWithAnotherTag", hk::rule::kFreeTagMismatch,
     [](bool wrong) { ExFreePoolWithTag(Block(true), wrong ? 'rehO' : 'gaPT'); }},
    {"MutexReleasedByANonOwner", hk::rule::kMutexNotOwned,
     [](bool wrong) {
         Locks l;
         if (!wrong)
             Wait(&l.m);
         KeReleaseMutex(&l.m, FALSE);
     }},
    {"WorkItemEndsOwningAMutex", hk::rule::kMutexHeldAtExit,
     [](bool wrong) {
         static Locks l;
         hk::Kernel& k = hk::Kernel::Current();
         PDEVICE_OBJECT device;
         hk::Driver driver;
         IoCreateDevice(driver.Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
         PIO_WORKITEM item = IoAllocateWorkItem(device);
         IoQueueWorkItem(
             item,
             [](PDEVICE_OBJECT, PVOID leave_held) {
                 Wait(&l.m);
                 Wait(&l.m); // recursively
                 KeReleaseMutex(&l.m, FALSE);
                 if (!*static_cast<bool*>(leave_held))
                     KeReleaseMutex(&l.m, FALSE);
             },
             DelayedWorkQueue, &wrong);
         k.Sleep(1);
         IoFreeWorkItem(item);
         IoDeleteDevice(device);
         if (wrong)
             k.QueueSystemWork([] { KeReleaseMutex(&l.m, FALSE); }); // before the worker ends
         k.Sleep(1);
     }},
    {"ThreadEndsOwningAMutex", hk::rule::kMutexHeldAtExit,
     [](bool wrong) {
         Locks l;
         hk::Thread("thread", [&] {
             Wait(&l.m);
             if (!wrong)
                 KeReleaseMutex(&l.m, FALSE);
         }).Join();
     }},
    {"SpinLocksInvertedAcrossTwoPaths", hk::rule::kLockOrderInversion,
     [](bool wrong) {
         Locks l;
         Take(&l.a, &l.b);
         Take(&l.b, &l.c);
         if (!wrong)
             KeInitializeSpinLock(&l.a); // a new lock: the old order is forgotten
         Take(&l.c, &l.a); // a -> b -> c, then c -> a: no deadlock yet, but one waiting
     }},
    {"MutexesInvertedAcrossTwoThreads", hk::rule::kLockOrderInversion,
     [](bool wrong) {
         Locks l;
         TakeBoth(&l.m, &l.n);
         hk::Thread("other", [&] { TakeBoth(wrong ? &l.n : &l.m, wrong ? &l.m : &l.n); }).Join();
     }},
    // A DPC, a timer's DPC and a work item must each give the IRQL back.
    {"CallbacksLeavingTheIrqlRaised", hk::rule::kIrqlNotRestored,
     [](bool wrong) {
         KDPC dpc;
         KTIMER timer;
         KeInitializeDpc(&dpc, MayLeaveIrqlRaised, &wrong);
         KeInitializeTimer(&timer);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         KeSetTimer(&timer, RelativeMs(5), &dpc);
         hk::Kernel::Current().QueueSystemWork(
             [&] { MayLeaveIrqlRaised(nullptr, &wrong, nullptr, nullptr); });
         hk::Kernel::Current().Sleep(10);
     },
     3},
    {"TimerAndDpcQueuedInsideFreedPool", hk::rule::kQueuedInFreedPool,
     [](bool wrong) {
         auto* holder =
             static_cast<Holder*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Holder), 'tseT'));
         KeInitializeTimer(&holder->timer);
         KeInitializeDpc(
             &holder->dpc, [](PKDPC, PVOID, PVOID, PVOID) {}, nullptr);
         KeSetTimer(&holder->timer, RelativeMs(5), &holder->dpc);
         AtIrql(DISPATCH_LEVEL, [&] {
             KeInsertQueueDpc(&holder->dpc, nullptr, nullptr);
             if (!wrong) {
                 KeCancelTimer(&holder->timer);
                 KeRemoveQueueDpc(&holder->dpc);
             }
             // Take both out of the queues before the memory really goes, so
             // the stand-in itself never touches freed memory; the check has
             // run by then.
             hk::Kernel::Current().pool().SetFreeObserver([&](const void*, size_t, ULONG) {
                 KeCancelTimer(&holder->timer);
                 KeRemoveQueueDpc(&holder->dpc);
             });
             ExFreePool(holder);
             hk::Kernel::Current().pool().SetFreeObserver(nullptr);
         });
     },
     2},
};

// Kernel objects the kernel touches at DISPATCH_LEVEL may not live in paged
// pool; the same objects in non-paged pool are fine.
template <typename Object> RuleCase InPagedPool(const char* name, void (*init)(Object*)) {
    return {name, hk::rule::kObjectInPagedPool, [init](bool wrong) {
                void* block = ExAllocatePoolWithTag(wrong ? PagedPool : NonPagedPool,
                                                    sizeof(Object) + 8, 'jbOT');
                init(reinterpret_cast<Object*>(static_cast<char*>(block) + 8));
                ExFreePool(block);
            }};
}

const RuleCase kPagedObjectCases[] = {
    InPagedPool<KTIMER>("Timer", [](PKTIMER timer) { KeInitializeTimer(timer); }),
    InPagedPool<KDPC>("Dpc",
                      [](PKDPC dpc) {
                          KeInitializeDpc(
                              dpc, [](PKDPC, PVOID, PVOID, PVOID) {}, nullptr);
                      }),
    InPagedPool<KEVENT>("Event",
                        [](PKEVENT event) { KeInitializeEvent(event, NotificationEvent, FALSE); }),
    InPagedPool<KSPIN_LOCK>("SpinLock", [](PKSPIN_LOCK lock) { KeInitializeSpinLock(lock); }),
};

std::string CaseName(const ::testing::TestParamInfo<RuleCase>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Executive, VerifierRules, ::testing::ValuesIn(kRuleCases), CaseName);
INSTANTIATE_TEST_SUITE_P(PagedPool, VerifierRules, ::testing::ValuesIn(kPagedObjectCases),
                         CaseName);

} // namespace
