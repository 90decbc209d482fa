// Dispatcher objects: events and mutexes, and the waits on them. Mutexes
// report their owners to the lock-order checks.
#include "hostkernel/checks.h"
#include "hostkernel/scheduler.h"

using hk::detail::LockKind;
using hk::detail::Locks;
using hk::detail::Sched;

static void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, LONG state) {
    header->Type = type;
    header->Absolute = 0;
    header->Size = 0;
    header->Inserted = 0;
    header->SignalState = state;
    InitializeListHead(&header->WaitListHead);
}

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    hk::detail::CheckNonPaged(Event, "an event");
    InitializeHeader(&Event->Header,
                     Type == NotificationEvent ? EventNotificationObject
                                               : EventSynchronizationObject,
                     State ? 1 : 0);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) {
    Sched().PreemptionPoint();
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    Sched().Signal(&Event->Header);
    return previous;
}

void KeClearEvent(PRKEVENT Event) {
    Event->Header.SignalState = 0;
}

LONG KeResetEvent(PRKEVENT Event) {
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeReadStateEvent(PRKEVENT Event) {
    return Event->Header.SignalState;
}

void KeInitializeMutex(PRKMUTEX Mutex, ULONG) {
    hk::detail::LockInitialized(Mutex, sizeof *Mutex);
    InitializeHeader(&Mutex->Header, MutantObject, 1);
    InitializeListHead(&Mutex->MutantListEntry);
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
}

LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN) {
    Sched().PreemptionPoint();
    auto* self = reinterpret_cast<PKTHREAD>(Sched().Current());
    if (Mutex->OwnerThread != self || Mutex->Header.SignalState > 0) {
        hk::Kernel::Current().verifier().Violation(hk::rule::kMutexNotOwned,
                                                   "thread '" + Sched().Current()->name + "'");
        return Mutex->Header.SignalState;
    }
    LONG previous = Mutex->Header.SignalState++;
    if (Mutex->Header.SignalState == 1) {
        Locks().Released(Mutex, Sched().Current());
        Mutex->OwnerThread = nullptr;
        Sched().Signal(&Mutex->Header);
    }
    return previous;
}

LONG KeReadStateMutex(PRKMUTEX Mutex) {
    return Mutex->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                               PLARGE_INTEGER Timeout) {
    Sched().PreemptionPoint();
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    auto* self = reinterpret_cast<PKTHREAD>(Sched().Current());
    // The first acquisition of a mutex is a lock taken; a recursive one is
    // not, and a poll cannot deadlock, so it adds no order.
    bool takes_mutex = header->Type == MutantObject &&
                       CONTAINING_RECORD(header, KMUTEX, Header)->OwnerThread != self;
    if (takes_mutex && !(Timeout && Timeout->QuadPart == 0))
        Locks().Attempt(Object, LockKind::kMutex, self);
    NTSTATUS status = Sched().Wait(header, Timeout, STATUS_TIMEOUT);
    if (takes_mutex && status == STATUS_SUCCESS)
        Locks().Acquired(Object, LockKind::kMutex, self);
    return status;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval) {
    return Sched().Wait(nullptr, Interval, STATUS_SUCCESS);
}

PKTHREAD KeGetCurrentThread(void) {
    return reinterpret_cast<PKTHREAD>(Sched().Current());
}
