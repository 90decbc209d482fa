// IRPs: allocation and initialisation, sending down a device stack,
// completion with the completion routines run in stack order, cancellation
// under the system cancel spin lock, synchronous device control requests
// built for a driver, the seeded lower driver of tests, and MDLs. The
// verifier watches pending marks and the statuses dispatch routines return,
// IRQLs across callbacks, double and premature completions, completions
// under a spin lock, who owns an IRP when it is freed, reused or given a
// cancel routine, freed IRPs, and Windows XP's rules for power IRPs.
#include "hostkernel/iomgr.h"

#include "hostkernel/checks.h"
#include "hostkernel/scheduler.h"
#include "hostkernel/timeline.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace hk;
using namespace hk::detail;

namespace {

bool IsError(NTSTATUS status) {
    return (ULONG(status) >> 30) == 3;
}

void Violation(const char* rule_name, const std::string& detail) {
    Kernel::Current().verifier().Violation(rule_name, detail);
}

std::string Describe(PIRP irp) {
    return "IRP " + Hex(uintptr_t(irp));
}

// The record of a known IRP, or null after reporting the unknown one.
std::shared_ptr<IrpInfo> KnownIrp(const char* call, PIRP irp) {
    auto info = Io().FindIrp(irp);
    if (!info) {
        bool completed = Io().completed_and_freed.count(irp) != 0;
        Violation(completed && std::string(call) == "IofCompleteRequest" ? rule::kIrpCompletedTwice
                                                                         : rule::kIrpUnknown,
                  std::string(call) + " on " + Describe(irp) + ", which " +
                      (completed ? "was completed and freed already"
                                 : "is not an allocated or initialized IRP"));
    }
    return info;
}

void Fill(PIRP irp, USHORT packet_size, CCHAR stack_size) {
    memset(irp, 0, packet_size);
    irp->Type = IO_TYPE_IRP;
    irp->Size = packet_size;
    irp->StackCount = stack_size;
    irp->CurrentLocation = CHAR(stack_size + 1);
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation =
        reinterpret_cast<PIO_STACK_LOCATION>(reinterpret_cast<PCHAR>(irp) + sizeof(IRP)) +
        stack_size;
}

void CheckCallbackIrql(const char* what, KIRQL before) {
    KIRQL after = Sched().Irql();
    if (after == before)
        return;
    Violation(rule::kIrqlNotRestored, std::string(what) + " was called at IRQL " +
                                          std::to_string(before) + " and returned at IRQL " +
                                          std::to_string(after));
    Sched().SetIrql(before);
}

// While alive, the current context runs a routine of the driver at one
// stack location of the IRP (the originator's is StackCount).
class FrameScope {
  public:
    FrameScope(PIRP irp, size_t index) : frames_(Io().frames[Sched().Current()]) {
        frames_.push_back({irp, index});
    }
    ~FrameScope() { frames_.pop_back(); }

  private:
    std::vector<IoManager::Frame>& frames_;
};

bool SentAndNotBack(const IrpInfo& info) {
    return std::any_of(info.at.begin(), info.at.end(),
                       [](const IrpInfo::Location& location) { return location.active; });
}

bool IsBufferedOutput(PIO_STACK_LOCATION stack) {
    switch (stack->MajorFunction) {
    case IRP_MJ_READ:
        return stack->DeviceObject && (stack->DeviceObject->Flags & DO_BUFFERED_IO);
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        return METHOD_FROM_CTL_CODE(stack->Parameters.DeviceIoControl.IoControlCode) ==
               METHOD_BUFFERED;
    default:
        return false;
    }
}

// The I/O manager copies Information bytes back to the caller: more than
// the output buffer holds would overrun it.
void CheckInformation(PIRP irp) {
    if (irp->CurrentLocation > irp->StackCount || IsError(irp->IoStatus.Status))
        return;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (!IsBufferedOutput(stack))
        return;
    ULONG length = stack->MajorFunction == IRP_MJ_READ
                       ? stack->Parameters.Read.Length
                       : stack->Parameters.DeviceIoControl.OutputBufferLength;
    if (irp->IoStatus.Information > length)
        Violation(rule::kInformationOverflow, Describe(irp) + " completed with Information " +
                                                  std::to_string(irp->IoStatus.Information) +
                                                  " for an output buffer of " +
                                                  std::to_string(length) + " byte(s)");
}

// What a dispatch routine returned against what became of its IRP: a
// status other than the one it completed the IRP with, no completion and no
// pending, or after forwarding anything but the lower driver's answer.
void CheckDispatchResult(const IrpInfo& info, PIO_STACK_LOCATION stack, size_t index, uint32_t send,
                         uint32_t lower_sends_before, NTSTATUS status, UCHAR major) {
    std::string who = "the dispatch routine for major function " + Hex(major);
    if (info.at[index].sends != send) {
        // Passed on from this same location (IoSkipCurrentIrpStackLocation).
        if (info.at[index].sends > send && status != info.at[index].returned)
            Violation(rule::kForwardStatus, who + " returned " + Hex(ULONG(status)) +
                                                " but the lower driver returned " +
                                                Hex(ULONG(info.at[index].returned)));
        return;
    }
    bool completed = info.at[index].unwound_send == send;
    bool marked;
    if (completed)
        marked = info.at[index].pending;
    else if (!info.gone)
        marked = (stack->Control & SL_PENDING_RETURNED) != 0;
    else
        return;
    bool forwarded = index > 0 && info.at[index - 1].sends != lower_sends_before &&
                     info.at[index - 1].reclaimed_send != info.at[index - 1].sends;
    if (forwarded) {
        // Marking the IRP pending before forwarding it obliges STATUS_PENDING.
        if (status != info.at[index - 1].returned && !(status == STATUS_PENDING && marked))
            Violation(rule::kForwardStatus, who + " returned " + Hex(ULONG(status)) +
                                                " but the lower driver returned " +
                                                Hex(ULONG(info.at[index - 1].returned)));
        return;
    }
    if (status == STATUS_PENDING) {
        if (!marked)
            Violation(rule::kPendingMismatch,
                      who + " returned STATUS_PENDING without marking the IRP pending");
        return;
    }
    if (marked)
        Violation(rule::kPendingMismatch,
                  who + " marked the IRP pending but returned " + Hex(ULONG(status)));
    else if (!completed)
        Violation(rule::kDispatchNotCompleted,
                  who + " returned " + Hex(ULONG(status)) + " and still holds the IRP");
    else if (status != info.at[index].status)
        Violation(rule::kDispatchStatusMismatch, who + " returned " + Hex(ULONG(status)) +
                                                     " but completed the IRP with " +
                                                     Hex(ULONG(info.at[index].status)));
}

bool IsPowerQueryOrSet(const IO_STACK_LOCATION& stack) {
    return stack.MajorFunction == IRP_MJ_POWER &&
           (stack.MinorFunction == IRP_MN_SET_POWER || stack.MinorFunction == IRP_MN_QUERY_POWER);
}

// A power IRP going down on a Windows XP-era system: only PoCallDriver may
// send it, only the power manager may have made it, and a driver that
// passes a query or set-power IRP on with its own stack location skipped
// must have called PoStartNextPowerIrp before (it cannot afterwards).
void CheckPowerSend(const IrpInfo& info, PIRP irp, size_t index, const IoManager::Frame* caller,
                    bool power_call) {
    if (!power_call)
        Violation(rule::kPowerIrpIoCallDriver, Describe(irp) + " sent with IoCallDriver");
    if (info.origin != IrpOrigin::kPower)
        Violation(rule::kPowerIrpNotRequested,
                  Describe(irp) + " was not allocated by PoRequestPowerIrp");
    if (caller && caller->index == index && IsPowerQueryOrSet(*IoGetNextIrpStackLocation(irp)) &&
        info.at[index].power_started != info.at[index].sends)
        Violation(rule::kPowerIrpNotStarted,
                  Describe(irp) + " passed on with its stack location skipped, without "
                                  "PoStartNextPowerIrp before");
}

PIRP AllocateIrp(CCHAR stack_size, IrpOrigin origin) {
    if (stack_size < 1) {
        std::fprintf(stderr, "hostkernel: IRP of %d stack locations requested\n", stack_size);
        std::abort();
    }
    USHORT size = IoSizeOfIrp(stack_size);
    auto irp = static_cast<PIRP>(ExAllocatePoolWithTag(NonPagedPool, size, kIrpTag));
    if (!irp)
        return nullptr;
    Fill(irp, size, stack_size);
    Io().Register(irp, origin);
    return irp;
}

} // namespace

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    UNREFERENCED_PARAMETER(ChargeQuota);
    CheckIoIrql("IoAllocateIrp", DISPATCH_LEVEL);
    return AllocateIrp(StackSize, IrpOrigin::kAllocated);
}

void IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    if (StackSize < 1 || PacketSize < IoSizeOfIrp(StackSize)) {
        std::fprintf(
            stderr, "hostkernel: IoInitializeIrp with %u bytes for %d stack locations (needs %u)\n",
            PacketSize, StackSize, StackSize < 1 ? 0u : unsigned(IoSizeOfIrp(StackSize)));
        std::abort();
    }
    auto known = Io().FindIrp(Irp);
    if (known && SentAndNotBack(*known)) {
        Violation(rule::kIrpOwnedByLower, "IoInitializeIrp on " + Describe(Irp) +
                                              ", which a lower driver has not completed yet");
        return;
    }
    if (known && known->origin != IrpOrigin::kDriver)
        Violation(rule::kIrpInitializeAllocated,
                  "IoInitializeIrp on " + Describe(Irp) +
                      ", which the I/O manager allocated; IoReuseIrp reinitializes it");
    IrpOrigin origin = known ? known->origin : IrpOrigin::kDriver;
    Fill(Irp, PacketSize, StackSize);
    Io().Register(Irp, origin);
}

void IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    auto info = KnownIrp("IoReuseIrp", Irp);
    if (!info)
        return;
    if (info->origin != IrpOrigin::kAllocated && info->origin != IrpOrigin::kDriver) {
        Violation(rule::kIrpReuseNotOwn,
                  "IoReuseIrp on " + Describe(Irp) + ", which the I/O manager built and finishes");
        return;
    }
    if (SentAndNotBack(*info)) {
        Violation(rule::kIrpReusedInFlight, "IoReuseIrp on " + Describe(Irp) +
                                                ", which a lower driver has not completed yet");
        return;
    }
    Fill(Irp, Irp->Size, Irp->StackCount);
    Irp->IoStatus.Status = Status;
    Io().Register(Irp, info->origin);
}

void IoFreeIrp(PIRP Irp) {
    CheckIoIrql("IoFreeIrp", DISPATCH_LEVEL);
    auto info = KnownIrp("IoFreeIrp", Irp);
    if (!info)
        return;
    if (info->origin != IrpOrigin::kAllocated) {
        Violation(rule::kIrpBadFree,
                  "IoFreeIrp on " + Describe(Irp) + ", which IoAllocateIrp did not allocate");
        return;
    }
    if (Irp->CancelRoutine) {
        Violation(rule::kIrpBadFree,
                  "IoFreeIrp on " + Describe(Irp) + " with a cancel routine set");
        return;
    }
    if (SentAndNotBack(*info)) {
        Violation(rule::kIrpOwnedByLower,
                  "IoFreeIrp on " + Describe(Irp) + ", which a lower driver has not completed yet");
        return;
    }
    Io().Release(Irp);
}

void HkCheckSetCancelRoutine(PIRP Irp) {
    if (!Io().FindIrp(Irp))
        return;
    const IoManager::Frame* frame = Io().InnermostFrame(Irp);
    if (frame && size_t(Irp->CurrentLocation - 1) < frame->index)
        Violation(rule::kIrpOwnedByLower,
                  "IoSetCancelRoutine on " + Describe(Irp) +
                      " by a driver that sent it on: only the driver holding it may");
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return CallDriver(DeviceObject, Irp, false);
}

PIRP hk::detail::NewIrp(CCHAR stack_size, IrpOrigin origin) {
    return AllocateIrp(stack_size, origin);
}

NTSTATUS hk::detail::CallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp, bool power_call) {
    Sched().PreemptionPoint();
    CheckIoIrql("IofCallDriver", DISPATCH_LEVEL);
    auto info = KnownIrp("IofCallDriver", Irp);
    if (!info)
        return STATUS_INVALID_PARAMETER;
    if (!Io().FindDevice(DeviceObject)) {
        std::fprintf(stderr, "hostkernel: IofCallDriver to %p, which is not a device object\n",
                     static_cast<void*>(DeviceObject));
        std::abort();
    }
    // A driver running for this IRP may send it one location down (or the
    // same one, having skipped its own); further down it is still away.
    const IoManager::Frame* caller = Io().InnermostFrame(Irp);
    if (caller && Irp->CurrentLocation - 1 < CCHAR(caller->index)) {
        Violation(rule::kIrpReusedInFlight,
                  Describe(Irp) + " sent again while a lower driver still holds it");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (Irp->CurrentLocation <= 1) {
        Violation(rule::kIrpNoStackLocation,
                  Describe(Irp) + " of " + std::to_string(Irp->StackCount) +
                      " stack location(s) sent to a device that needs one more");
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp->CancelRoutine)
        Violation(rule::kIrpSentWithCancelRoutine,
                  Describe(Irp) + " sent on with its cancel routine still set");
    size_t index = size_t(Irp->CurrentLocation - 2);
    if (IoGetNextIrpStackLocation(Irp)->MajorFunction == IRP_MJ_POWER)
        CheckPowerSend(*info, Irp, index, caller, power_call);
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    stack->DeviceObject = DeviceObject;
    uint32_t send = ++info->at[index].sends;
    info->total_sends++;
    info->at[index].unwound_send = 0;
    info->at[index].active = true;
    uint32_t lower_sends_before = index > 0 ? info->at[index - 1].sends : 0;
    UCHAR major = stack->MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION) {
        std::fprintf(stderr, "hostkernel: IRP sent with major function 0x%x\n", major);
        std::abort();
    }
    KIRQL before = Sched().Irql();
    NTSTATUS status;
    Timeline* timeline = Kernel::Current().timeline();
    if (timeline) {
        timeline->Begin(Timeline::IrpName(major, stack->MinorFunction) + " " +
                            Timeline::DriverName(DeviceObject->DriverObject),
                        "dispatch", {{"irp", Hex(uintptr_t(Irp))}});
        timeline->IrpDispatched(Irp);
    }
    {
        FrameScope frame(Irp, index);
        status = DeviceObject->DriverObject->MajorFunction[major](DeviceObject, Irp);
    }
    if (timeline)
        timeline->End();
    CheckCallbackIrql(("the dispatch routine for major function " + Hex(major)).c_str(), before);
    CheckDispatchResult(*info, stack, index, send, lower_sends_before, status, major);
    info->at[index].returned = status;
    return status;
}

// Set while a lower driver of the stand-in completes inside its caller's call.
static thread_local int g_lower_completion = 0;

void hk::CompleteInsideCall(PIRP irp) {
    ++g_lower_completion;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    --g_lower_completion;
}

static void CompleteUpward(PIRP Irp, IrpInfo& info_ref, Timeline* timeline);

void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    Sched().PreemptionPoint();
    UNREFERENCED_PARAMETER(PriorityBoost);
    CheckIoIrql("IofCompleteRequest", DISPATCH_LEVEL);
    auto info = KnownIrp("IofCompleteRequest", Irp);
    if (!info)
        return;
    if (info->routine_mark == info->total_sends) {
        Violation(rule::kIrpCompletedTwice,
                  Describe(Irp) + " completed again by its own completion routine");
        return;
    }
    if (g_lower_completion == 0 && Locks().Held(LockKind::kSpinLock, CurrentContext()) != 0)
        Violation(rule::kCompletedUnderSpinLock,
                  Describe(Irp) + " completed under a spin lock: the completion routines above "
                                  "may take locks of their own, or send it again");
    if (Irp->CurrentLocation > Irp->StackCount + 1) {
        Violation(rule::kIrpCompletedTwice,
                  Describe(Irp) + " completed again after it reached its originator");
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        Violation(rule::kIrpCompletedPending, Describe(Irp) + " completed with STATUS_PENDING");
        return;
    }
    if (Irp->CancelRoutine) {
        Violation(rule::kIrpCompletedWithCancelRoutine,
                  Describe(Irp) + " completed with its cancel routine still set");
        Irp->CancelRoutine = nullptr;
    }
    CheckInformation(Irp);
    info->completions++;
    Timeline* timeline = Kernel::Current().timeline();
    if (!timeline) {
        CompleteUpward(Irp, *info, nullptr);
        return;
    }
    timeline->Begin(
        "IoCompleteRequest " + Timeline::IrpName(IoGetCurrentIrpStackLocation(Irp)->MajorFunction,
                                                 IoGetCurrentIrpStackLocation(Irp)->MinorFunction),
        "completion", {{"irp", Hex(uintptr_t(Irp))}, {"status", Hex(ULONG(Irp->IoStatus.Status))}});
    timeline->IrpCompleted(Irp);
    CompleteUpward(Irp, *info, timeline);
    timeline->End();
}

// Completion's walk up the stack from the completing driver's location:
// each location's completion routine runs (or its pending mark moves up),
// until the originator finishes the IRP or a routine takes it back.
static void CompleteUpward(PIRP Irp, IrpInfo& info_ref, Timeline* timeline) {
    IrpInfo* info = &info_ref;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    for (Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++;
         Irp->CurrentLocation <= Irp->StackCount + 1;
         stack++, Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++) {
        size_t index = size_t(Irp->CurrentLocation - 2);
        // Completion passes this location: its driver is done with the IRP
        // (it completed it, or its completion routine, run one step below,
        // let completion go on).
        if (IsPowerQueryOrSet(*stack) && info->at[index].power_started != info->at[index].sends)
            Violation(rule::kPowerIrpNotStarted, Describe(Irp) +
                                                     " completed past a driver that did not call "
                                                     "PoStartNextPowerIrp at its stack location");
        Irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        info->at[index].pending = Irp->PendingReturned;
        info->at[index].unwound_send = info->at[index].sends;
        info->at[index].active = false;
        info->at[index].status = Irp->IoStatus.Status;
        NTSTATUS status = Irp->IoStatus.Status;
        bool invoke = (NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_SUCCESS)) ||
                      (!NT_SUCCESS(status) && (stack->Control & SL_INVOKE_ON_ERROR)) ||
                      (Irp->Cancel && (stack->Control & SL_INVOKE_ON_CANCEL));
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        memset(stack, 0, sizeof(*stack));
        if (invoke && routine) {
            PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                        ? nullptr
                                        : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
            KIRQL before = Sched().Irql();
            uint64_t outer_mark = info->routine_mark;
            uint64_t sends_before = info->total_sends;
            info->routine_mark = sends_before;
            NTSTATUS result;
            if (timeline)
                timeline->Begin("completion " +
                                    Timeline::Symbol(reinterpret_cast<const void*>(routine)),
                                "completion", {{"irp", Hex(uintptr_t(Irp))}});
            {
                FrameScope frame(Irp, index + 1);
                result = routine(device, Irp, context);
            }
            if (timeline)
                timeline->End();
            info->routine_mark = outer_mark;
            CheckCallbackIrql("a completion routine", before);
            if (result == STATUS_MORE_PROCESSING_REQUIRED) {
                // The IRP is the routine's again, and may be gone already.
                info->at[index].reclaimed_send = info->at[index].sends;
                return;
            }
            // Having freed or sent the IRP again, the routine had to keep it.
            if (info->gone || info->total_sends != sends_before) {
                Violation(rule::kIrpReusedInFlight,
                          "a completion routine freed or sent on " + Describe(Irp) +
                              " but did not return STATUS_MORE_PROCESSING_REQUIRED");
                return;
            }
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    if (info->origin == IrpOrigin::kDriver || info->origin == IrpOrigin::kAllocated) {
        Violation(rule::kIrpNoOriginator,
                  Describe(Irp) + " was allocated by a driver, so its last completion routine "
                                  "must return STATUS_MORE_PROCESSING_REQUIRED");
        return;
    }
    info->finish(Irp);
}

void IoAcquireCancelSpinLock(PKIRQL Irql) {
    KeAcquireSpinLock(&Io().cancel_lock, Irql);
}

void IoReleaseCancelSpinLock(KIRQL Irql) {
    KeReleaseSpinLock(&Io().cancel_lock, Irql);
}

BOOLEAN IoCancelIrp(PIRP Irp) {
    Sched().PreemptionPoint();
    CheckIoIrql("IoCancelIrp", DISPATCH_LEVEL);
    if (!KnownIrp("IoCancelIrp", Irp))
        return FALSE;
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    auto routine = reinterpret_cast<PDRIVER_CANCEL>(InterlockedExchangePointer(
        reinterpret_cast<PVOID volatile*>(&Irp->CancelRoutine), nullptr));
    if (!routine) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT device = Irp->CurrentLocation <= Irp->StackCount
                                ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject
                                : nullptr;
    // The routine is claimed but not yet running: the other processor may
    // finish the IRP meanwhile, which cancel routines must survive.
    Sched().PreemptionPoint();
    routine(device, Irp);
    if (Io().cancel_lock == KSPIN_LOCK(Sched().Current())) {
        Violation(
            rule::kCancelLockHeld,
            "the cancel routine must release it with IoReleaseCancelSpinLock(Irp->CancelIrql)");
        IoReleaseCancelSpinLock(irql);
    }
    CheckCallbackIrql("a cancel routine", irql);
    return TRUE;
}

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                   PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                   ULONG OutputBufferLength, BOOLEAN InternalDeviceIoControl,
                                   PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
    CheckIoIrql("IoBuildDeviceIoControlRequest", PASSIVE_LEVEL);
    ULONG method = METHOD_FROM_CTL_CODE(IoControlCode);
    if (method != METHOD_BUFFERED && method != METHOD_NEITHER) {
        std::fprintf(stderr, "hostkernel: direct I/O controls (code 0x%x) are not emulated\n",
                     IoControlCode);
        std::abort();
    }
    PIRP irp = AllocateIrp(DeviceObject->StackSize, IrpOrigin::kBuiltIoctl);
    if (!irp)
        return nullptr;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction =
        InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    next->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    if (method == METHOD_BUFFERED) {
        ULONG length = std::max(InputBufferLength, OutputBufferLength);
        if (length != 0) {
            PVOID buffer = ExAllocatePoolWithTag(NonPagedPool, length, kSystemBufferTag);
            if (!buffer) {
                Io().Release(irp);
                return nullptr;
            }
            // Past the input the buffer holds what the pool left there.
            if (InputBuffer && InputBufferLength)
                memcpy(buffer, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = buffer;
            irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER |
                         (OutputBufferLength ? IRP_INPUT_OPERATION : 0);
        }
    } else {
        next->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
    }
    irp->RequestorMode = KernelMode;
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->Tail.Overlay.Thread = KeGetCurrentThread();
    Io().FindIrp(irp)->finish = [OutputBuffer, OutputBufferLength](PIRP done) {
        PVOID buffer = done->AssociatedIrp.SystemBuffer;
        if (buffer && (done->Flags & IRP_DEALLOCATE_BUFFER)) {
            if ((done->Flags & IRP_INPUT_OPERATION) && OutputBuffer &&
                !IsError(done->IoStatus.Status))
                memcpy(OutputBuffer, buffer,
                       std::min<ULONG_PTR>(done->IoStatus.Information, OutputBufferLength));
            ExFreePoolWithTag(buffer, kSystemBufferTag);
        }
        if (done->UserIosb)
            *done->UserIosb = done->IoStatus;
        PKEVENT event = done->UserEvent;
        Io().Release(done);
        if (event)
            KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    };
    return irp;
}

namespace {
// A completion the seeded lower driver left for later.
struct LateCompletion {
    KTIMER timer;
    KDPC dpc;
    PIRP irp;
    NTSTATUS status;
    ULONG_PTR information;
};

VOID NTAPI CompleteLate(PKDPC, PVOID context, PVOID, PVOID) {
    std::unique_ptr<LateCompletion> late(static_cast<LateCompletion*>(context));
    late->irp->IoStatus.Status = late->status;
    late->irp->IoStatus.Information = late->information;
    IofCompleteRequest(late->irp, IO_NO_INCREMENT);
}
} // namespace

NTSTATUS hk::CompleteAsLowerDriver(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    if (std::bernoulli_distribution(0.5)(Kernel::Current().Random())) {
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = information;
        CompleteInsideCall(irp);
        return status;
    }
    IoMarkIrpPending(irp);
    auto* late = new LateCompletion{{}, {}, irp, status, information};
    KeInitializeTimer(&late->timer);
    KeInitializeDpc(&late->dpc, CompleteLate, late);
    LARGE_INTEGER now;
    now.QuadPart = 0; // an absolute time in the past: the next clock tick
    KeSetTimer(&late->timer, now, &late->dpc);
    return STATUS_PENDING;
}

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                   PIRP Irp) {
    UNREFERENCED_PARAMETER(ChargeQuota);
    CheckIoIrql("IoAllocateMdl", DISPATCH_LEVEL);
    auto mdl = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPool, sizeof(MDL), kMdlTag));
    if (!mdl)
        return nullptr;
    memset(mdl, 0, sizeof(MDL));
    mdl->Size = CSHORT(sizeof(MDL));
    uintptr_t address = uintptr_t(VirtualAddress);
    mdl->StartVa = reinterpret_cast<PVOID>(address & ~uintptr_t(PAGE_SIZE - 1));
    mdl->ByteOffset = ULONG(address & (PAGE_SIZE - 1));
    mdl->ByteCount = Length;
    if (Irp) {
        if (!SecondaryBuffer) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL last = Irp->MdlAddress;
            while (last && last->Next)
                last = last->Next;
            if (last)
                last->Next = mdl;
            else
                Irp->MdlAddress = mdl;
        }
    }
    return mdl;
}

void IoFreeMdl(PMDL Mdl) {
    ExFreePoolWithTag(Mdl, kMdlTag);
}

void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
    MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority) {
    UNREFERENCED_PARAMETER(Priority);
    if (!(Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))) {
        Mdl->MappedSystemVa = MmGetMdlVirtualAddress(Mdl);
        Mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    }
    return Mdl->MappedSystemVa;
}
