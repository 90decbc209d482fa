// The port object: resolving a request's device object to the device
// context and its embedded port object, the wait-on-mask events that
// complete the pending IOCTL_SERIAL_WAIT_ON_MASK request, and the CDC class
// and vendor control requests sent on the modem's default pipe.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent and
// CompleteWaitIrp up to DISPATCH_LEVEL; DelayWaitCancelFnc at
// DISPATCH_LEVEL (timer callback); the control requests at PASSIVE_LEVEL
// under DeviceMutex, which also guards PcStatus; GetSpecialChars takes the
// device lock to change the PPP framer's escape table.
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

// The class or vendor requests all address the communication interface.
static VOID InitCtrlRequest(PUSB_CTRL_REQUEST Request, UCHAR Code, ULONG Interface) {
    RtlZeroMemory(Request, sizeof(*Request));
    Request->Type = BMREQUEST_CLASS;
    Request->Recipient = BMREQUEST_TO_INTERFACE;
    Request->Request = Code;
    Request->Index = (USHORT)Interface;
}

// A request without a data stage.
static NTSTATUS SendCtrlRequest(PDEVICE Dev, UCHAR Type, UCHAR Code, USHORT Value) {
    USB_CTRL_REQUEST Request;
    ULONG Length = 0;
    InitCtrlRequest(&Request, Code, Dev->Cfg.UsbInterface);
    Request.Type = Type;
    Request.Value = Value;
    return ClassVendorRequest(FALSE, Dev, Dev->ControlIrp, &Request, NULL, &Length);
}

NTSTATUS SetPcStatus(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[SetPcStatus: %02x\n", DEV_PORT_NAME(Dev), Dev->PcStatus);
    NTSTATUS Status =
        SendCtrlRequest(Dev, BMREQUEST_CLASS, CDC_SET_CONTROL_LINE_STATE, Dev->PcStatus);
    TRACE(TL_SND, "%P:%S:]SetPcStatus (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// PcStatus keeps the new lines even when the request fails: the next
// SetPcStatus sends them again.
static NTSTATUS ChangeLines(PDEVICE Dev, UCHAR Set, UCHAR Clear) {
    Dev->PcStatus = (UCHAR)((Dev->PcStatus | Set) & ~Clear);
    return SetPcStatus(Dev);
}

NTSTATUS SetDTR(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[SetDTR\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, PC_STATUS_DTR, 0);
    TRACE(TL_MODEM, "%P:%S:]SetDTR (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ClrDTR(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[ClrDTR\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, 0, PC_STATUS_DTR);
    TRACE(TL_MODEM, "%P:%S:]ClrDTR (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SetRTS(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[SetRTS\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, PC_STATUS_RTS, 0);
    TRACE(TL_MODEM, "%P:%S:]SetRTS (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ClrRTS(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[ClrRTS\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, 0, PC_STATUS_RTS);
    TRACE(TL_MODEM, "%P:%S:]ClrRTS (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// wValue 0xFFFF holds the break until the next SEND_BREAK with 0.
NTSTATUS SendBreak(PDEVICE Dev, BOOLEAN On) {
    TRACE(TL_SND, "%P:%S:[SendBreak\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_CLASS, CDC_SEND_BREAK, On ? 0xFFFF : 0);
    TRACE(TL_SND, "%P:%S:]SendBreak (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SendBreakOn(PDEVICE Dev) {
    return SendBreak(Dev, TRUE);
}

NTSTATUS SendBreakOff(PDEVICE Dev) {
    return SendBreak(Dev, FALSE);
}

// The CDC line coding: the stored settings, neither checked nor converted.
NTSTATUS SendLineCoding(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[SendLineCoding\n", DEV_PORT_NAME(Dev));
    PSER_SETTINGS Settings = &Dev->Port.SerPort->Settings;
    UCHAR Coding[CDC_LINE_CODING_BYTES];
    ULONG Rate = Settings->BaudRate;
    Coding[0] = (UCHAR)Rate;
    Coding[1] = (UCHAR)(Rate >> 8);
    Coding[2] = (UCHAR)(Rate >> 16);
    Coding[3] = (UCHAR)(Rate >> 24);
    Coding[4] = Settings->StopBits;
    Coding[5] = Settings->Parity;
    Coding[6] = Settings->WordLength;
    USB_CTRL_REQUEST Request;
    ULONG Length = sizeof(Coding);
    InitCtrlRequest(&Request, CDC_SET_LINE_CODING, Dev->Cfg.UsbInterface);
    NTSTATUS Status = ClassVendorRequest(FALSE, Dev, Dev->ControlIrp, &Request, Coding, &Length);
    TRACE(TL_SND, "%P:%S:]SendLineCoding (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// The modem's table of characters to escape replaces the framer's whole
// table; a failure leaves the old one.
NTSTATUS GetSpecialChars(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[GetSpecialChars\n", DEV_PORT_NAME(Dev));
    UCHAR Chars[PPP_SPECIAL_CHARS_BYTES];
    ULONG Length = sizeof(Chars);
    USB_CTRL_REQUEST Request;
    InitCtrlRequest(&Request, VENDOR_GET_SPECIAL_CHARS, Dev->Cfg.UsbInterface);
    Request.Type = BMREQUEST_VENDOR;
    NTSTATUS Status = ClassVendorRequest(TRUE, Dev, Dev->ControlIrp, &Request, Chars, &Length);
    if (NT_SUCCESS(Status)) {
        if (TraceMask & TL_PPP) {
            TracePrint("%P:%S:GetSpecialChars: called\n", DEV_PORT_NAME(Dev));
            TraceDump(Chars, Length);
        }
        KIRQL OldIrql;
        DEVICE_LOCK(Dev, &OldIrql);
        PppSetSpecialChars(&Dev->PppFramer, Chars, Length);
        DEVICE_UNLOCK(Dev, OldIrql);
    }
    TRACE(TL_SND, "%P:%S:]GetSpecialChars (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS StartFraming(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[StartFraming\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_VENDOR, VENDOR_START_FRAMING, 0);
    TRACE(TL_SND, "%P:%S:]StartFraming (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS StopFraming(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[StopFraming\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_VENDOR, VENDOR_STOP_FRAMING, 0);
    TRACE(TL_SND, "%P:%S:]StopFraming (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus) {
    *ModemStatus = Dev->ModemStatus;
}
