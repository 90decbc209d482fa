// The timed request queues: the four time modes of the receive queue, the
// total and interval time-outs on explicit ticks, cancel and flush, and the
// write time-out with CTS flow control.
#include "serial_fixture.h"

#include <tuple>
#include <vector>

namespace {

using SqueueTest = SerialTest;

NTSTATUS StatusOf(const Completion* done) {
    return done != nullptr ? done->status : DEFAULT_STATUS;
}

// Every completion so far as (request, status, length), in order.
using Done = std::vector<std::tuple<PSER_REQUEST, NTSTATUS, ULONG>>;
Done Completed(const SerialFakes& fakes) {
    Done done;
    for (const Completion& completion : fakes.completions)
        done.emplace_back(completion.request, completion.status, completion.length);
    return done;
}

struct ModeCase {
    ULONG interval, multiplier, constant;
    ULONG mode;
    const char* traced; // the mode's name as traced; nullptr: not traced
};

class TimeModeTest : public SerialTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(TimeModeTest, ReadTimeoutsChooseTheMode) {
    TraceMask |= TL_SND;
    const ModeCase& c = GetParam();
    SetTimeouts(c.interval, c.multiplier, c.constant);
    EXPECT_EQ(port->RcvQueue.TimeMode, c.mode);
    EXPECT_EQ(dbg().Count("SqueueCheckTimeMode"), c.traced != nullptr ? 1u : 0u);
    if (c.traced != nullptr) {
        EXPECT_TRUE(
            dbg().Contains(std::string("ACM:SqueueCheckTimeMode: Set TimeMode to ") + c.traced));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Squeue, TimeModeTest,
    ::testing::Values(ModeCase{0, 0, 0, INTERVALTIME_OFF, "INTERVALTIME_OFF"},
                      ModeCase{0xFFFFFFFF, 0, 0, INTERVALTIME_NOWAIT, "INTERVALTIME_NOWAIT"},
                      ModeCase{0xFFFFFFFF, 0xFFFFFFFF, 500, INTERVALTIME_WAITFIRST,
                               "INTERVALTIME_WAITFIRST"},
                      ModeCase{0xFFFFFFFF, 0xFFFFFFFF, 0, INTERVALTIME_ON, nullptr},
                      ModeCase{50, 0, 0, INTERVALTIME_ON, nullptr}));

TEST_F(SqueueTest, WriteTimeoutsChooseTheMode) {
    SetTimeouts(0, 0, 0, 0, 0);
    EXPECT_EQ(port->SndQueue.TimeMode, (ULONG)INTERVALTIME_OFF);
    SetTimeouts(0, 0, 0, 0, 1);
    EXPECT_EQ(port->SndQueue.TimeMode, (ULONG)INTERVALTIME_ON);
}

TEST_F(SqueueTest, OffModeReadWaitsForItsWholeLength) {
    PSER_REQUEST read = NewRead(10);
    Indicate({1, 2, 3, 4});
    EXPECT_EQ(AddRead(read), STATUS_PENDING);
    EXPECT_EQ(port->RcvQueue.CurCount, 4u);
    Tick(1000);
    EXPECT_EQ(CompletionOf(read), nullptr);
    Indicate({5, 6, 7, 8, 9, 10});
    EXPECT_EQ(StatusOf(CompletionOf(read)), STATUS_SUCCESS);
    EXPECT_EQ(ReadData(read), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST_F(SqueueTest, WaitFirstCompletesWithTheFirstBytes) {
    SetTimeouts(0xFFFFFFFF, 0xFFFFFFFF, 500);
    PSER_REQUEST read = NewRead(10);
    AddRead(read);
    Tick(3);
    Indicate({7, 8, 9});
    EXPECT_EQ(StatusOf(CompletionOf(read)), STATUS_SUCCESS);
    EXPECT_EQ(ReadData(read), (Bytes{7, 8, 9}));
}

class WaitFirstTimeout : public SerialTest, public ::testing::WithParamInterface<ULONG> {};

TEST_P(WaitFirstTimeout, ExpiresOnTheTickAfterTheConstant) {
    const ULONG tick = GetParam();
    MakePort(1000, 1000, tick);
    SetTimeouts(0xFFFFFFFF, 0xFFFFFFFF, 500);
    PSER_REQUEST read = NewRead(10);
    AddRead(read);
    Tick(500 / tick);
    EXPECT_EQ(CompletionOf(read), nullptr);
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(read)), STATUS_TIMEOUT);
    EXPECT_EQ(read->Length, 0u);
}

INSTANTIATE_TEST_SUITE_P(Squeue, WaitFirstTimeout, ::testing::Values(10u, 7u, 1u, 100u));

// Every queued read's interval runs while the head is partly filled; bytes
// restart the head's only. The head times out after 6 ticks without a byte.
TEST_F(SqueueTest, IntervalsRunWhileTheHeadIsPartlyFilled) {
    SetTimeouts(50, 0, 0);
    PSER_REQUEST head = NewRead(10), next = NewRead(10);
    AddRead(head);
    AddRead(next);
    Tick(100);
    EXPECT_TRUE(fakes.completions.empty()) << "an empty read has no interval";
    Indicate({1, 2, 3});
    Tick(3);
    Indicate({4}); // restarts the head's interval only
    Tick(2);
    EXPECT_TRUE(fakes.completions.empty());
    Tick();
    EXPECT_EQ(Completed(fakes), (Done{{next, STATUS_TIMEOUT, 0}}));
    Tick(2);
    EXPECT_EQ(CompletionOf(head), nullptr);
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(head)), STATUS_TIMEOUT);
    EXPECT_EQ(ReadData(head), (Bytes{1, 2, 3, 4}));
}

// Bytes moved under one mode stay with the head when the time-outs change.
TEST_F(SqueueTest, WaitFirstTickCompletesAPartlyFilledHeadWithItsBytes) {
    SetTimeouts(0, 0, 1000);
    PSER_REQUEST read = NewRead(10);
    AddRead(read);
    Indicate({1, 2, 3});
    SetTimeouts(0xFFFFFFFF, 0xFFFFFFFF, 500);
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(read)), STATUS_TIMEOUT);
    EXPECT_EQ(ReadData(read), (Bytes{1, 2, 3}));
}

TEST_F(SqueueTest, NoWaitAfterASwitchCompletesEveryQueuedReadAtTheNextIndication) {
    PSER_REQUEST head = NewRead(10), next = NewRead(10);
    AddRead(head);
    AddRead(next);
    Indicate({1, 2});
    SetTimeouts(0xFFFFFFFF, 0, 0);
    EXPECT_TRUE(fakes.completions.empty());
    Indicate({3});
    EXPECT_EQ(Completed(fakes), (Done{{head, STATUS_SUCCESS, 3}, {next, STATUS_SUCCESS, 0}}));
    EXPECT_EQ(ReadData(head), (Bytes{1, 2, 3}));
}

TEST_F(SqueueTest, IntervalOfHalfTheRangeOrMoreExpiresAtTheNextTick) {
    SetTimeouts(0x80000000, 0, 0);
    PSER_REQUEST empty = NewRead(10);
    AddRead(empty);
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(empty)), STATUS_TIMEOUT);
    PSER_REQUEST partial = NewRead(10);
    AddRead(partial);
    Indicate({1, 2});
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(partial)), STATUS_TIMEOUT);
    EXPECT_EQ(partial->Length, 2u);
}

TEST_F(SqueueTest, TotalTimeThatWrapsNegativeBecomesMaxLong) {
    TraceMask |= TL_INFO;
    SetTimeouts(0, 0x7FFFFFFF, 0, 0x7FFFFFFF, 0);
    PSER_REQUEST write = NewWrite({1, 2});
    SendRequest(port, write);
    EXPECT_EQ(write->TotalTime, 0x7FFFFFFF);
    PSER_REQUEST read = NewRead(2);
    AddRead(read);
    EXPECT_EQ(read->TotalTime, 0x7FFFFFFF);
    EXPECT_EQ(dbg().Count("ACM:SqueueAddRequest:Overflow in TotalTime! Set time to MAXLONG!"), 2u);
}

// With the multiplier 0xFFFFFFFF only the constant counts, and a total of
// 0 is a time-out at the first tick, not an overflow.
class AllOnesMultiplier : public SerialTest, public ::testing::WithParamInterface<ULONG> {};

TEST_P(AllOnesMultiplier, CountsOnlyTheConstant) {
    TraceMask |= 0x4;
    const ULONG constant = GetParam();
    SetTimeouts(0, 0xFFFFFFFF, constant);
    ASSERT_EQ(port->RcvQueue.TimeMode, (ULONG)INTERVALTIME_ON);
    PSER_REQUEST read = NewRead(10);
    AddRead(read);
    EXPECT_EQ(read->TotalTime, (LONG)constant);
    Tick(constant / 10);
    EXPECT_EQ(CompletionOf(read), nullptr);
    Tick();
    EXPECT_EQ(StatusOf(CompletionOf(read)), STATUS_TIMEOUT);
    EXPECT_FALSE(dbg().Contains("Overflow"));
}

INSTANTIATE_TEST_SUITE_P(Squeue, AllOnesMultiplier, ::testing::Values(100u, 0u));

TEST_F(SqueueTest, TotalTimeoutReportsTheHeadsBytesOnly) {
    SetTimeouts(0, 10, 0); // 10 ms per byte
    PSER_REQUEST head = NewRead(5), next = NewRead(5);
    AddRead(head);
    AddRead(next);
    Indicate({1, 2});
    Tick(5);
    EXPECT_TRUE(fakes.completions.empty());
    Tick();
    EXPECT_EQ(Completed(fakes), (Done{{head, STATUS_TIMEOUT, 2}, {next, STATUS_TIMEOUT, 0}}));
}

TEST_F(SqueueTest, CancelOfTheSecondReadLeavesTheHeadsProgress) {
    PSER_REQUEST head = NewRead(10), second = NewRead(10);
    AddRead(head);
    AddRead(second);
    Indicate({1, 2, 3, 4});
    KIRQL irql;
    DEVICE_LOCK(dev.get(), &irql);
    EXPECT_FALSE(SqueueCancel(&port->RcvQueue, reinterpret_cast<PIRP>(&irql)));
    EXPECT_TRUE(SqueueCancel(&port->RcvQueue, second->Irp));
    DEVICE_UNLOCK(dev.get(), irql);
    EXPECT_EQ(StatusOf(CompletionOf(second)), STATUS_CANCELLED);
    EXPECT_EQ(second->Length, 0u);
    EXPECT_EQ(port->RcvQueue.CurCount, 4u);
    Indicate({5, 6, 7, 8, 9, 10});
    EXPECT_EQ(StatusOf(CompletionOf(head)), STATUS_SUCCESS);
    EXPECT_EQ(ReadData(head), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST_F(SqueueTest, FlushCancelsEveryRequestHeadFirst) {
    PSER_REQUEST head = NewRead(10), second = NewRead(10);
    AddRead(head);
    AddRead(second);
    Indicate({1, 2, 3});
    KIRQL irql;
    DEVICE_LOCK(dev.get(), &irql);
    SqueueFlush(&port->RcvQueue);
    DEVICE_UNLOCK(dev.get(), irql);
    EXPECT_EQ(Completed(fakes), (Done{{head, STATUS_CANCELLED, 3}, {second, STATUS_CANCELLED, 0}}));
    EXPECT_EQ(port->RcvQueue.CurPtr, nullptr);
}

// A write of 40 bytes into a 16-byte send buffer that nothing drains: the
// head has 16 bytes buffered when its 100 ms run out.
class CtsTimeoutTest : public SerialTest {
  protected:
    void SetUp() override {
        SerialTest::SetUp();
        TraceMask |= 0x100000;
        MakePort(100, 16, 10);
        fakes.engine.allowed = false;
        SetTimeouts(0, 0, 0, 0, 100);
        head = NewWrite(Bytes(40, 0x55));
        next = NewWrite(Bytes(5, 0x66));
        SendRequest(port, head);
        SendRequest(port, next);
    }
    PSER_REQUEST head = nullptr, next = nullptr;
};

TEST_F(CtsTimeoutTest, WritesNeverTimeOutWithoutCtsFlowControl) {
    Tick(1000);
    EXPECT_TRUE(fakes.completions.empty());
}

TEST_F(CtsTimeoutTest, InactiveCtsGrantsOneMoreSecondThenTimesOut) {
    dev->Cfg.useCtsFlowControl = 1;
    Tick(10);
    EXPECT_EQ(head->Flags & SER_REQUEST_CTS_GRANTED, 0u);
    Tick();
    EXPECT_NE(head->Flags & SER_REQUEST_CTS_GRANTED, 0u);
    EXPECT_NE(next->Flags & SER_REQUEST_CTS_GRANTED, 0u);
    EXPECT_EQ(head->TotalTime, 1000);
    EXPECT_EQ(dev->WaitingData, 16u) << "the head's buffered bytes may go out";
    if (!OnTwoProcessors()) {
        EXPECT_EQ(fakes.send_dpc_runs, 1) << "queued once, run after the lock was released";
    }
    EXPECT_TRUE(dbg().Contains("ACM:COM7:IRP with timout send 16 bytes"));
    EXPECT_TRUE(dbg().Contains("ACM:COM7:IRP with timout send 0 bytes"));

    Tick(100);
    EXPECT_TRUE(fakes.completions.empty());
    Tick();
    EXPECT_EQ(Completed(fakes), (Done{{head, STATUS_TIMEOUT, 16}, {next, STATUS_TIMEOUT, 0}}));
    EXPECT_EQ(dbg().Count("ACM:COM7:IRP with seconds timout, complete it with timeout"), 2u);
}

TEST_F(CtsTimeoutTest, ActiveCtsTimesOutAtOnce) {
    dev->Cfg.useCtsFlowControl = 1;
    dev->ModemStatus = 0x10;
    Tick(11);
    EXPECT_EQ(Completed(fakes), (Done{{head, STATUS_TIMEOUT, 16}, {next, STATUS_TIMEOUT, 0}}));
    EXPECT_EQ(fakes.send_dpc_runs, 0);
    EXPECT_EQ(dbg().Count("ACM:COM7:CTS active and timeout, complete IRP with timeout"), 2u);
}

} // namespace
