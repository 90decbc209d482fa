// The kernel executive calls of the emulated platform: IRQL, spin locks,
// dispatcher objects (events, mutexes, timers), waits, DPCs, interlocked
// operations, pool, debugger output and the Rtl string helpers.
#pragma once

#include "hostkernel/ktypes.h"

typedef UCHAR KIRQL, *PKIRQL;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef LONG KPRIORITY;

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 31

// Annotations compile away; PAGED_CODE() is a real IRQL check here.
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_(irql)
#define _IRQL_raises_(irql)
#define _Requires_lock_held_(lock)
#define _Requires_lock_not_held_(lock)
#define _Acquires_lock_(lock)
#define _Releases_lock_(lock)
#define _Use_decl_annotations_
#define PAGED_CODE() HkCheckPagedCode(__FILE__, __LINE__)
void HkCheckPagedCode(const char* File, int Line);

typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6 } KWAIT_REASON;
typedef enum _MODE { KernelMode = 0, UserMode = 1 } MODE;
typedef CCHAR KPROCESSOR_MODE;
typedef enum _EVENT_TYPE { NotificationEvent = 0, SynchronizationEvent = 1 } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer = 0, SynchronizationTimer = 1 } TIMER_TYPE;

// Dispatcher object types, as the kernel numbers them.
#define EventNotificationObject 0
#define EventSynchronizationObject 1
#define MutantObject 2
#define TimerNotificationObject 8
#define TimerSynchronizationObject 9

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead; // the emulator's wait blocks of threads waiting on the object
} DISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

struct _KTHREAD;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

struct _KDPC;
typedef VOID NTAPI KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext,
                                     PVOID SystemArgument1, PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData; // non-null while the DPC is queued
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header; // Header.Inserted: the timer is in the timer queue
    ULARGE_INTEGER DueTime;   // absolute virtual time of expiry, 100 ns units
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    LONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

// IRQL and spin locks.
KIRQL KeGetCurrentIrql(void);
void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
void KeLowerIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(void);
void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
KIRQL FASTCALL KfAcquireSpinLock(PKSPIN_LOCK SpinLock);
void FASTCALL KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KfAcquireSpinLock(SpinLock))
#define KeReleaseSpinLock(SpinLock, NewIrql) KfReleaseSpinLock((SpinLock), (NewIrql))

// Dispatcher objects and waits.
void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
void KeClearEvent(PRKEVENT Event);
LONG KeResetEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);
void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
LONG KeReadStateMutex(PRKMUTEX Mutex);
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                PLARGE_INTEGER Interval);
PKTHREAD KeGetCurrentThread(void);

// Timers and DPCs.
void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
void KeInitializeTimer(PKTIMER Timer);
void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
BOOLEAN KeCancelTimer(PKTIMER Timer);
BOOLEAN KeReadStateTimer(PKTIMER Timer);
void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG KeQueryInterruptTime(void);

// Interlocked operations. Each is a preemption point of the interleaving mode.
void HkPreemptionPoint(void);
inline LONG InterlockedIncrement(LONG volatile* Addend) {
    HkPreemptionPoint();
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(LONG volatile* Addend) {
    HkPreemptionPoint();
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(LONG volatile* Target, LONG Value) {
    HkPreemptionPoint();
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) {
    HkPreemptionPoint();
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand) {
    HkPreemptionPoint();
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}
inline PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    HkPreemptionPoint();
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange,
                                               PVOID Comparand) {
    HkPreemptionPoint();
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}

// Pool.
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolNx = 512,
} POOL_TYPE;
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void ExFreePool(PVOID P);
void ExFreePoolWithTag(PVOID P, ULONG Tag);

// Debugger output.
ULONG DbgPrint(PCSTR Format, ...) __attribute__((format(printf, 1, 2)));

// Rtl strings.
void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
void RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString);
void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString);
void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                             BOOLEAN CaseInSensitive);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                              BOOLEAN CaseInSensitive);
SIZE_T RtlCompareMemory(const void* Source1, const void* Source2, SIZE_T Length);
