// IRP queues: the cancellable list of pending read or write IRPs, and the
// deferred-completion queue whose DPC completes IRPs finished under the
// device lock.
//
// Records: each PORT_OBJ owns two IRP_QUEUEs (read and write) and each
// DEVICE one COMPLETE_QUEUE; they are embedded and live as long as their
// owner.
//
// Environment: up to DISPATCH_LEVEL.
// Locks: IRP_QUEUE.Lock guards Irps; COMPLETE_QUEUE.Lock guards Irps. Both
// nest inside the device lock, never around it.
#pragma once

#include "forward.h"

struct _IRP_QUEUE {
    KSPIN_LOCK Lock;
    LIST_ENTRY Irps; // linked through Tail.Overlay.ListEntry of each IRP
};

struct _COMPLETE_QUEUE {
    KSPIN_LOCK Lock;
    KIRQL OldIrql; // IRQL of the holder of Lock, restored on release
    LIST_ENTRY Irps;
    KDPC Dpc; // CompleteDpcRoutine, context the queue
};

VOID IrpQueueInit(PIRP_QUEUE Queue);
// STATUS_PENDING when queued; STATUS_CANCELLED when the IRP was already
// cancelled, in which case the caller completes it with STATUS_CANCELLED
// once it has released the device lock. Called with the device lock held.
NTSTATUS IrpQueueInsert(PIRP_QUEUE Queue, PIRP Irp);
// The IRP taken out of the queue with its cancel routine cleared, or NULL
// when it is not queued.
PIRP IrpQueueRemove(PIRP_QUEUE Queue, PIRP Irp);
DRIVER_CANCEL IrpQueue_IrpCancelRoutine;

VOID CompleteQueueInit(PCOMPLETE_QUEUE Queue);
// Queues an IRP whose I/O status block is set; the DPC completes it. Callable
// at raised IRQL with other spin locks held.
VOID QueueCompleteIrp(PCOMPLETE_QUEUE Queue, PIRP Irp);
KDEFERRED_ROUTINE CompleteDpcRoutine;
