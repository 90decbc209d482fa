// The serial port's side of the send engine and the queue timer, the
// periodic tick of the serial read and write time-outs.
//
// Environment: StartTimer up to DISPATCH_LEVEL; TimerDpcRoutine at
// DISPATCH_LEVEL; StopTimer at PASSIVE_LEVEL.
// Locks: the device lock (DEVICE.Lock) guards TimerActive and the timed
// queues the tick works on. TimerPending counts the armed timer plus a
// running tick and changes only by interlocked operations; TimerIdle is
// signalled when it drops to 0.
#define TRACE_FILE "source/cdcacm/wrsupport"
#include "cdcacm.h"

// How long StopTimer waits for a running tick: 1 s, relative.
#define STOP_TIMER_WAIT_100NS (-10000000LL)

void StartTimer(PDEVICE Dev) {
    Dev->TimerActive = 1;
    if (!KeSetTimer(&Dev->QueueTimer.Timer, Dev->QueueTimer.DueTime, &Dev->QueueTimer.Dpc))
        InterlockedIncrement(&Dev->TimerPending);
}

VOID TimerDpcRoutine(PTIMER_OBJ TimerObj, PVOID Context) {
    PDEVICE Dev = (PDEVICE)Context;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    DEVICE_LOCK_AT_DPC(Dev);
    if (Dev->TimerActive) {
        PSER_PORT SerPort = Dev->Port.SerPort;
        SqueueTimerTick(&SerPort->RcvQueue);
        SqueueTimerTick(&SerPort->SndQueue);
        // Counted only when this arms it: a StartTimer during the tick may
        // have armed and counted it already.
        if (!KeSetTimer(&TimerObj->Timer, TimerObj->DueTime, &TimerObj->Dpc))
            InterlockedIncrement(&Dev->TimerPending);
    }
    DEVICE_UNLOCK_AT_DPC(Dev);
    if (InterlockedDecrement(&Dev->TimerPending) == 0)
        KeSetEvent(&Dev->TimerIdle, IO_NO_INCREMENT, FALSE);
}

void StopTimer(PDEVICE Dev) {
    KIRQL OldIrql;
    DEVICE_LOCK(Dev, &OldIrql);
    Dev->TimerActive = 0;
    if (KeCancelTimer(&Dev->QueueTimer.Timer))
        InterlockedDecrement(&Dev->TimerPending);
    DEVICE_UNLOCK(Dev, OldIrql);

    KeClearEvent(&Dev->TimerIdle);
    if (Dev->TimerPending > 0) {
        LARGE_INTEGER Timeout;
        Timeout.QuadPart = STOP_TIMER_WAIT_100NS;
        if (KeWaitForSingleObject(&Dev->TimerIdle, Executive, KernelMode, FALSE, &Timeout) ==
            STATUS_TIMEOUT)
            TRACE(TL_ERROR, "%P:%S:PwrSetDevicePowerState KeWaitForSingleObject %d\n",
                  DEV_PORT_NAME(Dev), Dev->TimerPending);
    }
}
