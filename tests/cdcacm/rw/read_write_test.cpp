// Read and write requests through the read and write dispatch routines, from
// the application's side: synchronous and pended completion, the completion
// DPC, and the request pool's limit.
#include "device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

class ReadWrite : public DeviceFixture {};

// A zero-length read completes inside the dispatch routine without reaching
// the port; a zero-length write is pended and completes with nothing.
TEST_F(ReadWrite, ZeroLengthRequestsCompleteWithNothing) {
    AppRequest* read = Read(0);
    EXPECT_EQ(read->returned, STATUS_SUCCESS);
    ASSERT_TRUE(read->completed);
    EXPECT_FALSE(read->pending_returned);
    EXPECT_TRUE(IsListEmpty(&ser->RcvQueue.List));
    AppRequest* write = Write(Bytes{});
    EXPECT_EQ(write->returned, STATUS_PENDING);
    ASSERT_TRUE(Wait(write));
    EXPECT_TRUE(write->pending_returned);
    EXPECT_TRUE(dbg().Contains("ASSERTION FAILED: (Request->Length != 0)"));
    for (AppRequest* request : {read, write}) {
        EXPECT_EQ(request->status, STATUS_SUCCESS);
        EXPECT_EQ(request->information, 0u);
    }
}

TEST_F(ReadWrite, ImmediateReadTakesWhatIsBufferedAndIsNeverPended) {
    SetReadTimeouts(0xFFFFFFFF, 0, 0);
    ASSERT_TRUE(port->WaitForImmediate);
    EXPECT_EQ(Receive("hello"), 5u);

    AppRequest* read = Read(10);
    EXPECT_EQ(read->returned, STATUS_SUCCESS);
    ASSERT_TRUE(read->completed) << "completed by the dispatch routine itself";
    EXPECT_FALSE(read->pending_returned);
    EXPECT_EQ(read->status, STATUS_SUCCESS);
    EXPECT_EQ(read->Data(), Bytes({'h', 'e', 'l', 'l', 'o'}));
    EXPECT_EQ(ser->Settings.ReceivedCount, 5u);
    EXPECT_EQ(port->RequestPool.Count, 0u) << "the request went back to the pool";
    EXPECT_TRUE(IsListEmpty(&port->ReadIrpQueue.Irps));

    AppRequest* empty = Read(10);
    EXPECT_EQ(empty->returned, STATUS_SUCCESS);
    EXPECT_EQ(empty->information, 0u);
}

TEST_F(ReadWrite, PendedReadCompletesThroughTheDpcWhenItsBytesArrive) {
    TraceMask |= TL_WAIT | TL_RW;
    AppRequest* read = Read(4);
    EXPECT_EQ(read->returned, STATUS_PENDING);
    EXPECT_FALSE(read->completed);
    EXPECT_FALSE(IsListEmpty(&port->ReadIrpQueue.Irps));

    Receive("ab");
    EXPECT_FALSE(read->completed);
    Receive("cdef");
    ASSERT_TRUE(Wait(read));
    EXPECT_EQ(read->status, STATUS_SUCCESS);
    EXPECT_EQ(read->Data(), Bytes({'a', 'b', 'c', 'd'}));
    EXPECT_TRUE(read->pending_returned);
    EXPECT_TRUE(read->context_cleared) << "the queue's words in the IRP are the driver's no more";
    EXPECT_TRUE(IsListEmpty(&port->ReadIrpQueue.Irps));
    EXPECT_EQ(ser->CircRcvBuf.Count, 2u);
    EXPECT_TRUE(dbg().Contains("ACM:COM3S:[DispatchRead len:4"));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:[CompleteRequest read Size(4) Status(0)"));
    EXPECT_TRUE(dbg().Contains("ACM:CompleteDpcRoutine Irp:"));
}

TEST_F(ReadWrite, WriteThatFitsCompletesInFullBeforeAnyByteReachesUsb) {
    AppRequest* write = Write("0123456789");
    EXPECT_EQ(write->returned, STATUS_PENDING);
    ASSERT_TRUE(Wait(write, 0)) << "completed by the DPC as soon as the lock was released";
    EXPECT_EQ(write->status, STATUS_SUCCESS);
    EXPECT_EQ(write->information, 10u);
    EXPECT_TRUE(write->pending_returned);
    RunFor(10);
    EXPECT_TRUE(modem->Pull().empty()) << "the pipes are not running";
    EXPECT_EQ(ser->CircSendBuf.Count, 10u);
    EXPECT_EQ(ser->Settings.TransmittedCount, 10u);
    EXPECT_TRUE(IsListEmpty(&port->WriteIrpQueue.Irps));
}

TEST_F(ReadWrite, PppTraceDumpsTheFirst32BytesOfAWrite) {
    TraceMask |= TL_PPP;
    Write(std::string(40, 'A'));
    EXPECT_EQ(dbg().Count("ACM:COM3S:[DispatchWrite len:40"), 1u);
    EXPECT_TRUE(dbg().Contains("...")) << "more than 32 bytes";
    dbg().Clear();
    Write(std::string(32, 'B'));
    EXPECT_EQ(dbg().Count("ACM:COM3S:[DispatchWrite len:32"), 1u);
    EXPECT_FALSE(dbg().Contains("..."));
}

TEST_F(ReadWrite, BurstOfFinishedReadsCompletesInQueueOrder) {
    if (OnTwoProcessors())
        GTEST_SKIP() << "one DPC run completes the burst only on one processor";
    AppRequest* first = Read(2);
    AppRequest* second = Read(2);
    AppRequest* third = Read(2);
    Receive("aabbcc");
    ASSERT_TRUE(Wait(third));
    ASSERT_TRUE(first->completed && second->completed);
    EXPECT_LT(first->completion_order, second->completion_order);
    EXPECT_LT(second->completion_order, third->completion_order);
    EXPECT_EQ(second->Data(), Bytes({'b', 'b'}));
}

TEST_F(ReadWrite, FiftySixthConcurrentReadFailsForLackOfRequests) {
    std::vector<AppRequest*> reads;
    for (int i = 0; i < 55; i++) {
        reads.push_back(Read(1));
        ASSERT_EQ(reads.back()->returned, STATUS_PENDING) << "read " << i + 1;
    }
    EXPECT_FALSE(dbg().Contains("request dpool to small"));
    AppRequest* refused = Read(1);
    EXPECT_EQ(refused->returned, STATUS_INSUFFICIENT_RESOURCES);
    ASSERT_TRUE(refused->completed);
    EXPECT_EQ(refused->status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(refused->information, 0u);
    EXPECT_TRUE(dbg().Contains("ACM:COM3S:DispatchRead: request dpool to small"));

    // A write finds the pool exhausted too.
    AppRequest* write = Write("x");
    EXPECT_EQ(write->returned, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(dbg().Contains("ACM:COM3S:DispatchWrite: request dpool to small"));

    // One read finishing frees its request for the next one.
    Receive("z");
    ASSERT_TRUE(Wait(reads.front()));
    EXPECT_EQ(Read(1)->returned, STATUS_PENDING);
}

} // namespace
