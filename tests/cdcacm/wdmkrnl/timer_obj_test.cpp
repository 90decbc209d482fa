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

class TimerObjTest : public DriverTest {
  protected:
    TIMER_OBJ timer;
    CallbackLog log;
};

TEST_F(TimerObjTest, InitStoresARelativeDueTimeAndDoesNotArm) {
    InitTimerObj(&timer, LogCallback, &log, 500);
    EXPECT_EQ(timer.DueTime.QuadPart, -5000000);
    EXPECT_EQ(timer.Callback, LogCallback);
    EXPECT_EQ(timer.Context, &log);
    EXPECT_FALSE(KeCancelTimer(&timer.Timer));
    kernel().Sleep(1000);
    EXPECT_TRUE(log.times_ms.empty());
}

TEST_F(TimerObjTest, DueTimeIsComputedIn64Bits) {
    InitTimerObj(&timer, LogCallback, &log, 0xFFFFFFFFu);
    EXPECT_EQ(timer.DueTime.QuadPart, -42949672950000LL);
    InitTimerObj(&timer, LogCallback, &log, 0);
    EXPECT_EQ(timer.DueTime.QuadPart, 0);
}

TEST_F(TimerObjTest, FiringCallsTheCallbackWithTheObjectAndContextAtDispatchLevel) {
    InitTimerObj(&timer, LogCallback, &log, 500);
    EXPECT_FALSE(KeSetTimer(&timer.Timer, timer.DueTime, &timer.Dpc));
    kernel().Sleep(499);
    EXPECT_TRUE(log.times_ms.empty());
    kernel().Sleep(1);
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{500});
    EXPECT_EQ(log.objects, std::vector<PTIMER_OBJ>{&timer});
    EXPECT_EQ(log.irqls, std::vector<KIRQL>{DISPATCH_LEVEL});
    kernel().Sleep(2000); // one-shot: it does not fire again
    EXPECT_EQ(log.times_ms.size(), 1u);
}

TEST_F(TimerObjTest, TwoObjectsKeepTheirOwnContexts) {
    TIMER_OBJ other;
    CallbackLog other_log;
    InitTimerObj(&timer, LogCallback, &log, 30);
    InitTimerObj(&other, LogCallback, &other_log, 20);
    KeSetTimer(&timer.Timer, timer.DueTime, &timer.Dpc);
    KeSetTimer(&other.Timer, other.DueTime, &other.Dpc);
    kernel().Sleep(40);
    EXPECT_EQ(log.objects, std::vector<PTIMER_OBJ>{&timer});
    EXPECT_EQ(log.times_ms, std::vector<int64_t>{30});
    EXPECT_EQ(other_log.objects, std::vector<PTIMER_OBJ>{&other});
    EXPECT_EQ(other_log.times_ms, std::vector<int64_t>{20});
}

} // namespace
