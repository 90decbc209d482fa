// The timed request queues on the real queue timer in virtual time: the
// time-outs choose each queue's mode, reads complete or time out at the tick
// the mode says, cancel and purge report the head's bytes only, and a write
// times out under CTS flow control.
#include "serial_port_test.h"

namespace {

constexpr ULONG kAll = 0xFFFFFFFF;

struct ModeCase {
    SERIAL_TIMEOUTS timeouts;
    ULONG read_mode, write_mode;
    const char* traced; // the read mode's name as traced; nullptr: not traced
};

class TimeMode : public SerialPortTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(TimeMode, TimeoutsChooseTheQueuesModes) {
    TraceMask |= TL_SND;
    const ModeCase& c = GetParam();
    SetTimeouts(c.timeouts);
    EXPECT_EQ(ser->RcvQueue.TimeMode, c.read_mode);
    EXPECT_EQ(ser->SndQueue.TimeMode, c.write_mode);
    EXPECT_EQ(dbg().Count("SqueueCheckTimeMode"), c.traced != nullptr ? 1u : 0u);
    if (c.traced != nullptr) {
        EXPECT_TRUE(
            dbg().Contains(std::string("SqueueCheckTimeMode: Set TimeMode to ") + c.traced));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Squeue, TimeMode,
    ::testing::Values(
        ModeCase{{0, 0, 0, 0, 0}, INTERVALTIME_OFF, INTERVALTIME_OFF, "INTERVALTIME_OFF"},
        ModeCase{{kAll, 0, 0, 0, 1}, INTERVALTIME_NOWAIT, INTERVALTIME_ON, "INTERVALTIME_NOWAIT"},
        ModeCase{{kAll, kAll, 500, 1, 0},
                 INTERVALTIME_WAITFIRST,
                 INTERVALTIME_ON,
                 "INTERVALTIME_WAITFIRST"},
        ModeCase{{kAll, kAll, 0, 0, 0}, INTERVALTIME_ON, INTERVALTIME_OFF, nullptr},
        ModeCase{{50, 0, 0, 0, 0}, INTERVALTIME_ON, INTERVALTIME_OFF, nullptr}));

// Reads queued at 0 ms on a port whose timer ticks every tick ms; bytes (or
// new time-outs) arrive later; each read ends as its outcome says.
struct Step {
    int64_t at_ms;
    Bytes received;
    const SERIAL_TIMEOUTS* timeouts = nullptr; // set after the bytes, when given
};
struct Outcome {
    NTSTATUS status;
    Bytes data;
    int64_t at_ms; // -1: still pending after 2 s
};
struct ReadCase {
    SERIAL_TIMEOUTS timeouts;
    std::vector<ULONG> reads;
    std::vector<Step> steps;
    std::vector<Outcome> outcomes;
    ULONG tick = 10;
};

class ReadTimes : public SerialPortTest, public ::testing::WithParamInterface<ReadCase> {
  protected:
    ReadTimes() { options_.timer_interval = GetParam().tick; }
};

TEST_P(ReadTimes, ReadsEndAtTheirTick) {
    const ReadCase& c = GetParam();
    TraceMask |= TL_INFO;
    SetTimeouts(c.timeouts);
    const int64_t start = kernel().NowMs();
    StartTimer(dev);
    std::vector<AppRequest*> reads;
    for (ULONG length : c.reads)
        reads.push_back(Read(length));
    for (const Step& step : c.steps) {
        RunFor(start + step.at_ms - kernel().NowMs());
        Receive(step.received);
        if (step.timeouts != nullptr)
            SetTimeouts(*step.timeouts);
    }
    RunFor(start + 2000 - kernel().NowMs());
    for (size_t i = 0; i < reads.size(); i++) {
        const Outcome& want = c.outcomes[i];
        SCOPED_TRACE("read " + std::to_string(i));
        ASSERT_EQ(reads[i]->completed, want.at_ms >= 0);
        if (!reads[i]->completed)
            continue;
        EXPECT_EQ(reads[i]->status, want.status);
        EXPECT_EQ(reads[i]->Data(), want.data);
        EXPECT_EQ(reads[i]->completed_at_ms - start, want.at_ms);
    }
    EXPECT_FALSE(dbg().Contains("Overflow"));
}

const SERIAL_TIMEOUTS kWaitFirst{kAll, kAll, 500, 0, 0}, kNoWait{kAll, 0, 0, 0, 0};
constexpr NTSTATUS kOk = STATUS_SUCCESS, kTimeout = STATUS_TIMEOUT;

// Ticks at 10, 20, ... ms unless a case says otherwise.
INSTANTIATE_TEST_SUITE_P(
    Squeue, ReadTimes,
    ::testing::Values(
        // Without time-outs a read waits for its whole length.
        ReadCase{{0, 0, 0, 0, 0},
                 {6},
                 {{5, {1, 2}}, {1505, {3, 4, 5, 6}}},
                 {{kOk, {1, 2, 3, 4, 5, 6}, 1505}}},
        // Waiting for the first bytes: they end the read, or the tick after the constant does.
        ReadCase{kWaitFirst, {10}, {{25, {7, 8, 9}}}, {{kOk, {7, 8, 9}, 25}}},
        ReadCase{kWaitFirst, {10}, {}, {{kTimeout, {}, 510}}},
        ReadCase{kWaitFirst, {10}, {}, {{kTimeout, {}, 504}}, 7},
        // Every read's interval runs while the head is partly filled; bytes
        // restart the head's only.
        ReadCase{{50, 0, 0, 0, 0},
                 {10, 10},
                 {{1005, {1, 2, 3}}, {1035, {4}}},
                 {{kTimeout, {1, 2, 3, 4}, 1090}, {kTimeout, {}, 1060}}},
        // An interval of half the range or more expires at the next tick.
        ReadCase{{0x80000000, 0, 0, 0, 0}, {10}, {}, {{kTimeout, {}, 10}}},
        ReadCase{{0x80000000, 0, 0, 0, 0}, {10}, {{5, {1, 2}}}, {{kTimeout, {1, 2}, 10}}},
        // The total time-out reports the head's bytes only.
        ReadCase{
            {0, 10, 0, 0, 0}, {5, 5}, {{5, {1, 2}}}, {{kTimeout, {1, 2}, 60}, {kTimeout, {}, 60}}},
        // An all-ones multiplier counts only the constant; a total of 0 is no overflow.
        ReadCase{{0, kAll, 100, 0, 0}, {10}, {}, {{kTimeout, {}, 110}}},
        ReadCase{{0, kAll, 0, 0, 0}, {10}, {}, {{kTimeout, {}, 10}}},
        // Bytes moved under one mode stay with the head when the time-outs change.
        ReadCase{
            {0, 0, 1000, 0, 0}, {10}, {{5, {1, 2, 3}, &kWaitFirst}}, {{kTimeout, {1, 2, 3}, 10}}},
        ReadCase{{0, 0, 0, 0, 0},
                 {10, 10},
                 {{5, {1, 2}, &kNoWait}, {15, {3}}},
                 {{kOk, {1, 2, 3}, 15}, {kOk, {}, 15}}}));

TEST_F(SerialPortTest, TotalTimesThatWrapNegativeBecomeMaxLong) {
    TraceMask |= TL_INFO;
    StartTimer(dev);
    SetTimeouts({0, 0x7FFFFFFF, 0, 0x7FFFFFFF, 0});
    ASSERT_TRUE(Wait(Write(Bytes{1, 2})));
    AppRequest* read = Read(2);
    RunFor(1000);
    EXPECT_FALSE(read->completed);
    EXPECT_EQ(dbg().Count("ACM:SqueueAddRequest:Overflow in TotalTime! Set time to MAXLONG!"), 2u);
}

TEST_F(SerialPortTest, CancelAndPurgeReportTheHeadsBytesOnlyHeadFirst) {
    AppRequest* head = Read(10);
    AppRequest* second = Read(10);
    AppRequest* third = Read(10);
    Receive(Bytes{1, 2, 3, 4});
    Cancel(second);
    ASSERT_TRUE(Wait(second));
    EXPECT_EQ(second->status, STATUS_CANCELLED);
    EXPECT_EQ(second->information, 0u);

    const ULONG purge = SERIAL_PURGE_RXABORT;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&purge);
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_PURGE, {bytes, bytes + 4}, 0)));
    ASSERT_TRUE(Wait(head) && Wait(third));
    EXPECT_EQ(head->status, STATUS_CANCELLED);
    EXPECT_EQ(head->Data(), Bytes({1, 2, 3, 4}));
    EXPECT_EQ(third->status, STATUS_CANCELLED);
    EXPECT_EQ(third->information, 0u);
    if (!OnTwoProcessors()) { // there the completion DPC may finish them in either order
        EXPECT_LT(head->completion_order, third->completion_order);
    }
}

// A write of 40 bytes into a 16-byte send buffer, with a write total
// time-out of 100 ms, and a 5-byte write behind it.
struct CtsCase {
    bool flow_control, cts, send_allowed;
    int64_t timeout_ms; // -1: neither write times out
    ULONG head_bytes;   // the head's bytes buffered when it timed out
    size_t sent;        // bytes that reached the modem
    const char* traced;
};

class WriteTimeout : public SerialPortTest, public ::testing::WithParamInterface<CtsCase> {
  protected:
    WriteTimeout() { options_.snd_buffer = 16; }
};

TEST_P(WriteTimeout, OnlyUnderCtsFlowControl) {
    const CtsCase& c = GetParam();
    TraceMask |= TL_CTS;
    dev->Cfg.useCtsFlowControl = c.flow_control;
    Locked([&] {
        dev->ModemStatus = c.cts ? SERIAL_MSR_CTS : 0;
        dev->SendAllowed = c.send_allowed;
    });
    SetTimeouts({0, 0, 0, 0, 100});
    const int64_t start = kernel().NowMs();
    StartTimer(dev);
    AppRequest* head = Write(Bytes(40, 0x55));
    AppRequest* next = Write(Bytes(5, 0x66));
    RunFor(2000);
    EXPECT_EQ(modem->Pull(), Bytes(c.sent, 0x55));
    ASSERT_EQ(head->completed, c.timeout_ms >= 0);
    ASSERT_EQ(next->completed, c.timeout_ms >= 0);
    if (c.timeout_ms < 0)
        return;
    EXPECT_EQ(head->status, STATUS_TIMEOUT);
    EXPECT_EQ(head->information, c.head_bytes);
    EXPECT_EQ(head->completed_at_ms - start, c.timeout_ms);
    EXPECT_EQ(next->status, STATUS_TIMEOUT);
    EXPECT_EQ(next->information, 0u);
    EXPECT_EQ(dbg().Count(c.traced), 2u);
}

// Without flow control; CTS active; CTS inactive, which grants the head's
// buffered bytes and one more second.
INSTANTIATE_TEST_SUITE_P(
    Squeue, WriteTimeout,
    ::testing::Values(CtsCase{false, false, false, -1, 0, 0, ""},
                      CtsCase{true, true, false, 110, 16, 0,
                              "ACM:COM3:CTS active and timeout, complete IRP with timeout"},
                      CtsCase{true, false, true, 1120, 32, 16,
                              "ACM:COM3:IRP with seconds timout, complete it with timeout"}));

} // namespace
