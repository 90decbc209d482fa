// Driver-wide kernel support: the pool allocator that counts every byte the
// driver holds, the callback timer objects, and the driver-wide state.
//
// Environment: MemAlloc, MemFree and InitTimerObj run at any IRQL up to
// DISPATCH_LEVEL; TimerObjDpc runs at DISPATCH_LEVEL.
// Locks: MemoryLock (spin lock) guards MemoryCounter only; the pool calls
// stay outside it. It is innermost: no other lock is taken while it is
// held. DeviceListMutex guards DeviceList (its users take it).
#define TRACE_FILE "source/cdcacm/wdmkrnl"
#include "cdcacm.h"

KSPIN_LOCK MemoryLock;
ULONG MemoryCounter;
ULONG ContMemoryCounter;

WCHAR RegistryPathBuffer[REGISTRY_PATH_BYTES / sizeof(WCHAR)];
UNICODE_STRING DriverRegistryPath = {0, REGISTRY_PATH_BYTES, RegistryPathBuffer};

LIST_ENTRY DeviceList;
KMUTEX DeviceListMutex;

// Freed bytes are overwritten with this, so that a use after free shows.
#define FREED_MEMORY_FILL 0xEE

void MemInit(void) {
    KeInitializeSpinLock(&MemoryLock);
}

PVOID MemAlloc(ULONG NumberOfBytes, ULONG Tag) {
    // The condition's text is the assertion message, so it keeps its spelling.
    // clang-format off
    TRACE_ASSERT(NumberOfBytes!=0);
    // clang-format on

    // A size whose header would wrap the 32-bit length is refused like an
    // exhausted pool.
    if (NumberOfBytes > 0xFFFFFFFFu - sizeof(MEMHD))
        return NULL;

    PMEMHD hd = (PMEMHD)ExAllocatePoolWithTag(NonPagedPool, NumberOfBytes + sizeof(MEMHD), Tag);
    if (hd == NULL)
        return NULL;
    hd->Magic = MEMHD_MAGIC;
    hd->Size = NumberOfBytes;

    KIRQL OldIrql;
    KeAcquireSpinLock(&MemoryLock, &OldIrql);
    MemoryCounter += NumberOfBytes;
    KeReleaseSpinLock(&MemoryLock, OldIrql);

    return hd + 1;
}

void MemFree(PVOID Memory) {
    // A null pointer or a block without our header is reported and then left
    // alone: neither freed nor counted, since freeing memory we cannot vouch
    // for would corrupt the pool, whereas a leak only shows at unload.
    // The conditions' texts are the assertion messages, so they keep their spelling.
    // clang-format off
    TRACE_ASSERT(Memory!=NULL);
    if (Memory == NULL)
        return;
    PMEMHD hd = (PMEMHD)Memory - 1;
    TRACE_ASSERT(hd->Magic==MEMHD_MAGIC);
    // clang-format on
    if (hd->Magic != MEMHD_MAGIC)
        return;

    ULONG Size = hd->Size;
    RtlFillMemory(Memory, Size, FREED_MEMORY_FILL);

    KIRQL OldIrql;
    KeAcquireSpinLock(&MemoryLock, &OldIrql);
    MemoryCounter -= Size;
    KeReleaseSpinLock(&MemoryLock, OldIrql);

    ExFreePool(hd);
}

void InitTimerObj(PTIMER_OBJ TimerObj, PTIMER_OBJ_CALLBACK Callback, PVOID Context,
                  ULONG Milliseconds) {
    TimerObj->Callback = Callback;
    TimerObj->Context = Context;
    TimerObj->DueTime.QuadPart = -((LONGLONG)Milliseconds * 10000);
    KeInitializeTimer(&TimerObj->Timer);
    KeInitializeDpc(&TimerObj->Dpc, TimerObjDpc, TimerObj);
}

VOID NTAPI TimerObjDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                       PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    PTIMER_OBJ TimerObj = (PTIMER_OBJ)DeferredContext;
    TimerObj->Callback(TimerObj, TimerObj->Context);
}
