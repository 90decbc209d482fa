// Data request pool: fixed-size records (the SER_REQUESTs of reads and
// writes) handed out at raised IRQL without a pool allocation per request.
// The pool starts with a few records, grows in blocks when it runs dry and
// is freed as a whole.
//
// Records: each PORT_OBJ embeds one DPOOL (RequestPool), initialised when
// the port is created and emptied when it is deleted. The pool owns its
// blocks; a handed-out element belongs to its caller until DPoolPut.
//
// Environment: DPoolGet and DPoolPut up to DISPATCH_LEVEL, also under the
// device lock; DPoolInit and DPoolExit at PASSIVE_LEVEL.
// Locks: DPOOL.Lock guards every field, the free list and the block list.
// It nests inside the device lock and takes no other lock but the
// allocator's.
#pragma once

#include "forward.h"

#define DPOOL_TAG 0x6C6F6F70 // 'pool'

// The header word in front of each element's payload: the next free element
// while free, the issuing pool while handed out.
typedef union _DPOOL_ELEMENT {
    union _DPOOL_ELEMENT* Next;
    PDPOOL Pool;
} DPOOL_ELEMENT, *PDPOOL_ELEMENT;

struct _DPOOL {
    KSPIN_LOCK Lock;
    PDPOOL_ELEMENT Head; // first free element
    ULONG Count;         // handed out and not yet returned
    ULONG ElementSize;   // payload bytes
    LIST_ENTRY Blocks;   // oldest first
    ULONG CurrentCount;  // elements in all blocks
    ULONG InitialCount;
    ULONG MaxCount; // growth is refused once CurrentCount exceeds it
    ULONG GrowCount;
};

NTSTATUS DPoolInit(PDPOOL Pool, ULONG InitialCount, ULONG MaxCount, ULONG GrowCount,
                   ULONG ElementSize);
PVOID DPoolGet(PDPOOL Pool);
VOID DPoolPut(PVOID Payload);
VOID DPoolExit(PDPOOL Pool);
