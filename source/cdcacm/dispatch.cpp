// Read and write dispatch and the completion of serial-port requests: each
// read or write IRP becomes a SER_REQUEST from the port's request pool, waits
// in the port's read or write IRP queue while the serial port works on it,
// and comes back through CompleteRequest, which hands the IRP to the device's
// deferred-completion queue.
//
// Environment: DispatchRead and DispatchWrite at PASSIVE_LEVEL in the
// caller's thread; CompleteRequest at DISPATCH_LEVEL.
// Locks: the dispatch routines take the device lock (DEVICE.Lock) for the
// pool, IRP-queue and timed-queue steps and release it before SendRequest
// (the write takes it once more afterwards, for a cancel that came in
// between) and before completing an IRP themselves. CompleteRequest runs with the
// device lock held by its caller and therefore never completes an IRP
// directly.
#define TRACE_FILE "source/cdcacm/dispatch"
#include "cdcacm.h"

// Bytes of a write shown by the PPP-mode data dump.
#define WRITE_DUMP_BYTES 32

static VOID CompleteIrpNow(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
}

static VOID FillRequest(PSER_REQUEST Request, PIRP Irp, PPORT_OBJ Port, ULONG Length, ULONG Flags) {
    Request->Buffer = Irp->AssociatedIrp.SystemBuffer;
    Request->Length = Length;
    Request->Status = DEFAULT_STATUS;
    Request->Irp = Irp;
    Request->Port = Port;
    Request->Flags = Flags;
}

NTSTATUS NTAPI DispatchRead(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE Dev = NULL;
    PPORT_OBJ Port = NULL;
    KIRQL OldIrql;
    GetDevAndPort(DeviceObject, &Dev, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    ULONG Length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
    TRACE(TL_RW, "%P:%S%S:[DispatchRead len:%d\n", DEV_PORT_NAME(Dev), Letter, Length);

    // Zero-length reads never reach the serial port.
    if (Length == 0) {
        CompleteIrpNow(Irp, STATUS_SUCCESS, 0);
        return STATUS_SUCCESS;
    }

    DEVICE_LOCK(Dev, &OldIrql);
    PSER_REQUEST Request = (PSER_REQUEST)DPoolGet(&Port->RequestPool);
    if (Request == NULL) {
        TRACE(TL_ERROR, "%P:%S%S:DispatchRead: request dpool to small\n", DEV_PORT_NAME(Dev),
              Letter);
        DEVICE_UNLOCK(Dev, OldIrql);
        CompleteIrpNow(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        TRACE(TL_RW, "%P:%S%S:]DispatchRead (%D)\n", DEV_PORT_NAME(Dev), Letter,
              STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    // With time-outs that ask for immediate return the request completes
    // inside SqueueAddRequest, so the IRP is never queued or pended.
    BOOLEAN Immediate = Port->WaitForImmediate;
    NTSTATUS Status = STATUS_PENDING;
    if (!Immediate) {
        if (IrpQueueInsert(&Port->ReadIrpQueue, Irp) == STATUS_CANCELLED) {
            DPoolPut(Request);
            DEVICE_UNLOCK(Dev, OldIrql);
            CompleteIrpNow(Irp, STATUS_CANCELLED, 0);
            return STATUS_CANCELLED;
        }
    } else {
        // clang-format off
        TRACE_ASSERT(Port->SerPort->RcvQueue.TimeMode == INTERVALTIME_NOWAIT);
        // clang-format on
    }

    FillRequest(Request, Irp, Port, Length,
                Immediate ? SER_REQUEST_READ | SER_REQUEST_NOWAIT : SER_REQUEST_READ);
    SqueueAddRequest(&Port->SerPort->RcvQueue, Request, &Port->SerPort->CircRcvBuf);
    SndRcvCheckRcvQueue(&Dev->ReceivePipe);

    if (Immediate) {
        DEVICE_UNLOCK(Dev, OldIrql);
        Status = Request->Status;
        CompleteIrpNow(Irp, Status, Request->Length);
        DPoolPut(Request);
    } else {
        DEVICE_UNLOCK(Dev, OldIrql);
    }
    TRACE(TL_RW, "%P:%S%S:]DispatchRead (%D)\n", DEV_PORT_NAME(Dev), Letter, Status);
    return Status;
}

NTSTATUS NTAPI DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE Dev = NULL;
    PPORT_OBJ Port = NULL;
    KIRQL OldIrql;
    GetDevAndPort(DeviceObject, &Dev, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    ULONG Length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
    TRACE(TL_RW, "%P:%S%S:[DispatchWrite len:%d\n", DEV_PORT_NAME(Dev), Letter, Length);
    if (TraceMask & TL_PPP) {
        TracePrint("%P:%S%S:[DispatchWrite len:%d\n", DEV_PORT_NAME(Dev), Letter, Length);
        TraceDump(Irp->AssociatedIrp.SystemBuffer,
                  Length > WRITE_DUMP_BYTES ? WRITE_DUMP_BYTES : Length);
        if (Length > WRITE_DUMP_BYTES)
            TracePrint("...\n");
    }

    // A zero-length write is queued like any other: it completes with 0 bytes
    // as soon as the send buffer is not full.
    DEVICE_LOCK(Dev, &OldIrql);
    PSER_REQUEST Request = (PSER_REQUEST)DPoolGet(&Port->RequestPool);
    if (Request == NULL) {
        TRACE(TL_ERROR, "%P:%S%S:DispatchWrite: request dpool to small\n", DEV_PORT_NAME(Dev),
              Letter);
        DEVICE_UNLOCK(Dev, OldIrql);
        CompleteIrpNow(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        TRACE(TL_RW, "%P:%S%S:]DispatchWrite (%D)\n", DEV_PORT_NAME(Dev), Letter,
              STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (IrpQueueInsert(&Port->WriteIrpQueue, Irp) == STATUS_CANCELLED) {
        DPoolPut(Request);
        DEVICE_UNLOCK(Dev, OldIrql);
        CompleteIrpNow(Irp, STATUS_CANCELLED, 0);
        return STATUS_CANCELLED;
    }
    FillRequest(Request, Irp, Port, Length, 0);
    DEVICE_UNLOCK(Dev, OldIrql);

    // Even a request completed inside SendRequest reaches its IRP through the
    // completion DPC, so its result is not needed here.
    SendRequest(Port->SerPort, Request);

    // A cancel that came while the lock was released above found the request
    // in neither timed queue and was lost, leaving a write that may never
    // finish. While the request still waits in the send queue its IRP is not
    // completed, so its cancel flag may be read; it is then cancelled here,
    // through the normal path, and a cancel routine still on its way finds
    // nothing.
    DEVICE_LOCK(Dev, &OldIrql);
    if (SqueueHoldsIrp(&Port->SerPort->SndQueue, Irp) && Irp->Cancel)
        SqueueCancel(&Port->SerPort->SndQueue, Irp);
    DEVICE_UNLOCK(Dev, OldIrql);
    TRACE(TL_RW, "%P:%S%S:]DispatchWrite (%D)\n", DEV_PORT_NAME(Dev), Letter, STATUS_PENDING);
    return STATUS_PENDING;
}

// The statuses an IRP may carry back from the serial port; anything else is
// reported as the driver's generic failure.
static NTSTATUS IrpStatusOf(NTSTATUS Status) {
    switch (Status) {
    case STATUS_SUCCESS:
    case STATUS_TIMEOUT:
    case STATUS_PENDING:
    case STATUS_UNSUCCESSFUL:
    case STATUS_INSUFFICIENT_RESOURCES:
    case STATUS_CANCELLED:
        return Status;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

VOID CompleteRequest(PSER_REQUEST Request) {
    PPORT_OBJ Port = Request->Port;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    PIRP Irp2 = Request->Irp;
    BOOLEAN IsRead = (Request->Flags & SER_REQUEST_READ) != 0;
    // clang-format off
    if (IsRead)
        TRACE_ASSERT(Request->Length <= IoGetCurrentIrpStackLocation(Irp2)->Parameters.Read.Length);
    else
        TRACE_ASSERT(Request->Length <= IoGetCurrentIrpStackLocation(Irp2)->Parameters.Write.Length);
    // clang-format on
    const WCHAR* PortName = DEV_PORT_NAME(Port->Device);
    TRACE(TL_RW, "%P:%S:[CompleteRequest %s Size(%d) Status(%x)\n", PortName,
          IsRead ? "read" : "write", Request->Length, Request->Status);
    if (IsRead && Request->Length > 0 && (TraceMask & TL_DETAIL))
        TraceDump(Request->Buffer, Request->Length);

    if (IsRead)
        Port->SerPort->Settings.ReceivedCount += Request->Length;
    else
        Port->SerPort->Settings.TransmittedCount += Request->Length;

    // An immediate read is completed by the read dispatch itself.
    if (Request->Flags & SER_REQUEST_NOWAIT)
        return;

    PIRP Irp = IrpQueueRemove(IsRead ? &Port->ReadIrpQueue : &Port->WriteIrpQueue, Irp2);
    // clang-format off
    TRACE_ASSERT(Irp != NULL);
    TRACE_ASSERT(Irp == Irp2);
    // clang-format on
    if (Irp == NULL) {
        TRACE(TL_ASSERT,
              "%P:%S:[CompleteRequest The serport object has completet a request two times, "
              "fatal!\n",
              PortName);
        return;
    }

    // clang-format off
    TRACE_ASSERT(Request->Status != DEFAULT_STATUS);
    // clang-format on
    NTSTATUS Status = IrpStatusOf(Request->Status);
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Request->Length;
    DPoolPut(Request);
    QueueCompleteIrp(&Port->Device->CompleteQueue, Irp);
    TRACE(Status < 0 ? TL_ERROR : TL_RW, "%P:%S:]CompleteRequest (%D)\n", PortName, Status);
}

// ---- Open, cleanup, close and system control ----

#define DRIVER_VERSION_MAJOR 3
#define DRIVER_VERSION_MINOR 46
// I/O controls of the driver below the modem's stack, sent with no buffers.
#define IOCTL_LOWER_ATTACH 0x89312007
#define IOCTL_LOWER_DETACH 0x8931200B
// Polls of the send buffer at the last close, 20 ms apart.
#define CLOSE_DRAIN_POLLS 51
#define CLOSE_DRAIN_STEP_100NS (-200000)

// What the driver below makes of the two codes is its own business (the
// simulated bus records them and answers with success); a failure or a
// time-out changes nothing in this driver.
static NTSTATUS NotifyLower(PDEVICE Dev, ULONG IoControlCode) {
    PIRP Irp = IoAllocateIrp(Dev->StackSize, FALSE);
    if (Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS Status = SubmitIrpAndWait(Dev, Irp, NULL, IoControlCode, Dev->Cfg.RequestTimeout);
    IoFreeIrp(Irp);
    return NT_SUCCESS(Status) ? STATUS_SUCCESS : Status;
}

NTSTATUS NotifyLowerAttach(PDEVICE Dev) {
    return NotifyLower(Dev, IOCTL_LOWER_ATTACH);
}

NTSTATUS NotifyLowerDetach(PDEVICE Dev) {
    return NotifyLower(Dev, IOCTL_LOWER_DETACH);
}

// The device and port of an open, cleanup or close, asserted valid.
static PDEVICE OpenCloseDevice(PDEVICE_OBJECT DeviceObject, PPORT_OBJ* PortOut) {
    PDEVICE Dev = NULL;
    PPORT_OBJ Port = NULL;
    GetDevAndPort(DeviceObject, &Dev, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    *PortOut = Port;
    return Dev;
}

static BOOLEAN ThroughAttachObject(PDEVICE_OBJECT DeviceObject) {
    return *(const ULONG*)DeviceObject->DeviceExtension == EXTENSION_TYPE_ATTACH;
}

// The trace mask may have changed in the service key since the driver
// loaded.
static VOID RereadTraceMask(PDEVICE Dev, const WCHAR* Letter) {
    HANDLE Key;
    if (NT_SUCCESS(CfgOpenKey(&Key, DriverRegistryPath.Buffer))) {
        TraceSetMask(CfgGetParameter(Key, CfgTraceMask));
        ZwClose(Key);
    } else {
        TRACE(TL_ERROR, "%P:%S%S:Open of Software key failed\n", DEV_PORT_NAME(Dev), Letter);
    }
}

static NTSTATUS OpenPort(PDEVICE Dev, PPORT_OBJ Port, PDEVICE_OBJECT DeviceObject,
                         const WCHAR* Letter) {
    if (Dev->PortInUse) {
        TRACE(TL_INFO, "%P:%S%S:Open data port rejected, in use\n", DEV_PORT_NAME(Dev), Letter);
        return STATUS_UNSUCCESSFUL;
    }
    TRACE(TL_INFO, "%P:%S%S:Driver Version %d.%02d Obj:%d\n", DEV_PORT_NAME(Dev), Letter,
          DRIVER_VERSION_MAJOR, DRIVER_VERSION_MINOR, *(const ULONG*)DeviceObject->DeviceExtension);
    if (!Dev->DeviceInitialized) {
        TRACE(TL_INFO,
              "%P:%S%S:DispatchCreate Device not initialized, hardware problem, reject open\n",
              DEV_PORT_NAME(Dev), Letter);
        return STATUS_UNSUCCESSFUL;
    }
    if (Dev->DevicePowerState != PowerDeviceD0) {
        TRACE(TL_ERROR, "%P:%S%S:Open Device power down\n", DEV_PORT_NAME(Dev), Letter);
        return STATUS_UNSUCCESSFUL;
    }
    RereadTraceMask(Dev, Letter);
    Port->WaitForImmediate = FALSE;
    if (ThroughAttachObject(DeviceObject))
        AttachAddRef((PATTACH_OBJ)DeviceObject->DeviceExtension);
    Dev->OpenCount++;
    StartTimer(Dev);
    if (Dev->OpenCount == 1) {
        Dev->PppState = PPP_STATE_OFF;
        Dev->WaitingData = 0;
        StartSendAndReceive(Dev);
    }
    Dev->PortInUse = TRUE;
    DEVICE_ADD_REF(Dev);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PPORT_OBJ Port;
    PDEVICE Dev = OpenCloseDevice(DeviceObject, &Port);
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_OPEN, "%P:%S%S:DispatchCreate[\n", DEV_PORT_NAME(Dev), Letter);
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    NTSTATUS Status = OpenPort(Dev, Port, DeviceObject, Letter);
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);
    if (NT_SUCCESS(Status))
        NotifyLowerAttach(Dev);
    CompleteIrpNow(Irp, Status, 0);
    TRACE(TL_OPEN, "%P:%S%S:]DispatchCreate (%D)\n", DEV_PORT_NAME(Dev), Letter, Status);
    return Status;
}

NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PPORT_OBJ Port;
    PDEVICE Dev = OpenCloseDevice(DeviceObject, &Port);
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_OPEN, "%P:%S%S:DispatchCleanup[\n", DEV_PORT_NAME(Dev), Letter);
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    // The modem sees DTR and RTS drop; a failure to tell it changes nothing.
    Dev->PcStatus = 0;
    SetPcStatus(Dev);
    KIRQL OldIrql;
    DEVICE_LOCK(Dev, &OldIrql);
    SqueueFlush(&Port->SerPort->RcvQueue);
    SqueueFlush(&Port->SerPort->SndQueue);
    CompleteWaitIrp(Port, 0);
    DEVICE_UNLOCK(Dev, OldIrql);
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);
    CompleteIrpNow(Irp, STATUS_SUCCESS, 0);
    TRACE(TL_OPEN, "%P:%S%S:]DispatchCleanup (%D)\n", DEV_PORT_NAME(Dev), Letter, STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

// Lets the send buffer drain for up to about a second; a bulk-out packet
// already handed to the send engine is not waited for.
static VOID DrainSendBuffer(PDEVICE Dev, PSER_PORT SerPort, const WCHAR* Letter) {
    TRACE(TL_OPEN, "%P:%S%S:DispatchClose: waiting until TX buf is empty\n", DEV_PORT_NAME(Dev),
          Letter);
    LARGE_INTEGER Step;
    Step.QuadPart = CLOSE_DRAIN_STEP_100NS;
    for (ULONG Poll = 0; Poll < CLOSE_DRAIN_POLLS; Poll++) {
        if (SerPort->CircSendBuf.Count == 0) {
            TRACE(TL_OPEN, "%P:%S%S:DispatchClose: TX buf is empty.\n", DEV_PORT_NAME(Dev), Letter);
            return;
        }
        KeDelayExecutionThread(KernelMode, FALSE, &Step);
    }
    TRACE(TL_OPEN, "%P:%S%S:DispatchClose: TIMED OUT waiting until TX buf is empty\n",
          DEV_PORT_NAME(Dev), Letter);
}

NTSTATUS NTAPI DispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PPORT_OBJ Port;
    PDEVICE Dev = OpenCloseDevice(DeviceObject, &Port);
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_OPEN, "%P:%S%S:[DispatchClose\n", DEV_PORT_NAME(Dev), Letter);
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    if (--Dev->OpenCount == 0) {
        if (Port->SerPort != NULL)
            DrainSendBuffer(Dev, Port->SerPort, Letter);
        else
            TRACE(TL_ERROR, "%P:%S%S:DispatchClose: Port->SerPort == NULL\n", DEV_PORT_NAME(Dev),
                  Letter);
        TRACE(TL_OPEN, "%P:%S%S:OpenCount == 0 Stop SendAndReceive\n", DEV_PORT_NAME(Dev), Letter);
        StopSendAndReceive(Dev, TRUE);
        StopTimer(Dev);
    }
    Dev->PortInUse = FALSE;
    if (ThroughAttachObject(DeviceObject))
        AttachRelease((PATTACH_OBJ)DeviceObject->DeviceExtension);
    NotifyLowerDetach(Dev);
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);
    // The last reference may delete the device: the closing trace keeps a copy of the name.
    WCHAR PortName[PORT_NAME_COPY_CHARS];
    CopyPortName(Dev, PortName);
    DEVICE_RELEASE(Dev);
    CompleteIrpNow(Irp, STATUS_SUCCESS, 0);
    TRACE(TL_OPEN, "%P:%S%S:]DispatchClose\n", PortName, Letter);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PDEVICE Dev = NULL;
    GetDevAndPort(DeviceObject, &Dev, NULL);
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_PNP, "%P:%S%S:DispatchSystemControl[\n", DEV_PORT_NAME(Dev), Letter);
    if (Dev->LowerDevObj == NULL) {
        CompleteIrpNow(Irp, STATUS_UNSUCCESSFUL, Irp->IoStatus.Information);
        return STATUS_UNSUCCESSFUL;
    }
    IoSkipCurrentIrpStackLocation(Irp);
    NTSTATUS Status = IoCallDriver(Dev->LowerDevObj, Irp);
    TRACE(TL_PNP, "%P:%S%S:]DispatchSystemControl (%D)\n", DEV_PORT_NAME(Dev), Letter, Status);
    return Status;
}
