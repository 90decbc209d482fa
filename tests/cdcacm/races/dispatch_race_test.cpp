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
    Race() {
        options_.snd_buffer = 16;  // a 40-byte write waits for room
        options_.keep_irps = true; // the canceller thread may still hold a completed IRP
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

TEST_F(Race, AWriteCancelledWhileItIsDispatchedIsNeverLost) {
    ForEachSeed(kSeeds, 100, [&] {
        AppRequest* write = Prepare(IRP_MJ_WRITE, 40);
        IoGetNextIrpStackLocation(write->irp)->Parameters.Write.Length = 40;
        hk::Thread canceller("canceller", [write] { IoCancelIrp(write->irp); });
        Send(write);
        Wait(write, 1000);
        canceller.Join();
        EXPECT_EQ(write->completions, 1) << "the cancel was lost and the write waits for room";
        EXPECT_EQ(write->status, STATUS_CANCELLED);
        if (!write->completed) {
            Locked([&] { SqueueCancel(&ser->SndQueue, write->irp); }); // lets the seed end cleanly
            RunFor(1);
        }
    });
}

TEST_F(Race, NoWorkIsQueuedForADeviceWhoseLastReferenceWentAway) {
    ForEachSeed(kSeeds, 100, [&] {
        RunRecord record{this, {}};
        hk::Thread remover("remover", [&] {
            if (InterlockedDecrement(&dev->RefCount) == 0)
                DeleteDevice(data_port);
        });
        BOOLEAN queued = WorkerQueue(dev, CountRun, &record, nullptr);
        remover.Join();
        RunFor(1);
        EXPECT_TRUE(DataPortDeleted()) << "the last reference deletes the device";
        EXPECT_EQ(record.deleted_at_run.size(), queued ? 1u : 0u);
        if (queued && record.deleted_at_run.size() == 1) {
            EXPECT_FALSE(record.deleted_at_run[0]) << "the work ran on a deleted device";
        }
    });
}

TEST_F(Race, TheFrameBoundaryEventNeverOutlivesTheFlagItStandsFor) {
    ForEachSeed(kSeeds, 100, [&] {
        StartPipes();
        AppRequest* boundary = Write("x~");
        ASSERT_TRUE(Wait(boundary));
        ASSERT_TRUE(KeReadStateEvent(&dev->FlagSentEvent));
        bool writer_done = false;
        hk::Thread writer("writer", [&] {
            Wait(Write("yz"));
            writer_done = true;
        });
        // A mode switch waiting for the event at any moment must not find it
        // signalled once bytes after the flag have left the send buffer.
        while (!writer_done) {
            KIRQL irql;
            KeAcquireSpinLock(&dev->Lock, &irql);
            bool after_flag_taken =
                ser->Settings.TransmittedCount == 4 && ser->CircSendBuf.Count == 0;
            bool boundary_signalled = KeReadStateEvent(&dev->FlagSentEvent) != 0;
            KeReleaseSpinLock(&dev->Lock, irql);
            ASSERT_FALSE(after_flag_taken && boundary_signalled);
            LARGE_INTEGER tick;
            tick.QuadPart = -10;
            KeDelayExecutionThread(KernelMode, FALSE, &tick);
        }
        RunFor(5);
        EXPECT_EQ(modem->Pull(), Bytes({'x', '~', 'y', 'z'}));
        EXPECT_FALSE(dev->FlagSent);
        EXPECT_FALSE(KeReadStateEvent(&dev->FlagSentEvent)) << "bytes after the flag clear it";
    });
}

} // namespace
