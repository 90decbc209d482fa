// Timer objects: a kernel timer and DPC bound to a callback with its
// context, fired on the emulated kernel's virtual clock.
#include "driver_test.h"

#include <vector>

namespace {

struct CallbackLog {
    std::vector<int64_t> times_ms;
    std::vector<PTIMER_OBJ> objects;
    std::vector<KIRQL> irqls;
};

VOID LogCallback(PTIMER_OBJ TimerObj, PVOID Context) {
    auto* log = static_cast<CallbackLog*>(Context);
    log->times_ms.push_back(hk::Kernel::Current().NowMs());
    log->objects.push_back(TimerObj);
    log->irqls.push_back(KeGetCurrentIrql());
}

using TimerObjTest = DriverTest;

TEST_F(TimerObjTest, InitStoresA64BitRelativeDueTimeAndDoesNotArm) {
    TIMER_OBJ timer;
    CallbackLog log;
    for (auto [ms, due] :
         {std::pair<ULONG, LONGLONG>{500, -5000000}, {0xFFFFFFFFu, -42949672950000LL}, {0, 0}}) {
        InitTimerObj(&timer, LogCallback, &log, ms);
        EXPECT_EQ(timer.DueTime.QuadPart, due);
    }
    EXPECT_EQ(timer.Context, &log);
    EXPECT_FALSE(KeCancelTimer(&timer.Timer));
    kernel().Sleep(1000);
    EXPECT_TRUE(log.times_ms.empty());
}

TEST_F(TimerObjTest, EachFiresOnceIntoItsCallbackWithItsContextAtDispatchLevel) {
    TIMER_OBJ timer, other;
    CallbackLog log, other_log;
    InitTimerObj(&timer, LogCallback, &log, 500);
    InitTimerObj(&other, LogCallback, &other_log, 20);
    KeSetTimer(&timer.Timer, timer.DueTime, &timer.Dpc);
    KeSetTimer(&other.Timer, other.DueTime, &other.Dpc);
    kernel().Sleep(499);
    EXPECT_TRUE(log.times_ms.empty());
    kernel().Sleep(2000);
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{500});
    EXPECT_EQ(log.objects, std::vector<PTIMER_OBJ>{&timer});
    EXPECT_EQ(log.irqls, std::vector<KIRQL>{DISPATCH_LEVEL});
    EXPECT_EQ(other_log.times_ms, std::vector<int64_t>{20});
    EXPECT_EQ(other_log.objects, std::vector<PTIMER_OBJ>{&other});
}

} // namespace
