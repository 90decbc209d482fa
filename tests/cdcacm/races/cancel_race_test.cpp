// Cancellation racing completion, on two processors with seeded preemption
// at every platform call: a read whose bytes arrive while it is cancelled, a
// wait whose event arrives while it is cancelled, and a new wait that comes
// in as the cancel timer of the old one fires. Each scenario runs on a fresh
// machine per seed and checks one completion per request with the right
// mask, no verifier report, and no read of an IRP after its completion.
#include "ioctl_rig.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr uint64_t kSeeds = 100;

// Once completed, an IRP's memory is its owner's again: the completion
// routine scribbles an IRQL no processor runs at over CancelIrql, so a
// cancel routine that reads it after the completion fails the verifier.
// The IRP itself stays allocated until nobody can cancel it any more, as an
// owner that cancels its own IRPs keeps it.
constexpr KIRQL kScribbledIrql = 0xCD;

// One request of the test's own making.
struct OwnIrp {
    PIRP Irp = nullptr;
    NTSTATUS Returned = 0; // what IoCallDriver returned
    int Completions = 0;
    NTSTATUS Status = 0;
    ULONG_PTR Information = 0;
    uint8_t Buffer[16] = {};
    KEVENT Done;

    ULONG Mask() const {
        ULONG Value;
        memcpy(&Value, Buffer, sizeof(Value));
        return Value;
    }
};

NTSTATUS NTAPI OnOwnIrpComplete(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    auto* Request = static_cast<OwnIrp*>(Context);
    Request->Completions++;
    Request->Status = Irp->IoStatus.Status;
    Request->Information = Irp->IoStatus.Information;
    Irp->CancelIrql = kScribbledIrql;
    KeSetEvent(&Request->Done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

class CancelRace : public IoctlTest {
  protected:
    // Every seed builds its own machine.
    void SetUp() override {}
    void TearDown() override {}

    // Runs Scenario on a fresh machine for each seed in the interleaving
    // mode until one fails; with HK_SEED (and HK_INTERLEAVE) from a failure's
    // replay line in the environment, only that machine runs.
    void ForEachSeed(int64_t JumpUs, const std::function<void()>& Scenario) {
        const char* ReplaySeed = std::getenv("HK_SEED");
        const char* ReplayMode = std::getenv("HK_INTERLEAVE");
        for (uint64_t Seed = 1; Seed <= (ReplaySeed ? 1 : kSeeds) && !HasFailure(); Seed++) {
            hk::KernelOptions Options = hk::KernelOptions::FromEnvironment();
            if (ReplaySeed == nullptr)
                Options.seed = Seed;
            if (ReplayMode == nullptr || *ReplayMode == 0)
                Options.interleave = {true, 2, 3, JumpUs};
            SCOPED_TRACE(Options.Replay());
            UseOptions(Options);
            Requests_.clear();
            IoctlTest::SetUp();
            if (!HasFailure())
                Scenario();
            IoctlTest::TearDown();
        }
    }

    // A request record that outlives the scenario's scope, so that a request
    // a failed scenario leaves pending completes into it at the teardown.
    OwnIrp& NewRequest() { return Requests_.emplace_back(); }

    void Send(OwnIrp* Request, UCHAR Major, ULONG Length, ULONG Code = 0) {
        KeInitializeEvent(&Request->Done, NotificationEvent, FALSE);
        PIRP Irp = IoAllocateIrp(DataPort()->StackSize, FALSE);
        ASSERT_NE(Irp, nullptr);
        Irp->AssociatedIrp.SystemBuffer = Request->Buffer;
        Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        Irp->RequestorMode = UserMode;
        PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
        Stack->MajorFunction = Major;
        if (Major == IRP_MJ_READ) {
            Stack->Parameters.Read.Length = Length;
        } else {
            Stack->Parameters.DeviceIoControl.IoControlCode = Code;
            Stack->Parameters.DeviceIoControl.OutputBufferLength = Length;
        }
        IoSetCompletionRoutine(Irp, OnOwnIrpComplete, Request, TRUE, TRUE, TRUE);
        Request->Irp = Irp;
        Request->Returned = IoCallDriver(DataPort(), Irp);
    }
    void SendRead(OwnIrp* Request, ULONG Length) { Send(Request, IRP_MJ_READ, Length); }
    void SendWait(OwnIrp* Request) {
        Send(Request, IRP_MJ_DEVICE_CONTROL, sizeof(ULONG), IOCTL_SERIAL_WAIT_ON_MASK);
    }

    // Waits in virtual time; true once the request has completed.
    static bool WaitFor(OwnIrp& Request, int64_t Milliseconds) {
        LARGE_INTEGER Timeout = RelativeMs(Milliseconds);
        KeWaitForSingleObject(&Request.Done, Executive, KernelMode, FALSE, &Timeout);
        return Request.Completions != 0;
    }

    // Frees a completed request; one still pending is reported and left to
    // the teardown's leak check.
    static void Release(OwnIrp& Request) {
        EXPECT_EQ(Request.Completions, 1) << "completions of one request";
        if (Request.Completions != 0)
            IoFreeIrp(Request.Irp);
    }

    void SetMask(ULONG Mask) {
        EXPECT_EQ(Set(IOCTL_SERIAL_SET_WAIT_MASK, Mask).Status, STATUS_SUCCESS);
    }

    // The second wait of an application: nothing but its event ends it.
    void ExpectOnlyTheEventEnds(OwnIrp& Wait, ULONG Event) {
        EXPECT_EQ(Wait.Returned, STATUS_PENDING);
        EXPECT_FALSE(WaitFor(Wait, 300))
            << "a wait nobody cancelled completed with mask " << Wait.Mask();
        RaiseEvents(Event);
        EXPECT_TRUE(WaitFor(Wait, 10));
        EXPECT_EQ(Wait.Status, STATUS_SUCCESS);
        EXPECT_EQ(Wait.Mask(), Event);
        Release(Wait);
    }

  private:
    std::list<OwnIrp> Requests_;
};

TEST_F(CancelRace, AReadCancelledAsItsBytesArriveCompletesOnce) {
    ForEachSeed(100, [this] {
        OwnIrp& Read = NewRequest();
        SendRead(&Read, 10);
        EXPECT_EQ(Read.Returned, STATUS_PENDING);
        {
            hk::Thread Modem("modem", [this] { Receive("0123456789"); });
            IoCancelIrp(Read.Irp);
            Modem.Join();
        }
        ASSERT_TRUE(WaitFor(Read, 100));
        if (Read.Status == STATUS_SUCCESS) {
            EXPECT_EQ(Read.Information, 10u);
            EXPECT_EQ(std::string(reinterpret_cast<char*>(Read.Buffer), 10), "0123456789");
        } else {
            EXPECT_EQ(Read.Status, STATUS_CANCELLED);
            EXPECT_EQ(Read.Information, 0u);
        }
        EXPECT_FALSE(Traced("ASSERTION FAILED"));
        Release(Read);
    });
}

TEST_F(CancelRace, AWaitCancelledAsItsEventArrivesLeavesTheNextWaitAlone) {
    ForEachSeed(100, [this] {
        SetMask(SERIAL_EV_CTS | SERIAL_EV_RXCHAR);
        OwnIrp& First = NewRequest();
        SendWait(&First);
        OwnIrp& Second = NewRequest();
        {
            // Another thread of the application cancels the wait while the
            // modem's event completes it, and the next wait follows at once.
            hk::Thread Modem("modem", [this] { RaiseEvents(SERIAL_EV_CTS); });
            hk::Thread Canceller("canceller", [&First] { IoCancelIrp(First.Irp); });
            // A cancelled wait takes 100 ms to complete: the event is first
            // whichever way the race went.
            ASSERT_TRUE(WaitFor(First, 50));
            SendWait(&Second);
            Modem.Join();
            Canceller.Join();
        }
        EXPECT_EQ(First.Status, STATUS_SUCCESS);
        EXPECT_EQ(First.Information, sizeof(ULONG));
        EXPECT_EQ(First.Mask(), ULONG(SERIAL_EV_CTS));
        Release(First);
        ExpectOnlyTheEventEnds(Second, SERIAL_EV_RXCHAR);
    });
}

TEST_F(CancelRace, ANewWaitArrivingAsTheCancelTimerFiresIsLeftAlone) {
    // The timer is due 1 ms after the new wait arrives: preemption points
    // within 2 ms may fire it while the new wait is dispatched.
    ForEachSeed(2000, [this] {
        SetMask(SERIAL_EV_CTS);
        OwnIrp& First = NewRequest();
        SendWait(&First);
        EXPECT_TRUE(IoCancelIrp(First.Irp));
        kernel().Sleep(99);
        OwnIrp& Second = NewRequest();
        SendWait(&Second);
        // Completed by the timer or, with mask 0, by the new wait.
        ASSERT_TRUE(WaitFor(First, 10));
        EXPECT_EQ(First.Status, STATUS_SUCCESS);
        EXPECT_EQ(First.Mask(), 0u);
        Release(First);
        ExpectOnlyTheEventEnds(Second, SERIAL_EV_CTS);
    });
}
