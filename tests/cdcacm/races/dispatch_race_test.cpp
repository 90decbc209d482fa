// Races of the write path, the work queue and the PPP frame boundary, run on
// two emulated processors under many seeds of the interleaving mode. Each
// seed gets a fresh machine and device; a failure names the assignments that
// replay it.
#include "device_fixture.h"

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Enough seeds that each window below showed up before it was closed.
constexpr uint64_t kSeeds = 150;

class Race : public DeviceFixture {
  protected:
    Options DeviceOptions() override {
        Options options;
        options.snd_buffer = 16; // a 40-byte write waits for room
        return options;
    }
    // Runs body once per seed, each on a fresh machine and device.
    template <typename Body> void ForEachSeed(uint64_t seeds, Body body) {
        for (uint64_t seed = 1; seed <= seeds && !HasFailure(); ++seed) {
            DeviceFixture::TearDown();
            hk::KernelOptions options;
            options.seed = seed;
            options.interleave.enabled = true;
            UseOptions(options);
            DeviceFixture::SetUp();
            SCOPED_TRACE(options.Replay());
            body();
        }
    }
};

// Whether the data port was already deleted, at each run of the work.
struct RunRecord {
    const DeviceRig* rig;
    std::vector<bool> deleted_at_run;
};

NTSTATUS CountRun(PVOID Context) {
    auto* record = static_cast<RunRecord*>(Context);
    record->deleted_at_run.push_back(record->rig->DataPortDeleted());
    return STATUS_SUCCESS;
}

// The originator keeps its IRP until both the completion and its own cancel
// are over, as a driver cancelling an IRP it allocated must.
struct KeptIrp {
    KEVENT done;
    NTSTATUS status = STATUS_PENDING;
    int completions = 0;
};

NTSTATUS NTAPI KeepIrp(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    auto* kept = static_cast<KeptIrp*>(Context);
    kept->status = Irp->IoStatus.Status;
    kept->completions++;
    KeSetEvent(&kept->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(Race, AWriteCancelledWhileItIsDispatchedIsNeverLost) {
    ForEachSeed(kSeeds, [&] {
        KeptIrp kept;
        KeInitializeEvent(&kept.done, NotificationEvent, FALSE);
        Bytes data(40, 'w');
        PIRP irp = IoAllocateIrp(data_port_->StackSize, FALSE);
        irp->AssociatedIrp.SystemBuffer = data.data();
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_WRITE;
        stack->Parameters.Write.Length = 40;
        IoSetCompletionRoutine(irp, KeepIrp, &kept, TRUE, TRUE, TRUE);
        hk::Thread canceller("canceller", [irp] { IoCancelIrp(irp); });
        IoCallDriver(data_port_, irp);
        LARGE_INTEGER timeout = RelativeMs(1000);
        KeWaitForSingleObject(&kept.done, Executive, KernelMode, FALSE, &timeout);
        canceller.Join();
        EXPECT_EQ(kept.completions, 1) << "the cancel was lost and the write waits for room";
        EXPECT_EQ(kept.status, STATUS_CANCELLED);
        if (kept.completions == 0) {
            KIRQL irql;
            KeAcquireSpinLock(&dev_->Lock, &irql);
            SqueueCancel(&ser_->SndQueue, irp); // lets the seed end cleanly
            KeReleaseSpinLock(&dev_->Lock, irql);
            RunFor(1);
        }
        IoFreeIrp(irp);
    });
}

TEST_F(Race, NoWorkIsQueuedForADeviceWhoseLastReferenceWentAway) {
    ForEachSeed(kSeeds, [&] {
        RunRecord record{&rig_, {}};
        hk::Thread remover("remover", [&] {
            if (InterlockedDecrement(&dev_->RefCount) == 0)
                DeleteDevice(data_port_);
        });
        BOOLEAN queued = WorkerQueue(dev_, CountRun, &record, nullptr);
        remover.Join();
        RunFor(1);
        EXPECT_TRUE(rig_.DataPortDeleted()) << "the last reference deletes the device";
        EXPECT_EQ(record.deleted_at_run.size(), queued ? 1u : 0u);
        if (queued && record.deleted_at_run.size() == 1) {
            EXPECT_FALSE(record.deleted_at_run[0]) << "the work ran on a deleted device";
        }
    });
}

TEST_F(Race, TheFrameBoundaryEventNeverOutlivesTheFlagItStandsFor) {
    ForEachSeed(kSeeds, [&] {
        StartPipes();
        AppRequest* boundary = Write("x~");
        ASSERT_TRUE(Wait(boundary));
        ASSERT_TRUE(KeReadStateEvent(&dev_->FlagSentEvent));
        bool writer_done = false;
        hk::Thread writer("writer", [&] {
            Wait(Write("yz"));
            writer_done = true;
        });
        // A mode switch waiting for the event at any moment must not find it
        // signalled once bytes after the flag have left the send buffer.
        while (!writer_done) {
            KIRQL irql;
            KeAcquireSpinLock(&dev_->Lock, &irql);
            bool after_flag_taken =
                ser_->Settings.TransmittedCount == 4 && ser_->CircSendBuf.Count == 0;
            bool boundary_signalled = KeReadStateEvent(&dev_->FlagSentEvent) != 0;
            KeReleaseSpinLock(&dev_->Lock, irql);
            ASSERT_FALSE(after_flag_taken && boundary_signalled);
            LARGE_INTEGER tick;
            tick.QuadPart = -10;
            KeDelayExecutionThread(KernelMode, FALSE, &tick);
        }
        RunFor(5);
        EXPECT_EQ(modem_->Pull(), Bytes({'x', '~', 'y', 'z'}));
        EXPECT_FALSE(dev_->FlagSent);
        EXPECT_FALSE(KeReadStateEvent(&dev_->FlagSentEvent)) << "bytes after the flag clear it";
    });
}

} // namespace
