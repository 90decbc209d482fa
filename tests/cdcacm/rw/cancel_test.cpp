// Cancelling read and write requests: pending ones come back through the
// normal completion path with the bytes already moved; one cancelled before
// the driver saw it is completed at once.
#include "device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

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
