// Timed request queue: pending reads or writes of one serial port in arrival
// order, the copying between the head request and the port's circular
// buffer, and the serial read and write time-outs.
//
// Environment: DISPATCH_LEVEL. Every entry point runs with the device spin
// lock (Owner->WrContext->Lock) held by its caller; that lock guards the
// queue, its requests and the device fields read here (ModemStatus,
// WaitingData). The queue takes no lock of its own and never allocates.
#define TRACE_FILE "source/cdcacm/squeue"
#include "cdcacm.h"

#define MAXLONG_TIME 0x7FFFFFFF
#define MODEM_STATUS_CTS 0x10
// A write that timed out while CTS was inactive may wait this much longer.
#define CTS_GRANT_MS 1000

// Takes one tick off a remaining time. Saturates instead of wrapping, so that
// a time that is already negative (an interval of 0x80000000 or more) stays
// negative and expires.
static LONG TakeTick(LONG Time, ULONG TickInterval) {
    LONGLONG Remaining = (LONGLONG)Time - (LONGLONG)TickInterval;
    return Remaining < -(LONGLONG)MAXLONG_TIME - 1 ? (LONG)(-MAXLONG_TIME - 1) : (LONG)Remaining;
}

static PSER_REQUEST SqueueFirst(PSQUEUE Queue) {
    if (IsListEmpty(&Queue->List))
        return NULL;
    return CONTAINING_RECORD(Queue->List.Flink, SER_REQUEST, ListEntry);
}

static void SqueueComplete(PSQUEUE Queue, PSER_REQUEST Request, NTSTATUS Status, ULONG Count) {
    Request->Status = Status;
    Request->Length = Count;
    if (Request == SqueueFirst(Queue)) {
        Queue->CurPtr = NULL;
        Queue->CurCount = 0;
    }
    RemoveEntryList(&Request->ListEntry);
    InitializeListHead(&Request->ListEntry);
    CompleteRequest(Request);
}

void SqueueInit(PSQUEUE Queue, PSER_PORT Owner, BOOLEAN WriteQueue, ULONG TickInterval) {
    InitializeListHead(&Queue->List);
    Queue->Owner = Owner;
    Queue->WriteQueue = WriteQueue;
    Queue->TimeMode = INTERVALTIME_OFF;
    Queue->CurPtr = NULL;
    Queue->CurCount = 0;
    Queue->TickInterval = TickInterval;
}

void SqueueCheckTimeMode(PSQUEUE Queue, PSER_SETTINGS Settings) {
    Queue->TimeMode = INTERVALTIME_ON;
    if (!Queue->WriteQueue) {
        if (Settings->ReadIntervalTimeout == 0 && Settings->ReadTotalTimeoutConstant == 0 &&
            Settings->ReadTotalTimeoutMultiplier == 0) {
            Queue->TimeMode = INTERVALTIME_OFF;
            TRACE(TL_SND, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_OFF\n");
        } else if (Settings->ReadIntervalTimeout == 0xFFFFFFFF &&
                   Settings->ReadTotalTimeoutConstant == 0 &&
                   Settings->ReadTotalTimeoutMultiplier == 0) {
            Queue->TimeMode = INTERVALTIME_NOWAIT;
            TRACE(TL_SND, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_NOWAIT\n");
        } else if (Settings->ReadIntervalTimeout == 0xFFFFFFFF &&
                   Settings->ReadTotalTimeoutConstant != 0 &&
                   Settings->ReadTotalTimeoutMultiplier == 0xFFFFFFFF) {
            Queue->TimeMode = INTERVALTIME_WAITFIRST;
            TRACE(TL_SND, "%P:SqueueCheckTimeMode: Set TimeMode to INTERVALTIME_WAITFIRST\n");
        }
    } else if (Settings->WriteTotalTimeoutConstant == 0 &&
               Settings->WriteTotalTimeoutMultiplier == 0) {
        Queue->TimeMode = INTERVALTIME_OFF;
    }
}

NTSTATUS SqueueAddRequest(PSQUEUE Queue, PSER_REQUEST Request, PCIRC_BUF CircBuf) {
    PSER_SETTINGS Settings = &Queue->Owner->Settings;
    // The totals are computed modulo 2^32, as the serial time-outs always were.
    ULONG Total;
    if (!Queue->WriteQueue) {
        Total = Settings->ReadTotalTimeoutConstant;
        if (Queue->TimeMode != INTERVALTIME_WAITFIRST &&
            (LONG)Settings->ReadTotalTimeoutMultiplier > 0)
            Total += Settings->ReadTotalTimeoutMultiplier * Request->Length;
    } else {
        Total = Settings->WriteTotalTimeoutMultiplier * Request->Length +
                Settings->WriteTotalTimeoutConstant;
    }
    if ((LONG)Total < 0) {
        TRACE(TL_INFO, "%P:SqueueAddRequest:Overflow in TotalTime! Set time to MAXLONG!\n");
        Total = MAXLONG_TIME;
    }
    Request->TotalTime = (LONG)Total;
    Request->IntervalTime = (LONG)Settings->ReadIntervalTimeout;
    InsertTailList(&Queue->List, &Request->ListEntry);

    switch (Queue->WriteQueue) {
    case FALSE:
        SqueueRead(Queue, CircBuf);
        return STATUS_PENDING;
    case TRUE:
        return SqueueWrite(Queue, CircBuf);
    default:
        TRACE_ASSERT(0);
        return STATUS_PENDING;
    }
}

ULONG SqueueRead(PSQUEUE Queue, PCIRC_BUF CircBuf) {
    ULONG Moved = 0;
    PSER_REQUEST Head;
    while ((Head = SqueueFirst(Queue)) != NULL && !CircBuf->Empty) {
        if (Queue->CurPtr == NULL)
            Queue->CurPtr = (PUCHAR)Head->Buffer;
        ULONG Count = CircBufRead(CircBuf, Queue->CurPtr, Head->Length - Queue->CurCount);
        Queue->CurPtr += Count;
        Queue->CurCount += Count;
        Moved += Count;
        if ((Queue->TimeMode == INTERVALTIME_WAITFIRST && Count > 0) ||
            Queue->CurCount == Head->Length) {
            SqueueComplete(Queue, Head, STATUS_SUCCESS, Queue->CurCount);
        } else {
            // Bytes arrived: the interval starts again. The buffer is empty now.
            Head->IntervalTime = (LONG)Queue->Owner->Settings.ReadIntervalTimeout;
        }
    }
    if (Queue->TimeMode == INTERVALTIME_NOWAIT) {
        while ((Head = SqueueFirst(Queue)) != NULL)
            SqueueComplete(Queue, Head, STATUS_SUCCESS, Queue->CurCount);
    }
    return Moved;
}

NTSTATUS SqueueWrite(PSQUEUE Queue, PCIRC_BUF CircBuf) {
    PSER_REQUEST Head;
    while ((Head = SqueueFirst(Queue)) != NULL) {
        if (CircBuf->Full)
            return STATUS_PENDING;
        if (Queue->CurPtr == NULL)
            Queue->CurPtr = (PUCHAR)Head->Buffer;
        ULONG Count = Head->Length - Queue->CurCount;
        if (Count > CircBuf->Size - CircBuf->Count)
            Count = CircBuf->Size - CircBuf->Count;
        CircBufWrite(CircBuf, Queue->CurPtr, Count);
        Queue->CurPtr += Count;
        Queue->CurCount += Count;
        // A write is finished once all its bytes are buffered, not when they reach the modem.
        if (Queue->CurCount == Head->Length)
            SqueueComplete(Queue, Head, STATUS_SUCCESS, Queue->CurCount);
    }
    return STATUS_SUCCESS;
}

ULONG SqueueWriteWaiting(PSQUEUE Queue, PCIRC_BUF CircBuf) {
    PSER_REQUEST Head = SqueueFirst(Queue);
    if (Head == NULL)
        return 0xFFFFFFFF;
    ULONG Rest = Head->Length - Queue->CurCount;
    ULONG Room = CircBuf->Size - CircBuf->Count;
    return Rest > Room ? Rest - Room : 1;
}

// A write request whose total time ran out while CTS flow control holds the
// send engine: one more second and a grant of its buffered bytes, then the
// time-out.
static void SqueueWriteTimedOut(PSQUEUE Queue, PSER_REQUEST Request, ULONG Count) {
    PDEVICE Dev = Queue->Owner->WrContext;
    if (Dev->ModemStatus & MODEM_STATUS_CTS) {
        TRACE(TL_CTS, "%P:%S:CTS active and timeout, complete IRP with timeout\n",
              DEV_PORT_NAME(Dev));
        SqueueComplete(Queue, Request, STATUS_TIMEOUT, Count);
    } else if (Request->Flags & SER_REQUEST_CTS_GRANTED) {
        TRACE(TL_CTS, "%P:%S:IRP with seconds timout, complete it with timeout\n",
              DEV_PORT_NAME(Dev));
        SqueueComplete(Queue, Request, STATUS_TIMEOUT, Count);
    } else {
        Request->Flags |= SER_REQUEST_CTS_GRANTED;
        Dev->WaitingData += Count;
        Request->TotalTime = CTS_GRANT_MS;
        TRACE(TL_CTS, "%P:%S:IRP with timout send %u bytes\n", DEV_PORT_NAME(Dev), Count);
        KeInsertQueueDpc(&Dev->WritePipe.Dpc, &Dev->WritePipe, NULL);
    }
}

void SqueueTimerTick(PSQUEUE Queue) {
    PSER_SETTINGS Settings = &Queue->Owner->Settings;
    PDEVICE Dev = Queue->Owner->WrContext;
    // Only the head can have moved bytes; every later request reports 0.
    ULONG Count = Queue->CurCount;
    PLIST_ENTRY Entry = Queue->List.Flink;
    while (Entry != &Queue->List) {
        PLIST_ENTRY Next = Entry->Flink;
        PSER_REQUEST Request = CONTAINING_RECORD(Entry, SER_REQUEST, ListEntry);
        if (!Queue->WriteQueue) {
            if (Queue->TimeMode == INTERVALTIME_WAITFIRST) {
                Request->TotalTime = TakeTick(Request->TotalTime, Queue->TickInterval);
                if (Request->TotalTime < 0 || Count > 0)
                    SqueueComplete(Queue, Request, STATUS_TIMEOUT, Count);
            } else if (Queue->TimeMode == INTERVALTIME_ON) {
                // The interval runs only while the head is partly filled.
                if (Queue->CurCount > 0 && Settings->ReadIntervalTimeout != 0)
                    Request->IntervalTime = TakeTick(Request->IntervalTime, Queue->TickInterval);
                if (Settings->ReadTotalTimeoutConstant != 0 ||
                    Settings->ReadTotalTimeoutMultiplier != 0)
                    Request->TotalTime = TakeTick(Request->TotalTime, Queue->TickInterval);
                if (Request->IntervalTime < 0 || Request->TotalTime < 0)
                    SqueueComplete(Queue, Request, STATUS_TIMEOUT, Count);
            }
        } else if (Queue->TimeMode == INTERVALTIME_ON) {
            if (Settings->WriteTotalTimeoutConstant != 0 ||
                Settings->WriteTotalTimeoutMultiplier != 0)
                Request->TotalTime = TakeTick(Request->TotalTime, Queue->TickInterval);
            // Without CTS flow control writes never time out.
            if (Dev->Cfg.useCtsFlowControl && Request->TotalTime < 0)
                SqueueWriteTimedOut(Queue, Request, Count);
        }
        Count = 0;
        Entry = Next;
    }
}

void SqueueFlush(PSQUEUE Queue) {
    PSER_REQUEST Head;
    while ((Head = SqueueFirst(Queue)) != NULL)
        SqueueComplete(Queue, Head, STATUS_CANCELLED, Queue->CurCount);
}

BOOLEAN SqueueHoldsIrp(PSQUEUE Queue, PIRP Irp) {
    for (PLIST_ENTRY Entry = Queue->List.Flink; Entry != &Queue->List; Entry = Entry->Flink)
        if (CONTAINING_RECORD(Entry, SER_REQUEST, ListEntry)->Irp == Irp)
            return TRUE;
    return FALSE;
}

BOOLEAN SqueueCancel(PSQUEUE Queue, PIRP Irp) {
    ULONG Count = Queue->CurCount;
    for (PLIST_ENTRY Entry = Queue->List.Flink; Entry != &Queue->List; Entry = Entry->Flink) {
        PSER_REQUEST Request = CONTAINING_RECORD(Entry, SER_REQUEST, ListEntry);
        if (Request->Irp == Irp) {
            SqueueComplete(Queue, Request, STATUS_CANCELLED, Count);
            return TRUE;
        }
        Count = 0;
    }
    return FALSE;
}
