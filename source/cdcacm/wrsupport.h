// The serial port's side of the send engine: how the serial port and the PPP
// deframer borrow the bulk-out send packet, fill it and hand it on.
//
// Environment: DISPATCH_LEVEL. GetWriteBuffer and ReturnWriteBuffer run with
// the device spin lock held; SubmitWriteBuffer takes no lock itself and may be
// called with or without it.
#pragma once

#include "forward.h"

// A free send packet: its data Buffer and the bytes it may carry (MaxLength).
// FALSE when nothing may be sent now; the send engine calls the refill again
// when that changes. A packet obtained must go to SubmitWriteBuffer or
// ReturnWriteBuffer.
BOOLEAN GetWriteBuffer(PDEVICE Dev, PUCHAR* Buffer, PULONG MaxLength, PUSB_PACKET* Packet);
// Sends Length bytes of the packet's Buffer.
void SubmitWriteBuffer(PDEVICE Dev, PUCHAR Buffer, ULONG Length, PUSB_PACKET Packet);
// Gives back a packet that carries nothing.
void ReturnWriteBuffer(PDEVICE Dev, PUCHAR Buffer, PUSB_PACKET Packet);
