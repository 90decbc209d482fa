// Events, mutexes and waits with their kernel semantics.
#include "kernel_test.h"

#include <string>
#include <vector>

namespace {

LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

using Sync = KernelTest;

TEST_F(Sync, NotificationEventReleasesEveryWaiterAndStaysSignalled) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    int woken = 0;
    hk::Thread a("a", [&] {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        ++woken;
    });
    hk::Thread b("b", [&] {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        ++woken;
    });
    kernel().Sleep(1);
    EXPECT_EQ(woken, 0);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    a.Join();
    b.Join();
    EXPECT_EQ(woken, 2);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST_F(Sync, SynchronizationEventReleasesOneWaiterAndResets) {
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    int woken = 0;
    auto waiter = [&] {
        LARGE_INTEGER timeout = RelativeMs(100);
        if (KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout) == STATUS_SUCCESS)
            ++woken;
    };
    hk::Thread a("a", waiter);
    hk::Thread b("b", waiter);
    kernel().Sleep(1);
    KeSetEvent(&event, 0, FALSE);
    a.Join();
    b.Join();
    EXPECT_EQ(woken, 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST_F(Sync, ZeroTimeoutPollsWithoutBlockingAndADelayTakesVirtualTime) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    EXPECT_EQ(kernel().Now(), 0);
    LARGE_INTEGER interval = RelativeMs(1020);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_EQ(kernel().NowMs(), 1020);
}

TEST_F(Sync, MutexWaitersAcquireInArrivalOrder) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    std::vector<std::string> order;
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    std::vector<std::unique_ptr<hk::Thread>> threads;
    for (const char* name : {"first", "second", "third"}) {
        threads.push_back(std::make_unique<hk::Thread>(name, [&, name] {
            KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
            order.push_back(name);
            kernel().Sleep(5); // hold it across a blocking point
            KeReleaseMutex(&mutex, FALSE);
        }));
        kernel().Sleep(1); // each arrives in turn
    }
    EXPECT_TRUE(order.empty());
    KeReleaseMutex(&mutex, FALSE);
    for (auto& t : threads)
        t->Join();
    EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(Sync, MutexIsRecursiveForItsOwner) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    bool other_got_it = false;
    hk::Thread other("other", [&] {
        KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
        other_got_it = true;
        KeReleaseMutex(&mutex, FALSE);
    });
    KeReleaseMutex(&mutex, FALSE);
    kernel().Sleep(1);
    EXPECT_FALSE(other_got_it); // still held once
    KeReleaseMutex(&mutex, FALSE);
    other.Join();
    EXPECT_TRUE(other_got_it);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

TEST_F(Sync, MutexWaitTimesOut) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    NTSTATUS status = STATUS_PENDING;
    hk::Thread other("other", [&] {
        LARGE_INTEGER timeout = RelativeMs(50);
        status = KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, &timeout);
    });
    other.Join();
    EXPECT_EQ(status, STATUS_TIMEOUT);
    EXPECT_EQ(kernel().NowMs(), 50);
    KeReleaseMutex(&mutex, FALSE);
}

TEST_F(Sync, InterlockedOperationsReturnTheKernelsValues) {
    LONG volatile value = 5;
    EXPECT_EQ(InterlockedIncrement(&value), 6);
    EXPECT_EQ(InterlockedDecrement(&value), 5);
    EXPECT_EQ(InterlockedExchange(&value, 9), 5);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 8), 9); // no match: unchanged
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 9), 9);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(InterlockedExchangeAdd(&value, 4), 1);
    EXPECT_EQ(value, 5);
}

} // namespace
