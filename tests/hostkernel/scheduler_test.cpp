// The deterministic scheduler: one thread at a time, switches only at
// blocking points, virtual time that jumps to the next deadline.
#include "kernel_test.h"

#include <chrono>
#include <string>
#include <vector>

namespace {

using Scheduler = KernelTest;

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
    auto sleeper = [&](const char* name, int64_t ms) {
        return hk::Thread(name, [&, name, ms] {
            kernel().Sleep(ms);
            wakes.emplace_back(name, kernel().NowMs());
        });
    };
    hk::Thread slow = sleeper("slow", 30), fast = sleeper("fast", 10);
    slow.Join();
    fast.Join();
    EXPECT_EQ(wakes, (std::vector<std::pair<std::string, int64_t>>{{"fast", 10}, {"slow", 30}}));
}

TEST_F(Scheduler, PostedWorkRunsAtDispatchWhenTheProcessorIsIdle) {
    std::vector<KIRQL> seen;
    kernel().Post([&] { seen.push_back(KeGetCurrentIrql()); });
    EXPECT_TRUE(seen.empty());
    kernel().Sleep(1);
    EXPECT_EQ(seen, std::vector<KIRQL>{DISPATCH_LEVEL});
}

TEST_F(Scheduler, RealTimeModeFollowsTheWallClock) {
    // Measured from before the kernel exists, so a slow start under load
    // only makes the elapsed time longer: the check cannot fail by load.
    auto wall_start = std::chrono::steady_clock::now();
    Restart({.real_time = true});
    kernel().Sleep(20);
    auto wall = std::chrono::steady_clock::now() - wall_start;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(wall).count(), 20);
    EXPECT_GE(kernel().NowMs(), 20);
}

} // namespace
