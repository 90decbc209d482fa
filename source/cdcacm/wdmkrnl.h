// Driver-wide kernel support: the pool allocator that counts the driver's
// memory, the callback timer objects, and the driver-wide state (registry
// path copy, device list).
//
// Environment: MemAlloc, MemFree and InitTimerObj at any IRQL up to
// DISPATCH_LEVEL; TimerObjDpc at DISPATCH_LEVEL.
// Locks: MemoryLock guards MemoryCounter; it is innermost and may be taken
// under any other driver lock. DeviceListMutex guards DeviceList and
// serialises device creation and deletion; it is taken after a device's
// DeviceMutex, never before.
#pragma once

#include "platform.h"
#include "forward.h"

// Every block from MemAlloc starts with this header; the caller's bytes
// follow at once.
#define MEMHD_MAGIC 0x6D654D4B // 'KMem'

typedef struct _MEMHD {
    ULONG Magic; // MEMHD_MAGIC
    ULONG Size;  // bytes requested by the caller
} MEMHD, *PMEMHD;

static_assert(sizeof(MEMHD) == 8, "the block header keeps the caller's bytes 8-byte aligned");

extern KSPIN_LOCK MemoryLock;
extern ULONG MemoryCounter;     // bytes currently allocated through MemAlloc, headers excluded
extern ULONG ContMemoryCounter; // reported at unload; no allocation path changes it

// Initialises MemoryLock; driver entry calls it before TraceInit.
void MemInit(void);
// NumberOfBytes usable bytes of non-paged pool, not initialised, or NULL.
PVOID MemAlloc(ULONG NumberOfBytes, ULONG Tag);
// Fills the caller's bytes with 0xEE and returns the block to the pool.
void MemFree(PVOID Memory);

// A one-shot kernel timer bound to a callback; a callback that wants a
// period arms it again with KeSetTimer(&Obj->Timer, Obj->DueTime, &Obj->Dpc).
typedef VOID TIMER_OBJ_CALLBACK(PTIMER_OBJ TimerObj, PVOID Context);
typedef TIMER_OBJ_CALLBACK* PTIMER_OBJ_CALLBACK;

struct _TIMER_OBJ {
    PTIMER_OBJ_CALLBACK Callback; // called at DISPATCH_LEVEL from TimerObjDpc
    PVOID Context;                // the DEVICE in every use
    LARGE_INTEGER DueTime;        // relative, 100 ns units: -(milliseconds * 10000)
    KTIMER Timer;
    KDPC Dpc; // routine TimerObjDpc, context the timer object
};

// Fills the timer object; does not arm it.
void InitTimerObj(PTIMER_OBJ TimerObj, PTIMER_OBJ_CALLBACK Callback, PVOID Context,
                  ULONG Milliseconds);
KDEFERRED_ROUTINE TimerObjDpc;

// The driver's service-key path as driver entry received it, kept to
// re-read TraceMask when the port is opened.
#define REGISTRY_PATH_BYTES 520
extern WCHAR RegistryPathBuffer[REGISTRY_PATH_BYTES / sizeof(WCHAR)];
// Describes RegistryPathBuffer (MaximumLength REGISTRY_PATH_BYTES).
extern UNICODE_STRING DriverRegistryPath;

extern LIST_ENTRY DeviceList; // every DEVICE, linked by its ListEntry
extern KMUTEX DeviceListMutex;
