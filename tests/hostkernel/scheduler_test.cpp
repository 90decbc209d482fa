// The deterministic scheduler: one thread at a time, switches only at
// blocking points, virtual time that jumps to the next deadline.
#include "kernel_test.h"

#include <chrono>
#include <string>
#include <vector>

namespace {

LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

using Scheduler = KernelTest;

TEST_F(Scheduler, TwoSecondWaitTimesOutAtExactlyTwoVirtualSeconds) {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    LARGE_INTEGER timeout = RelativeMs(2000);
    NTSTATUS status = KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout);
    EXPECT_EQ(status, STATUS_TIMEOUT);
    EXPECT_EQ(kernel().Now(), 2000 * 10000);
}

TEST_F(Scheduler, NoSwitchUntilTheRunningThreadBlocks) {
    std::vector<std::string> order;
    hk::Thread other("other", [&] { order.push_back("other"); });
    order.push_back("main before blocking");
    EXPECT_FALSE(other.Finished());
    kernel().Sleep(1);
    order.push_back("main after blocking");
    EXPECT_EQ(order,
              (std::vector<std::string>{"main before blocking", "other", "main after blocking"}));
}

TEST_F(Scheduler, ThreadsWakeInDeadlineOrderAndTheClockFollows) {
    std::vector<std::pair<std::string, int64_t>> wakes;
    hk::Thread slow("slow", [&] {
        kernel().Sleep(30);
        wakes.emplace_back("slow", kernel().NowMs());
    });
    hk::Thread fast("fast", [&] {
        kernel().Sleep(10);
        wakes.emplace_back("fast", kernel().NowMs());
    });
    slow.Join();
    fast.Join();
    ASSERT_EQ(wakes.size(), 2u);
    EXPECT_EQ(wakes[0], (std::pair<std::string, int64_t>{"fast", 10}));
    EXPECT_EQ(wakes[1], (std::pair<std::string, int64_t>{"slow", 30}));
}

TEST_F(Scheduler, RunsAreIdenticalForTheSameSeed) {
    auto run = [&] {
        std::vector<int64_t> trace;
        std::vector<std::unique_ptr<hk::Thread>> threads;
        for (int i = 0; i < 4; ++i)
            threads.push_back(std::make_unique<hk::Thread>("t" + std::to_string(i), [&, i] {
                for (int step = 0; step < 5; ++step) {
                    kernel().Sleep(int64_t(kernel().Random()() % 7) + 1);
                    trace.push_back(i * 1000 + kernel().NowMs());
                }
            }));
        for (auto& t : threads)
            t->Join();
        return trace;
    };
    hk::KernelOptions options;
    options.seed = 42;
    Restart(options);
    auto first = run();
    Restart(options);
    auto second = run();
    EXPECT_EQ(first.size(), 20u);
    EXPECT_EQ(first, second);
}

TEST_F(Scheduler, SystemWorkRunsOnTheWorkerAtPassiveLevelInOrder) {
    std::vector<int> done;
    PKTHREAD main_thread = KeGetCurrentThread();
    KEVENT finished;
    KeInitializeEvent(&finished, NotificationEvent, FALSE);
    for (int i = 0; i < 3; ++i)
        kernel().QueueSystemWork([&, i] {
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            EXPECT_NE(KeGetCurrentThread(), main_thread);
            done.push_back(i);
            if (i == 2)
                KeSetEvent(&finished, 0, FALSE);
        });
    EXPECT_TRUE(done.empty()); // nothing runs before main blocks
    KeWaitForSingleObject(&finished, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(done, (std::vector<int>{0, 1, 2}));
}

TEST_F(Scheduler, PostedWorkRunsAtDispatchWhenTheProcessorIsIdle) {
    KIRQL seen = PASSIVE_LEVEL;
    bool ran = false;
    kernel().Post([&] {
        seen = KeGetCurrentIrql();
        ran = true;
    });
    EXPECT_FALSE(ran);
    kernel().Sleep(1);
    EXPECT_TRUE(ran);
    EXPECT_EQ(seen, DISPATCH_LEVEL);
}

TEST_F(Scheduler, RealTimeModeFollowsTheWallClock) {
    // Measured from before the kernel exists, so a slow start under load
    // only makes the elapsed time longer: the check cannot fail by load.
    auto wall_start = std::chrono::steady_clock::now();
    hk::KernelOptions options;
    options.real_time = true;
    Restart(options);
    kernel().Sleep(20);
    auto wall = std::chrono::steady_clock::now() - wall_start;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(wall).count(), 20);
    EXPECT_GE(kernel().NowMs(), 20);
}

} // namespace
