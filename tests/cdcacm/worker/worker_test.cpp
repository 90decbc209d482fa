// Work items: run at PASSIVE_LEVEL on the system worker thread under the
// device's DeviceMutex, complete their IRP with the function's status after
// the mutex is released, and keep the device referenced while queued.
#include "device_fixture.h"

namespace {

class Worker : public DeviceFixture {
  protected:
    struct Probe {
        Worker* test = nullptr;
        NTSTATUS result = STATUS_SUCCESS;
        int runs = 0;
        KIRQL irql = HIGH_LEVEL;
        bool mutex_held = false;
        bool irp_completed_during_run = false;
        AppRequest* request = nullptr;
        LONG refs_during_run = 0;
        bool mutex_free_at_completion = false;
    };

    static NTSTATUS Work(PVOID context) {
        auto* probe = static_cast<Probe*>(context);
        probe->runs++;
        probe->irql = KeGetCurrentIrql();
        probe->mutex_held = KeReadStateMutex(&probe->test->dev->DeviceMutex) <= 0;
        probe->irp_completed_during_run = probe->request != nullptr && probe->request->completed;
        probe->refs_during_run = probe->test->dev->RefCount;
        return probe->result;
    }

    Probe MakeProbe(NTSTATUS result = STATUS_SUCCESS) {
        Probe probe;
        probe.test = this;
        probe.result = result;
        return probe;
    }

    // An IRP the dispatch routine hands to a work item, as the serial
    // controls that must wait for the modem do.
    AppRequest* PendedControl(Probe* probe, BOOLEAN* queued) {
        AppRequest* request = Prepare(IRP_MJ_DEVICE_CONTROL, 4);
        probe->request = request;
        request->on_complete = [this, probe] {
            probe->mutex_free_at_completion = KeReadStateMutex(&dev->DeviceMutex) == 1;
        };
        driver.MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchToWorker;
        current_ = this;
        current_probe_ = probe;
        Send(request);
        *queued = last_queued_;
        return request;
    }

    static NTSTATUS NTAPI DispatchToWorker(PDEVICE_OBJECT, PIRP Irp) {
        current_->last_queued_ = WorkerQueue(current_->dev, Work, current_probe_, Irp);
        if (current_->last_queued_)
            return STATUS_PENDING;
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
    }

    bool last_queued_ = false;
    static inline Worker* current_ = nullptr;
    static inline Probe* current_probe_ = nullptr;
};

TEST_F(Worker, IrpCompletesWithTheFunctionsStatusAfterTheMutexIsReleased) {
    TraceMask = 0x2000;
    Probe probe = MakeProbe(STATUS_TIMEOUT);
    BOOLEAN queued = FALSE;
    // Held, so that the work cannot run on another worker before the checks.
    KeWaitForSingleObject(&dev->DeviceMutex, Executive, KernelMode, FALSE, nullptr);
    AppRequest* request = PendedControl(&probe, &queued);
    EXPECT_EQ(request->returned, STATUS_PENDING);
    EXPECT_EQ(dev->RefCount, 2) << "the work item holds a reference";
    EXPECT_EQ(probe.runs, 0) << "runs on the worker thread, not in the caller";
    KeReleaseMutex(&dev->DeviceMutex, FALSE);
    ASSERT_TRUE(queued);

    ASSERT_TRUE(Wait(request));
    RunFor(10); // the work item goes on after the completion
    EXPECT_EQ(probe.runs, 1);
    EXPECT_EQ(probe.irql, PASSIVE_LEVEL);
    EXPECT_TRUE(probe.mutex_held);
    EXPECT_FALSE(probe.irp_completed_during_run);
    EXPECT_EQ(request->status, STATUS_TIMEOUT);
    EXPECT_TRUE(request->pending_returned);
    EXPECT_TRUE(probe.mutex_free_at_completion) << "released before the IRP completes";
    EXPECT_EQ(dev->RefCount, 1);
    EXPECT_FALSE(DataPortDeleted());

    // The reference lines have a bit of their own; the work item's steps
    // are details.
    EXPECT_TRUE(dbg().Contains("ACM:COM3:IncRef: 2, source/cdcacm/worker("));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:DecRef: 1, source/cdcacm/worker("));
    EXPECT_FALSE(dbg().Contains("_WorkerFuntion"));
}

TEST_F(Worker, QueuedWorkKeepsARemovedDeviceUntilItHasRun) {
    Probe probe = MakeProbe(STATUS_SUCCESS);
    BOOLEAN queued = FALSE;
    KeWaitForSingleObject(&dev->DeviceMutex, Executive, KernelMode, FALSE, nullptr);
    AppRequest* request = PendedControl(&probe, &queued);
    ASSERT_TRUE(queued);
    bool deleted_before_completion = true;
    request->on_complete = [&] { deleted_before_completion = DataPortDeleted(); };
    // Removal drops the data port's own reference while the work is queued;
    // the work item's remains.
    EXPECT_EQ(InterlockedDecrement(&dev->RefCount), 1);
    KeReleaseMutex(&dev->DeviceMutex, FALSE);

    ASSERT_TRUE(Wait(request));
    RunFor(10); // the work item goes on after the completion
    EXPECT_FALSE(deleted_before_completion) << "the IRP completes before the data port goes";
    EXPECT_EQ(probe.refs_during_run, 1);
    EXPECT_EQ(dev->RefCount, 0);
    EXPECT_TRUE(DataPortDeleted()) << "the work item deleted the data port";
    EXPECT_EQ(request->status, STATUS_SUCCESS);
}

TEST_F(Worker, NoWorkIsQueuedForADeviceWithoutReferencesOrWithoutPool) {
    Probe probe = MakeProbe();
    dev->RefCount = 0;
    BOOLEAN queued = TRUE;
    AppRequest* request = PendedControl(&probe, &queued);
    EXPECT_FALSE(queued);
    EXPECT_EQ(request->returned, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(request->pending_returned) << "the IRP was not touched";
    dev->RefCount = 1;

    auto& knob =
        kernel().pool().Faults().Add("record", hk::FaultKnob{.nth = 1, .match = WORKER_REC_TAG});
    EXPECT_FALSE(WorkerQueue(dev, Work, &probe, nullptr));
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(dev->RefCount, 1);
    RunFor(10);
    EXPECT_EQ(probe.runs, 0);
    EXPECT_EQ(kernel().pool().ForTag(WORKER_REC_TAG).blocks, 0u);
}

} // namespace
