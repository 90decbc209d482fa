// Synchronous USB submission: one internal device control or URB sent down
// the device stack and waited for with a time-out, the URB's USB status
// folded into the NT status, and class and vendor control requests built
// from a USB_CTRL_REQUEST. The event and the URB live on the caller's stack;
// that is safe because no call returns before the completion routine ran,
// also after a time-out.
//
// Every request goes to the device's LowerDevObj as an internal device
// control; whatever answers there (the USB bus driver, or the simulated one
// on the host) sees the same call order, time-out and status rules.
//
// Environment: PASSIVE_LEVEL, in the calling thread, which blocks.
// Locks: none. The callers serialise the use of one IRP (the control
// requests all share the device's ControlIrp under its DeviceMutex).
#define TRACE_FILE "source/cdcacm/usbsbmit"
#include "cdcacm.h"

// A USB status that no lower driver writes: the URB was never looked at.
#define USBD_STATUS_UNTOUCHED 0xFFFFFFFFu

NTSTATUS NTAPI IrpCompletionRoutineWait(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SubmitIrpAndWait(PDEVICE Dev, PIRP Irp, PVOID Argument1, ULONG IoControlCode,
                          ULONG TimeoutMs) {
    KEVENT Event;
    LARGE_INTEGER Interval;
    PLARGE_INTEGER Timeout = NULL;
    PIO_STACK_LOCATION Next;
    NTSTATUS Status;

    TRACE(TL_SND, "%P:%S:[SubmitIrpAndWait\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    if (Dev->LowerDevObj == NULL) {
        Status = STATUS_UNSUCCESSFUL;
        goto Exit;
    }

    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    TRACE(TL_SND, "%P:%S:TimeOut is %d\n", DEV_PORT_NAME(Dev), TimeoutMs);
    if (TimeoutMs != 0) {
        Interval.QuadPart = (LONGLONG)TimeoutMs * -10000;
        Timeout = &Interval;
    }

    Next = IoGetNextIrpStackLocation(Irp);
    RtlZeroMemory(Next, sizeof(*Next));
    Next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Next->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    Next->Parameters.Others.Argument1 = Argument1;
    IoSetCompletionRoutine(Irp, IrpCompletionRoutineWait, &Event, TRUE, TRUE, TRUE);

    TRACE(TL_SND, "%P:%S:IoCallDriver\n", DEV_PORT_NAME(Dev));
    Status = IoCallDriver(Dev->LowerDevObj, Irp);
    TRACE(TL_SND, "%P:%S:IoCallDriver (%D)\n", DEV_PORT_NAME(Dev), Status);

    Status = KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, Timeout);
    if (Status == STATUS_TIMEOUT) {
        TRACE(TL_ERROR, "%P:%S:SubmitIrpAndWait: TIMEOUT:%d\n", DEV_PORT_NAME(Dev), TimeoutMs);
        // The completion routine runs after the cancel, whatever the lower
        // driver does with it; only then do the event and the IRP become
        // the caller's again.
        IoCancelIrp(Irp);
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
        Status = STATUS_IO_TIMEOUT;
    } else {
        Status = Irp->IoStatus.Status;
        if (Status == STATUS_PENDING)
            Status = STATUS_UNSUCCESSFUL;
    }

Exit:
    TRACE(TL_SND, "%P:%S:]SubmitIrpAndWait (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SubmitUrbAndWait(PDEVICE Dev, PIRP Irp, PURB Urb, ULONG TimeoutMs) {
    NTSTATUS IrpStatus;
    NTSTATUS Status;
    ULONG UsbStatus;

    TRACE(TL_SND, "%P:%S:[SubmitUrbAndWait\n", DEV_PORT_NAME(Dev));
    Urb->UrbHeader.Status = (USBD_STATUS)USBD_STATUS_UNTOUCHED;
    IrpStatus = SubmitIrpAndWait(Dev, Irp, Urb, IOCTL_INTERNAL_USB_SUBMIT_URB, TimeoutMs);

    UsbStatus = (ULONG)Urb->UrbHeader.Status;
    if (IrpStatus == STATUS_IO_TIMEOUT || UsbStatus == USBD_STATUS_UNTOUCHED)
        Status = IrpStatus;
    else if (!(UsbStatus & 0x80000000u) && !NT_SUCCESS(IrpStatus))
        Status = IrpStatus;
    else if ((UsbStatus & 0xFFFF0000u) == 0)
        Status = STATUS_SUCCESS;
    else
        Status = (NTSTATUS)(UsbStatus | 0xE0000000u);

    TRACE(TL_SND, "%P:%S:]SubmitUrbAndWait (%D)\n", DEV_PORT_NAME(Dev), Status);
    // clang-format off
    TRACE_ASSERT(Status != STATUS_PENDING);
    // clang-format on
    return Status;
}

// URB functions by request type (class, vendor) and recipient (device,
// interface, endpoint, other).
static const USHORT ClassVendorFunctions[2][4] = {
    {URB_FUNCTION_CLASS_DEVICE, URB_FUNCTION_CLASS_INTERFACE, URB_FUNCTION_CLASS_ENDPOINT,
     URB_FUNCTION_CLASS_OTHER},
    {URB_FUNCTION_VENDOR_DEVICE, URB_FUNCTION_VENDOR_INTERFACE, URB_FUNCTION_VENDOR_ENDPOINT,
     URB_FUNCTION_VENDOR_OTHER},
};

NTSTATUS ClassVendorRequest(BOOLEAN DirectionIn, PDEVICE Dev, PIRP Irp, PUSB_CTRL_REQUEST Request,
                            PVOID Buffer, PULONG Length) {
    URB Urb;
    struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST* Control = &Urb.UrbControlVendorClassRequest;
    NTSTATUS Status;

    TRACE(TL_SND, "%P:%S:ClassVendorRequest[ Reg:%B Len:%D\n", DEV_PORT_NAME(Dev), Request->Request,
          *Length);
    if (!Dev->UsbDeviceEnabled) {
        Status = STATUS_UNSUCCESSFUL;
        TRACE(TL_ERROR, "%P:%S:ClassVendorRequest skipped, Device disabled\n", DEV_PORT_NAME(Dev));
        goto Exit;
    }

    IoInitializeIrp(Irp, Dev->IrpSize, Dev->StackSize);
    if (Request->Type < BMREQUEST_CLASS || Request->Type > BMREQUEST_VENDOR ||
        Request->Recipient > BMREQUEST_TO_OTHER) {
        Status = STATUS_UNSUCCESSFUL;
        goto Exit;
    }
    RtlZeroMemory(&Urb, sizeof(Urb));
    Control->Hdr.Length = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    Control->Hdr.Function = ClassVendorFunctions[Request->Type - 1][Request->Recipient];
    Control->TransferFlags =
        USBD_SHORT_TRANSFER_OK | (DirectionIn ? USBD_TRANSFER_DIRECTION_IN : 0);
    Control->TransferBuffer = Buffer;
    Control->TransferBufferLength = *Length;
    Control->RequestTypeReservedBits = Request->ReservedBits;
    Control->Request = Request->Request;
    Control->Value = Request->Value;
    Control->Index = Request->Index;

    Status = SubmitUrbAndWait(Dev, Irp, &Urb, Dev->Cfg.RequestTimeout);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:ClassVendorRequest: SubmitUrbAndWait failed (%D).\n",
              DEV_PORT_NAME(Dev), Status);
        if (TraceMask & TL_ERROR)
            TraceDump(Request, sizeof(*Request));
    } else {
        *Length = Control->TransferBufferLength;
        TRACE(TL_SND, "%P:%S:ClassVendorRequest: Transferred Bytes %d\n", DEV_PORT_NAME(Dev),
              *Length);
    }

Exit:
    TRACE(TL_SND, "%P:%S:]ClassVendorRequest (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}
