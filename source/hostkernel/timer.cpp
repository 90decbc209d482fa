// Kernel timers, DPCs and the clock queries, on the virtual clock.
#include "hostkernel/checks.h"
#include "hostkernel/scheduler.h"

using hk::detail::Sched;

void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    hk::detail::CheckNonPaged(Dpc, "a DPC");
    Dpc->Type = 19;
    Dpc->Importance = 1;
    Dpc->Number = 0;
    Dpc->DpcListEntry.Flink = Dpc->DpcListEntry.Blink = nullptr;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = nullptr;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    Sched().PreemptionPoint();
    return Sched().InsertDpc(Dpc, SystemArgument1, SystemArgument2);
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc) {
    return Sched().RemoveDpc(Dpc);
}

void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    hk::detail::CheckNonPaged(Timer, "a timer");
    Timer->Header.Type =
        Type == NotificationTimer ? TimerNotificationObject : TimerSynchronizationObject;
    Timer->Header.Absolute = 0;
    Timer->Header.Size = 0;
    Timer->Header.Inserted = FALSE;
    Timer->Header.SignalState = 0;
    InitializeListHead(&Timer->Header.WaitListHead);
    Timer->DueTime.QuadPart = 0;
    InitializeListHead(&Timer->TimerListEntry);
    Timer->Dpc = nullptr;
    Timer->Period = 0;
}

void KeInitializeTimer(PKTIMER Timer) {
    KeInitializeTimerEx(Timer, NotificationTimer);
}

BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    Sched().PreemptionPoint();
    return Sched().SetTimer(Timer, DueTime.QuadPart, Period, Dpc);
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN KeCancelTimer(PKTIMER Timer) {
    Sched().PreemptionPoint();
    return Sched().CancelTimer(Timer);
}

BOOLEAN KeReadStateTimer(PKTIMER Timer) {
    return Timer->Header.SignalState != 0;
}

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    CurrentTime->QuadPart = hk::detail::Scheduler::kSystemTimeEpoch + Sched().Now();
}

ULONGLONG KeQueryInterruptTime(void) {
    return ULONGLONG(Sched().Now());
}
