// The emulated I/O manager against tiny driver-shaped fakes: device objects
// and stacks, the namespace, IRP completion order, pending, cancellation,
// work items, buffered application requests, and every verifier rule on a
// wrong routine next to the right one.
#include "kernel_test.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

// Two fake drivers whose dispatch routines the test supplies.
std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> g_lower;
std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> g_upper;
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

// Completion routines record their order through a context string list.
struct Trail {
    std::vector<std::string> calls;
    std::vector<PDEVICE_OBJECT> devices;
    std::vector<BOOLEAN> pending;
    NTSTATUS answer = STATUS_SUCCESS;
    std::string name;
};
NTSTATUS NTAPI Record(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
    auto* trail = static_cast<Trail*>(Context);
    trail->calls.push_back(trail->name);
    trail->devices.push_back(Device);
    trail->pending.push_back(Irp->PendingReturned);
    return trail->answer;
}

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
        g_lower = [](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, STATUS_SUCCESS); };
        g_upper = [](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, STATUS_SUCCESS); };
    }
    void TearDown() override {
        for (PDEVICE_OBJECT device : devices_)
            if (hk::DeviceExists(device))
                IoDeleteDevice(device);
        lower_.reset();
        upper_.reset();
        KernelTest::TearDown();
    }
    PDEVICE_OBJECT Create(hk::Driver& driver, const char16_t* name = nullptr, ULONG flags = 0,
                          BOOLEAN exclusive = FALSE) {
        UNICODE_STRING unicode;
        if (name)
            RtlInitUnicodeString(&unicode, name);
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(IoCreateDevice(driver.Object(), 32, name ? &unicode : nullptr,
                                 FILE_DEVICE_SERIAL_PORT, FILE_DEVICE_SECURE_OPEN, exclusive,
                                 &device),
                  STATUS_SUCCESS);
        device->Flags |= flags;
        device->Flags &= ~DO_DEVICE_INITIALIZING;
        devices_.push_back(device);
        return device;
    }
    // A lower device with an upper one attached on it, as a function driver
    // sits on its bus driver's device.
    void Stack() {
        pdo_ = Create(*lower_);
        fdo_ = Create(*upper_, u"\\Device\\upper0", DO_BUFFERED_IO);
        IoAttachDeviceToDeviceStack(fdo_, pdo_);
    }
    void Unstack() { IoDetachDevice(pdo_); }

    std::unique_ptr<hk::Driver> lower_, upper_;
    std::vector<PDEVICE_OBJECT> devices_;
    PDEVICE_OBJECT pdo_ = nullptr, fdo_ = nullptr;
};

TEST_F(IoManagerTest, CreateDeviceNamesExtensionsAndCollisions) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\Port0");
    PDEVICE_OBJECT named = nullptr;
    ASSERT_EQ(IoCreateDevice(upper_->Object(), 40, &name, FILE_DEVICE_SERIAL_PORT,
                             FILE_DEVICE_SECURE_OPEN, TRUE, &named),
              STATUS_SUCCESS);
    EXPECT_EQ(named->Flags & (DO_DEVICE_INITIALIZING | DO_EXCLUSIVE | DO_DEVICE_HAS_NAME),
              ULONG(DO_DEVICE_INITIALIZING | DO_EXCLUSIVE | DO_DEVICE_HAS_NAME));
    EXPECT_EQ(named->StackSize, 1);
    EXPECT_EQ(named->DeviceType, ULONG(FILE_DEVICE_SERIAL_PORT));
    EXPECT_EQ(named->Characteristics, ULONG(FILE_DEVICE_SECURE_OPEN));
    EXPECT_EQ(named->DriverObject, upper_->Object());
    EXPECT_EQ(upper_->Object()->DeviceObject, named);
    auto* extension = static_cast<const UCHAR*>(named->DeviceExtension);
    EXPECT_EQ(std::count(extension, extension + 40, 0), 40);
    EXPECT_EQ(hk::FindDevice(u"\\device\\PORT0"), named);

    RtlInitUnicodeString(&name, u"\\DEVICE\\port0");
    PDEVICE_OBJECT clash = reinterpret_cast<PDEVICE_OBJECT>(1);
    EXPECT_EQ(IoCreateDevice(upper_->Object(), 0, &name, FILE_DEVICE_SERIAL_PORT, 0, FALSE, &clash),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(clash, nullptr);

    PDEVICE_OBJECT unnamed = nullptr;
    ASSERT_EQ(IoCreateDevice(upper_->Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &unnamed),
              STATUS_SUCCESS);
    EXPECT_EQ(unnamed->DeviceExtension, nullptr);
    EXPECT_EQ(unnamed->Flags & DO_DEVICE_HAS_NAME, 0u);
    EXPECT_EQ(upper_->Object()->DeviceObject, unnamed);
    EXPECT_EQ(unnamed->NextDevice, named);

    IoDeleteDevice(named);
    EXPECT_EQ(hk::FindDevice(u"\\Device\\Port0"), nullptr);
    EXPECT_EQ(upper_->Object()->DeviceObject, unnamed);
    EXPECT_EQ(IoCreateDevice(upper_->Object(), 0, &name, FILE_DEVICE_SERIAL_PORT, 0, FALSE, &named),
              STATUS_SUCCESS);
    IoDeleteDevice(named);
    IoDeleteDevice(unnamed);
}

TEST_F(IoManagerTest, AttachSetsStackSizesAndReturnsTheTopOfTheStack) {
    PDEVICE_OBJECT pdo = Create(*lower_);
    PDEVICE_OBJECT fdo = Create(*upper_);
    PDEVICE_OBJECT filter = Create(*upper_);
    EXPECT_EQ(IoAttachDeviceToDeviceStack(fdo, pdo), pdo);
    EXPECT_EQ(fdo->StackSize, 2);
    EXPECT_EQ(IoAttachDeviceToDeviceStack(filter, pdo), fdo); // lands on the top
    EXPECT_EQ(filter->StackSize, 3);
    EXPECT_EQ(IoGetAttachedDevice(pdo), filter);
    {
        hk::ExpectViolation expect(hk::rule::kDeviceDeletedAttached);
        IoDetachDevice(fdo);
        IoDetachDevice(pdo);
        EXPECT_EQ(expect.Count(), 0u);
        IoAttachDeviceToDeviceStack(fdo, pdo);
        IoDeleteDevice(fdo); // still on pdo
        EXPECT_EQ(expect.Count(), 1u);
    }
    EXPECT_EQ(pdo->AttachedDevice, fdo); // the dangling link the bug leaves behind
    pdo->AttachedDevice = nullptr;
}

TEST_F(IoManagerTest, SymbolicLinksResolveAndCollide) {
    PDEVICE_OBJECT port = Create(*upper_, u"\\Device\\modem3");
    UNICODE_STRING link, target;
    RtlInitUnicodeString(&link, u"\\DosDevices\\COM5");
    RtlInitUnicodeString(&target, u"\\Device\\modem3");
    EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
    EXPECT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(hk::FindDevice(u"\\??\\com5"), port);
    EXPECT_EQ(hk::SymbolicLinkTarget(u"\\DosDevices\\COM5"), u"\\Device\\modem3");
    hk::File file;
    EXPECT_EQ(file.Open(u"\\??\\COM5"), STATUS_SUCCESS);
    file.Close();
    EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
    EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(hk::SymbolicLinkExists(u"\\DosDevices\\COM5"));
    EXPECT_EQ(file.Open(u"\\DosDevices\\COM5"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(IoManagerTest, CompletionRoutinesRunInStackOrderUntilMoreProcessingRequired) {
    Stack();
    Trail upper_trail, top_trail;
    upper_trail.name = "upper";
    top_trail.name = "top";
    PIRP held = nullptr;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoSetCompletionRoutine(Irp, Record, &upper_trail, TRUE, TRUE, TRUE);
        return IoCallDriver(pdo_, Irp);
    };
    g_lower = [&](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, STATUS_SUCCESS, 7); };

    PIRP irp = IoAllocateIrp(CCHAR(fdo_->StackSize + 1), FALSE);
    IoSetNextIrpStackLocation(irp); // the originator's own location
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_WRITE;
    top_trail.answer = STATUS_MORE_PROCESSING_REQUIRED;
    IoSetCompletionRoutine(irp, Record, &top_trail, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(fdo_, irp), STATUS_SUCCESS);
    ASSERT_EQ(upper_trail.calls.size(), 1u);
    ASSERT_EQ(top_trail.calls.size(), 1u);
    EXPECT_EQ(upper_trail.devices[0], fdo_);
    EXPECT_EQ(irp->IoStatus.Information, 7u);

    // The upper routine keeps the IRP; the originator's routine waits until
    // the upper driver completes it again.
    upper_trail.answer = STATUS_MORE_PROCESSING_REQUIRED;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoSetCompletionRoutine(Irp, Record, &upper_trail, TRUE, TRUE, TRUE);
        IoCallDriver(pdo_, Irp);
        held = Irp;
        IoMarkIrpPending(Irp);
        return STATUS_PENDING;
    };
    IoReuseIrp(irp, STATUS_SUCCESS);
    IoSetNextIrpStackLocation(irp);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_WRITE;
    IoSetCompletionRoutine(irp, Record, &top_trail, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(fdo_, irp), STATUS_PENDING);
    EXPECT_EQ(upper_trail.calls.size(), 2u);
    EXPECT_EQ(top_trail.calls.size(), 1u);
    Complete(held, STATUS_UNSUCCESSFUL);
    ASSERT_EQ(top_trail.calls.size(), 2u);
    EXPECT_TRUE(top_trail.pending[1]); // the upper driver's pending mark reached the top
    EXPECT_EQ(top_trail.devices[1], nullptr);
    IoFreeIrp(irp);
    Unstack();
}

TEST_F(IoManagerTest, CompletionRoutineFlagsSelectSuccessErrorAndCancel) {
    Stack();
    struct Case {
        BOOLEAN on_success, on_error, on_cancel;
        NTSTATUS status;
        BOOLEAN cancel;
        size_t calls;
    };
    const Case cases[] = {
        {TRUE, FALSE, FALSE, STATUS_SUCCESS, FALSE, 1},
        {TRUE, FALSE, FALSE, STATUS_UNSUCCESSFUL, FALSE, 0},
        {FALSE, TRUE, FALSE, STATUS_UNSUCCESSFUL, FALSE, 1},
        {FALSE, TRUE, FALSE, STATUS_SUCCESS, FALSE, 0},
        {FALSE, FALSE, TRUE, STATUS_CANCELLED, TRUE, 1},
        {FALSE, FALSE, TRUE, STATUS_CANCELLED, FALSE, 0},
    };
    for (const Case& c : cases) {
        Trail trail;
        trail.answer = STATUS_MORE_PROCESSING_REQUIRED;
        Trail last;
        last.answer = STATUS_MORE_PROCESSING_REQUIRED;
        g_lower = [&](PDEVICE_OBJECT, PIRP Irp) {
            Irp->Cancel = c.cancel;
            return Complete(Irp, c.status);
        };
        g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
            IoCopyCurrentIrpStackLocationToNext(Irp);
            IoSetCompletionRoutine(Irp, Record, &trail, c.on_success, c.on_error, c.on_cancel);
            return IoCallDriver(pdo_, Irp);
        };
        trail.answer = STATUS_SUCCESS;
        PIRP irp = IoAllocateIrp(CCHAR(fdo_->StackSize + 1), FALSE);
        IoSetNextIrpStackLocation(irp);
        IoSetCompletionRoutine(irp, Record, &last, TRUE, TRUE, TRUE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
        IoCallDriver(fdo_, irp);
        EXPECT_EQ(trail.calls.size(), c.calls)
            << "status " << c.status << " cancel " << int(c.cancel);
        EXPECT_EQ(last.calls.size(), 1u); // a skipped routine does not stop the unwinding
        IoFreeIrp(irp);
    }
    Unstack();
}

TEST_F(IoManagerTest, OverlappedReadCompletesLaterInVirtualTimeWithBufferedCopyBack) {
    Stack();
    static PIRP parked;
    static KTIMER timer;
    static KDPC dpc;
    parked = nullptr;
    g_upper = [](PDEVICE_OBJECT, PIRP Irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        if (stack->MajorFunction != IRP_MJ_READ)
            return Complete(Irp, STATUS_SUCCESS);
        EXPECT_EQ(stack->Parameters.Read.Length, 16u);
        EXPECT_NE(Irp->Flags & IRP_BUFFERED_IO, 0u);
        IoMarkIrpPending(Irp);
        parked = Irp;
        KeInitializeDpc(
            &dpc,
            [](PKDPC, PVOID, PVOID, PVOID) {
                memcpy(parked->AssociatedIrp.SystemBuffer, "hello, world! ??", 16);
                Complete(parked, STATUS_SUCCESS, 5); // only five bytes go back
            },
            nullptr);
        KeInitializeTimer(&timer);
        LARGE_INTEGER due;
        due.QuadPart = -50 * 10000;
        KeSetTimer(&timer, due, &dpc);
        return STATUS_PENDING;
    };
    hk::File file;
    ASSERT_EQ(file.Open(u"\\Device\\upper0"), STATUS_SUCCESS);
    int64_t start = kernel().NowMs();
    auto read = file.ReadAsync(16);
    EXPECT_FALSE(read->Done());
    EXPECT_NE(read->Irp(), nullptr);
    hk::IoResult result = read->Wait();
    EXPECT_EQ(kernel().NowMs() - start, 50);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(read->Output().data()), 16),
              std::string("hello") + std::string(11, '\0'));
    EXPECT_EQ(read->Irp(), nullptr);
    file.Close();
    EXPECT_EQ(hk::LiveIrps(), 0u);
    Unstack();
}

TEST_F(IoManagerTest, FileRequestsReachTheTopOfTheStackInOrder) {
    Stack();
    PDEVICE_OBJECT filter = Create(*upper_, nullptr, DO_BUFFERED_IO); // filters copy the flags
    IoAttachDeviceToDeviceStack(filter, fdo_);
    std::vector<std::string> seen;
    g_upper = [&](PDEVICE_OBJECT Device, PIRP Irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        EXPECT_EQ(Device, filter);
        EXPECT_EQ(Irp->StackCount, 3);
        EXPECT_NE(stack->FileObject, nullptr);
        seen.push_back(std::to_string(stack->MajorFunction));
        if (stack->MajorFunction == IRP_MJ_DEVICE_CONTROL &&
            stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_SERIAL_GET_BAUD_RATE) {
            auto* buffer = static_cast<ULONG*>(Irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(stack->Parameters.DeviceIoControl.InputBufferLength, 4u);
            EXPECT_EQ(stack->Parameters.DeviceIoControl.OutputBufferLength, 8u);
            buffer[1] = buffer[0] + 1;
            return Complete(Irp, STATUS_SUCCESS, 8);
        }
        if (stack->MajorFunction == IRP_MJ_WRITE) {
            EXPECT_EQ(memcmp(Irp->AssociatedIrp.SystemBuffer, "abc", 3), 0);
            return Complete(Irp, STATUS_SUCCESS, stack->Parameters.Write.Length);
        }
        return Complete(Irp, STATUS_SUCCESS);
    };
    hk::File file;
    ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
    EXPECT_EQ(file.Write("abc", 3).information, 3u);
    ULONG in = 41, out[2] = {0, 0};
    hk::IoResult result = file.DeviceIoControl(IOCTL_SERIAL_GET_BAUD_RATE, &in, 4, out, 8);
    EXPECT_EQ(result.information, 8u);
    EXPECT_EQ(out[1], 42u);
    file.Close();
    EXPECT_EQ(seen, (std::vector<std::string>{"0", "4", "14", "18", "2"}));
    IoDetachDevice(fdo_);
    Unstack();
}

TEST_F(IoManagerTest, ExclusiveDeviceOpensOnceAndFailedCreateLeavesItClosed) {
    PDEVICE_OBJECT port = Create(*upper_, u"\\Device\\excl", 0, TRUE);
    NTSTATUS answer = STATUS_DEVICE_NOT_CONNECTED;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, answer); };
    hk::File first, second;
    EXPECT_EQ(first.Open(port), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_FALSE(first.IsOpen());
    answer = STATUS_SUCCESS;
    EXPECT_EQ(first.Open(port), STATUS_SUCCESS);
    EXPECT_EQ(second.Open(port), STATUS_ACCESS_DENIED);
    EXPECT_EQ(hk::DeviceReferences(port), 1);
    first.Close();
    EXPECT_EQ(second.Open(port), STATUS_SUCCESS);
}

TEST_F(IoManagerTest, BuiltDeviceControlSetsTheEventFillsTheStatusAndIsFreed) {
    Stack();
    g_lower = [](PDEVICE_OBJECT, PIRP Irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        EXPECT_EQ(stack->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
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
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(IoCallDriver(pdo_, irp), STATUS_PENDING);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 4u);
    EXPECT_EQ(out[3], 4);
    EXPECT_EQ(hk::LiveIrps(), 0u);
    Unstack();
}

// Cancel routines of a fake driver that parks one IRP.
PIRP g_parked;
int g_cancel_calls;
KIRQL g_cancel_irql;
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
    Irp->IoStatus.Status = STATUS_CANCELLED;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

// The cancel-safe queueing idiom: set the routine, then look at Cancel.
NTSTATUS Park(PIRP Irp, PDRIVER_CANCEL routine) {
    IoMarkIrpPending(Irp);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    IoSetCancelRoutine(Irp, routine);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, nullptr)) {
        IoReleaseCancelSpinLock(irql);
        Complete(Irp, STATUS_CANCELLED);
        return STATUS_PENDING;
    }
    g_parked = Irp;
    IoReleaseCancelSpinLock(irql);
    return STATUS_PENDING;
}

TEST_F(IoManagerTest, CancelCallsTheRoutineUnderTheCancelLockOrOnlyMarksTheIrp) {
    PDEVICE_OBJECT port = Create(*upper_, u"\\Device\\cancel", DO_BUFFERED_IO);
    g_cancel_calls = 0;
    PDRIVER_CANCEL routine = CancelParked;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_READ)
            return Complete(Irp, STATUS_SUCCESS);
        if (!routine) {
            IoMarkIrpPending(Irp);
            g_parked = Irp;
            return STATUS_PENDING;
        }
        return Park(Irp, routine);
    };
    hk::File file;
    ASSERT_EQ(file.Open(port), STATUS_SUCCESS);
    auto read = file.ReadAsync(4);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(file.Cancel(*read));
    KeLowerIrql(old);
    EXPECT_EQ(g_cancel_calls, 1);
    EXPECT_EQ(g_cancel_irql, DISPATCH_LEVEL);
    EXPECT_EQ(read->Wait().status, STATUS_CANCELLED);

    routine = nullptr; // no cancel routine: only the flag is set
    read = file.ReadAsync(4);
    EXPECT_FALSE(file.Cancel(*read));
    EXPECT_TRUE(g_parked->Cancel);
    EXPECT_FALSE(read->Done());
    Complete(g_parked, STATUS_SUCCESS);
    EXPECT_EQ(read->Wait().status, STATUS_SUCCESS);

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
    file.Close();
}

TEST_F(IoManagerTest, IrpCancelledBeforeItWasQueuedNeverSeesItsCancelRoutine) {
    Stack();
    g_cancel_calls = 0;
    g_lower = [](PDEVICE_OBJECT, PIRP Irp) { return Park(Irp, CancelParked); };
    Trail trail;
    trail.answer = STATUS_MORE_PROCESSING_REQUIRED;
    PIRP irp = IoAllocateIrp(pdo_->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
    IoSetCompletionRoutine(irp, Record, &trail, TRUE, TRUE, TRUE);
    EXPECT_FALSE(IoCancelIrp(irp)); // nobody holds it yet
    EXPECT_TRUE(irp->Cancel);
    g_parked = nullptr;
    EXPECT_EQ(IoCallDriver(pdo_, irp), STATUS_PENDING);
    EXPECT_EQ(g_cancel_calls, 0);
    EXPECT_EQ(g_parked, nullptr);
    EXPECT_EQ(trail.calls.size(), 1u);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    IoFreeIrp(irp);
    Unstack();
}

struct WorkLog {
    std::vector<int> order;
    std::vector<KIRQL> irqls;
    std::vector<PKTHREAD> threads;
    PIO_WORKITEM items[3];
};
WorkLog g_work;
VOID NTAPI LogWork(PDEVICE_OBJECT Device, PVOID Context) {
    int index = int(reinterpret_cast<intptr_t>(Context));
    g_work.order.push_back(index);
    g_work.irqls.push_back(KeGetCurrentIrql());
    g_work.threads.push_back(KeGetCurrentThread());
    EXPECT_GE(hk::DeviceReferences(Device), 1);
    IoFreeWorkItem(g_work.items[index]); // freeing itself from its routine is allowed
}

TEST_F(IoManagerTest, WorkItemsRunInOrderAtPassiveOnTheWorkerAndHoldTheDevice) {
    g_work = WorkLog{};
    PDEVICE_OBJECT port = Create(*upper_);
    for (auto& item : g_work.items)
        item = IoAllocateWorkItem(port);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    for (intptr_t i = 0; i < 3; ++i)
        IoQueueWorkItem(g_work.items[i], LogWork, DelayedWorkQueue, reinterpret_cast<PVOID>(i));
    KeLowerIrql(old);
    EXPECT_EQ(hk::DeviceReferences(port), 3);
    IoDeleteDevice(port); // the queued items keep it alive
    EXPECT_TRUE(hk::DeviceExists(port));
    EXPECT_TRUE(g_work.order.empty());
    kernel().Sleep(1);
    EXPECT_EQ(g_work.order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(g_work.irqls, (std::vector<KIRQL>(3, PASSIVE_LEVEL)));
    EXPECT_NE(g_work.threads[0], KeGetCurrentThread());
    EXPECT_FALSE(hk::DeviceExists(port));
}

VOID NTAPI Nothing(PDEVICE_OBJECT, PVOID) {}

TEST_F(IoManagerTest, WorkItemQueuedTwiceOrFreedWhileQueuedIsReported) {
    PDEVICE_OBJECT port = Create(*upper_);
    PIO_WORKITEM item = IoAllocateWorkItem(port);
    hk::ExpectViolation expect(hk::rule::kWorkItemMisuse);
    IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
    IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
    EXPECT_EQ(expect.Count(), 1u);
    IoFreeWorkItem(item);
    EXPECT_EQ(expect.Count(), 2u);
    kernel().Sleep(1);
    IoQueueWorkItem(item, Nothing, DelayedWorkQueue, nullptr);
    kernel().Sleep(1);
    IoFreeWorkItem(item);
    EXPECT_EQ(expect.Count(), 2u);
}

NTSTATUS NTAPI RaiseAndKeep(PDEVICE_OBJECT, PIRP, PVOID) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI Keep(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Mistakes of a driver that allocates its own IRPs, one rule each; the
// right use of each call is in the tests above.
TEST_F(IoManagerTest, DriverIrpMisuseIsReported) {
    PDEVICE_OBJECT port = Create(*lower_);
    auto sent = [port](PIRP irp, bool taken_back) {
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
        if (taken_back)
            IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, TRUE, TRUE);
        return IoCallDriver(port, irp);
    };
    struct Case {
        const char* rule;
        std::function<void()> misuse;
    };
    const Case cases[] = {
        {hk::rule::kIrpNoOriginator,
         [&] { // no routine takes it back
             PIRP irp = IoAllocateIrp(1, FALSE);
             sent(irp, false);
             IoFreeIrp(irp);
         }},
        {hk::rule::kIrpNoStackLocation,
         [&] {
             PIRP irp = IoAllocateIrp(1, FALSE);
             IoSetNextIrpStackLocation(irp);
             EXPECT_EQ(sent(irp, false), STATUS_INVALID_PARAMETER);
             IoSkipCurrentIrpStackLocation(irp);
             IoFreeIrp(irp);
         }},
        {hk::rule::kIrpUnknown,
         [] { // a freed IRP: the verifier sees it before memory is touched
             PIRP irp = IoAllocateIrp(1, FALSE);
             IoFreeIrp(irp);
             IoCancelIrp(irp);
         }},
        {hk::rule::kIrpBadFree,
         [] { // not from IoAllocateIrp
             alignas(16) UCHAR memory[512];
             auto irp = reinterpret_cast<PIRP>(memory);
             ASSERT_LE(IoSizeOfIrp(2), sizeof(memory));
             IoInitializeIrp(irp, IoSizeOfIrp(2), 2);
             EXPECT_EQ(IoGetNextIrpStackLocation(irp),
                       reinterpret_cast<PIO_STACK_LOCATION>(memory + sizeof(IRP)) + 1);
             IoFreeIrp(irp);
         }},
        {hk::rule::kIrpInitializeAllocated,
         [] {
             PIRP irp = IoAllocateIrp(2, FALSE);
             IoInitializeIrp(irp, IoSizeOfIrp(2), 2);
             IoFreeIrp(irp);
         }},
        {hk::rule::kIrqlNotRestored,
         [&] {
             PIRP irp = IoAllocateIrp(1, FALSE);
             IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
             IoSetCompletionRoutine(irp, RaiseAndKeep, nullptr, TRUE, TRUE, TRUE);
             IoCallDriver(port, irp);
             EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
             IoFreeIrp(irp);
         }},
        {hk::rule::kIrpSentWithCancelRoutine,
         [&] {
             PIRP irp = IoAllocateIrp(1, FALSE);
             IoSetCancelRoutine(irp, CancelParked);
             hk::ExpectViolation also(hk::rule::kIrpCompletedWithCancelRoutine);
             sent(irp, true);
             IoFreeIrp(irp);
         }},
    };
    for (const Case& c : cases) {
        hk::ExpectViolation expect(c.rule);
        c.misuse();
        EXPECT_EQ(expect.Count(), 1u) << c.rule;
    }
}

// Leftovers at teardown are each reported, and the I/O manager takes its
// blocks back. Regression: the report read the major function past the
// block of an IRP completed past its top location, and called it "not sent".
TEST_F(IoManagerTest, LeftoversAreReportedAtTeardown) {
    hk::Driver driver;
    PDEVICE_OBJECT port = nullptr;
    ASSERT_EQ(IoCreateDevice(driver.Object(), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &port),
              STATUS_SUCCESS);
    IoGetNextIrpStackLocation(IoAllocateIrp(2, FALSE))->MajorFunction = IRP_MJ_READ;
    PIRP completed = IoAllocateIrp(1, FALSE);
    {
        hk::ExpectViolation expect(hk::rule::kIrpNoOriginator);
        IoCallDriver(port, completed); // no routine takes it back, and nobody frees it
    }
    IoAllocateWorkItem(port);
    std::map<std::string, std::string> reports;
    kernel().verifier().SetHandler(
        [&](const std::string& rule, const std::string& message) { reports[rule] = message; });
    Restart({});
    ASSERT_EQ(reports.size(), 3u);
    const std::string& irps = reports[hk::rule::kIrpLeak];
    EXPECT_NE(irps.find("[major 0x3, not sent]"), std::string::npos) << irps;
    EXPECT_NE(irps.find("[completed, never freed]"), std::string::npos) << irps;
    EXPECT_EQ(reports.count(hk::rule::kWorkItemLeak), 1u);
    EXPECT_EQ(reports.count(hk::rule::kDeviceLeak), 1u); // and no pool leak
    driver.Object()->DeviceObject = nullptr;
}

// Each dispatch rule on a wrong routine, next to the right one. The upper
// driver sits on the lower one; the lower completes with STATUS_SUCCESS and
// 0 bytes unless the case parks its IRP.
TEST_F(IoManagerTest, DispatchResultRules) {
    Stack();
    struct Case {
        const char* rule; // null: the right routine, which no rule may flag
        std::function<NTSTATUS(PIRP)> upper;
    };
    auto forward = [&](PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        return IoCallDriver(pdo_, Irp);
    };
    const Case cases[] = {
        {nullptr, [](PIRP Irp) { return Complete(Irp, STATUS_UNSUCCESSFUL); }},
        {nullptr,
         [](PIRP Irp) { // marked and completed at once
             IoMarkIrpPending(Irp);
             Complete(Irp, STATUS_SUCCESS);
             return STATUS_PENDING;
         }},
        {hk::rule::kPendingMismatch,
         [](PIRP Irp) {
             g_parked = Irp;
             return STATUS_PENDING;
         }},
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
        {hk::rule::kDispatchNotCompleted,
         [](PIRP Irp) {
             g_parked = Irp;
             return STATUS_SUCCESS;
         }},
        {nullptr, forward},
        {nullptr,
         [&](PIRP Irp) { // marked before forwarding: STATUS_PENDING whatever the lower says
             IoMarkIrpPending(Irp);
             forward(Irp);
             return STATUS_PENDING;
         }},
        {hk::rule::kForwardStatus,
         [&](PIRP Irp) {
             forward(Irp);
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
    for (const Case& c : cases) {
        g_parked = nullptr;
        g_upper = [&](PDEVICE_OBJECT, PIRP Irp) { return c.upper(Irp); };
        std::optional<hk::ExpectViolation> expect;
        if (c.rule)
            expect.emplace(c.rule);
        auto write = file.WriteAsync("x", 1);
        if (g_parked)
            Complete(g_parked, STATUS_SUCCESS);
        write->Wait();
        if (c.rule) {
            EXPECT_EQ(expect->Count(), 1u) << c.rule;
        }
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
    g_upper = [](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, STATUS_SUCCESS); };
    file.Close();
    Unstack();
}

// The I/O manager copies Information bytes of a buffered request back: more
// than the output buffer holds is reported, not clamped. The system buffer
// past the input holds pool garbage, not zeros.
TEST_F(IoManagerTest, InformationBeyondTheOutputBufferIsReported) {
    PDEVICE_OBJECT port = Create(*upper_, nullptr, DO_BUFFERED_IO);
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
    ASSERT_EQ(file.Open(port), STATUS_SUCCESS);
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
    file.Close();
}

// A driver-allocated IRP parked by the lower driver belongs to it until it
// comes back: the originator may not free, reinitialize, reuse or resend it,
// nor may a driver that sent it on set its cancel routine.
TEST_F(IoManagerTest, AnIrpALowerDriverHoldsIsNotTheSendersToTouch) {
    Stack();
    g_parked = nullptr;
    g_lower = [](PDEVICE_OBJECT, PIRP Irp) {
        IoMarkIrpPending(Irp);
        IoSetCancelRoutine(Irp, CancelParked); // the holder may
        IoSetCancelRoutine(Irp, nullptr);
        g_parked = Irp;
        return STATUS_PENDING;
    };
    int mode = 0;
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        IoMarkIrpPending(Irp);
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoCallDriver(pdo_, Irp);
        if (mode == 1)
            IoSetCancelRoutine(Irp, CancelParked);
        if (mode == 2)
            IoCallDriver(pdo_, Irp);
        return STATUS_PENDING;
    };
    Trail trail;
    trail.answer = STATUS_MORE_PROCESSING_REQUIRED;
    alignas(16) UCHAR memory[1024];
    auto own = reinterpret_cast<PIRP>(memory);
    ASSERT_LE(IoSizeOfIrp(fdo_->StackSize), sizeof(memory));
    struct Case {
        const char* rule;
        std::function<void(PIRP)> misuse; // while the lower driver holds the IRP
        int mode = 0;
        bool own_memory = false;
    };
    const Case cases[] = {
        {hk::rule::kIrpOwnedByLower, [](PIRP Irp) { IoFreeIrp(Irp); }},
        {hk::rule::kIrpReusedInFlight, [](PIRP Irp) { IoReuseIrp(Irp, STATUS_SUCCESS); }},
        {hk::rule::kIrpOwnedByLower,
         [](PIRP Irp) { IoInitializeIrp(Irp, Irp->Size, Irp->StackCount); }, 0, true},
        {hk::rule::kIrpOwnedByLower, [](PIRP) {}, 1},
        {hk::rule::kIrpReusedInFlight, [](PIRP) {}, 2},
    };
    for (const Case& c : cases) {
        mode = c.mode;
        PIRP irp = own;
        if (c.own_memory)
            IoInitializeIrp(own, IoSizeOfIrp(fdo_->StackSize), fdo_->StackSize);
        else
            irp = IoAllocateIrp(fdo_->StackSize, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_WRITE;
        IoSetCompletionRoutine(irp, Record, &trail, TRUE, TRUE, TRUE);
        hk::ExpectViolation expect(c.rule);
        IoCallDriver(fdo_, irp);
        c.misuse(irp);
        EXPECT_EQ(expect.Count(), 1u) << c.rule << " mode " << c.mode;
        IoSetCancelRoutine(g_parked, nullptr);
        Complete(g_parked, STATUS_SUCCESS);
        if (!c.own_memory)
            IoFreeIrp(irp); // back now: allowed
    }
    Unstack();
}

// Regression: IoReuseIrp on a built control IRP left it without its
// finishing step, and completing it threw std::bad_function_call.
TEST_F(IoManagerTest, ReuseOfABuiltIrpIsReportedAndTheIrpStillFinishes) {
    PDEVICE_OBJECT port = Create(*lower_);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildDeviceIoControlRequest(CTL_CODE(FILE_DEVICE_UNKNOWN, 5, METHOD_NEITHER, 0),
                                             port, nullptr, 0, nullptr, 0, TRUE, &event, &iosb);
    hk::ExpectViolation expect(hk::rule::kIrpReuseNotOwn);
    IoReuseIrp(irp, STATUS_SUCCESS);
    EXPECT_EQ(expect.Count(), 1u);
    IoCallDriver(port, irp);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
}

NTSTATUS NTAPI CompleteAgain(PDEVICE_OBJECT, PIRP Irp, PVOID) {
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

// Regression: a completion routine that completed its IRP again made the
// completion loop walk the IRP its inner completion had freed.
TEST_F(IoManagerTest, ACompletionRoutineCompletingAgainIsCompletedTwice) {
    Stack();
    hk::File file;
    ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
    g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoSetCompletionRoutine(Irp, CompleteAgain, nullptr, TRUE, TRUE, TRUE);
        return IoCallDriver(pdo_, Irp);
    };
    hk::ExpectViolation expect(hk::rule::kIrpCompletedTwice);
    EXPECT_EQ(file.Write("x", 1).status, STATUS_SUCCESS);
    EXPECT_EQ(expect.Count(), 1u);
    g_upper = [](PDEVICE_OBJECT, PIRP Irp) { return Complete(Irp, STATUS_SUCCESS); };
    file.Close();
    Unstack();
}

NTSTATUS NTAPI PassOnPending(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    static_cast<std::vector<KIRQL>*>(Context)->push_back(KeGetCurrentIrql());
    if (Irp->PendingReturned)
        IoMarkIrpPending(Irp);
    return STATUS_SUCCESS;
}

// The seeded lower driver completes inline or later from a DPC; a correct
// pass-through driver above it is silent either way, and its completion
// routine runs at DISPATCH_LEVEL when the completion comes from the DPC.
TEST_F(IoManagerTest, SeededLowerDriverCompletesInlineOrFromADpc) {
    std::vector<KIRQL> inline_irqls, late_irqls;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        Restart({.seed = seed});
        Stack();
        std::vector<KIRQL> irqls;
        NTSTATUS returned = 0;
        g_lower = [](PDEVICE_OBJECT, PIRP Irp) {
            return hk::CompleteAsLowerDriver(Irp, STATUS_SUCCESS, 1);
        };
        g_upper = [&](PDEVICE_OBJECT, PIRP Irp) {
            if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_READ)
                return Complete(Irp, STATUS_SUCCESS);
            IoCopyCurrentIrpStackLocationToNext(Irp);
            IoSetCompletionRoutine(Irp, PassOnPending, &irqls, TRUE, TRUE, TRUE);
            return returned = IoCallDriver(pdo_, Irp);
        };
        hk::File file;
        ASSERT_EQ(file.Open(fdo_), STATUS_SUCCESS);
        UCHAR byte;
        EXPECT_EQ(file.Read(&byte, 1).information, 1u);
        file.Close();
        ASSERT_EQ(irqls.size(), 1u);
        (returned == STATUS_PENDING ? late_irqls : inline_irqls).push_back(irqls[0]);
        Unstack();
        for (PDEVICE_OBJECT device : devices_)
            IoDeleteDevice(device);
        devices_.clear();
    }
    EXPECT_FALSE(inline_irqls.empty());
    EXPECT_FALSE(late_irqls.empty());
    EXPECT_EQ(inline_irqls, std::vector<KIRQL>(inline_irqls.size(), PASSIVE_LEVEL));
    EXPECT_EQ(late_irqls, std::vector<KIRQL>(late_irqls.size(), DISPATCH_LEVEL));
}

} // namespace
