// The power manager's record of device power states: PoSetPowerState.
//
// Environment: host code of the stand-in, called by drivers at IRQL up to
// APC_LEVEL, or up to DISPATCH_LEVEL when the state set is D0.
// Locks: none of its own; the scheduler runs one emulated thread at a time.
#include "hostkernel/iomgr.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace hk::detail;

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
    POWER_STATE previous{};
    bool to_d0 = Type == DevicePowerState && State.DeviceState == PowerDeviceD0;
    CheckIoIrql("PoSetPowerState", to_d0 ? DISPATCH_LEVEL : APC_LEVEL);
    DeviceInfo* info = Io().FindDevice(DeviceObject);
    if (!info) {
        std::fprintf(stderr, "hostkernel: PoSetPowerState on %p, which is not a device object\n",
                     static_cast<void*>(DeviceObject));
        std::abort();
    }
    previous.DeviceState = info->power;
    if (Type != DevicePowerState) {
        hk::Kernel::Current().verifier().Violation(hk::rule::kPowerStateType,
                                                   "PoSetPowerState type " + std::to_string(Type));
        return previous;
    }
    info->power = State.DeviceState;
    return previous;
}

namespace {

// What a requested power IRP completes to.
struct PowerRequest {
    PREQUEST_POWER_COMPLETE completion;
    PVOID context;
    UCHAR minor;
    POWER_STATE state;
    PDEVICE_OBJECT target;
};

NTSTATUS NTAPI PowerRequestDone(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    auto* request = static_cast<PowerRequest*>(Context);
    if (request->completion)
        request->completion(request->target, request->minor, request->state, request->context,
                            &Irp->IoStatus);
    delete request;
    IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                           PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp) {
    CheckIoIrql("PoRequestPowerIrp", DISPATCH_LEVEL);
    if (MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER &&
        MinorFunction != IRP_MN_WAIT_WAKE)
        return STATUS_INVALID_PARAMETER_2;
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    // One location for the completion function's record, then the stack.
    PIRP irp = IoAllocateIrp(CCHAR(top->StackSize + 1), FALSE);
    if (!irp)
        return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IoSetNextIrpStackLocation(irp);
    auto* request =
        new PowerRequest{CompletionFunction, Context, MinorFunction, PowerState, DeviceObject};
    IO_STACK_LOCATION* stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_POWER;
    stack->MinorFunction = MinorFunction;
    if (MinorFunction == IRP_MN_WAIT_WAKE) {
        stack->Parameters.WaitWake.PowerState = PowerState.SystemState;
    } else {
        stack->Parameters.Power.Type = DevicePowerState;
        stack->Parameters.Power.State = PowerState;
    }
    IoSetCompletionRoutine(irp, PowerRequestDone, request, TRUE, TRUE, TRUE);
    if (Irp)
        *Irp = irp;
    PoCallDriver(top, irp);
    return STATUS_PENDING;
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return IoCallDriver(DeviceObject, Irp);
}

void PoStartNextPowerIrp(PIRP) {}
