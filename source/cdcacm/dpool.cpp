// Data request pool: a free list of fixed-size elements carved from blocks
// that are allocated as the pool grows and freed together.
//
// A block is its LIST_ENTRY followed by its elements; an element is a
// DPOOL_ELEMENT header word followed by ElementSize payload bytes. The
// element stride is rounded up to the header's size so that every header
// word stays aligned whatever the payload size.
//
// Environment: DPoolGet and DPoolPut up to DISPATCH_LEVEL (also under the
// device lock); DPoolInit and DPoolExit at PASSIVE_LEVEL.
// Locks: DPOOL.Lock guards the pool's fields, its free list and its block
// list; it is taken inside the device lock and only the allocator's lock is
// taken inside it.
#define TRACE_FILE "source/cdcacm/dpool"
#include "cdcacm.h"

static ULONG DPoolStride(PDPOOL Pool) {
    const ULONG Align = sizeof(DPOOL_ELEMENT);
    return (sizeof(DPOOL_ELEMENT) + Pool->ElementSize + Align - 1) & ~(Align - 1);
}

// Adds one block; called with Lock held. Growth goes on while CurrentCount
// has not passed MaxCount, so the last step may overshoot it.
static NTSTATUS DPoolGrow(PDPOOL Pool) {
    ULONG Count;
    ULONG Stride = DPoolStride(Pool);
    PUCHAR Block;
    PUCHAR Element;
    ULONG Index;

    if (Pool->CurrentCount > Pool->MaxCount)
        return STATUS_INSUFFICIENT_RESOURCES;

    if (Pool->CurrentCount == 0)
        Count = Pool->InitialCount;
    else if (Pool->CurrentCount / 2 >= Pool->GrowCount)
        Count = Pool->CurrentCount / 2;
    else
        Count = Pool->GrowCount;

    Block = (PUCHAR)MemAlloc(sizeof(LIST_ENTRY) + Count * Stride, DPOOL_TAG);
    if (Block == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Block, sizeof(LIST_ENTRY) + Count * Stride);
    InsertTailList(&Pool->Blocks, (PLIST_ENTRY)Block);

    // Pushed in block order: the block's last element is handed out first.
    Element = Block + sizeof(LIST_ENTRY);
    for (Index = 0; Index < Count; Index++, Element += Stride) {
        ((PDPOOL_ELEMENT)Element)->Next = Pool->Head;
        Pool->Head = (PDPOOL_ELEMENT)Element;
    }
    Pool->CurrentCount += Count;
    return STATUS_SUCCESS;
}

NTSTATUS DPoolInit(PDPOOL Pool, ULONG InitialCount, ULONG MaxCount, ULONG GrowCount,
                   ULONG ElementSize) {
    KIRQL OldIrql;
    NTSTATUS Status;

    RtlZeroMemory(Pool, sizeof(*Pool));
    Pool->InitialCount = InitialCount;
    Pool->MaxCount = MaxCount;
    Pool->GrowCount = GrowCount;
    Pool->ElementSize = ElementSize;
    InitializeListHead(&Pool->Blocks);
    KeInitializeSpinLock(&Pool->Lock);

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    Status = DPoolGrow(Pool);
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
    return Status;
}

PVOID DPoolGet(PDPOOL Pool) {
    KIRQL OldIrql;
    PDPOOL_ELEMENT Element;
    ULONG CurrentCount;

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    if (Pool->Head == NULL && !NT_SUCCESS(DPoolGrow(Pool))) {
        CurrentCount = Pool->CurrentCount;
        KeReleaseSpinLock(&Pool->Lock, OldIrql);
        TRACE(TL_ERROR, "%PDPoolGet: alloc failed. CurrentCount %d MaxCount %d\n", CurrentCount,
              Pool->MaxCount);
        return NULL;
    }
    // A pool set up with a zero InitialCount or GrowCount grows by nothing:
    // that is reported and refused like exhaustion, without the trace.
    // clang-format off
    TRACE_ASSERT(Pool->Head!=NULL);
    // clang-format on
    Element = Pool->Head;
    if (Element != NULL) {
        Pool->Head = Element->Next;
        Pool->Count++;
    }
    KeReleaseSpinLock(&Pool->Lock, OldIrql);

    if (Element == NULL)
        return NULL;
    Element->Pool = Pool;
    return Element + 1;
}

VOID DPoolPut(PVOID Payload) {
    PDPOOL_ELEMENT Element = (PDPOOL_ELEMENT)Payload - 1;
    PDPOOL Pool = Element->Pool;
    KIRQL OldIrql;

    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    Element->Next = Pool->Head;
    Pool->Head = Element;
    Pool->Count--;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}

VOID DPoolExit(PDPOOL Pool) {
    KIRQL OldIrql;

    // clang-format off
    TRACE_ASSERT(Pool!=NULL);
    // clang-format on
    if (Pool == NULL)
        return;
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    // clang-format off
    TRACE_ASSERT(Pool->Count==0);
    // clang-format on
    // A pool that was only zero-filled (its port failed before DPoolInit)
    // has no block list yet.
    while (Pool->Blocks.Flink != NULL && !IsListEmpty(&Pool->Blocks))
        MemFree(RemoveHeadList(&Pool->Blocks));
    Pool->CurrentCount = 0;
    Pool->Head = NULL;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}
