// Events, mutexes and waits with their kernel semantics.
#include "kernel_test.h"

#include <string>
#include <vector>

namespace {

NTSTATUS Wait(PVOID object, int64_t timeout_ms = -1) {
    LARGE_INTEGER timeout = RelativeMs(timeout_ms);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE,
                                 timeout_ms < 0 ? nullptr : &timeout);
}

using Sync = KernelTest;

TEST_F(Sync, MutexWaitersAcquireInArrivalOrder) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    std::vector<std::string> order;
    Wait(&mutex);
    std::vector<std::unique_ptr<hk::Thread>> threads;
    for (const char* name : {"first", "second", "third"}) {
        threads.push_back(std::make_unique<hk::Thread>(name, [&, name] {
            Wait(&mutex);
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

// Taken twice by its owner, a mutex is still held after one release: another
// thread's wait times out at its deadline.
TEST_F(Sync, MutexIsRecursiveForItsOwnerAndOtherWaitsTimeOut) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    Wait(&mutex);
    Wait(&mutex);
    KeReleaseMutex(&mutex, FALSE);
    NTSTATUS status = STATUS_PENDING;
    hk::Thread("other", [&] { status = Wait(&mutex, 50); }).Join();
    EXPECT_EQ(status, STATUS_TIMEOUT);
    EXPECT_EQ(kernel().NowMs(), 50);
    EXPECT_EQ(KeReadStateMutex(&mutex), 0);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

} // namespace
