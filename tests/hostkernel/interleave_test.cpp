// The interleaving mode: preemption at platform calls, a second processor
// that runs DPCs beside spin-lock holders, timers firing as interrupts,
// several system workers, and exact replay of a seed.
#include "kernel_test.h"

#include <set>
#include <string>
#include <vector>

namespace {

class Interleave : public KernelTest {
  protected:
    void Start(uint64_t seed, unsigned processors = 2) {
        hk::KernelOptions options;
        options.seed = seed;
        options.interleave.enabled = true;
        options.interleave.processors = processors;
        Restart(options);
    }
};

// Two threads each take five interlocked steps; the order of the steps is
// what the seed chose.
std::string StepOrder() {
    std::string order;
    LONG counter = 0;
    auto steps = [&](char name) {
        for (int i = 0; i < 5; ++i) {
            InterlockedIncrement(&counter);
            order += name;
        }
    };
    hk::Thread a("a", [&] { steps('a'); });
    hk::Thread b("b", [&] { steps('b'); });
    a.Join();
    b.Join();
    EXPECT_EQ(counter, 10);
    return order;
}

TEST_F(Interleave, ASeedReplaysItsOrderAndSeedsDiffer) {
    std::set<std::string> orders;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Start(seed);
        std::string first = StepOrder();
        Start(seed);
        EXPECT_EQ(StepOrder(), first) << "seed " << seed;
        orders.insert(first);
    }
    EXPECT_GT(orders.size(), 2u) << "threads are preempted between their steps";
}

struct LockedCounter {
    KSPIN_LOCK lock = 0;
    KDPC dpc;
    int inside = 0; // contexts inside the lock
    bool overlap = false;
};

void CountInside(PKDPC, PVOID context, PVOID, PVOID) {
    auto* shared = static_cast<LockedCounter*>(context);
    KeAcquireSpinLockAtDpcLevel(&shared->lock);
    shared->overlap = shared->overlap || shared->inside != 0;
    KeReleaseSpinLockFromDpcLevel(&shared->lock);
}

// A thread holds a spin lock and queues a DPC inside it: on two processors
// the DPC may start at once and spin on the lock; on one it waits for the
// release. Either way nobody is inside the lock twice.
bool DpcRanBesideTheHolder() {
    LockedCounter shared;
    KeInitializeDpc(&shared.dpc, CountInside, &shared);
    KIRQL irql;
    KeAcquireSpinLock(&shared.lock, &irql);
    shared.inside++;
    KeInsertQueueDpc(&shared.dpc, nullptr, nullptr);
    LONG steps = 0;
    while (steps < 20)
        InterlockedIncrement(&steps); // preemption points
    bool ran_before_release = shared.dpc.DpcData == nullptr;
    shared.inside--;
    KeReleaseSpinLock(&shared.lock, irql);
    EXPECT_FALSE(shared.overlap);
    return ran_before_release;
}

TEST_F(Interleave, ADpcRunsBesideASpinLockHolderOnlyOnTwoProcessors) {
    int beside_on_two = 0;
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        Start(seed, 2);
        beside_on_two += DpcRanBesideTheHolder();
        Start(seed, 1);
        EXPECT_FALSE(DpcRanBesideTheHolder()) << "seed " << seed;
    }
    EXPECT_GT(beside_on_two, 0);
}

TEST_F(Interleave, ATimerDueWithinTheJumpFiresWhileAThreadRuns) {
    int fired_while_running = 0;
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        Start(seed);
        KTIMER timer;
        KeInitializeTimer(&timer);
        LARGE_INTEGER due;
        due.QuadPart = -50 * 10; // 50 us
        KeSetTimer(&timer, due, nullptr);
        LONG steps = 0;
        while (!KeReadStateTimer(&timer) && steps < 50)
            InterlockedIncrement(&steps);
        fired_while_running += KeReadStateTimer(&timer) != 0;
        EXPECT_LE(kernel().Now(), 50 * 10) << "the clock never passes the timer";
        KeCancelTimer(&timer);
    }
    EXPECT_GT(fired_while_running, 0);
}

TEST_F(Interleave, WorkItemsRunOnSeveralWorkers) {
    // The first item waits for the second: one worker would deadlock.
    Start(1);
    KEVENT second_ran, both_done;
    KeInitializeEvent(&second_ran, NotificationEvent, FALSE);
    KeInitializeEvent(&both_done, NotificationEvent, FALSE);
    kernel().QueueSystemWork([&] {
        KeWaitForSingleObject(&second_ran, Executive, KernelMode, FALSE, nullptr);
        KeSetEvent(&both_done, 0, FALSE);
    });
    kernel().QueueSystemWork([&] { KeSetEvent(&second_ran, 0, FALSE); });
    LARGE_INTEGER timeout = RelativeMs(1000);
    EXPECT_EQ(KeWaitForSingleObject(&both_done, Executive, KernelMode, FALSE, &timeout),
              STATUS_SUCCESS);
}

TEST(InterleaveOptions, TheEnvironmentSpellsTheReplay) {
    setenv("HK_SEED", "77", 1);
    setenv("HK_INTERLEAVE", "cpus=1,workers=2,jump_us=500", 1);
    hk::KernelOptions options = hk::KernelOptions::FromEnvironment();
    unsetenv("HK_SEED");
    unsetenv("HK_INTERLEAVE");
    EXPECT_EQ(options.Replay(), "HK_SEED=77 HK_INTERLEAVE=cpus=1,workers=2,jump_us=500");
    EXPECT_EQ(hk::KernelOptions::FromEnvironment().Replay(), "HK_SEED=1");
}

} // namespace
