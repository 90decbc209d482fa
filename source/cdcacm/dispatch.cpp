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
