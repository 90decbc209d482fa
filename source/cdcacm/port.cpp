// The port object: resolving a request's device object to the device
// context and its embedded port object, and the wait-on-mask events that
// complete the pending IOCTL_SERIAL_WAIT_ON_MASK request.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent and
// CompleteWaitIrp up to DISPATCH_LEVEL; DelayWaitCancelFnc at
// DISPATCH_LEVEL (timer callback).
// Locks: GetDevAndPort takes none; it reads only the extension's fixed
// fields. The device lock (DEVICE.Lock) guards WaitIrp, PendingEvents and
// the settings' WaitMask: IndicateWaitEvent and CompleteWaitIrp run with it
// held by their caller, DelayWaitCancelFnc takes it. CompleteWaitIrp may
// take the system cancel spin lock for a moment inside the device lock;
// nobody holds the cancel spin lock while waiting for the device lock. The
// wait IRP is handed to the deferred-completion queue, never completed under
// the lock.
#define TRACE_FILE "source/cdcacm/port"
#include "cdcacm.h"

VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port) {
    // Both kinds of extension start with their Type; the attach object's
    // extension points at the data port's DEVICE.
    PVOID Extension = DeviceObject->DeviceExtension;
    PDEVICE Device;

    switch (*(PULONG)Extension) {
    case EXTENSION_TYPE_DEVICE:
        Device = (PDEVICE)Extension;
        break;
    case EXTENSION_TYPE_ATTACH:
        Device = ((PATTACH_OBJ)Extension)->Device;
        break;
    default:
        return;
    }
    if (Dev != NULL)
        *Dev = Device;
    if (Port != NULL)
        *Port = &Device->Port;
}

VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask) {
    TRACE(TL_WAIT, "%PIndicateWaitEvent Mask: %x\n", Mask);
    // An event outside the mask at the moment it happens is lost, even if
    // the mask is widened later.
    WaitPort->PendingEvents |= WaitPort->SerPort->Settings.WaitMask & Mask;
    if (WaitPort->WaitIrp != NULL && WaitPort->PendingEvents != 0) {
        ULONG Events = WaitPort->PendingEvents;
        WaitPort->PendingEvents = 0;
        CompleteWaitIrp(WaitPort, Events);
    }
}

VOID CompleteWaitIrp(PPORT_OBJ Port, ULONG Mask) {
    PDEVICE Dev = Port->Device;
    // Whatever completes the wait makes a delayed cancellation pointless.
    KeCancelTimer(&Dev->WaitCancelTimer.Timer);
    PIRP Irp = Port->WaitIrp;
    if (Irp == NULL)
        return;
    TRACE(TL_WAIT, "%PComplete Wait IRP: %x Mask: %x\n", (ULONG)(ULONG_PTR)Irp, Mask);
    Port->WaitIrp = NULL;
    if (IoSetCancelRoutine(Irp, NULL) == NULL) {
        // IoCancelIrp has taken the cancel routine, which reads the IRP until
        // it releases the cancel spin lock: wait for that release before the
        // IRP goes to be completed. The timer the routine arms afterwards
        // finds this wait gone and leaves the next one alone.
        KIRQL CancelIrql;
        IoAcquireCancelSpinLock(&CancelIrql);
        IoReleaseCancelSpinLock(CancelIrql);
    }
    Irp->IoStatus.Status = Dev->UsbDeviceEnabled ? STATUS_SUCCESS : STATUS_DEVICE_REMOVED;
    Irp->IoStatus.Information = sizeof(ULONG);
    *(PULONG)Irp->AssociatedIrp.SystemBuffer = Mask;
    QueueCompleteIrp(&Dev->CompleteQueue, Irp);
}

VOID DelayWaitCancelFnc(PTIMER_OBJ Timer, PVOID Context) {
    UNREFERENCED_PARAMETER(Timer);
    PDEVICE Dev = (PDEVICE)Context;
    TRACE(TL_INFO, "%P:%S:DelayWaitCancelFnc\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    PPORT_OBJ Port = &Dev->Port;
    DEVICE_LOCK_AT_DPC(Port->Device);
    // The timer is armed only for a cancelled wait. Whatever completes that
    // wait first cancels the timer, but a DPC already queued or running
    // still comes here, as does a timer armed by a cancel routine that lost
    // the race with the completion: a wait that is not cancelled is a newer
    // one, and not ours to end.
    PIRP Irp = Port->WaitIrp;
    if (Irp == NULL || Irp->Cancel)
        CompleteWaitIrp(Port, 0);
    DEVICE_UNLOCK_AT_DPC(Port->Device);
}
