// The emulated I/O manager against tiny driver-shaped fakes: completion
// routine flags, built requests, cancellation, and every verifier rule on a
// wrong routine. (Stacks, completion order, pending and buffered requests
// are what every driver test runs through; names, links, exclusive opens
// and work items are the driver's lifecycle, comm and worker tests.)
#include "kernel_test.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

// Two fake drivers whose dispatch routines the test supplies.
std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> g_lower, g_upper;
NTSTATUS NTAPI LowerDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
    return g_lower(Device, Irp);
}
NTSTATUS NTAPI UpperDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
    return g_upper(Device, Irp);
}

NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information = 0) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS CompleteAll(PDEVICE_OBJECT, PIRP Irp) {
    return Complete(Irp, STATUS_SUCCESS);
}

// A completion routine that records the device it was called with, and
// answers as told.
struct Trail {
    explicit Trail(NTSTATUS answer = STATUS_MORE_PROCESSING_REQUIRED) : answer(answer) {}
    std::vector<PDEVICE_OBJECT> devices;
    NTSTATUS answer;
};
NTSTATUS NTAPI Record(PDEVICE_OBJECT Device, PIRP, PVOID Context) {
    auto* trail = static_cast<Trail*>(Context);
    trail->devices.push_back(Device);
    return trail->answer;
}

// The one IRP a fake driver parks for the test to complete, and cancel
// routines for it.
PIRP g_parked;
int g_cancel_calls;
KIRQL g_cancel_irql;
NTSTATUS Park(PIRP Irp, NTSTATUS answer = STATUS_PENDING) {
    g_parked = Irp;
    return answer;
}
VOID NTAPI CancelParked(PDEVICE_OBJECT, PIRP Irp) {
    ++g_cancel_calls;
    g_cancel_irql = Irp->CancelIrql;
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    g_parked = nullptr;
    Complete(Irp, STATUS_CANCELLED);
}
VOID NTAPI CancelKeepingTheLock(PDEVICE_OBJECT, PIRP Irp) {
    ++g_cancel_calls;
    g_parked = nullptr;
    Complete(Irp, STATUS_CANCELLED);
}

// A bus driver's device (lower) with a function driver's device (upper,
// named, buffered I/O) attached on it; both complete what they get unless a
// test says otherwise.
class IoManagerTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        lower_ = std::make_unique<hk::Driver>(u"\\Driver\\lower");
        upper_ = std::make_unique<hk::Driver>(u"\\Driver\\upper");
        for (auto& routine : lower_->Object()->MajorFunction)
            routine = LowerDispatch;
        for (auto& routine : upper_->Object()->MajorFunction)
            routine = UpperDispatch;
        g_lower = g_upper = CompleteAll;
        g_parked = nullptr;
        g_cancel_calls = 0;
        pdo_ = Create(*lower_);
        fdo_ = Create(*upper_, u"\\Device\\upper0", DO_BUFFERED_IO);
        IoAttachDeviceToDeviceStack(fdo_, pdo_);
    }
    void TearDown() override {
        for (PDEVICE_OBJECT device : devices_)
            if (hk::DeviceExists(device) && device->AttachedDevice)
                IoDetachDevice(device);
        for (PDEVICE_OBJECT device : devices_)
            if (hk::DeviceExists(device))
                IoDeleteDevice(device);
        devices_.clear();
        lower_.reset();
        upper_.reset();
        KernelTest::TearDown();
    }
    PDEVICE_OBJECT Create(hk::Driver& driver, const char16_t* name = nullptr, ULONG flags = 0) {
        UNICODE_STRING unicode;
        if (name)
            RtlInitUnicodeString(&unicode, name);
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(IoCreateDevice(driver.Object(), 32, name ? &unicode : nullptr,
                                 FILE_DEVICE_SERIAL_PORT, FILE_DEVICE_SECURE_OPEN, FALSE, &device),
                  STATUS_SUCCESS);
        device->Flags = (device->Flags | flags) & ~DO_DEVICE_INITIALIZING;
        devices_.push_back(device);
        return device;
    }
    // A driver-allocated IRP (or the one given) for the top of the stack,
    // with a location of its originator's own whose routine takes it back.
    PIRP NewIrp(UCHAR major, Trail* top, PIRP irp = nullptr) {
        if (!irp)
            irp = IoAllocateIrp(CCHAR(fdo_->StackSize + 1), FALSE);
        IoSetNextIrpStackLocation(irp);
        IoGetNextIrpStackLocation(irp)->MajorFunction = major;
        IoSetCompletionRoutine(irp, Record, top, TRUE, TRUE, TRUE);
        return irp;
    }
    // The upper driver passes the IRP down, with a completion routine if given.
    NTSTATUS Forward(PIRP Irp, PIO_COMPLETION_ROUTINE routine = nullptr, PVOID context = nullptr,
                     BOOLEAN on_success = TRUE, BOOLEAN on_error = TRUE, BOOLEAN on_cancel = TRUE) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        if (routine)
            IoSetCompletionRoutine(Irp, routine, context, on_success, on_error, on_cancel);
        return IoCallDriver(pdo_, Irp);
    }

    std::unique_ptr<hk::Driver> lower_, upper_;
    std::vector<PDEVICE_OBJECT> devices_;
    PDEVICE_OBJECT pdo_ = nullptr, fdo_ = nullptr;
};

// A routine runs for a success, an error or a cancelled IRP as its flags
// say, each flag against every outcome; a skipped one does not stop the
// unwinding.
TEST_F(IoManagerTest, CompletionRoutineFlagsSelectSuccessErrorAndCancel) {
    ASSERT_EQ(fdo_->StackSize, 2) << "one location more than the device it is attached to";
    const std::pair<NTSTATUS, BOOLEAN> outcomes[] = {{STATUS_SUCCESS, FALSE},
                                                     {STATUS_UNSUCCESSFUL, FALSE},
                                                     {STATUS_CANCELLED, TRUE},
                                                     {STATUS_CANCELLED, FALSE}};
    for (int flags = 0; flags < 8; ++flags)
        for (const auto& outcome : outcomes) {
            // Lambdas capture variables, not structured bindings (C++17).
            const NTSTATUS status = outcome.first;
            const BOOLEAN cancel = outcome.second;
            const BOOLEAN on_success = flags & 1, on_error = (flags >> 1) & 1,
                          on_cancel = (flags >> 2) & 1;
            Trail trail(STATUS_SUCCESS), top;
            g_lower = [&](PDEVICE_OBJECT, PIRP Irp) {
                Irp->Cancel = cancel;
                return Complete(Irp, status);
            };
            g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
                return Forward(Irp, Record, &trail, on_success, on_error, on_cancel);
            };
            PIRP irp = NewIrp(IRP_MJ_READ, &top);
            IoCallDriver(fdo_, irp);
            const bool called =
                (NT_SUCCESS(status) ? on_success : on_error) || (cancel && on_cancel);
            EXPECT_EQ(trail.devices.size(), called ? 1u : 0u)
                << "flags " << flags << " status " << status << " cancel " << int(cancel);
            EXPECT_EQ(top.devices.size(), 1u);
            IoFreeIrp(irp);
        }
}

// A built control request sets its event, fills the status block and copies
// the answer back (as the driver's hub query shows); the I/O manager
// finishes it, so a driver may not reuse it, and the attempt changes none
// of that. Regression: IoReuseIrp on it took its finishing step away, and
// completing it threw std::bad_function_call.
TEST_F(IoManagerTest, BuiltDeviceControlFinishesItselfAndIsNotTheDriversToReuse) {
    g_lower = [](PDEVICE_OBJECT, PIRP Irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(Irp)->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
        memcpy(Irp->AssociatedIrp.SystemBuffer, "\x01\x02\x03\x04", 4);
        IoMarkIrpPending(Irp);
        Complete(Irp, STATUS_SUCCESS, 4);
        return STATUS_PENDING;
    };
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    UCHAR out[4] = {};
    PIRP irp = IoBuildDeviceIoControlRequest(CTL_CODE(FILE_DEVICE_UNKNOWN, 5, METHOD_BUFFERED, 0),
                                             pdo_, nullptr, 0, out, 4, TRUE, &event, &iosb);
    hk::ExpectViolation expect(hk::rule::kIrpReuseNotOwn);
    IoReuseIrp(irp, STATUS_SUCCESS);
    EXPECT_EQ(expect.Count(), 1u);
    EXPECT_EQ(IoCallDriver(pdo_, irp), STATUS_PENDING);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 4u);
    EXPECT_EQ(out[3], 4);
}

// A cancel routine runs under the cancel spin lock at the canceller's IRQL;
// one that keeps the lock is reported. (That without one only the Cancel
// flag is set the driver's tests of requests cancelled before they arrive
// show.)
TEST_F(IoManagerTest, CancelCallsTheRoutineUnderTheCancelLockAtTheCancellersIrql) {
    PDRIVER_CANCEL routine = CancelParked;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_READ)
            return Complete(Irp, STATUS_SUCCESS);
        IoMarkIrpPending(Irp);
        IoSetCancelRoutine(Irp, routine);
        return Park(Irp);
    };
    hk::File file;
    ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
    auto read = file.ReadAsync(4);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(file.Cancel(*read));
    KeLowerIrql(old);
    EXPECT_EQ(g_cancel_calls, 1);
    EXPECT_EQ(g_cancel_irql, DISPATCH_LEVEL);
    EXPECT_EQ(read->Wait().status, STATUS_CANCELLED);

    routine = CancelKeepingTheLock;
    read = file.ReadAsync(4);
    {
        hk::ExpectViolation expect(hk::rule::kCancelLockHeld);
        hk::ExpectViolation completed(hk::rule::kCompletedUnderSpinLock);
        EXPECT_TRUE(file.Cancel(*read));
        EXPECT_EQ(expect.Count(), 1u);
        EXPECT_EQ(completed.Count(), 1u);
    }
    EXPECT_EQ(read->Wait().status, STATUS_CANCELLED);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

VOID NTAPI Nothing(PDEVICE_OBJECT, PVOID) {}

NTSTATUS NTAPI RaiseAndKeep(PDEVICE_OBJECT, PIRP, PVOID) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI Keep(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Mistakes of a driver with its own IRPs and work items, one rule each, on
// a fresh IRP of one location that the loop frees; the right use of each
// call is in the tests above.
TEST_F(IoManagerTest, DriverIrpAndWorkItemMisuseIsReported) {
    const struct {
        const char* rule;
        std::function<void(PIRP)> misuse;
    } cases[] = {
        {hk::rule::kIrpNoOriginator, [&](PIRP irp) { IoCallDriver(pdo_, irp); }}, // no routine
        {hk::rule::kIrpNoStackLocation,
         [&](PIRP irp) {
             IoSetNextIrpStackLocation(irp);
             EXPECT_EQ(IoCallDriver(pdo_, irp), STATUS_INVALID_PARAMETER);
             IoSkipCurrentIrpStackLocation(irp);
         }},
        {hk::rule::kIrpUnknown,
         [](PIRP) { // a freed IRP: the verifier sees it before memory is touched
             PIRP freed = IoAllocateIrp(1, FALSE);
             IoFreeIrp(freed);
             IoCancelIrp(freed);
         }},
        {hk::rule::kIrpBadFree,
         [](PIRP) { // not from IoAllocateIrp
             alignas(16) UCHAR memory[512];
             auto own = reinterpret_cast<PIRP>(memory);
             ASSERT_LE(IoSizeOfIrp(2), sizeof(memory));
             IoInitializeIrp(own, IoSizeOfIrp(2), 2);
             EXPECT_EQ(IoGetNextIrpStackLocation(own),
                       reinterpret_cast<PIO_STACK_LOCATION>(memory + sizeof(IRP)) + 1);
             IoFreeIrp(own);
         }},
        {hk::rule::kIrpInitializeAllocated,
         [](PIRP irp) { IoInitializeIrp(irp, IoSizeOfIrp(1), 1); }},
        {hk::rule::kIrqlNotRestored,
         [&](PIRP irp) {
             IoSetCompletionRoutine(irp, RaiseAndKeep, nullptr, TRUE, TRUE, TRUE);
             IoCallDriver(pdo_, irp);
         }},
        {hk::rule::kIrpSentWithCancelRoutine,
         [&](PIRP irp) {
             IoSetCancelRoutine(irp, CancelParked);
             hk::ExpectViolation also(hk::rule::kIrpCompletedWithCancelRoutine);
             IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, TRUE, TRUE);
             IoCallDriver(pdo_, irp);
         }},
        {hk::rule::kWorkItemMisuse,
         [&](PIRP) { // queued again before it ran
             PIO_WORKITEM item = IoAllocateWorkItem(pdo_);
             IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
             IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
             kernel().Sleep(1);
             IoFreeWorkItem(item);
         }},
        {hk::rule::kWorkItemMisuse,
         [&](PIRP) { // freed while queued
             PIO_WORKITEM item = IoAllocateWorkItem(pdo_);
             IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
             IoFreeWorkItem(item);
             kernel().Sleep(1);
             IoFreeWorkItem(item);
         }},
    };
    for (const auto& c : cases) {
        hk::ExpectViolation expect(c.rule);
        PIRP irp = IoAllocateIrp(1, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
        c.misuse(irp);
        IoFreeIrp(irp);
        EXPECT_EQ(expect.Count(), 1u) << c.rule;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
}

// Leftovers at teardown are each reported: pool, a pending timer, IRPs,
// work items and devices; the I/O manager takes its own blocks back.
// (That a clean kernel reports nothing every other test's teardown shows.)
// Regression: the report read the major function past the
// block of an IRP completed past its top location, and called it "not sent".
using IoTeardown = KernelTest;
TEST_F(IoTeardown, LeftoversAreReportedAtTeardown) {
    hk::Driver driver;
    PDEVICE_OBJECT port = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &port),
              STATUS_SUCCESS);
    IoGetNextIrpStackLocation(IoAllocateIrp(2, FALSE))->MajorFunction = IRP_MJ_READ;
    PIRP completed = IoAllocateIrp(1, FALSE);
    {
        hk::ExpectViolation expect(hk::rule::kIrpNoOriginator);
        IoCallDriver(port,
                     completed); // no routine takes it back, and nobody frees it
    }
    IoAllocateWorkItem(port);
    ExAllocatePoolWithTag(NonPagedPool, 40, 'kaeL');
    static KTIMER timer;
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, RelativeMs(100), nullptr);
    std::map<std::string, std::string> reports;
    kernel().verifier().SetHandler(
        [&](const std::string& rule, const std::string& message) { reports[rule] = message; });
    Restart({});
    ASSERT_EQ(reports.size(), 5u);
    const std::string& irps = reports[hk::rule::kIrpLeak];
    EXPECT_NE(irps.find("[major 0x3, not sent]"), std::string::npos) << irps;
    EXPECT_NE(irps.find("[completed, never freed]"), std::string::npos) << irps;
    EXPECT_EQ(reports.count(hk::rule::kWorkItemLeak), 1u);
    EXPECT_EQ(reports.count(hk::rule::kDeviceLeak), 1u);
    EXPECT_EQ(reports.count(hk::rule::kTimerLeak), 1u);
    const std::string& pool = reports[hk::rule::kPoolLeak];
    EXPECT_NE(pool.find(": 1 block(s), 40 byte(s)\n  tag 'Leak'"), std::string::npos) << pool;
    driver.Object()->DeviceObject = nullptr;
}

NTSTATUS NTAPI CompleteAgain(PDEVICE_OBJECT, PIRP Irp, PVOID) {
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

// Each dispatch rule on a wrong routine of the upper driver; the lower one
// completes with STATUS_SUCCESS unless the case parks its IRP. The right
// routines (completing, forwarding, pending before or after either) are the
// fake drivers of the other tests, which no rule may flag.
TEST_F(IoManagerTest, DispatchResultRules) {
    const struct {
        const char* rule;
        std::function<NTSTATUS(PIRP)> upper;
    } cases[] = {
        {hk::rule::kPendingMismatch, [](PIRP Irp) { return Park(Irp); }}, // not marked
        {hk::rule::kPendingMismatch,
         [](PIRP Irp) {
             IoMarkIrpPending(Irp);
             return Complete(Irp, STATUS_SUCCESS);
         }},
        {hk::rule::kIrpCompletedTwice,
         [](PIRP Irp) { // the IRP is freed, so only the call itself comes back
             Complete(Irp, STATUS_SUCCESS);
             IoCompleteRequest(Irp, IO_NO_INCREMENT);
             return STATUS_SUCCESS;
         }},
        // Regression: a completion routine that completed its IRP again made
        // the completion loop walk the IRP its inner completion had freed.
        {hk::rule::kIrpCompletedTwice, [&](PIRP Irp) { return Forward(Irp, CompleteAgain); }},
        {hk::rule::kIrpCompletedPending,
         [](PIRP Irp) {
             Complete(Irp, STATUS_PENDING);
             return Complete(Irp, STATUS_SUCCESS);
         }},
        {hk::rule::kIrpCompletedWithCancelRoutine,
         [](PIRP Irp) {
             IoSetCancelRoutine(Irp, CancelParked);
             return Complete(Irp, STATUS_SUCCESS);
         }},
        {hk::rule::kIrqlNotRestored,
         [](PIRP Irp) {
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             return Complete(Irp, STATUS_SUCCESS);
         }},
        {hk::rule::kDispatchStatusMismatch,
         [](PIRP Irp) {
             Complete(Irp, STATUS_UNSUCCESSFUL);
             return STATUS_SUCCESS;
         }},
        {hk::rule::kDispatchNotCompleted, [](PIRP Irp) { return Park(Irp, STATUS_SUCCESS); }},
        {hk::rule::kForwardStatus,
         [&](PIRP Irp) {
             Forward(Irp);
             return STATUS_UNSUCCESSFUL;
         }},
        {hk::rule::kForwardStatus,
         [&](PIRP Irp) {
             IoSkipCurrentIrpStackLocation(Irp);
             IoCallDriver(pdo_, Irp);
             return STATUS_PENDING;
         }},
        {hk::rule::kCompletedUnderSpinLock,
         [](PIRP Irp) {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KIRQL irql;
             KeAcquireSpinLock(&lock, &irql);
             Complete(Irp, STATUS_SUCCESS);
             KeReleaseSpinLock(&lock, irql);
             return STATUS_SUCCESS;
         }},
    };
    hk::File file;
    ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
    for (const auto& c : cases) {
        g_parked = nullptr;
        g_upper = [&](PDEVICE_OBJECT, PIRP Irp) { return c.upper(Irp); };
        hk::ExpectViolation expect(c.rule);
        auto write = file.WriteAsync("x", 1);
        if (g_parked)
            Complete(g_parked, STATUS_SUCCESS);
        write->Wait();
        EXPECT_EQ(expect.Count(), 1u) << c.rule;
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
    g_upper = CompleteAll;
}

// The I/O manager copies Information bytes of a buffered request back: more
// than the output buffer holds is reported, not clamped. The system buffer
// past the input holds pool garbage, not zeros.
TEST_F(IoManagerTest, InformationBeyondTheOutputBufferIsReported) {
    ULONG_PTR answer = 0;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        if (stack->MajorFunction == IRP_MJ_DEVICE_CONTROL &&
            stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_SERIAL_GET_BAUD_RATE) {
            auto* buffer = static_cast<const UCHAR*>(Irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(buffer[0], 'i');
            EXPECT_EQ(buffer[3], hk::Pool::kNewFill);
        }
        return Complete(Irp, STATUS_SUCCESS, answer);
    };
    hk::File file;
    ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
    UCHAR out[8];
    hk::ExpectViolation expect(hk::rule::kInformationOverflow);
    for (ULONG_PTR information : {4, 5}) {
        answer = information;
        file.Read(out, 4);
        file.DeviceIoControl(IOCTL_SERIAL_GET_BAUD_RATE, "in", 2, out, 4);
        file.DeviceIoControl(CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_NEITHER, 0), nullptr, 0,
                             out, 4); // not buffered: the driver copied it itself
    }
    EXPECT_EQ(expect.Count(), 2u);
    answer = 0;
}

// A driver-allocated IRP parked by the lower driver belongs to it until it
// comes back: the originator may not free, reinitialize, reuse or resend it,
// nor may a driver that sent it on set its cancel routine.
TEST_F(IoManagerTest, AnIrpALowerDriverHoldsIsNotTheSendersToTouch) {
    g_lower = [](PDEVICE_OBJECT, PIRP Irp) {
        IoMarkIrpPending(Irp);
        IoSetCancelRoutine(Irp, CancelParked); // the holder may
        IoSetCancelRoutine(Irp, nullptr);
        return Park(Irp);
    };
    int mode = 0;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        IoMarkIrpPending(Irp);
        Forward(Irp);
        if (mode == 1)
            IoSetCancelRoutine(Irp, CancelParked);
        if (mode == 2)
            IoCallDriver(pdo_, Irp);
        return STATUS_PENDING;
    };
    Trail top;
    alignas(16) UCHAR memory[1024];
    auto own = reinterpret_cast<PIRP>(memory);
    const CCHAR size = CCHAR(fdo_->StackSize + 1);
    ASSERT_LE(IoSizeOfIrp(size), sizeof(memory));
    const struct {
        const char* rule;
        std::function<void(PIRP)> misuse; // while the lower driver holds the IRP
        int mode = 0;
        bool own_memory = false;
    } cases[] = {
        {hk::rule::kIrpOwnedByLower, [](PIRP Irp) { IoFreeIrp(Irp); }},
        {hk::rule::kIrpReusedInFlight, [](PIRP Irp) { IoReuseIrp(Irp, STATUS_SUCCESS); }},
        {hk::rule::kIrpOwnedByLower,
         [](PIRP Irp) { IoInitializeIrp(Irp, Irp->Size, Irp->StackCount); }, 0, true},
        {hk::rule::kIrpOwnedByLower, [](PIRP) {}, 1},
        {hk::rule::kIrpReusedInFlight, [](PIRP) {}, 2},
    };
    for (const auto& c : cases) {
        mode = c.mode;
        if (c.own_memory)
            IoInitializeIrp(own, IoSizeOfIrp(size), size);
        PIRP irp = NewIrp(IRP_MJ_WRITE, &top, c.own_memory ? own : nullptr);
        hk::ExpectViolation expect(c.rule);
        IoCallDriver(fdo_, irp);
        c.misuse(irp);
        EXPECT_EQ(expect.Count(), 1u) << c.rule << " mode " << c.mode;
        IoSetCancelRoutine(g_parked, nullptr);
        Complete(g_parked, STATUS_SUCCESS);
        if (!c.own_memory)
            IoFreeIrp(irp); // back now: allowed
    }
}

} // namespace
