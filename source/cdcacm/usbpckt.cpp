// USB packet pools: a fixed number of preallocated transfer packets (IRP,
// URB, page-aligned data buffer and the MDL describing it), carved from one
// allocation, handed out last-in first-out.
//
// Environment: UsbPacketGet and UsbPacketPut up to DISPATCH_LEVEL (DPCs,
// completion routines); creation and deletion at PASSIVE_LEVEL or under the
// device lock.
// Locks: USB_PACKET_POOL.Lock guards FreeList and Count; it is taken inside
// the device lock, never around it. The engines read Count without it.
#define TRACE_FILE "source/cdcacm/usbpckt"
#include "cdcacm.h"

// Packets follow one another at PacketSize; the stride keeps every packet
// record aligned for its pointers whatever the buffer size.
#define USB_PACKET_ALIGNMENT sizeof(PVOID)

static PUSB_PACKET UsbPacketAt(PUSB_PACKET_POOL Pool, ULONG Index) {
    return (PUSB_PACKET)((PUCHAR)(Pool + 1) + (SIZE_T)Index * Pool->PacketSize);
}

static NTSTATUS UsbPacketInit(PUSB_PACKET Packet, ULONG BufferSize) {
    PUSB_PACKET_POOL Pool = Packet->Pool;
    ULONG_PTR DataArea = (ULONG_PTR)(Packet + 1);

    Packet->Buffer = (PUCHAR)((DataArea + PAGE_SIZE - 1) & ~(ULONG_PTR)(PAGE_SIZE - 1));
    Packet->BufferSize = BufferSize;
    Packet->Mdl = IoAllocateMdl(Packet->Buffer, BufferSize, FALSE, FALSE, NULL);
    if (Packet->Mdl == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    MmBuildMdlForNonPagedPool(Packet->Mdl);
    Packet->Irp = (PIRP)MemAlloc(Pool->IrpSize, USB_PACKET_IRP_TAG);
    if (Packet->Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    return STATUS_SUCCESS;
}

static VOID UsbPacketFree(PUSB_PACKET Packet) {
    if (Packet->Irp != NULL)
        MemFree(Packet->Irp);
    if (Packet->Mdl != NULL)
        IoFreeMdl(Packet->Mdl);
    Packet->Irp = NULL;
    Packet->Mdl = NULL;
    Packet->Buffer = NULL;
    Packet->BufferSize = 0;
}

PUSB_PACKET_POOL UsbPacketPoolCreate(ULONG PacketCount, ULONG BufferSize, CCHAR StackSize) {
    PUSB_PACKET_POOL Pool;
    ULONG PacketSize;
    SIZE_T Size;
    ULONG Index;
    NTSTATUS Status = STATUS_SUCCESS;

    if (PacketCount == 0)
        return NULL;
    PacketSize = (ULONG)((sizeof(USB_PACKET) + PAGE_SIZE + BufferSize + USB_PACKET_ALIGNMENT - 1) &
                         ~(USB_PACKET_ALIGNMENT - 1));
    Size = (SIZE_T)PacketCount * PacketSize + sizeof(USB_PACKET_POOL);
    Pool = (PUSB_PACKET_POOL)ExAllocatePoolWithTag(NonPagedPool, Size, USB_PACKET_POOL_TAG);
    if (Pool == NULL)
        return NULL;
    RtlZeroMemory(Pool, Size);

    KeInitializeSpinLock(&Pool->Lock);
    InitializeListHead(&Pool->FreeList);
    Pool->Count = PacketCount;
    Pool->PacketCount = PacketCount;
    Pool->PacketSize = PacketSize;
    Pool->StackSize = StackSize;
    Pool->IrpSize = IoSizeOfIrp(StackSize);
    Pool->Magic = USB_PACKET_POOL_MAGIC;

    // Appended in address order, so the first packet is taken first.
    for (Index = 0; Index < PacketCount && NT_SUCCESS(Status); Index++) {
        PUSB_PACKET Packet = UsbPacketAt(Pool, Index);
        Packet->Pool = Pool;
        Packet->Magic = USB_PACKET_MAGIC;
        InsertTailList(&Pool->FreeList, &Packet->Link);
        Status = UsbPacketInit(Packet, BufferSize);
    }
    if (!NT_SUCCESS(Status)) {
        UsbPacketPoolDelete(Pool);
        return NULL;
    }
    return Pool;
}

VOID UsbPacketPoolDelete(PUSB_PACKET_POOL Pool) {
    ULONG Index;

    if (Pool == NULL)
        return;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Pool,USB_PACKET_POOL));
    TRACE_ASSERT(Pool->Count==Pool->PacketCount);
    // clang-format on
    for (Index = 0; Index < Pool->PacketCount; Index++) {
        PUSB_PACKET Packet = UsbPacketAt(Pool, Index);
        UsbPacketFree(Packet);
        Packet->Magic = 0;
    }
    Pool->Magic = 0;
    ExFreePool(Pool);
}

PUSB_PACKET UsbPacketGet(PUSB_PACKET_POOL Pool) {
    PUSB_PACKET Packet = NULL;
    KIRQL OldIrql;

    // clang-format off
    TRACE_ASSERT(PTRVALID(Pool,USB_PACKET_POOL));
    // clang-format on
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    if (!IsListEmpty(&Pool->FreeList)) {
        Packet = CONTAINING_RECORD(RemoveHeadList(&Pool->FreeList), USB_PACKET, Link);
        InitializeListHead(&Packet->Link);
        Pool->Count--;
        IoInitializeIrp(Packet->Irp, Pool->IrpSize, Pool->StackSize);
    }
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
    return Packet;
}

VOID UsbPacketPut(PUSB_PACKET Packet) {
    PUSB_PACKET_POOL Pool;
    KIRQL OldIrql;

    // clang-format off
    TRACE_ASSERT(PTRVALID(Packet,USB_PACKET));
    // clang-format on
    Pool = Packet->Pool;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Pool,USB_PACKET_POOL));
    // clang-format on
    KeAcquireSpinLock(&Pool->Lock, &OldIrql);
    InsertHeadList(&Pool->FreeList, &Packet->Link);
    Pool->Count++;
    KeReleaseSpinLock(&Pool->Lock, OldIrql);
}
