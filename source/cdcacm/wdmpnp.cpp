// Plug and Play dispatch. Requests come to the attach object on the
// modem's stack; start, the cancel requests and the capabilities query go
// down and come back to be finished here, the others are passed on. Start
// configures the USB device, records its identity in the hardware key and
// schedules the first re-initialisation; stop, the queries, surprise
// removal and removal stop the transfers; removal detaches the attach
// object and drops the references of this attachment, so that the data
// port goes when nothing else holds it.
//
// Environment: PASSIVE_LEVEL in system threads; PnpIrpCompletionRoutine up
// to DISPATCH_LEVEL.
// Locks: DispatchPnp holds DEVICE.DeviceMutex over the whole request,
// including the wait for the lower stack, so opens and work items of the
// device never run beside it. The removal routines take the device lock
// only around the modem-status reset and the wait IRP's completion.
#define TRACE_FILE "source/cdcacm/wdmpnp"
#include "cdcacm.h"

// Bytes of the language table read first, and the most of the serial
// number's string descriptor read into Sernum.
#define LANGUAGE_TABLE_BYTES 4
#define SERNUM_READ_BYTES 254
// The flag word of DEVICE_CAPABILITIES follows Size and Version.
#define CAPABILITY_FLAGS(Caps) (((const ULONG*)(Caps))[1])

NTSTATUS NTAPI PnpIrpCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    TRACE(TL_PNP_DOWN, "%P:PnpIrpCompletionRoutine[\n");
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    TRACE(TL_PNP_DOWN, "%P:]PnpIrpCompletionRoutine\n");
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS PassDownIrpAndWait(PDEVICE_OBJECT LowerDevObj, PIRP Irp) {
    TRACE(TL_PNP_DOWN, "%P:PassDownIrpAndWait[\n");
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, PnpIrpCompletionRoutine, &Event, TRUE, TRUE, TRUE);
    IoCallDriver(LowerDevObj, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    NTSTATUS Status = Irp->IoStatus.Status;
    // clang-format off
    TRACE_ASSERT(Status!=STATUS_PENDING);
    // clang-format on
    TRACE(TL_PNP_DOWN, "%P:]PassDownIrpAndWait (%D)\n", Status);
    return Status;
}

NTSTATUS PassDownIrp(PDEVICE_OBJECT LowerDevObj, PIRP Irp) {
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(LowerDevObj, Irp);
}

NTSTATUS GetSerialNumber(PDEVICE Dev) {
    PUSB_DEVICE UsbDevice = &Dev->UsbDevice;
    RtlZeroMemory(Dev->Sernum, sizeof(Dev->Sernum));
    UCHAR Index = Dev->DeviceDescriptor.iSerialNumber;
    if (Index == 0) {
        Dev->SernumLength = 0;
        return STATUS_UNSUCCESSFUL;
    }

    UCHAR Languages[LANGUAGE_TABLE_BYTES];
    ULONG Length = sizeof(Languages);
    RtlZeroMemory(Languages, sizeof(Languages));
    USHORT LanguageId;
    NTSTATUS Status = GetStringDescriptor(UsbDevice, 0, 0, Languages, &Length);
    if (!NT_SUCCESS(Status) && Length >= LANGUAGE_TABLE_BYTES) {
        TRACE(TL_ERROR,
              "%P:%S:PnpStartDevice: GetStringDescriptor index=0 failed (%D), try with LangID 0\n",
              DEV_PORT_NAME(Dev), Status);
        LanguageId = 0;
    } else {
        LanguageId = (USHORT)(Languages[2] | (Languages[3] << 8));
    }

    Dev->SernumLength = SERNUM_READ_BYTES;
    Status = GetStringDescriptor(UsbDevice, Index, LanguageId, Dev->Sernum, &Dev->SernumLength);
    if (NT_SUCCESS(Status)) {
        // The characters move down over bLength and bDescriptorType; the
        // buffer is two bytes longer than the most read, so the last
        // character moved is a terminator.
        RtlMoveMemory(Dev->Sernum, (PUCHAR)Dev->Sernum + 2,
                      (Dev->SernumLength / sizeof(WCHAR)) * sizeof(WCHAR));
        if (Dev->SernumLength >= 2)
            Dev->SernumLength -= 2;
        TRACE(TL_INFO, "%P:%S:GetSerialNumber: %S\n", DEV_PORT_NAME(Dev), Dev->Sernum);
    } else {
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: GetStringDescriptor failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        Dev->SernumLength = 0;
    }
    return Status;
}

NTSTATUS PnpStartDevice(PDEVICE Dev) {
    PUSB_DEVICE UsbDevice = &Dev->UsbDevice;
    UnconfigureDevice(UsbDevice, FALSE);
    NTSTATUS Status = GetDeviceDescriptor(UsbDevice, &Dev->DeviceDescriptor);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: GetDeviceDescriptor failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    Status = InitUsbDevice(UsbDevice);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: InitUsbDevice failed (%D)\n", DEV_PORT_NAME(Dev),
              Status);
        return Status;
    }
    Status = WriteInstance(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: WriteInstance failed (%D)\n", DEV_PORT_NAME(Dev),
              Status);
        return Status;
    }
    // A modem without a readable serial number still starts; it is then
    // never matched by a later add.
    Status = GetSerialNumber(Dev);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: GetSerialNumber failed (%D)\n", DEV_PORT_NAME(Dev),
              Status);
    Status = WriteSernum(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:PnpStartDevice: WriteSernum failed (%D)\n", DEV_PORT_NAME(Dev),
              Status);
        return Status;
    }
    // Sending waits for the first re-initialisation, which enables it.
    SerPortEnable(Dev->Port.SerPort, TRUE);
    Dev->UsbDeviceEnabled = TRUE;
    StartTimer(Dev);
    ScheduleReinit(Dev);
    return Status;
}

NTSTATUS PnpQueryStopDevice(PDEVICE Dev) {
    StopSendAndReceive(Dev, FALSE);
    return STATUS_SUCCESS;
}

NTSTATUS PnpQueryRemoveDevice(PDEVICE Dev) {
    StopSendAndReceive(Dev, FALSE);
    return STATUS_SUCCESS;
}

// The device is gone or going: transfers stopped, the USB device
// unconfigured, the lower stack forgotten, the modem lines dropped and a
// pending wait-on-mask completed.
static VOID DisconnectDevice(PDEVICE Dev) {
    StopSendAndReceive(Dev, TRUE);
    UnconfigureDevice(&Dev->UsbDevice, FALSE);
    Dev->UsbDeviceEnabled = FALSE;
    Dev->LowerDevObj = NULL;
    KIRQL OldIrql;
    DEVICE_LOCK(Dev, &OldIrql);
    Dev->ModemStatus = 0;
    CompleteWaitIrp(&Dev->Port, 0);
    DEVICE_UNLOCK(Dev, OldIrql);
}

VOID PnpSurpriseRemoval(PDEVICE Dev, PDEVICE_OBJECT DeviceObject) {
    PATTACH_OBJ Attach = (PATTACH_OBJ)DeviceObject->DeviceExtension;
    Attach->SurpriseRemoved = TRUE;
    DisconnectDevice(Dev);
    DeleteLinks(Dev);
}

VOID PnpRemoveDevice(PDEVICE Dev, PDEVICE_OBJECT DeviceObject) {
    PATTACH_OBJ Attach = (PATTACH_OBJ)DeviceObject->DeviceExtension;
    if (Dev->OpenCount > 0)
        NotifyLowerDetach(Dev);
    if (!Attach->SurpriseRemoved)
        DisconnectDevice(Dev);
    DeleteLinks(Dev);
    if (Attach->LowerDevObj != NULL) {
        IoDetachDevice(Attach->LowerDevObj);
        Attach->LowerDevObj = NULL;
    }
    if (Attach->Type == EXTENSION_TYPE_ATTACH)
        AttachRelease(Attach);
    LONG Count = DEVICE_RELEASE(Dev);
    TRACE(TL_ERROR, "%P:%S:PnpRemoveDevice: Ref %D, expected 1\n", DEV_PORT_NAME(Dev), Count);
}

// What the bus driver reported, then D3 for hibernate and shutdown and
// surprise removal allowed, kept in Capabilities.
static VOID AmendCapabilities(PDEVICE Dev, PDEVICE_CAPABILITIES Caps, const WCHAR* Letter) {
    if (TraceMask & TL_PNP) {
        TRACE(TL_PNP, "%P:%S%S:DEVICE_CAPABILITIES:\n", DEV_PORT_NAME(Dev), Letter);
        TRACE(TL_PNP, "%P:  FLAGS:%D\n", CAPABILITY_FLAGS(Caps));
        TRACE(TL_PNP, "%P:  Address:%D  UINumber:%D\n", Caps->Address, Caps->UINumber);
        TRACE(TL_PNP, "%P:  SystemWake:%s  DeviceWake:%s\n", SystemPowerStateName(Caps->SystemWake),
              DevicePowerStateName(Caps->DeviceWake));
        for (ULONG State = PowerSystemUnspecified; State <= PowerSystemShutdown; State++)
            TRACE(TL_PNP, "%P:  DeviceState[%s] = %s\n", SystemPowerStateName(State),
                  DevicePowerStateName(Caps->DeviceState[State]));
    }
    Caps->DeviceState[PowerSystemHibernate] = PowerDeviceD3;
    Caps->DeviceState[PowerSystemShutdown] = PowerDeviceD3;
    Caps->SurpriseRemovalOK = TRUE;
    RtlCopyMemory(&Dev->Capabilities, Caps, sizeof(Dev->Capabilities));
}

static NTSTATUS CompletePnpIrp(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

// A cancel-stop or cancel-remove: the transfers resume once the lower
// stack has taken the cancel back.
static NTSTATUS CancelPending(PDEVICE Dev, PDEVICE_OBJECT Lower, PIRP Irp, const char* Failure,
                              const WCHAR* Letter) {
    NTSTATUS Status = PassDownIrpAndWait(Lower, Irp);
    if (NT_SUCCESS(Status)) {
        StartSendAndReceive(Dev);
        Dev->PnpState = PNP_STATE_STARTED;
    } else {
        TRACE(TL_ERROR, Failure, DEV_PORT_NAME(Dev), Letter, Status);
    }
    return CompletePnpIrp(Irp, Status);
}

static NTSTATUS StartDevice(PDEVICE Dev, PDEVICE_OBJECT Lower, PIRP Irp, const WCHAR* Letter) {
    POWER_STATE State;
    State.DeviceState = PowerDeviceD0;
    POWER_STATE Previous = PoSetPowerState(Lower, DevicePowerState, State);
    TRACE(TL_PNP, "%P:%S%S:DispatchPnp: Initial power state was %D\n", DEV_PORT_NAME(Dev), Letter,
          Previous.DeviceState);
    NTSTATUS Status = PassDownIrpAndWait(Lower, Irp);
    if (NT_SUCCESS(Status))
        Status = PnpStartDevice(Dev);
    // clang-format off
    TRACE_ASSERT(Status!=STATUS_PENDING);
    // clang-format on
    if (NT_SUCCESS(Status))
        Dev->PnpState = PNP_STATE_STARTED;
    else
        TRACE(TL_ERROR, "%P:%S%S:DispatchPnp: PnpStartDevice failed, st:%D\n", DEV_PORT_NAME(Dev),
              Letter, Status);
    return CompletePnpIrp(Irp, Status);
}

static NTSTATUS QueryCapabilities(PDEVICE Dev, PDEVICE_OBJECT Lower, PIRP Irp,
                                  const WCHAR* Letter) {
    NTSTATUS Status = PassDownIrpAndWait(Lower, Irp);
    if (NT_SUCCESS(Status))
        AmendCapabilities(
            Dev, IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities,
            Letter);
    else
        TRACE(TL_ERROR, "%P:%S%S:DispatchPnp: pass down IRP_MN_QUERY_CAPABILITIES failed, st:%D\n",
              DEV_PORT_NAME(Dev), Letter, Status);
    return CompletePnpIrp(Irp, Status);
}

// A request of the attach object's stack, by minor function.
static NTSTATUS HandlePnp(PDEVICE Dev, PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT Lower, PIRP Irp,
                          const WCHAR* Letter) {
    const WCHAR* Name = DEV_PORT_NAME(Dev);
    UCHAR Minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    NTSTATUS Status;
    switch (Minor) {
    case IRP_MN_START_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_START_DEVICE\n", Name, Letter);
        return StartDevice(Dev, Lower, Irp, Letter);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_QUERY_REMOVE_DEVICE\n", Name, Letter);
        PnpQueryRemoveDevice(Dev);
        Dev->PnpState = PNP_STATE_REMOVE_PENDING;
        Irp->IoStatus.Status = STATUS_SUCCESS;
        return PassDownIrp(Lower, Irp);
    case IRP_MN_REMOVE_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_REMOVE_DEVICE\n", Name, Letter);
        Dev->PnpState = PNP_STATE_REMOVED;
        PnpRemoveDevice(Dev, DeviceObject);
        // The removal deleted the links and with them the port name.
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_REMOVE_DEVICE PassDownIrp\n", DEV_PORT_NAME(Dev),
              Letter);
        Irp->IoStatus.Status = STATUS_SUCCESS;
        Status = PassDownIrp(Lower, Irp);
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_REMOVE_DEVICE return from PassDownIrp\n",
              DEV_PORT_NAME(Dev), Letter);
        return Status;
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_CANCEL_REMOVE_DEVICE\n", Name, Letter);
        return CancelPending(
            Dev, Lower, Irp,
            "%P:%S%S:DispatchPnp: Bus Driver has failed IRP_MN_CANCEL_REMOVE_DEVICE, (%D)\n",
            Letter);
    case IRP_MN_STOP_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_STOP_DEVICE\n", Name, Letter);
        StopSendAndReceive(Dev, TRUE);
        Dev->PnpState = PNP_STATE_STOPPED;
        Irp->IoStatus.Status = STATUS_SUCCESS;
        return PassDownIrp(Lower, Irp);
    case IRP_MN_QUERY_STOP_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_QUERY_STOP_DEVICE\n", Name, Letter);
        PnpQueryStopDevice(Dev);
        Dev->PnpState = PNP_STATE_STOP_PENDING;
        Irp->IoStatus.Status = STATUS_SUCCESS;
        return PassDownIrp(Lower, Irp);
    case IRP_MN_CANCEL_STOP_DEVICE:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_CANCEL_STOP_DEVICE\n", Name, Letter);
        return CancelPending(
            Dev, Lower, Irp,
            "%P:%S%S:DispatchPnp: Bus Driver has failed IRP_MN_CANCEL_STOP_DEVICE, (%D)\n", Letter);
    case IRP_MN_QUERY_CAPABILITIES:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_QUERY_CAPABILITIES\n", Name, Letter);
        return QueryCapabilities(Dev, Lower, Irp, Letter);
    case IRP_MN_SURPRISE_REMOVAL:
        TRACE(TL_PNP, "%P:%S%S:DispatchPnp: IRP_MN_SURPRISE_REMOVAL\n", Name, Letter);
        Dev->PnpState = PNP_STATE_SURPRISE_REMOVED;
        PnpSurpriseRemoval(Dev, DeviceObject);
        Irp->IoStatus.Status = STATUS_SUCCESS;
        return PassDownIrp(Lower, Irp);
    default:
        TRACE(TL_INFO, "%P:%S%S:DispatchPnp: unsupported MinorFunction: %B, pass thru\n", Name,
              Letter, Minor);
        return PassDownIrp(Lower, Irp);
    }
}

NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE Dev = NULL;
    GetDevAndPort(DeviceObject, &Dev, NULL);
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_PNP, "%P:%S%S:DispatchPnp[\n", DEV_PORT_NAME(Dev), Letter);
    DEVICE_ADD_REF(Dev);
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    NTSTATUS Status;
    if (*(PULONG)DeviceObject->DeviceExtension == EXTENSION_TYPE_ATTACH) {
        PDEVICE_OBJECT Lower = ((PATTACH_OBJ)DeviceObject->DeviceExtension)->LowerDevObj;
        Status = HandlePnp(Dev, DeviceObject, Lower, Irp, Letter);
    } else {
        // The data port is on no device stack: a PnP request sent to it has
        // no lower driver to go to and must not act on the modem's stack
        // (removal would take the DEVICE for an attach object). It is
        // completed with its status untouched.
        Status = CompletePnpIrp(Irp, Irp->IoStatus.Status);
    }
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);
    WCHAR PortName[PORT_NAME_COPY_CHARS];
    CopyPortName(Dev, PortName);
    DEVICE_RELEASE(Dev);
    TRACE(TL_PNP, "%P:%S%S:]DispatchPnp (%D)\n", PortName, Letter, Status);
    return Status;
}
