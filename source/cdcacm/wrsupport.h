// The serial port's side of the send engine: how the serial port and the PPP
// deframer borrow the bulk-out send packet, fill it and hand it on; and the
// queue timer that ticks the serial time-outs of both timed queues.
//
// Environment: DISPATCH_LEVEL; StartTimer up to DISPATCH_LEVEL, StopTimer at
// PASSIVE_LEVEL. GetWriteBuffer and ReturnWriteBuffer run with the device
// spin lock held; SubmitWriteBuffer takes no lock itself and may be called
// with or without it. The device lock guards TimerActive; TimerPending
// changes by interlocked operations.
#pragma once

#include "forward.h"
#include "wdmkrnl.h"

// A free send packet: its data Buffer and the bytes it may carry (MaxLength).
// FALSE when nothing may be sent now; the send engine calls the refill again
// when that changes. A packet obtained must go to SubmitWriteBuffer or
// ReturnWriteBuffer.
BOOLEAN GetWriteBuffer(PDEVICE Dev, PUCHAR* Buffer, PULONG MaxLength, PUSB_PACKET* Packet);
// Sends Length bytes of the packet's Buffer. The PPP deframer calls it with
// the device lock held; the send engine then keeps an inline completion off
// that lock (see SubmitWriteUrb).
void SubmitWriteBuffer(PDEVICE Dev, PUCHAR Buffer, ULONG Length, PUSB_PACKET Packet);
// Gives back a packet that carries nothing.
void ReturnWriteBuffer(PDEVICE Dev, PUCHAR Buffer, PUSB_PACKET Packet);
// WritePipe's refill routine (its Indicate): the serial port sends what it
// has. Data and Length are unused; returns 0.
ULONG SndOutComplete(PDEVICE Dev, const UCHAR* Data, ULONG Length);

// Arms the periodic queue timer (DEVICE.QueueTimer).
void StartTimer(PDEVICE Dev);
// Disarms the queue timer and waits up to one second until no tick is running.
void StopTimer(PDEVICE Dev);
// The queue timer's callback: one tick of both timed queues, then re-arms.
TIMER_OBJ_CALLBACK TimerDpcRoutine;
