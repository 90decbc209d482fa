// Each verifier rule of the kernel executive fires on a deliberately wrong
// call and stays silent on the right one next to it. (The I/O manager's
// rules are tested with its fake drivers in iomgr_test.cpp.)
#include "kernel_test.h"

#include <functional>
#include <string>
#include <vector>

namespace {

LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

// Runs fn at DISPATCH_LEVEL and comes back to the IRQL it was called at.
void AtDispatch(const std::function<void()>& fn) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
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

void* Paged(size_t bytes) {
    return ExAllocatePoolWithTag(PagedPool, bytes, 'gaPT');
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

struct RuleCase {
    const char* name;
    const char* rule;
    std::function<void(hk::Kernel&)> right, wrong;
};

class VerifierRules : public KernelTest, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(VerifierRules, FiresOnTheWrongCallOnly) {
    const RuleCase& c = GetParam();
    hk::ExpectViolation expect(c.rule);
    c.right(kernel());
    EXPECT_EQ(expect.Count(), 0u) << "the right call was flagged";
    c.wrong(kernel());
    EXPECT_EQ(expect.Count(), 1u) << "the wrong call was not flagged";
}

const RuleCase kRuleCases[] = {
    {"BlockingAtDispatch", hk::rule::kBlockingAtDispatch,
     [](hk::Kernel& k) {
         LARGE_INTEGER zero{};
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         AtDispatch([&] { KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero); });
         k.Sleep(1); // at PASSIVE_LEVEL
     },
     [](hk::Kernel&) {
         AtDispatch([] {
             LARGE_INTEGER wait = RelativeMs(10);
             KeDelayExecutionThread(KernelMode, FALSE, &wait);
         });
     }},
    {"SpinLockAboveDispatch", hk::rule::kSpinLockIrql,
     [](hk::Kernel&) {
         Locks l;
         AtDispatch([&] { Take(&l.a, &l.b); });
     },
     [](hk::Kernel&) {
         Locks l;
         KIRQL high, inner;
         KeRaiseIrql(HIGH_LEVEL, &high);
         KeAcquireSpinLock(&l.a, &inner);
         KeReleaseSpinLockFromDpcLevel(&l.a);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"SpinLockReleasedNotHeld", hk::rule::kSpinLockNotHeld,
     [](hk::Kernel&) {
         Locks l;
         Take(&l.a, &l.b);
     },
     [](hk::Kernel&) {
         Locks l;
         KeReleaseSpinLock(&l.a, PASSIVE_LEVEL);
     }},
    {"SpinLockRecursive", hk::rule::kSpinLockRecursive,
     [](hk::Kernel&) {
         Locks l;
         Take(&l.a, &l.b);
     },
     [](hk::Kernel&) {
         Locks l;
         KIRQL old;
         KeAcquireSpinLock(&l.a, &old);
         KeAcquireSpinLockAtDpcLevel(&l.a);
         KeReleaseSpinLock(&l.a, old);
     }},
    {"DpcLevelAcquireBelowDispatch", hk::rule::kSpinLockAtDpcLevel,
     [](hk::Kernel&) {
         Locks l;
         AtDispatch([&] {
             KeAcquireSpinLockAtDpcLevel(&l.a);
             KeReleaseSpinLockFromDpcLevel(&l.a);
         });
     },
     [](hk::Kernel&) {
         Locks l;
         KeAcquireSpinLockAtDpcLevel(&l.a);
         KeReleaseSpinLockFromDpcLevel(&l.a);
     }},
    {"PagedCodeAtDispatch", hk::rule::kPagedCode, [](hk::Kernel&) { PAGED_CODE(); },
     [](hk::Kernel&) { AtDispatch([] { PAGED_CODE(); }); }},
    {"PagedAllocationAtDispatch", hk::rule::kPoolIrql,
     [](hk::Kernel&) {
         ExFreePool(Paged(8));
         AtDispatch([] { ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 8, 'gaPT')); });
     },
     [](hk::Kernel&) {
         void* block = nullptr;
         AtDispatch([&] { block = Paged(8); });
         ExFreePool(block);
     }},
    {"PagedFreeAtDispatch", hk::rule::kPoolIrql, [](hk::Kernel&) { ExFreePool(Paged(8)); },
     [](hk::Kernel&) {
         void* block = Paged(8);
         AtDispatch([&] { ExFreePool(block); });
     }},
    {"PagedPoolTouchedAtDispatch", hk::rule::kPagedPoolAtDispatch,
     [](hk::Kernel&) {
         void* block = Paged(8);
         Touch(block);
         AtDispatch([] {});
         Touch(block); // accessible again once the IRQL is back down
         ExFreePool(block);
     },
     [](hk::Kernel&) {
         void* block = Paged(8);
         AtDispatch([&] {
             Touch(block);
             Touch(block); // reported once per stretch at DISPATCH_LEVEL
         });
         ExFreePool(block);
     }},
    {"PagedPoolTouchedByADpc", hk::rule::kPagedPoolAtDispatch,
     [](hk::Kernel&) {
         void* block = ExAllocatePoolWithTag(NonPagedPool, 8, 'gaPT');
         TouchFromDpc(block);
         ExFreePool(block);
     },
     [](hk::Kernel&) {
         void* block = Paged(8);
         TouchFromDpc(block);
         ExFreePool(block);
     }},
    {"FreeOfABlockNotAllocated", hk::rule::kBadFree, [](hk::Kernel&) { ExFreePool(Paged(8)); },
     [](hk::Kernel&) {
         int not_pool = 0;
         ExFreePool(&not_pool);
     }},
    {"FreeWithAnotherTag", hk::rule::kFreeTagMismatch,
     [](hk::Kernel&) { ExFreePoolWithTag(Paged(8), 'gaPT'); },
     [](hk::Kernel&) { ExFreePoolWithTag(Paged(8), 'rehO'); }},
    {"MutexReleasedByANonOwner", hk::rule::kMutexNotOwned,
     [](hk::Kernel&) {
         Locks l;
         Wait(&l.m);
         KeReleaseMutex(&l.m, FALSE);
     },
     [](hk::Kernel&) {
         Locks l;
         KeReleaseMutex(&l.m, FALSE);
     }},
    {"WorkItemEndsOwningAMutex", hk::rule::kMutexHeldAtExit,
     [](hk::Kernel& k) {
         static Locks l;
         k.QueueSystemWork([] {
             Wait(&l.m);
             Wait(&l.m); // recursively
             KeReleaseMutex(&l.m, FALSE);
             KeReleaseMutex(&l.m, FALSE);
         });
         k.Sleep(1);
     },
     [](hk::Kernel& k) {
         static Locks l;
         PDEVICE_OBJECT device;
         hk::Driver driver;
         IoCreateDevice(driver.Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
         PIO_WORKITEM item = IoAllocateWorkItem(device);
         IoQueueWorkItem(
             item, [](PDEVICE_OBJECT, PVOID) { Wait(&l.m); }, DelayedWorkQueue, nullptr);
         k.Sleep(1);
         IoFreeWorkItem(item);
         IoDeleteDevice(device);
         k.QueueSystemWork([] { KeReleaseMutex(&l.m, FALSE); }); // before the worker ends
         k.Sleep(1);
     }},
    {"ThreadEndsOwningAMutex", hk::rule::kMutexHeldAtExit,
     [](hk::Kernel&) {
         Locks l;
         hk::Thread("right", [&] {
             Wait(&l.m);
             KeReleaseMutex(&l.m, FALSE);
         }).Join();
     },
     [](hk::Kernel&) {
         Locks l;
         hk::Thread("wrong", [&] { Wait(&l.m); }).Join();
     }},
    {"SpinLocksInvertedAcrossTwoPaths", hk::rule::kLockOrderInversion,
     [](hk::Kernel&) {
         Locks l;
         Take(&l.a, &l.b);
         Take(&l.a, &l.b);
         Take(&l.b, &l.c);
         KeInitializeSpinLock(&l.a); // a new lock: the old order is forgotten
         Take(&l.c, &l.a);
     },
     [](hk::Kernel&) {
         Locks l;
         Take(&l.a, &l.b);
         Take(&l.b, &l.c);
         Take(&l.c, &l.a); // a -> b -> c, then c -> a: no deadlock yet, but one waiting
     }},
    {"MutexesInvertedAcrossTwoThreads", hk::rule::kLockOrderInversion,
     [](hk::Kernel&) {
         Locks l;
         for (int i = 0; i < 2; ++i) {
             Wait(&l.m);
             Wait(&l.n);
             KeReleaseMutex(&l.n, FALSE);
             KeReleaseMutex(&l.m, FALSE);
         }
     },
     [](hk::Kernel&) {
         Locks l;
         Wait(&l.m);
         Wait(&l.n);
         KeReleaseMutex(&l.n, FALSE);
         KeReleaseMutex(&l.m, FALSE);
         hk::Thread("other", [&] {
             Wait(&l.n);
             Wait(&l.m);
             KeReleaseMutex(&l.m, FALSE);
             KeReleaseMutex(&l.n, FALSE);
         }).Join();
     }},
};

// Kernel objects the kernel touches at DISPATCH_LEVEL may not live in paged
// pool; the same objects in non-paged pool are fine.
template <typename Object> RuleCase InPagedPool(const char* name, void (*init)(Object*)) {
    auto place = [init](POOL_TYPE type) {
        void* block = ExAllocatePoolWithTag(type, sizeof(Object) + 8, 'jbOT');
        init(reinterpret_cast<Object*>(static_cast<char*>(block) + 8));
        ExFreePool(block);
    };
    return {name, hk::rule::kObjectInPagedPool, [place](hk::Kernel&) { place(NonPagedPool); },
            [place](hk::Kernel&) { place(PagedPool); }};
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

using VerifierChecks = KernelTest;

bool g_leave_raised;
VOID NTAPI MayLeaveIrqlRaised(PKDPC, PVOID, PVOID, PVOID) {
    KIRQL old;
    if (g_leave_raised)
        KeRaiseIrql(HIGH_LEVEL, &old);
}

// Callbacks must give the IRQL back as they got it: a DPC, a timer's DPC and
// a work item that leave it raised are each reported.
TEST_F(VerifierChecks, CallbacksMustRestoreTheIrql) {
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, MayLeaveIrqlRaised, nullptr);
    KeInitializeTimer(&timer);
    hk::ExpectViolation expect(hk::rule::kIrqlNotRestored);
    for (bool leave_raised : {false, true}) {
        g_leave_raised = leave_raised;
        KeInsertQueueDpc(&dpc, nullptr, nullptr);
        KeSetTimer(&timer, RelativeMs(5), &dpc);
        kernel().Sleep(10);
        kernel().QueueSystemWork([leave_raised] {
            KIRQL old;
            if (leave_raised)
                KeRaiseIrql(DISPATCH_LEVEL, &old);
        });
        kernel().Sleep(1);
        EXPECT_EQ(expect.Count(), leave_raised ? 3u : 0u);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
}

struct Holder {
    KTIMER timer;
    KDPC dpc;
};

TEST_F(VerifierChecks, TimerOrDpcQueuedInsideFreedPool) {
    hk::ExpectViolation expect(hk::rule::kQueuedInFreedPool);
    for (bool cancel_first : {true, false}) {
        auto* holder =
            static_cast<Holder*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Holder), 'tseT'));
        KeInitializeTimer(&holder->timer);
        KeInitializeDpc(
            &holder->dpc, [](PKDPC, PVOID, PVOID, PVOID) {}, nullptr);
        KeSetTimer(&holder->timer, RelativeMs(5), &holder->dpc);
        AtDispatch([&] {
            KeInsertQueueDpc(&holder->dpc, nullptr, nullptr);
            if (cancel_first) {
                KeCancelTimer(&holder->timer);
                KeRemoveQueueDpc(&holder->dpc);
            }
            // Take both out of the queues before the memory really goes, so
            // the stand-in itself never touches freed memory; the check has
            // run by then.
            kernel().pool().SetFreeObserver([&](const void*, size_t, ULONG) {
                KeCancelTimer(&holder->timer);
                KeRemoveQueueDpc(&holder->dpc);
            });
            ExFreePool(holder);
        });
        EXPECT_EQ(expect.Count(), cancel_first ? 0u : 2u);
    }
}

// Teardown checks: a kernel torn down with leftovers reports each of them,
// a clean one nothing.
TEST(VerifierTeardown, LeakedPoolAndTimersAreReported) {
    for (bool leave : {false, true}) {
        std::vector<std::string> rules;
        std::string pool_message;
        {
            hk::Kernel kernel;
            kernel.verifier().SetHandler([&](const std::string& rule, const std::string& message) {
                rules.push_back(rule);
                if (rule == hk::rule::kPoolLeak)
                    pool_message = message;
            });
            void* block = ExAllocatePoolWithTag(NonPagedPool, 40, 'kaeL');
            static KTIMER timer;
            KeInitializeTimer(&timer);
            KeSetTimer(&timer, RelativeMs(100), nullptr);
            if (!leave) {
                ExFreePool(block);
                kernel.Sleep(100);
            }
        }
        if (!leave) {
            EXPECT_TRUE(rules.empty());
            continue;
        }
        EXPECT_EQ(rules, (std::vector<std::string>{hk::rule::kTimerLeak, hk::rule::kPoolLeak}));
        EXPECT_NE(pool_message.find("'Leak': 1 block(s), 40 byte(s)"), std::string::npos);
    }
}

} // namespace
