// Timed request queue: the pending read or write requests of one serial port,
// oldest first, the copying between the head request and the port's circular
// buffer, and the serial time-outs counted down on the periodic queue tick.
//
// Owner and lifetime: each SER_PORT embeds two queues (SndQueue, RcvQueue),
// initialised by SerPortInit and emptied by SqueueFlush when the port goes.
// Environment: DISPATCH_LEVEL; every entry point runs with the device spin
// lock held by its caller (CheckLock 1). The queue has no lock of its own.
#pragma once

#include "forward.h"

typedef struct _CIRC_BUF CIRC_BUF, *PCIRC_BUF;
typedef struct _SER_SETTINGS SER_SETTINGS, *PSER_SETTINGS;

// TimeMode values.
#define INTERVALTIME_OFF 0       // no time-outs: reads wait for their whole length
#define INTERVALTIME_WAITFIRST 1 // reads complete on the first byte or the total time-out
#define INTERVALTIME_NOWAIT 2    // reads take what is buffered and complete at once
#define INTERVALTIME_ON 3        // interval and total time-outs as configured

struct _SQUEUE {
    LIST_ENTRY List;    // queued SER_REQUESTs, oldest first
    PSER_PORT Owner;    // settings (time-outs) and, through WrContext, the device
    ULONG WriteQueue;   // TRUE: send queue; FALSE: receive queue
    ULONG TimeMode;     // INTERVALTIME_*
    PUCHAR CurPtr;      // next byte of the head request; NULL until one moved
    ULONG CurCount;     // bytes of the head request already moved
    ULONG TickInterval; // milliseconds taken off per tick
};

void SqueueInit(PSQUEUE Queue, PSER_PORT Owner, BOOLEAN WriteQueue, ULONG TickInterval);
void SqueueCheckTimeMode(PSQUEUE Queue, PSER_SETTINGS Settings);
NTSTATUS SqueueAddRequest(PSQUEUE Queue, PSER_REQUEST Request, PCIRC_BUF CircBuf);
ULONG SqueueRead(PSQUEUE Queue, PCIRC_BUF CircBuf);
NTSTATUS SqueueWrite(PSQUEUE Queue, PCIRC_BUF CircBuf);
// After SqueueWrite: how many bytes must leave CircBuf before SqueueWrite can
// finish buffering the head request (at least 1); 0xFFFFFFFF when no request
// waits.
ULONG SqueueWriteWaiting(PSQUEUE Queue, PCIRC_BUF CircBuf);
void SqueueTimerTick(PSQUEUE Queue);
void SqueueFlush(PSQUEUE Queue);
BOOLEAN SqueueCancel(PSQUEUE Queue, PIRP Irp);
// TRUE while a request of the IRP waits in the queue (its IRP is then not
// completed yet).
BOOLEAN SqueueHoldsIrp(PSQUEUE Queue, PIRP Irp);
