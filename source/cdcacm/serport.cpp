// Serial port object: the byte-stream heart of the driver, free of USB and of
// IRPs. Write requests are copied into the circular send buffer and finished
// as soon as they are buffered; SerPortSend moves the buffered bytes into the
// send engine's packets, unchanged or through the PPP deframer. Received
// bytes enter the circular receive buffer and fill the queued read requests.
//
// Environment: up to DISPATCH_LEVEL. SendRequest, SerPortSend and
// SerPortEnable are called without the device lock and take it themselves;
// IndicateReadBuffer is called with it held. AddPort and SerPortInit run
// when the port object is created, DeleteSerPort when it is deleted; it takes
// the device lock to cancel the requests still queued.
// Locks: the device spin lock (WrContext->Lock, with CheckLock) guards the
// port, its queues, buffers and settings, the PPP deframer and the device's
// FlagSent. The port has no lock of its own.
#define TRACE_FILE "source/cdcacm/serport"
#include "cdcacm.h"

// The smallest circular buffer a queue-size request can ask for.
#define MIN_RESIZED_BUFFER 100

BOOLEAN CircBufAlloc(PCIRC_BUF Buf, ULONG Size) {
    RtlZeroMemory(Buf, sizeof(*Buf));
    // One byte more than the capacity; a size of MAXULONG cannot be had.
    ULONG Bytes = Size + 1;
    PUCHAR Memory = Bytes != 0 ? (PUCHAR)MemAlloc(Bytes, CIRC_BUF_TAG) : NULL;
    if (Memory == NULL) {
        Buf->Full = TRUE;
        Buf->Empty = TRUE;
        return FALSE;
    }
    RtlZeroMemory(Memory, Bytes);
    Buf->Buffer = Memory;
    Buf->Size = Size;
    Buf->Count = 0;
    Buf->Start = Memory;
    Buf->End = Memory + Bytes;
    Buf->ReadPtr = Buf->WritePtr = Buf->Start;
    Buf->Empty = TRUE;
    Buf->Full = FALSE;
    return TRUE;
}

void CircBufFree(PCIRC_BUF Buf) {
    if (Buf->Buffer != NULL)
        MemFree(Buf->Buffer);
    Buf->Buffer = NULL;
}

// A buffer without room (its allocation failed) stays full: the send
// queue's copy loop would spin on a buffer that is neither full nor able to
// take a byte.
void CircBufReset(PCIRC_BUF Buf) {
    Buf->Count = 0;
    Buf->ReadPtr = Buf->WritePtr = Buf->Start;
    Buf->Empty = TRUE;
    Buf->Full = Buf->Size == 0;
}

// The copies across the ring's end, out of line: the usual copy, inline
// in the callers, then needs nothing kept across a call.
void CircBufCopyIn(PCIRC_BUF Buf, PUCHAR To, const UCHAR* Data, ULONG Count, ULONG Room) {
    RtlCopyMemory(To, Data, Room);
    RtlCopyMemory(Buf->Start, Data + Room, Count - Room);
}

void CircBufCopyOut(PCIRC_BUF Buf, PUCHAR Data, const UCHAR* From, ULONG Count, ULONG Room) {
    RtlCopyMemory(Data, From, Room);
    RtlCopyMemory(Data + Room, Buf->Start, Count - Room);
}

ULONG CircBufReadSpan(PCIRC_BUF Buf, const UCHAR** Data) {
    ULONG Count = (ULONG)(Buf->End - Buf->ReadPtr);
    if (Count > Buf->Count)
        Count = Buf->Count;
    *Data = Buf->ReadPtr;
    return Count;
}

// The bookkeeping of CircBufRead without the copy.
void CircBufSkip(PCIRC_BUF Buf, ULONG Length) {
    ULONG Count = Buf->Count;
    if (Count > Length)
        Count = Length;
    if (Count == 0)
        return;
    ULONG Room = (ULONG)(Buf->End - Buf->ReadPtr);
    if (Count >= Room)
        Buf->ReadPtr = Buf->Start + (Count - Room);
    else
        Buf->ReadPtr += Count;
    Buf->Count -= Count;
    Buf->Full = FALSE;
    if (Buf->Count == 0)
        Buf->Empty = TRUE;
}

NTSTATUS AddPort(PSER_PORT* Port, PDEVICE WrContext, ULONG RcvBufferSize, ULONG SndBufferSize,
                 ULONG TickInterval, PPORT_OBJ WaitPort) {
    TRACE(TL_SERPORT, "%P:[AddPort\n");
    PSER_PORT NewPort = (PSER_PORT)MemAlloc(sizeof(SER_PORT), SER_PORT_TAG);
    if (NewPort == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(NewPort, sizeof(*NewPort));
    NewPort->WrContext = WrContext;
    NewPort->Stopped = FALSE;

    BOOLEAN SendAllocated = CircBufAlloc(&NewPort->CircSendBuf, SndBufferSize);
    BOOLEAN RcvAllocated = CircBufAlloc(&NewPort->CircRcvBuf, RcvBufferSize);
    if (!SendAllocated || !RcvAllocated) {
        CircBufFree(&NewPort->CircSendBuf);
        CircBufFree(&NewPort->CircRcvBuf);
        MemFree(NewPort);
        TRACE(TL_SERPORT, "%P:AddPort: Not success! Status:%x", STATUS_INSUFFICIENT_RESOURCES);
        *Port = NULL;
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    *Port = NewPort;
    NewPort->Magic = SER_PORT_MAGIC;
    SerPortInit(NewPort, TickInterval);
    NewPort->Settings.QueueIn = RcvBufferSize;
    NewPort->Settings.QueueOut = SndBufferSize;
    NewPort->WaitPort = WaitPort;
    TRACE(TL_SERPORT, "%P:]AddPort\n");
    return STATUS_SUCCESS;
}

void SerPortInit(PSER_PORT Port, ULONG TickInterval) {
    TRACE(TL_SERPORT, "%P:%S:[SerPortInit\n", DEV_PORT_NAME(Port->WrContext));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,SER_PORT));
    // clang-format on
    CircBufReset(&Port->CircSendBuf);
    CircBufReset(&Port->CircRcvBuf);
    SqueueInit(&Port->SndQueue, Port, TRUE, TickInterval);
    SqueueInit(&Port->RcvQueue, Port, FALSE, TickInterval);

    PSER_SETTINGS Settings = &Port->Settings;
    RtlZeroMemory(Settings, sizeof(*Settings));
    Settings->BaudRate = 9600;
    Settings->ReadIntervalTimeout = 0;
    Settings->ReadTotalTimeoutConstant = 2000;
    Settings->ReadTotalTimeoutMultiplier = 10;
    Settings->WriteTotalTimeoutConstant = 2000;
    Settings->WriteTotalTimeoutMultiplier = 10;
    Settings->QueueIn = 1000;
    Settings->QueueOut = 1000;
    Settings->Parity = 0;
    Settings->StopBits = 1;
    Settings->WordLength = 8;
    TRACE(TL_SERPORT, "%P:%S:]SerPortInit\n", DEV_PORT_NAME(Port->WrContext));
}

void DeleteSerPort(PSER_PORT Port) {
    TRACE(TL_SERPORT, "%P:%S:[DeleteSerPort\n", DEV_PORT_NAME(Port->WrContext));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,SER_PORT));
    // clang-format on
    // The queues are only ever worked on under the device lock, flushes included.
    KIRQL OldIrql;
    DEVICE_LOCK(Port->WrContext, &OldIrql);
    SqueueFlush(&Port->RcvQueue);
    SqueueFlush(&Port->SndQueue);
    DEVICE_UNLOCK(Port->WrContext, OldIrql);
    CircBufFree(&Port->CircSendBuf);
    CircBufFree(&Port->CircRcvBuf);
    Port->Magic = 0;
    MemFree(Port);
    TRACE(TL_SERPORT, "%P:]DeleteSerPort\n");
}

NTSTATUS SendRequest(PSER_PORT Port, PSER_REQUEST Request) {
    KIRQL OldIrql;
    TRACE(TL_SERPORT, "%P:%S:[SendRequest\n", DEV_PORT_NAME(Port->WrContext));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,SER_PORT));
    // clang-format on
    TRACE_ASSERT(Request != NULL);
    // A zero-length write is still queued: it completes with 0 bytes as soon
    // as the send buffer is not full.
    TRACE_ASSERT(Request->Length != 0);
    DEVICE_LOCK(Port->WrContext, &OldIrql);
    NTSTATUS Status = SqueueAddRequest(&Port->SndQueue, Request, &Port->CircSendBuf);
    DEVICE_UNLOCK(Port->WrContext, OldIrql);
    SerPortSend(Port, TRUE);
    TRACE(TL_SERPORT, "%P:%S:]SendRequest\n", DEV_PORT_NAME(Port->WrContext));
    return Status;
}

// One filled send packet, taken under the device lock and handed to the send
// engine after the lock is released.
typedef struct _SEND_CHUNK {
    PUSB_PACKET Packet; // NULL: nothing to submit
    PUCHAR Buffer;
    ULONG Length;
    BOOLEAN More;         // another step may find more to send
    BOOLEAN FlagTaken;    // starting mode consumed the host's frame flag
    BOOLEAN EndsWithFlag; // transparent mode: the chunk's last byte is a flag
} SEND_CHUNK;

// Transparent mode, one step under the lock: refill the send buffer from the
// queued writes and copy as much as one send packet carries.
static void SendTransparentStep(PSER_PORT Port, SEND_CHUNK* Chunk) {
    PDEVICE Dev = Port->WrContext;
    PUCHAR Buffer;
    ULONG MaxLength;
    PUSB_PACKET Packet;
    SqueueWrite(&Port->SndQueue, &Port->CircSendBuf);
    if (!GetWriteBuffer(Dev, &Buffer, &MaxLength, &Packet)) {
        TRACE(TL_SERPORT, "%P:%S:No Send Buffer\n", DEV_PORT_NAME(Dev));
        return;
    }
    ULONG Length = CircBufRead(&Port->CircSendBuf, Buffer, MaxLength);
    if (Length == 0) {
        ReturnWriteBuffer(Dev, Buffer, Packet);
        return;
    }
    Chunk->Packet = Packet;
    Chunk->Buffer = Buffer;
    Chunk->Length = Length;
    Chunk->More = TRUE;
    // The host's byte stream is at a frame boundary after a flag. FlagSent
    // follows the stream here, under the lock, where the bytes leave the
    // buffer: set later, outside the lock, a mode switch could read a stale
    // value. For the same reason the event is cleared here; it is signalled
    // only once the chunk that ends in the flag has been submitted, so that
    // a switch never overtakes it.
    Chunk->EndsWithFlag = Buffer[Length - 1] == PPP_FLAG;
    Dev->FlagSent = Chunk->EndsWithFlag;
    if (!Chunk->EndsWithFlag)
        KeClearEvent(&Dev->FlagSentEvent);
}

// Starting mode, one step under the lock: transparent bytes up to the host's
// first frame flag, which is consumed and not sent.
static void SendStartingStep(PSER_PORT Port, SEND_CHUNK* Chunk) {
    PDEVICE Dev = Port->WrContext;
    PUCHAR Buffer;
    ULONG MaxLength;
    PUSB_PACKET Packet;
    Port->PendingValid = FALSE;
    if (Dev->FlagSent)
        return;
    if (!GetWriteBuffer(Dev, &Buffer, &MaxLength, &Packet)) {
        TRACE(TL_SERPORT, "%P:%S:No Send Buffer\n", DEV_PORT_NAME(Dev));
        return;
    }
    SqueueWrite(&Port->SndQueue, &Port->CircSendBuf);
    ULONG Gathered = 0;
    UCHAR Byte;
    while (Gathered < MaxLength && CircBufRead(&Port->CircSendBuf, &Byte, 1) == 1) {
        if (Byte == PPP_FLAG) {
            Dev->FlagSent = TRUE;
            Chunk->FlagTaken = TRUE;
            break;
        }
        Buffer[Gathered++] = Byte;
    }
    if (Gathered == 0) {
        ReturnWriteBuffer(Dev, Buffer, Packet);
        return;
    }
    Chunk->Packet = Packet;
    Chunk->Buffer = Buffer;
    Chunk->Length = Gathered;
    Chunk->More = !Chunk->FlagTaken;
}

// On mode, the whole pass under the lock: host bytes go into the deframer,
// which sends each finished frame as one modem packet. The deframer takes
// the buffer's bytes a span at a time, and the pass refills the buffer from
// the send queue between spans, as if it did so before every byte: a span
// ends where the ring wraps and where enough bytes have left for the queue
// to finish buffering its head request, so every request completes after
// the same byte as when the bytes went one at a time. A byte the deframer
// refuses (a finished frame waits for the send packet) leaves the buffer
// as the pending byte, after the refill.
static void SendDeframed(PSER_PORT Port) {
    PPPP_DEFRAMER DeFramer = &Port->WrContext->PppDeFramer;
    PCIRC_BUF Buf = &Port->CircSendBuf;
    for (;;) {
        SqueueWrite(&Port->SndQueue, Buf);
        if (Port->PendingValid) {
            // Refused: a finished frame still waits for a send packet; the byte stays pending.
            if (!PppDeFramerSendChar(DeFramer, Port->PendingChar))
                return;
            Port->PendingValid = FALSE;
            continue;
        }
        const UCHAR* Span;
        ULONG Length = CircBufReadSpan(Buf, &Span);
        if (Length == 0) {
            PppDeFramerSubmitBuffer(DeFramer);
            return;
        }
        ULONG Waiting = SqueueWriteWaiting(&Port->SndQueue, Buf);
        if (Length > Waiting)
            Length = Waiting;
        ULONG Taken = PppDeFramerSendBuffer(DeFramer, Span, Length);
        CircBufSkip(Buf, Taken);
        if (Taken < Length) {
            SqueueWrite(&Port->SndQueue, Buf);
            Port->PendingValid = CircBufRead(Buf, &Port->PendingChar, 1) == 1;
            return;
        }
    }
}

// Submissions of the transparent and starting modes happen with the device
// lock released: the send engine's completion routine takes that lock, and a
// lower driver may complete the transfer inside the submitting call. The
// engine has one send packet, so nobody can submit between our releasing the
// lock and our submission, and the bytes keep their order on the pipe. The
// frame flag of starting mode is signalled only after the bytes before it
// have been submitted, so the mode switch waiting for it cannot overtake
// them. In on mode the deframer submits from inside the locked pass (its
// state needs the lock); the send engine keeps its completion off that lock
// there (see SubmitWriteBuffer).
void SerPortSend(PSER_PORT Port, BOOLEAN NewRequest) {
    PDEVICE Dev = Port->WrContext;
    KIRQL OldIrql;
    ULONG Sent = 0;
    TRACE(TL_SERPORT, "%P:%S:[SerPortSend\n", DEV_PORT_NAME(Port->WrContext));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,SER_PORT));
    // clang-format on
    if (Port->Stopped)
        return;

    for (;;) {
        SEND_CHUNK Chunk = {};
        DEVICE_LOCK(Port->WrContext, &OldIrql);
        // The PPP state is read under the lock at every packet: a mode switch
        // between two packets of one pass applies from the next packet on.
        switch (Dev->PppState) {
        case PPP_STATE_OFF:
            SendTransparentStep(Port, &Chunk);
            break;
        case PPP_STATE_STARTING:
            SendStartingStep(Port, &Chunk);
            break;
        case PPP_STATE_ON:
            SendDeframed(Port);
            break;
        case PPP_STATE_STOPPING:
            break;
        default:
            TRACE_ASSERT(0);
            break;
        }
        DEVICE_UNLOCK(Port->WrContext, OldIrql);

        if (Chunk.Packet != NULL) {
            Sent += Chunk.Length;
            SubmitWriteBuffer(Dev, Chunk.Buffer, Chunk.Length, Chunk.Packet);
            if (Chunk.EndsWithFlag) {
                // Unless a later chunk has moved the stream on meanwhile.
                DEVICE_LOCK(Port->WrContext, &OldIrql);
                if (Dev->FlagSent)
                    KeSetEvent(&Dev->FlagSentEvent, 0, FALSE);
                DEVICE_UNLOCK(Port->WrContext, OldIrql);
            }
        }
        if (Chunk.FlagTaken)
            KeSetEvent(&Dev->FlagSentEvent, 0, FALSE);
        if (!Chunk.More)
            break;
    }

    DEVICE_LOCK(Port->WrContext, &OldIrql);
    // Bytes handed to the deframer do not count: with PPP framing on,
    // SERIAL_EV_TXEMPTY follows only a new request.
    if ((Sent > 0 || NewRequest) && Port->CircSendBuf.Empty)
        IndicateWaitEvent(Port->WaitPort, SERIAL_EV_TXEMPTY);
    DEVICE_UNLOCK(Port->WrContext, OldIrql);
    TRACE(TL_SERPORT, "%P:%S:]SerPortSend\n", DEV_PORT_NAME(Port->WrContext));
}

ULONG IndicateReadBuffer(PSER_PORT SerPort, const UCHAR* Data, ULONG Length) {
    TRACE(TL_SERPORT, "%P:%S:[IndicateReadBuffer\n", DEV_PORT_NAME(SerPort->WrContext));
    // clang-format off
    TRACE_ASSERT(PTRVALID(SerPort,SER_PORT));
    // clang-format on
    if (TraceMask & TL_SERPORT)
        TraceDump(Data, Length);

    PSER_SETTINGS Settings = &SerPort->Settings;
    ULONG Events = Length > 0 ? SERIAL_EV_RXCHAR : 0;
    if (Settings->EventChar != 0 || Settings->ErrorChar != 0 || Settings->EofChar != 0) {
        for (ULONG Index = 0; Index < Length; Index++) {
            UCHAR Byte = Data[Index];
            if ((Settings->EventChar != 0 && Byte == Settings->EventChar) ||
                (Settings->ErrorChar != 0 && Byte == Settings->ErrorChar) ||
                (Settings->EofChar != 0 && Byte == Settings->EofChar)) {
                Events |= SERIAL_EV_RXFLAG;
                break;
            }
        }
    }
    // Raised for every offered byte, before knowing how many fit.
    if (Events != 0)
        IndicateWaitEvent(SerPort->WaitPort, Events);

    ULONG Accepted = CircBufWrite(&SerPort->CircRcvBuf, Data, Length);
    SqueueRead(&SerPort->RcvQueue, &SerPort->CircRcvBuf);
    // Measured after the reads took their bytes, against the requested size.
    if (SerPort->CircRcvBuf.Count * 100 > Settings->QueueIn * 80)
        IndicateWaitEvent(SerPort->WaitPort, SERIAL_EV_RX80FULL);
    TRACE(TL_SERPORT, "%P:%S:]IndicateReadBuffer\n", DEV_PORT_NAME(SerPort->WrContext));
    return Accepted;
}

void SerPortSetRcvBufferSize(PSER_PORT Port, ULONG Size) {
    CircBufFree(&Port->CircRcvBuf);
    if (!CircBufAlloc(&Port->CircRcvBuf, Size > MIN_RESIZED_BUFFER ? Size : MIN_RESIZED_BUFFER))
        TRACE(TL_SERPORT, "%PCould'nt allocate CircRcvBuf!\n");
}

void SerPortSetSndBufferSize(PSER_PORT Port, ULONG Size) {
    CircBufFree(&Port->CircSendBuf);
    if (!CircBufAlloc(&Port->CircSendBuf, Size > MIN_RESIZED_BUFFER ? Size : MIN_RESIZED_BUFFER))
        TRACE(TL_SERPORT, "%PCould'nt allocate CircSendBuf!\n");
}

// Stopped is one aligned 32-bit word that SerPortSend reads without the lock.
void SerPortEnable(PSER_PORT Port, BOOLEAN Disable) {
    Port->Stopped = Disable;
    if (!Disable)
        SerPortSend(Port, FALSE);
}
