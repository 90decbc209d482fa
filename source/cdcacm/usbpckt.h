// USB packet pools: preallocated packets (IRP, URB, page-aligned buffer and
// its MDL) for the asynchronous bulk and interrupt transfers.
//
// Records: a USB_PACKET_POOL and all its USB_PACKETs are one allocation,
// owned by the SNDRCV_PIPE that created it; it lives from device creation to
// device deletion. A packet is free in its pool, parked in its pipe
// context's queue, or out at the USB stack.
//
// Environment: get and put up to DISPATCH_LEVEL; creation and deletion at
// PASSIVE_LEVEL or under the device lock.
// Locks: USB_PACKET_POOL.Lock guards FreeList and Count; it nests inside
// the device lock.
#pragma once

#include "forward.h"

#define USB_PACKET_POOL_MAGIC 0x506B7055 // 'UpkP'
#define USB_PACKET_MAGIC 0x746B7055      // 'Upkt'
#define USB_PACKET_POOL_TAG 0x50425355   // 'USBP', the pool and its packets
#define USB_PACKET_IRP_TAG 0x30707375    // 'usp0', each packet's IRP

struct _USB_PACKET_POOL {
    KSPIN_LOCK Lock;
    LIST_ENTRY FreeList; // last returned is first taken
    ULONG Count;         // packets now free
    ULONG PacketCount;
    ULONG PacketSize; // stride: packet record + 4096 + buffer size
    CCHAR StackSize;
    USHORT IrpSize;
    ULONG Magic; // 0 after deletion
    // The packets follow, PacketSize apart.
};

struct _USB_PACKET {
    LIST_ENTRY Link; // linked to itself while at the USB stack
    PUSB_PACKET_POOL Pool;
    PIRP Irp;
    PMDL Mdl;
    PUCHAR Buffer; // first 4096-byte boundary of the data area
    PUCHAR Data;   // receive side: first byte not yet consumed
    ULONG BufferSize;
    ULONG Length; // bytes to send, or received bytes not yet consumed
    PSNDRCV_PIPE Pipe;
    URB Urb;
    ULONG Magic; // 0 after deletion
    // The data area of BufferSize + 4096 bytes follows.
};

// PacketCount packets of BufferSize bytes whose IRPs have StackSize
// locations; NULL when PacketCount is 0 or memory runs out.
PUSB_PACKET_POOL UsbPacketPoolCreate(ULONG PacketCount, ULONG BufferSize, CCHAR StackSize);
// Every packet must be back in the pool. Pool may be NULL.
VOID UsbPacketPoolDelete(PUSB_PACKET_POOL Pool);
// The packet returned last, with a freshly initialised IRP; NULL when all
// packets are out.
PUSB_PACKET UsbPacketGet(PUSB_PACKET_POOL Pool);
VOID UsbPacketPut(PUSB_PACKET Packet);
