// IRP queues: the cancellable list of pending read or write IRPs of a port,
// and the deferred-completion queue of a device.
//
// Environment: IrpQueueInit and CompleteQueueInit at PASSIVE_LEVEL when the
// port or device is created; IrpQueueInsert and IrpQueueRemove at
// DISPATCH_LEVEL under the device lock; the cancel routine at DISPATCH_LEVEL
// with the system cancel spin lock held on entry; QueueCompleteIrp up to
// DISPATCH_LEVEL with any other lock held; CompleteDpcRoutine at
// DISPATCH_LEVEL.
// Locks: IRP_QUEUE.Lock guards its Irps list and the queue word of each
// queued IRP; COMPLETE_QUEUE.Lock guards its Irps list. Both nest inside the
// device lock. The cancel routine releases the cancel spin lock before it
// takes the device lock. The cancel-routine field of an IRP changes only by
// interlocked exchange. IrpQueueRemove may take the cancel spin lock for a
// moment inside the device lock, after it released IRP_QUEUE.Lock; nobody
// holds the cancel spin lock while waiting for the device lock. No lock is
// held while an IRP is completed: the already-cancelled IRP of
// IrpQueueInsert is completed by the caller once it has released the device
// lock.
#define TRACE_FILE "source/cdcacm/irpqueue"
#include "cdcacm.h"

// The queue an IRP waits in, kept in the last driver-context word.
#define IRP_QUEUE_CONTEXT 3

VOID IrpQueueInit(PIRP_QUEUE Queue) {
    KeInitializeSpinLock(&Queue->Lock);
    InitializeListHead(&Queue->Irps);
}

NTSTATUS IrpQueueInsert(PIRP_QUEUE Queue, PIRP Irp) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    PDRIVER_CANCEL OldCancel = IoSetCancelRoutine(Irp, IrpQueue_IrpCancelRoutine);
    // clang-format off
    TRACE_ASSERT(OldCancel==NULL);
    // clang-format on
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
        // Cancelled before it could be queued, and the I/O manager did not
        // call the cancel routine: nobody else will complete it. The caller
        // holds the device lock, so it completes the IRP after releasing it.
        KeReleaseSpinLock(&Queue->Lock, OldIrql);
        return STATUS_CANCELLED;
    }
    // When the cancel routine is already running it waits for the device
    // lock, which our caller holds. A read's request is in its timed queue
    // before that lock is released, so the cancel routine finds it; a
    // write's request reaches its queue only in SendRequest, after the
    // release, so a cancel in that window finds nothing and the write
    // dispatch cancels the request itself once it is queued.
    // The IRP is marked pending only once it is certain to be returned
    // pending: a dispatch routine that marked its IRP pending must return
    // STATUS_PENDING, and a cancelled IRP completed above goes back to the
    // caller with STATUS_CANCELLED.
    IoMarkIrpPending(Irp);
    Irp->Tail.Overlay.DriverContext[IRP_QUEUE_CONTEXT] = Queue;
    InsertTailList(&Queue->Irps, &Irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
    return STATUS_PENDING;
}

PIRP IrpQueueRemove(PIRP_QUEUE Queue, PIRP Irp) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    for (PLIST_ENTRY Entry = Queue->Irps.Flink; Entry != &Queue->Irps; Entry = Entry->Flink) {
        if (Entry == &Irp->Tail.Overlay.ListEntry) {
            RemoveEntryList(Entry);
            BOOLEAN CancelClaimed = IoSetCancelRoutine(Irp, NULL) == NULL;
            KeReleaseSpinLock(&Queue->Lock, OldIrql);
            if (CancelClaimed) {
                // IoCancelIrp has taken the cancel routine, which reads the
                // IRP until it releases the cancel spin lock. Our caller
                // completes the IRP, so wait for that release first; the
                // routine then finds no request and only traces.
                KIRQL CancelIrql;
                IoAcquireCancelSpinLock(&CancelIrql);
                IoReleaseCancelSpinLock(CancelIrql);
            }
            return Irp;
        }
    }
    KeReleaseSpinLock(&Queue->Lock, OldIrql);
    return NULL;
}

// The request of the IRP is completed with STATUS_CANCELLED through the normal
// path (CompleteRequest), which also takes the IRP out of its IRP queue: the
// IRP is completed exactly once, and never here.
VOID NTAPI IrpQueue_IrpCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PPORT_OBJ Port = NULL;
    KIRQL OldIrql;
    GetDevAndPort(DeviceObject, NULL, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_INFO, "%P:%S%S:IrpQueue_IrpCancelRoutine\n", DEV_PORT_NAME(Port->Device), Letter);
    IoReleaseCancelSpinLock(Irp->CancelIrql);

    DEVICE_LOCK(Port->Device, &OldIrql);
    PSER_PORT SerPort = Port->SerPort;
    if (!SqueueCancel(&SerPort->RcvQueue, Irp) && !SqueueCancel(&SerPort->SndQueue, Irp))
        TRACE(TL_ERROR, "%P:%S%S:IrpQueue_IrpCancelRoutine: The IRP was not found %X\n",
              DEV_PORT_NAME(Port->Device), Letter, (ULONG)(ULONG_PTR)Irp);
    DEVICE_UNLOCK(Port->Device, OldIrql);
}

VOID CompleteQueueInit(PCOMPLETE_QUEUE Queue) {
    KeInitializeSpinLock(&Queue->Lock);
    Queue->OldIrql = PASSIVE_LEVEL;
    InitializeListHead(&Queue->Irps);
    KeInitializeDpc(&Queue->Dpc, CompleteDpcRoutine, Queue);
}

VOID QueueCompleteIrp(PCOMPLETE_QUEUE Queue, PIRP Irp) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&Queue->Lock, &OldIrql);
    Queue->OldIrql = OldIrql;
    IoMarkIrpPending(Irp);
    InsertTailList(&Queue->Irps, &Irp->Tail.Overlay.ListEntry);
    KeInsertQueueDpc(&Queue->Dpc, NULL, NULL);
    KeReleaseSpinLock(&Queue->Lock, Queue->OldIrql);
}

VOID NTAPI CompleteDpcRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                              PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    PCOMPLETE_QUEUE Queue = (PCOMPLETE_QUEUE)DeferredContext;
    for (;;) {
        KeAcquireSpinLockAtDpcLevel(&Queue->Lock);
        if (IsListEmpty(&Queue->Irps)) {
            KeReleaseSpinLockFromDpcLevel(&Queue->Lock);
            return;
        }
        PLIST_ENTRY Entry = RemoveHeadList(&Queue->Irps);
        KeReleaseSpinLockFromDpcLevel(&Queue->Lock);

        PIRP Irp = CONTAINING_RECORD(Entry, IRP, Tail.Overlay.ListEntry);
        Irp->Tail.Overlay.ListEntry.Flink = NULL;
        Irp->Tail.Overlay.ListEntry.Blink = NULL;
        for (ULONG Word = 0; Word < 4; Word++)
            Irp->Tail.Overlay.DriverContext[Word] = NULL;
        TRACE(TL_WAIT, "%P:CompleteDpcRoutine Irp: %D\n", (ULONG)(ULONG_PTR)Irp);
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
}
