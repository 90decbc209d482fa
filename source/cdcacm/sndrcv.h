// Send and receive engines: the context of one streaming endpoint
// (bulk-out, bulk-in or interrupt-in) with its packet pool, error recovery
// and DPC.
//
// Records: the DEVICE embeds three SNDRCV_PIPEs (ReceivePipe, WritePipe,
// IntPipe), set up when the device is created and freed with it; each owns
// its USB_PACKET_POOL.
//
// Environment: completion routines up to DISPATCH_LEVEL, DPCs at
// DISPATCH_LEVEL, start/stop and pipe restarts at PASSIVE_LEVEL.
// Locks: the device lock (DEVICE.Lock) guards every field of the three
// contexts; ErrorCount changes only by interlocked operations.
#pragma once

#include "forward.h"

// The one callback of a context. Receive side: the consumer, handed the
// unconsumed bytes of a completed packet; returns how many it took
// (0..Length). Send side: the refill routine, called with no data (Data
// null, Length 0); its result is not used. One signature serves both so
// that the three contexts share one record.
typedef ULONG (*SNDRCV_INDICATE)(PDEVICE Dev, const UCHAR* Data, ULONG Length);

struct _SNDRCV_PIPE {
    ULONG NoFraming; // receive only: deliver to Indicate even in PPP mode
    PUSB_PACKET_POOL Pool;
    SNDRCV_INDICATE Indicate;
    volatile LONG ErrorCount; // consecutive transfer errors
    PUSB_PIPE Pipe;           // null until the device is configured
    PDEVICE Dev;
    KEVENT AllReturned; // notification: every packet is back in Pool
    KDPC Dpc;
    LIST_ENTRY Queue; // packets parked by this context
    BOOLEAN ErrorStop;
    BOOLEAN Enabled;
    BOOLEAN SendZlp; // send only: a zero-length packet is owed
};

// Hands received bytes to the device's serial port; returns how many of
// Length it took.
ULONG SndRcvIndicateData(PDEVICE Dev, const UCHAR* Data, ULONG Length);

// Offers the bytes parked in received packets to the serial port again, in
// order, once a read may have made room. The caller holds the device lock.
VOID SndRcvCheckRcvQueue(PSNDRCV_PIPE Pipe);

// Returns every packet parked by the context to its pool, dropping the
// unconsumed received bytes. The caller holds the device lock.
VOID RcvPurge(PSNDRCV_PIPE Pipe);
// Arranges for the receive context to submit its free packets again soon.
VOID RcvScheduleDpc(PSNDRCV_PIPE Pipe);
// Returns every packet parked by the send context to its pool. The caller
// holds the device lock.
VOID SndPurge(PSNDRCV_PIPE Pipe);
