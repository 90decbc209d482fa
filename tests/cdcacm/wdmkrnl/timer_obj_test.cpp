// Timer objects: initialisation stores the relative due time and arms
// nothing. Their firing is exercised by the driver's timers (the read
// time-outs and the queue timer).
#include "driver_test.h"

#include <utility>

namespace {

VOID CountCallback(PTIMER_OBJ, PVOID Context) {
    ++*static_cast<int*>(Context);
}

using TimerObjTest = DriverTest;

TEST_F(TimerObjTest, InitStoresA64BitRelativeDueTimeAndDoesNotArm) {
    TIMER_OBJ timer;
    int calls = 0;
    for (auto [ms, due] :
         {std::pair<ULONG, LONGLONG>{500, -5000000}, {0xFFFFFFFFu, -42949672950000LL}, {0, 0}}) {
        InitTimerObj(&timer, CountCallback, &calls, ms);
        EXPECT_EQ(timer.DueTime.QuadPart, due);
    }
    EXPECT_EQ(timer.Context, &calls);
    EXPECT_FALSE(KeCancelTimer(&timer.Timer));
    kernel().Sleep(1000);
    EXPECT_EQ(calls, 0);
}

} // namespace
