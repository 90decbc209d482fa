// Read and write requests through the read and write dispatch routines, from
// the application's side: synchronous and pended completion, the completion
// DPC, and the request pool's limit. Cancelling them: pending ones come back
// through the normal completion path with the bytes already moved; one
// cancelled before the driver saw it is completed at once.
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

// --- cancellation ---

class Cancel : public DeviceFixture {};

class CancelSmallSendBuffer : public DeviceFixture {
  protected:
    CancelSmallSendBuffer() { options_.snd_buffer = 16; }
};

TEST_F(Cancel, PendingReadCompletesWithTheBytesAlreadyMoved) {
    TraceMask |= TL_INFO;
    AppRequest* read = Read(10);
    ASSERT_EQ(read->returned, STATUS_PENDING);
    Receive("abc");
    EXPECT_FALSE(read->completed);

    DeviceFixture::Cancel(read);
    ASSERT_TRUE(Wait(read, 0)) << "completed by the DPC once the locks were released";
    EXPECT_EQ(read->status, STATUS_CANCELLED);
    EXPECT_EQ(read->information, 3u);
    EXPECT_EQ(read->Data(), Bytes({'a', 'b', 'c'}));
    EXPECT_EQ(read->completions, 1);
    EXPECT_EQ(ser->Settings.ReceivedCount, 3u);
    EXPECT_TRUE(IsListEmpty(&port->ReadIrpQueue.Irps));
    EXPECT_TRUE(IsListEmpty(&ser->RcvQueue.List));
    EXPECT_EQ(port->RequestPool.Count, 0u);
    EXPECT_TRUE(dbg().Contains("ACM:COM3S:IrpQueue_IrpCancelRoutine"));
    EXPECT_TRUE(dbg().Contains("]CompleteRequest (")) << "a failed request is an error line";
}

TEST_F(CancelSmallSendBuffer, PendingWriteCompletesWithTheBytesBuffered) {
    AppRequest* write = Write(Bytes(40, 'w'));
    ASSERT_EQ(write->returned, STATUS_PENDING);
    EXPECT_FALSE(write->completed) << "24 bytes still wait for room";
    EXPECT_EQ(ser->CircSendBuf.Count, 16u);

    DeviceFixture::Cancel(write);
    ASSERT_TRUE(Wait(write, 0));
    EXPECT_EQ(write->status, STATUS_CANCELLED);
    EXPECT_EQ(write->information, 16u);
    EXPECT_EQ(ser->Settings.TransmittedCount, 16u);
    EXPECT_TRUE(IsListEmpty(&port->WriteIrpQueue.Irps));
    EXPECT_EQ(port->RequestPool.Count, 0u);
}

TEST_F(Cancel, RequestCancelledBeforeItIsQueuedCompletesAtOnce) {
    AppRequest* read = Read(10, /*cancel_first=*/true);
    EXPECT_EQ(read->returned, STATUS_CANCELLED);
    ASSERT_TRUE(read->completed) << "completed by the dispatch routine";
    EXPECT_EQ(read->status, STATUS_CANCELLED);
    EXPECT_EQ(read->information, 0u);
    EXPECT_FALSE(read->pending_returned);
    EXPECT_TRUE(IsListEmpty(&port->ReadIrpQueue.Irps));
    EXPECT_TRUE(IsListEmpty(&ser->RcvQueue.List)) << "the request never reached the port";
    EXPECT_EQ(port->RequestPool.Count, 0u) << "the request went back to the pool";

    AppRequest* write = Write(Bytes{'x'}, /*cancel_first=*/true);
    EXPECT_EQ(write->returned, STATUS_CANCELLED);
    EXPECT_EQ(write->status, STATUS_CANCELLED);
    EXPECT_EQ(ser->CircSendBuf.Count, 0u);
    EXPECT_EQ(port->RequestPool.Count, 0u);
}

TEST_F(Cancel, CancelOfAnIrpWhoseRequestAlreadyFinishedOnlyTraces) {
    PIRP irp = IoAllocateIrp(data_port->StackSize, FALSE);
    IoSetNextIrpStackLocation(irp);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    irp->CancelIrql = irql;
    // The cancel routine releases the cancel spin lock itself.
    IrpQueue_IrpCancelRoutine(data_port, irp);
    EXPECT_TRUE(dbg().Contains("ACM:COM3S:IrpQueue_IrpCancelRoutine: The IRP was not found"));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    IoSkipCurrentIrpStackLocation(irp); // back to the caller's side before it is freed
    IoFreeIrp(irp);
}

// The cancel routine lets the cancel spin lock go before it takes the device
// lock. Code that takes the cancel spin lock inside the device lock, as a
// request path may, then cannot deadlock against it: the verifier reports an
// inverted order the first time it is taken.
TEST_F(Cancel, CancelRoutineReleasesTheCancelLockBeforeTakingTheDeviceLock) {
    KIRQL irql, cancel_irql;
    KeAcquireSpinLock(&dev->Lock, &irql);
    IoAcquireCancelSpinLock(&cancel_irql);
    IoReleaseCancelSpinLock(cancel_irql);
    KeReleaseSpinLock(&dev->Lock, irql);

    AppRequest* read = Read(10);
    DeviceFixture::Cancel(read);
    ASSERT_TRUE(Wait(read, 0));
    EXPECT_EQ(read->status, STATUS_CANCELLED);
}

} // namespace
