// Serial port object: the circular send and receive buffers between the
// applications' requests and the USB pipes, the two timed request queues,
// and the serial settings that the serial I/O controls read and write.
//
// Owner and lifetime: one SER_PORT per device, created by AddPort when the
// port object is created and freed by DeleteSerPort when it is deleted.
// Environment: the device spin lock (WrContext->Lock) guards every field.
#pragma once

#include "forward.h"
#include "squeue.h"

#define SER_PORT_MAGIC 0x524F5053 // 'SPOR'
#define SER_PORT_TAG 0x30727073   // 'spr0'
#define CIRC_BUF_TAG 0x30637263   // 'crc0'

// A request's Status until it is completed.
#define DEFAULT_STATUS ((NTSTATUS)0xFFFFFFFF)

// SER_REQUEST Flags.
#define SER_REQUEST_READ 0x1        // a read request
#define SER_REQUEST_NOWAIT 0x2      // completed by the dispatcher itself (no-wait read)
#define SER_REQUEST_CTS_GRANTED 0x4 // a write granted one more second while CTS was inactive

// A ring of Size bytes in an allocation of Size + 1. Only Count decides
// fullness. A buffer whose allocation failed has Size 0 and is both Full and
// Empty, so that no byte enters or leaves it.
struct _CIRC_BUF {
    PUCHAR Buffer; // the allocation (tag 'crc0'), NULL after a failure
    ULONG Size;    // capacity in bytes
    ULONG Count;   // bytes held
    PUCHAR Start;  // first byte of the ring (== Buffer)
    PUCHAR End;    // one past the ring
    PUCHAR ReadPtr;
    PUCHAR WritePtr;
    ULONG Full;
    ULONG Empty;
};

// The serial settings. Three pairs are in another order than in the public
// serial structures: the total time-out constants come before their
// multipliers, XoffLimit before XonLimit, Parity before StopBits.
struct _SER_SETTINGS {
    ULONG BaudRate;
    ULONG ReadIntervalTimeout;
    ULONG ReadTotalTimeoutConstant;
    ULONG ReadTotalTimeoutMultiplier;
    ULONG WriteTotalTimeoutConstant;
    ULONG WriteTotalTimeoutMultiplier;
    ULONG ControlHandShake;
    ULONG FlowReplace;
    ULONG XoffLimit;
    ULONG XonLimit;
    ULONG QueueIn;  // requested receive buffer size; the 80 % event measures against it
    ULONG QueueOut; // requested send buffer size
    UCHAR Parity;
    UCHAR StopBits;
    UCHAR WordLength;
    UCHAR EofChar;
    UCHAR ErrorChar;
    UCHAR BreakChar;
    UCHAR EventChar;
    UCHAR XonChar;
    UCHAR XoffChar;
    ULONG WaitMask;
    ULONG ReceivedCount;
    ULONG TransmittedCount;
    ULONG FrameErrorCount;
    ULONG SerialOverrunErrorCount;
    ULONG BufferOverrunErrorCount;
    ULONG ParityErrorCount;
};

// One read or write request, taken from the request pool and filled by the
// read and write dispatch. Owned by one SQUEUE from SqueueAddRequest until
// its one completion.
struct _SER_REQUEST {
    LIST_ENTRY ListEntry; // SQUEUE membership; points to itself when not queued
    PVOID Buffer;         // the caller's data
    ULONG Length;         // bytes requested; on completion, bytes transferred
    LONG TotalTime;       // remaining total time, ms
    LONG IntervalTime;    // remaining interval time, ms
    NTSTATUS Status;      // DEFAULT_STATUS until completed
    PIRP Irp;
    PPORT_OBJ Port;
    ULONG Flags; // SER_REQUEST_*
};

struct _SER_PORT {
    PDEVICE WrContext; // owner: lock, port name, PPP state, deframer, send engine
    PPORT_OBJ WaitPort;
    SQUEUE SndQueue;
    SQUEUE RcvQueue;
    CIRC_BUF CircSendBuf;
    CIRC_BUF CircRcvBuf;
    SER_SETTINGS Settings;
    ULONG Stopped;     // while TRUE SerPortSend does nothing
    UCHAR PendingChar; // a byte the PPP deframer has not accepted yet
    BOOLEAN PendingValid;
    ULONG Magic; // SER_PORT_MAGIC while valid
};

NTSTATUS AddPort(PSER_PORT* Port, PDEVICE WrContext, ULONG RcvBufferSize, ULONG SndBufferSize,
                 ULONG TickInterval, PPORT_OBJ WaitPort);
void SerPortInit(PSER_PORT Port, ULONG TickInterval);
void DeleteSerPort(PSER_PORT Port);
NTSTATUS SendRequest(PSER_PORT Port, PSER_REQUEST Request);
void SerPortSend(PSER_PORT Port, BOOLEAN NewRequest);
ULONG IndicateReadBuffer(PSER_PORT Port, const UCHAR* Data, ULONG Length);
void SerPortSetRcvBufferSize(PSER_PORT Port, ULONG Size);
void SerPortSetSndBufferSize(PSER_PORT Port, ULONG Size);
void SerPortEnable(PSER_PORT Port, BOOLEAN Disable);

BOOLEAN CircBufAlloc(PCIRC_BUF Buf, ULONG Size);
void CircBufFree(PCIRC_BUF Buf);
void CircBufReset(PCIRC_BUF Buf);
void CircBufCopyIn(PCIRC_BUF Buf, PUCHAR To, const UCHAR* Data, ULONG Count, ULONG Room);
void CircBufCopyOut(PCIRC_BUF Buf, PUCHAR Data, const UCHAR* From, ULONG Count, ULONG Room);

// Empty is cleared only when a byte really entered, and Full (in CircBufRead)
// only when one really left: a buffer whose allocation failed thus stays full
// and empty, and the queues' copy loops never spin on it. Both are inline:
// with 64-byte chunks a call costs about as much as the copying.
inline ULONG CircBufWrite(PCIRC_BUF Buf, const UCHAR* Data, ULONG Length) {
    ULONG Count = Buf->Size - Buf->Count;
    if (Count > Length)
        Count = Length;
    if (Count == 0)
        return 0;
    PUCHAR To = Buf->WritePtr;
    ULONG Room = (ULONG)(Buf->End - To);
    Buf->Count += Count;
    Buf->Empty = FALSE;
    if (Buf->Count == Buf->Size)
        Buf->Full = TRUE;
    if (Count < Room) {
        Buf->WritePtr = To + Count;
        RtlCopyMemory(To, Data, Count);
    } else {
        // Up to the ring's end, the rest (perhaps nothing) from its start.
        Buf->WritePtr = Buf->Start + (Count - Room);
        CircBufCopyIn(Buf, To, Data, Count, Room);
    }
    return Count;
}

inline ULONG CircBufRead(PCIRC_BUF Buf, PUCHAR Data, ULONG Length) {
    ULONG Count = Buf->Count;
    if (Count > Length)
        Count = Length;
    if (Count == 0)
        return 0;
    const UCHAR* From = Buf->ReadPtr;
    ULONG Room = (ULONG)(Buf->End - From);
    Buf->Count -= Count;
    Buf->Full = FALSE;
    if (Buf->Count == 0)
        Buf->Empty = TRUE;
    if (Count < Room) {
        Buf->ReadPtr += Count;
        RtlCopyMemory(Data, From, Count);
    } else {
        Buf->ReadPtr = Buf->Start + (Count - Room);
        CircBufCopyOut(Buf, Data, From, Count, Room);
    }
    return Count;
}

// The bytes CircBufRead would take next without wrapping: their count, and
// where they start.
ULONG CircBufReadSpan(PCIRC_BUF Buf, const UCHAR** Data);
// Takes Length bytes (at most Count) as CircBufRead does, without copying.
void CircBufSkip(PCIRC_BUF Buf, ULONG Length);
