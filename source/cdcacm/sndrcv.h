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
#include "wdmkrnl.h"

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
    // Send only: 1 while SubmitWriteUrb is inside IoCallDriver. A completion
    // that finds it set finishes from CompletionDpc, off the submitter's
    // stack and lock.
    volatile LONG Submitting;
    KDPC CompletionDpc;
};

// Send engine (bulk-out, one packet). SndInit and SndFree at device
// creation and deletion; StartSnd enables the context and calls its refill;
// StopSnd disables it, aborts a transfer that is out and, with Wait (at
// PASSIVE_LEVEL), waits until it is back.
NTSTATUS SndInit(PSNDRCV_PIPE Pipe, PDEVICE Dev, SNDRCV_INDICATE Indicate, PUSB_PIPE UsbPipe,
                 ULONG BufferSize, ULONG PacketCount);
VOID SndFree(PSNDRCV_PIPE Pipe);
VOID StartSnd(PSNDRCV_PIPE Pipe);
VOID StopSnd(PSNDRCV_PIPE Pipe, BOOLEAN Wait);
// Returns every packet parked by the send context to its pool. The caller
// holds the device lock.
VOID SndPurge(PSNDRCV_PIPE Pipe);
// Sends the packet's Length bytes (0: a zero-length packet); takes no lock.
NTSTATUS SubmitWriteUrb(PSNDRCV_PIPE Pipe, PUSB_PACKET Packet);
// The send DPC: a zero-length packet if one is owed, then the refill.
KDEFERRED_ROUTINE SndDpcRoutine;
// Work item after a first send error: resets the pipe and sends the parked
// packet again.
NTSTATUS RestartWrite(PVOID Context);

// Receive engines (bulk-in with five packets, interrupt-in with one).
NTSTATUS RcvInit(PSNDRCV_PIPE Pipe, PDEVICE Dev, SNDRCV_INDICATE Indicate, PUSB_PIPE UsbPipe,
                 ULONG BufferSize, ULONG PacketCount, BOOLEAN NoFraming);
VOID RcvFree(PSNDRCV_PIPE Pipe);
VOID StartRcv(PSNDRCV_PIPE Pipe);
VOID StopRcv(PSNDRCV_PIPE Pipe, BOOLEAN Wait);
// Submits free packets, up to five, while the context is enabled and error
// free; without the device lock.
VOID SubmitReadBuffer(PSNDRCV_PIPE Pipe);
NTSTATUS SubmitRcvUrb(PSNDRCV_PIPE Pipe, PUSB_PACKET Packet);
KDEFERRED_ROUTINE RcvDpcRoutine;
// The flow-test timer's callback (DEVICE.FlowTestTimer): resubmits bulk-in.
TIMER_OBJ_CALLBACK RcvTimerRoutine;
// Work item after a receive error: stop, reset the pipe, start again.
NTSTATUS RestartRead(PVOID Context);
// Hands received bytes to the device's serial port; returns how many of
// Length it took.
ULONG SndRcvIndicateData(PDEVICE Dev, const UCHAR* Data, ULONG Length);
// Offers the bytes parked in received packets to their consumer again, in
// order, once it may have room. The caller holds the device lock.
VOID SndRcvCheckRcvQueue(PSNDRCV_PIPE Pipe);
// Returns every packet parked by the context to its pool, dropping the
// unconsumed received bytes. The caller holds the device lock.
VOID RcvPurge(PSNDRCV_PIPE Pipe);
// Arranges for the receive context to submit its free packets again soon
// (after Cfg.FlowTest ms for bulk-in when the flow test is on).
VOID RcvScheduleDpc(PSNDRCV_PIPE Pipe);

// All three pipes: started when the port is open and the device started
// (the running transfers then hold one device reference); stopped with
// Release (PASSIVE_LEVEL) to wait for them and drop that reference.
VOID StartSendAndReceive(PDEVICE Dev);
VOID StopSendAndReceive(PDEVICE Dev, BOOLEAN Release);

// Interrupt-in notifications, under the device lock at DISPATCH_LEVEL:
// IntPipe's consumer (always takes the whole packet) and the serial-state
// decoder.
ULONG RcvIntIn(PDEVICE Dev, const UCHAR* Data, ULONG Length);
VOID ProzessModemStatus(PDEVICE Dev, USHORT SerialState);
// The wait-on-mask events of the modem lines (SERIAL_MSR_* bits) set in
// Changed: CTS, DSR, RLSD and RING.
ULONG ModemLineEvents(ULONG Changed);
// Work items that switch PPP framing on (at the host's next frame flag,
// waiting at most 300 ms) and off.
NTSTATUS SwitchToPppMode(PVOID Context);
NTSTATUS StopPppMode(PVOID Context);
