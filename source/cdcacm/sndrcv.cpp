// The transfer engines of the three streaming pipes: the bulk-out send
// engine (one packet, a zero-length packet after every multiple of 64
// bytes, pipe reset and re-initialisation after errors), the bulk-in and
// interrupt-in receive engines (five bulk-in reads outstanding, parked
// packets as receive flow control), the interrupt-in notifications that
// move the modem lines, and the work items that switch PPP framing on and
// off.
//
// Environment: completion routines at DISPATCH_LEVEL or below, DPCs and the
// flow-test timer at DISPATCH_LEVEL; start, stop, the pipe restarts and the
// PPP switch at PASSIVE_LEVEL (the last three as work items, holding
// DeviceMutex).
// Locks: the device lock (DEVICE.Lock, with CheckLock) guards the three
// contexts, ModemStatus, SendAllowed, PppState and the PPP converters; the
// completion routines run their whole body under it, and the packet pools'
// locks nest inside it. Submissions take no lock. ErrorCount, the pipes'
// PendingRequests and RefCount change by interlocked operations.
//
// A send may be submitted while the submitter holds the device lock (the
// PPP deframer sends from inside the serial port's locked pass). A lower
// driver that completes such a transfer inside IoCallDriver would run the
// completion routine on the submitter's own lock. So SubmitWriteUrb marks
// the pipe while it is inside IoCallDriver, and a completion that finds the
// mark runs its body from the pipe's CompletionDpc instead: the DPC runs
// once the submitter has left the call and, at the latest, released the
// lock. The one send packet keeps the byte order on the pipe either way.
#define TRACE_FILE "source/cdcacm/sndrcv"
#include "cdcacm.h"

// Bytes of a transfer dumped by the bulk trace.
#define BULK_DUMP_BYTES 64
// A send of a non-zero multiple of this many bytes owes a zero-length packet.
// The check uses this constant, not the endpoint's maximum packet size.
#define ZLP_MULTIPLE 64
// The USB status bits that decide a completion (the top four are the state).
#define USBD_STATUS_CODE_MASK 0x0FFFFFFF
// Bulk-in reads kept outstanding at most.
#define RCV_MAX_SUBMIT 5
// Steps of the stop waits: 1 s, relative.
#define STOP_WAIT_STEP_100NS (-10000000LL)
// How long the PPP switch waits for a frame boundary: 300 ms, relative.
#define PPP_FLAG_WAIT_100NS (-3000000LL)

// Notification packets.
#define NOTIFY_MIN_BYTES 8
#define NOTIFY_SERIAL_STATE_BYTES 10
#define NOTIFY_TYPE_MASK 0x60
#define NOTIFY_TYPE_CLASS 0x20
#define NOTIFY_TYPE_VENDOR 0x40
#define NOTIFY_NETWORK_CONNECTION 0x00
#define NOTIFY_RESPONSE_AVAILABLE 0x01
#define NOTIFY_SERIAL_STATE 0x20
#define OPPP_REQUEST_TO_START_FRAMING 0x10
#define OPPP_REQUEST_TO_STOP_FRAMING 0x11

// Serial state bits.
#define STATE_DCD 0x0001
#define STATE_DSR 0x0002
#define STATE_BREAK 0x0004
#define STATE_RING 0x0008
#define STATE_FRAMING 0x0010
#define STATE_PARITY 0x0020
#define STATE_OVERRUN 0x0040
#define STATE_STOP_SENDING 0x0100

static void DumpBulk(const char* Format, PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    if (!(TraceMask & TL_BULK_DUMP))
        return;
    TracePrint(Format, DEV_PORT_NAME(Dev), Length);
    if (Length > 0)
        TraceDump(Data, Length < BULK_DUMP_BYTES ? Length : BULK_DUMP_BYTES);
    if (Length > BULK_DUMP_BYTES)
        TracePrint("...\n");
}

// The USB status that decides a completion: a failed IRP whose URB still
// says success counts as a failure of its own.
static USBD_STATUS CompletionUsbStatus(PIRP Irp, PURB Urb) {
    USBD_STATUS UsbStatus = Urb->UrbHeader.Status;
    if (!NT_SUCCESS(Irp->IoStatus.Status) && UsbStatus == USBD_STATUS_SUCCESS)
        UsbStatus = (USBD_STATUS)0xFFFFFFFF;
    return UsbStatus;
}

// The bulk or interrupt URB of a packet and its IRP's next stack location.
static void BuildTransfer(PSNDRCV_PIPE Pipe, PUSB_PACKET Packet, ULONG Flags, ULONG Length,
                          PMDL Mdl, PIO_COMPLETION_ROUTINE Completion) {
    struct _URB_BULK_OR_INTERRUPT_TRANSFER* Bulk = &Packet->Urb.UrbBulkOrInterruptTransfer;
    Packet->Pipe = Pipe;
    RtlZeroMemory(Bulk, sizeof(*Bulk));
    Bulk->Hdr.Status = (USBD_STATUS)0xFFFFFFFF;
    Bulk->Hdr.Length = sizeof(*Bulk);
    Bulk->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    Bulk->PipeHandle = Pipe->Pipe->PipeHandle;
    Bulk->TransferFlags = Flags;
    Bulk->TransferBuffer = Packet->Buffer;
    Bulk->TransferBufferLength = Length;
    Bulk->TransferBufferMDL = Mdl;
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Packet->Irp);
    RtlZeroMemory(Next, sizeof(*Next));
    Next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    Next->Parameters.Others.Argument1 = &Packet->Urb;
    IoSetCompletionRoutine(Packet->Irp, Completion, Packet, TRUE, TRUE, TRUE);
    InterlockedIncrement(&Pipe->Pipe->PendingRequests);
}

// Waits for every packet of a stopped context to come back, in steps of one
// second, without limit.
static void WaitAllReturned(PSNDRCV_PIPE Pipe, const char* Format) {
    TRACE_ASSERT(KeGetCurrentIrql()==PASSIVE_LEVEL);
    LARGE_INTEGER Step;
    Step.QuadPart = STOP_WAIT_STEP_100NS;
    while (KeWaitForSingleObject(&Pipe->AllReturned, Executive, KernelMode, FALSE, &Step) ==
           STATUS_TIMEOUT)
        TRACE(TL_ERROR, Format, DEV_PORT_NAME(Pipe->Dev), Pipe->Pool->Count);
}

static void PipeInit(PSNDRCV_PIPE Pipe, PDEVICE Dev, SNDRCV_INDICATE Indicate, PUSB_PIPE UsbPipe,
                     PKDEFERRED_ROUTINE DpcRoutine) {
    Pipe->Indicate = Indicate;
    Pipe->Dev = Dev;
    Pipe->Pipe = UsbPipe;
    Pipe->ErrorCount = 0;
    Pipe->ErrorStop = 0;
    InitializeListHead(&Pipe->Queue);
    KeInitializeEvent(&Pipe->AllReturned, NotificationEvent, FALSE);
    KeInitializeDpc(&Pipe->Dpc, DpcRoutine, Dev);
}

// Under the device lock: every parked packet back to its pool.
static void PutParked(PSNDRCV_PIPE Pipe, BOOLEAN Receive) {
    while (!IsListEmpty(&Pipe->Queue)) {
        PUSB_PACKET UsbPacket = CONTAINING_RECORD(RemoveHeadList(&Pipe->Queue), USB_PACKET, Link);
        // clang-format off
        TRACE_ASSERT(PTRVALID(UsbPacket,USB_PACKET));
        // clang-format on
        if (Receive)
            TRACE(TL_DETAIL, "%P:%S:RcvPurge\n", DEV_PORT_NAME(Pipe->Dev));
        UsbPacketPut(UsbPacket);
    }
}

static void FreePipe(PSNDRCV_PIPE Pipe, BOOLEAN Receive) {
    if (Pipe->Dev == NULL)
        return;
    KIRQL OldIrql;
    DEVICE_LOCK(Pipe->Dev, &OldIrql);
    PutParked(Pipe, Receive);
    UsbPacketPoolDelete(Pipe->Pool);
    Pipe->Pool = NULL;
    DEVICE_UNLOCK(Pipe->Dev, OldIrql);
}

// ---- Send engine ----

static IO_COMPLETION_ROUTINE WriteCompletionRoutine;
static KDEFERRED_ROUTINE WriteCompletionDpc;

NTSTATUS SndInit(PSNDRCV_PIPE Pipe, PDEVICE Dev, SNDRCV_INDICATE Indicate, PUSB_PIPE UsbPipe,
                 ULONG BufferSize, ULONG PacketCount) {
    PipeInit(Pipe, Dev, Indicate, UsbPipe, SndDpcRoutine);
    KeInitializeDpc(&Pipe->CompletionDpc, WriteCompletionDpc, Dev);
    Pipe->Pool = UsbPacketPoolCreate(PacketCount, BufferSize, Dev->StackSize);
    return Pipe->Pool != NULL ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID SndPurge(PSNDRCV_PIPE Pipe) {
    PutParked(Pipe, FALSE);
}

VOID SndFree(PSNDRCV_PIPE Pipe) {
    FreePipe(Pipe, FALSE);
}

VOID StartSnd(PSNDRCV_PIPE Pipe) {
    InterlockedExchange(&Pipe->ErrorCount, 0);
    Pipe->Enabled = 1;
    Pipe->Indicate(Pipe->Dev, NULL, 0);
}

NTSTATUS SubmitWriteUrb(PSNDRCV_PIPE Pipe, PUSB_PACKET Packet) {
    PDEVICE Dev = Pipe->Dev;
    TRACE(TL_SND, "%P:%S:[SubmitWriteUrb\n", DEV_PORT_NAME(Dev));
    DumpBulk("%P:%S:SND: %d\n", Dev, Packet->Buffer, Packet->Length);
    if (!Pipe->Enabled || !Dev->UsbDeviceEnabled) {
        TRACE(TL_ERROR, "%P:%S:]SubmitWriteUrb Port disabled\n", DEV_PORT_NAME(Dev));
        UsbPacketPut(Packet);
        return STATUS_UNSUCCESSFUL;
    }
    if (Pipe->Pipe == NULL) {
        TRACE(TL_ERROR, "%P:%S:]SubmitWriteUrb Pipe == NULL\n", DEV_PORT_NAME(Dev));
        UsbPacketPut(Packet);
        return STATUS_UNSUCCESSFUL;
    }
    ULONG Length = Packet->Length;
    BuildTransfer(Pipe, Packet, 0, Length, Length > 0 ? Packet->Mdl : NULL, WriteCompletionRoutine);
    if (Length > 0 && Length % ZLP_MULTIPLE == 0)
        Pipe->SendZlp = 1;
    InterlockedExchange(&Pipe->Submitting, 1);
    NTSTATUS Status = IoCallDriver(Dev->LowerDevObj, Packet->Irp);
    InterlockedExchange(&Pipe->Submitting, 0);
    TRACE(TL_SND, "%P:%S:]SubmitWriteUrb: IoCallDriver returned (%D)\n", DEV_PORT_NAME(Dev),
          Status);
    return Status;
}

// The completion's work, under the device lock.
static void WriteCompleted(PUSB_PACKET Packet) {
    PSNDRCV_PIPE Pipe = Packet->Pipe;
    PDEVICE Dev = Pipe->Dev;
    KIRQL OldIrql;
    DEVICE_LOCK(Pipe->Dev, &OldIrql);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Packet,USB_PACKET));
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    TRACE(TL_SND, "%P:%S:[WriteCompletionRoutine\n", DEV_PORT_NAME(Dev));
    USBD_STATUS UsbStatus = CompletionUsbStatus(Packet->Irp, &Packet->Urb);
    switch (UsbStatus & USBD_STATUS_CODE_MASK) {
    case USBD_STATUS_CANCELED& USBD_STATUS_CODE_MASK:
        TRACE(TL_ERROR, "%P:%S:WriteCompletionRoutine USBD_STATUS_CANCELED\n", DEV_PORT_NAME(Dev));
        // A transfer cancelled by a stop counts as sent.
        [[fallthrough]];
    case USBD_STATUS_SUCCESS:
        InterlockedExchange(&Pipe->ErrorCount, 0);
        Pipe->ErrorStop = 0;
        UsbPacketPut(Packet);
        KeInsertQueueDpc(&Pipe->Dpc, Pipe, NULL);
        break;
    case USBD_STATUS_DEVICE_GONE& USBD_STATUS_CODE_MASK:
        TRACE(TL_ERROR, "%P:%S:WriteCompletionRoutine USBD_STATUS_DEVICE_GONE\n",
              DEV_PORT_NAME(Dev));
        InterlockedExchange(&Pipe->ErrorCount, 0);
        Pipe->ErrorStop = 0;
        Pipe->Enabled = 0;
        UsbPacketPut(Packet);
        break;
    default: {
        TRACE(TL_ERROR, "%P:%S:WriteCompletionRoutine: UrbStatus %D\n", DEV_PORT_NAME(Dev),
              UsbStatus);
        TRACE(TL_ERROR, "%P:%S:WriteCompletionRoutine: IrpStatus %D\n", DEV_PORT_NAME(Dev),
              Packet->Irp->IoStatus.Status);
        LONG Errors = InterlockedIncrement(&Pipe->ErrorCount);
        // The first error keeps the bytes: the pipe is reset and the same
        // packet goes out again. If the work item cannot be queued, the
        // bytes are dropped rather than kept parked with nobody to send them.
        if (Pipe->Enabled && Errors <= 1 && Dev->DevicePowerState == PowerDeviceD0) {
            InsertTailList(&Pipe->Queue, &Packet->Link);
            if (!WorkerQueue(Dev, RestartWrite, Pipe, NULL)) {
                RemoveEntryList(&Packet->Link);
                UsbPacketPut(Packet);
            }
        } else
            UsbPacketPut(Packet);
        break;
    }
    }
    if (Pipe->ErrorCount > 1)
        Pipe->ErrorStop = 1;
    if (Pipe->Pool->Count == Pipe->Pool->PacketCount) {
        TRACE(TL_SND, "%P:%S:WriteCompletionRoutine: All write buffers returned\n",
              DEV_PORT_NAME(Dev));
        KeSetEvent(&Pipe->AllReturned, IO_NO_INCREMENT, FALSE);
        if (Pipe->Enabled && Pipe->ErrorStop) {
            TRACE(TL_ERROR, "%P:%S:WriteCompletionRoutine: Schedule restart USB read\n",
                  DEV_PORT_NAME(Dev));
            ScheduleReinit(Dev);
            Pipe->ErrorStop = 0;
        }
    }
    InterlockedDecrement(&Pipe->Pipe->PendingRequests);
    DEVICE_UNLOCK(Pipe->Dev, OldIrql);
}

static NTSTATUS WriteCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    PUSB_PACKET Packet = (PUSB_PACKET)Context;
    // Completed inside SubmitWriteUrb's IoCallDriver, perhaps under the
    // submitter's device lock: finish once the submitter has left.
    if (Packet->Pipe->Submitting)
        KeInsertQueueDpc(&Packet->Pipe->CompletionDpc, Packet, NULL);
    else
        WriteCompleted(Packet);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

static VOID WriteCompletionDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                               PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(DeferredContext);
    UNREFERENCED_PARAMETER(SystemArgument2);
    WriteCompleted((PUSB_PACKET)SystemArgument1);
}

VOID SndDpcRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument2);
    PDEVICE Dev = (PDEVICE)DeferredContext;
    PSNDRCV_PIPE Pipe = (PSNDRCV_PIPE)SystemArgument1;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    if (Pipe->SendZlp) {
        PUSB_PACKET Packet = UsbPacketGet(Pipe->Pool);
        if (Packet != NULL) {
            Pipe->SendZlp = 0;
            Packet->Length = 0;
            NTSTATUS Status = SubmitWriteUrb(Pipe, Packet);
            if (Status != STATUS_SUCCESS && Status != STATUS_PENDING)
                TRACE(TL_ERROR, "%P:%S:SubmitWriteBuffer IoCallDriver failed %D\n",
                      DEV_PORT_NAME(Dev), Status);
        } else
            TRACE(TL_ERROR, "%P:%S:SndDpcRoutine: No Packet\n", DEV_PORT_NAME(Dev));
    }
    Pipe->Indicate(Dev, NULL, 0);
}

NTSTATUS RestartWrite(PVOID Context) {
    PSNDRCV_PIPE Pipe = (PSNDRCV_PIPE)Context;
    PDEVICE Dev = Pipe->Dev;
    NTSTATUS Status = ResetPipe(&Dev->UsbDevice, Pipe->Pipe);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:ResetPipe write failed (%D)\n", DEV_PORT_NAME(Dev), Status);
        // Reinit gives back one pending count per run.
        InterlockedIncrement(&Dev->ReinitPending);
        Reinit(Dev);
        return STATUS_SUCCESS;
    }
    for (;;) {
        KIRQL OldIrql;
        DEVICE_LOCK(Pipe->Dev, &OldIrql);
        PUSB_PACKET UsbPacket = NULL;
        if (!IsListEmpty(&Pipe->Queue))
            UsbPacket = CONTAINING_RECORD(RemoveHeadList(&Pipe->Queue), USB_PACKET, Link);
        DEVICE_UNLOCK(Pipe->Dev, OldIrql);
        if (UsbPacket == NULL)
            break;
        // clang-format off
        TRACE_ASSERT(PTRVALID(UsbPacket,USB_PACKET));
        // clang-format on
        // The same bytes again, in an IRP made ready as a fresh one is.
        InitializeListHead(&UsbPacket->Link);
        IoInitializeIrp(UsbPacket->Irp, UsbPacket->Pool->IrpSize, UsbPacket->Pool->StackSize);
        SubmitWriteUrb(Pipe, UsbPacket);
    }
    return STATUS_SUCCESS;
}

VOID StopSnd(PSNDRCV_PIPE Pipe, BOOLEAN Wait) {
    PDEVICE Dev = Pipe->Dev;
    KIRQL OldIrql;
    TRACE(TL_INFO, "%P:%S:StopSnd\n", DEV_PORT_NAME(Dev));
    DEVICE_LOCK(Pipe->Dev, &OldIrql);
    Pipe->Enabled = 0;
    SndPurge(Pipe);
    DEVICE_UNLOCK(Pipe->Dev, OldIrql);
    KeClearEvent(&Pipe->AllReturned);
    if (Pipe->Pool->Count != Pipe->Pool->PacketCount) {
        AbortPipe(&Dev->UsbDevice, Pipe->Pipe);
        if (Wait)
            WaitAllReturned(Pipe, "%P:%S: StopSnd wait for PacketPool: PoolCount:%d\n");
    }
}

// ---- Receive engine ----

static IO_COMPLETION_ROUTINE RcvCompletionRoutine;

NTSTATUS RcvInit(PSNDRCV_PIPE Pipe, PDEVICE Dev, SNDRCV_INDICATE Indicate, PUSB_PIPE UsbPipe,
                 ULONG BufferSize, ULONG PacketCount, BOOLEAN NoFraming) {
    PipeInit(Pipe, Dev, Indicate, UsbPipe, RcvDpcRoutine);
    Pipe->NoFraming = NoFraming;
    Pipe->Pool = UsbPacketPoolCreate(PacketCount, BufferSize, Dev->StackSize);
    return Pipe->Pool != NULL ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID RcvPurge(PSNDRCV_PIPE Pipe) {
    PutParked(Pipe, TRUE);
}

VOID RcvFree(PSNDRCV_PIPE Pipe) {
    FreePipe(Pipe, TRUE);
}

ULONG SndRcvIndicateData(PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    return IndicateReadBuffer(Dev->Port.SerPort, Data, Length);
}

NTSTATUS SubmitRcvUrb(PSNDRCV_PIPE Pipe, PUSB_PACKET Packet) {
    PDEVICE Dev = Pipe->Dev;
    TRACE(TL_RCV, "%P:%S:[SubmitRcvUrb Buffer:%x\n", DEV_PORT_NAME(Dev),
          (ULONG)(ULONG_PTR)Packet->Buffer);
    if (!Pipe->Enabled || !Dev->UsbDeviceEnabled) {
        TRACE(TL_ERROR, "%P:%S:]SubmitRcvUrb Port disabled\n", DEV_PORT_NAME(Dev));
        UsbPacketPut(Packet);
        return STATUS_UNSUCCESSFUL;
    }
    if (Pipe->Pipe == NULL) {
        TRACE(TL_ERROR, "%P:%S:]SubmitRcvUrb fatal: Pipe->Pipe == 0\n", DEV_PORT_NAME(Dev));
        UsbPacketPut(Packet);
        return STATUS_UNSUCCESSFUL;
    }
    Packet->Irp->Cancel = FALSE;
    BuildTransfer(Pipe, Packet, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK,
                  Packet->BufferSize, NULL, RcvCompletionRoutine);
    NTSTATUS Status = IoCallDriver(Dev->LowerDevObj, Packet->Irp);
    TRACE(TL_RCV, "%P:%S:]SubmitRcvUrb: IoCallDriver returned (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

VOID SubmitReadBuffer(PSNDRCV_PIPE Pipe) {
    PDEVICE Dev = Pipe->Dev;
    PUSB_PACKET_POOL Pool = Pipe->Pool;
    TRACE(TL_RCV, "%P:%S:[SubmitReadBuffer\n", DEV_PORT_NAME(Dev));
    for (ULONG Submitted = 0; Submitted < RCV_MAX_SUBMIT; Submitted++) {
        if (!Dev->UsbDeviceEnabled || !Pipe->Enabled)
            break;
        if (Pipe->ErrorCount >= 1) {
            // clang-format off
            TRACE(TL_ERROR, "%P:%S:ProcessRcvBuffer: max error count reached, stop processing of RCV buffers!\n", DEV_PORT_NAME(Dev));
            // clang-format on
            break;
        }
        // Unsigned: never true for a one-packet pool.
        if (Pool->Count >= Pool->PacketCount - 2)
            TRACE(TL_DETAIL, "%P:%S:Less than 2 RCV buffers at USBD!\n", DEV_PORT_NAME(Dev));
        PUSB_PACKET Packet = UsbPacketGet(Pool);
        if (Packet == NULL)
            break;
        SubmitRcvUrb(Pipe, Packet);
    }
    TRACE(TL_RCV, "%P:%S:]SubmitReadBuffer\n", DEV_PORT_NAME(Dev));
}

VOID RcvScheduleDpc(PSNDRCV_PIPE Pipe) {
    PDEVICE Dev = Pipe->Dev;
    if (Pipe->ErrorStop || !Pipe->Enabled)
        return;
    if (Dev->Cfg.FlowTest > 0 && Pipe == &Dev->ReceivePipe)
        KeSetTimer(&Dev->FlowTestTimer.Timer, Dev->FlowTestTimer.DueTime, &Dev->FlowTestTimer.Dpc);
    else
        KeInsertQueueDpc(&Pipe->Dpc, Pipe, NULL);
}

VOID RcvDpcRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument2);
    PDEVICE Dev = (PDEVICE)DeferredContext;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    SubmitReadBuffer((PSNDRCV_PIPE)SystemArgument1);
}

VOID RcvTimerRoutine(PTIMER_OBJ TimerObj, PVOID Context) {
    UNREFERENCED_PARAMETER(TimerObj);
    PDEVICE Dev = (PDEVICE)Context;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    SubmitReadBuffer(&Dev->ReceivePipe);
}

VOID SndRcvCheckRcvQueue(PSNDRCV_PIPE Pipe) {
    PDEVICE Dev = Pipe->Dev;
    while (!IsListEmpty(&Pipe->Queue)) {
        PUSB_PACKET UsbPacket = CONTAINING_RECORD(Pipe->Queue.Flink, USB_PACKET, Link);
        // clang-format off
        TRACE_ASSERT(PTRVALID(UsbPacket,USB_PACKET));
        // clang-format on
        ULONG Taken;
        if (Dev->PppState == PPP_STATE_ON && !Pipe->NoFraming)
            Taken = PppFramerIndicateBuffer(&Dev->PppFramer, UsbPacket->Data, UsbPacket->Length);
        else
            Taken = Pipe->Indicate(Dev, UsbPacket->Data, UsbPacket->Length);
        if (Taken == UsbPacket->Length) {
            TRACE(TL_DETAIL, "%P:%S:SndRcvCheckRcvQueue indicate OK\n", DEV_PORT_NAME(Dev));
            RemoveEntryList(&UsbPacket->Link);
            UsbPacketPut(UsbPacket);
            RcvScheduleDpc(Pipe);
            continue;
        }
        // Later packets wait behind this one, so the bytes keep their order.
        UsbPacket->Data += Taken;
        UsbPacket->Length -= Taken;
        TRACE(TL_DETAIL, "%P:%S:SndRcvCheckRcvQueue indicate FALSE\n", DEV_PORT_NAME(Dev));
        return;
    }
}

static NTSTATUS RcvCompletionRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    PUSB_PACKET Packet = (PUSB_PACKET)Context;
    PSNDRCV_PIPE Pipe = Packet->Pipe;
    PDEVICE Dev = Pipe->Dev;
    KIRQL OldIrql;
    DEVICE_LOCK(Pipe->Dev, &OldIrql);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    TRACE(TL_RCV, "%P:%S:[RcvCompletionRoutine\n", DEV_PORT_NAME(Dev));
    USBD_STATUS UsbStatus = CompletionUsbStatus(Irp, &Packet->Urb);
    switch (UsbStatus & USBD_STATUS_CODE_MASK) {
    case USBD_STATUS_SUCCESS:
        InterlockedExchange(&Pipe->ErrorCount, 0);
        Packet->Data = Packet->Buffer;
        Packet->Length = Packet->Urb.UrbBulkOrInterruptTransfer.TransferBufferLength;
        DumpBulk("%P:%S:RCV %d\n", Dev, Packet->Data, Packet->Length);
        if (Packet->Length > 0) {
            TRACE(TL_DETAIL, "%P:%S:RcvCompletionRoutine add packet\n", DEV_PORT_NAME(Dev));
            if (Pipe->Enabled)
                InsertTailList(&Pipe->Queue, &Packet->Link);
            else
                UsbPacketPut(Packet);
        } else
            UsbPacketPut(Packet);
        Pipe->ErrorStop = 0;
        break;
    case USBD_STATUS_CANCELED& USBD_STATUS_CODE_MASK:
        TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine USBD_STATUS_CANCELED\n", DEV_PORT_NAME(Dev));
        UsbPacketPut(Packet);
        break;
    case USBD_STATUS_DEVICE_GONE& USBD_STATUS_CODE_MASK:
        TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine USBD_STATUS_DEVICE_GONE\n", DEV_PORT_NAME(Dev));
        InterlockedExchange(&Pipe->ErrorCount, 0);
        Pipe->ErrorStop = 0;
        Pipe->Enabled = 0;
        UsbPacketPut(Packet);
        break;
    case USBD_STATUS_ENDPOINT_HALTED& USBD_STATUS_CODE_MASK:
        TRACE(TL_ERROR, "%P:%S:USBD_STATUS_ENDPOINT_HALTED receive, restart\n", DEV_PORT_NAME(Dev));
        [[fallthrough]];
    default:
        TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine: UrbStatus %D\n", DEV_PORT_NAME(Dev),
              UsbStatus);
        TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine: IrpStatus %D\n", DEV_PORT_NAME(Dev),
              Irp->IoStatus.Status);
        Pipe->Enabled = 0;
        if (InterlockedIncrement(&Pipe->ErrorCount) < 2 && Dev->DevicePowerState == PowerDeviceD0)
            WorkerQueue(Dev, RestartRead, Pipe, NULL);
        UsbPacketPut(Packet);
        break;
    }
    SndRcvCheckRcvQueue(Pipe);
    if (Pipe->ErrorCount > 1)
        Pipe->ErrorStop = 1;
    if (Pipe->Pool->Count == Pipe->Pool->PacketCount) {
        TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine: All buffers returned\n", DEV_PORT_NAME(Dev));
        KeSetEvent(&Pipe->AllReturned, IO_NO_INCREMENT, FALSE);
        if (Pipe->Enabled && Pipe->ErrorStop) {
            TRACE(TL_ERROR, "%P:%S:RcvCompletionRoutine: Schedule restart USB read\n",
                  DEV_PORT_NAME(Dev));
            ScheduleReinit(Dev);
            Pipe->ErrorStop = 0;
        }
    }
    RcvScheduleDpc(Pipe);
    TRACE(TL_RCV, "%P:%S:]RequestIrpCompletionRoutine\n", DEV_PORT_NAME(Dev));
    InterlockedDecrement(&Pipe->Pipe->PendingRequests);
    DEVICE_UNLOCK(Pipe->Dev, OldIrql);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

VOID StartRcv(PSNDRCV_PIPE Pipe) {
    InterlockedExchange(&Pipe->ErrorCount, 0);
    Pipe->Enabled = 1;
    SubmitReadBuffer(Pipe);
}

VOID StopRcv(PSNDRCV_PIPE Pipe, BOOLEAN Wait) {
    PDEVICE Dev = Pipe->Dev;
    KIRQL OldIrql;
    TRACE(TL_INFO, "%P:%S:StopRcv\n", DEV_PORT_NAME(Dev));
    Pipe->Enabled = 0;
    KeCancelTimer(&Dev->FlowTestTimer.Timer);
    DEVICE_LOCK(Pipe->Dev, &OldIrql);
    RcvPurge(Pipe);
    DEVICE_UNLOCK(Pipe->Dev, OldIrql);
    KeClearEvent(&Pipe->AllReturned);
    if (Pipe->Pool->Count != Pipe->Pool->PacketCount) {
        AbortPipe(&Dev->UsbDevice, Pipe->Pipe);
        if (Wait)
            WaitAllReturned(Pipe, "%P:%S: StopRcv wait for PacketPool: PoolCount:%d\n");
    }
}

NTSTATUS RestartRead(PVOID Context) {
    PSNDRCV_PIPE Pipe = (PSNDRCV_PIPE)Context;
    PDEVICE Dev = Pipe->Dev;
    TRACE(TL_INFO, "%P:%S:[RestartRead]\n", DEV_PORT_NAME(Dev));
    StopRcv(Pipe, TRUE);
    NTSTATUS Status = ResetPipe(&Dev->UsbDevice, Pipe->Pipe);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:ResetPipe read failed (%D)\n", DEV_PORT_NAME(Dev), Status);
        InterlockedIncrement(&Dev->ReinitPending);
        Reinit(Dev);
    } else
        StartRcv(Pipe);
    return Status;
}

// ---- All three pipes ----

VOID StartSendAndReceive(PDEVICE Dev) {
    Dev->SendAllowed = 1;
    if (Dev->OpenCount <= 0)
        return;
    if (!Dev->SndRcvRef) {
        DEVICE_ADD_REF(Dev);
        Dev->SndRcvRef = 1;
    }
    StartRcv(&Dev->ReceivePipe);
    StartRcv(&Dev->IntPipe);
    StartSnd(&Dev->WritePipe);
}

VOID StopSendAndReceive(PDEVICE Dev, BOOLEAN Release) {
    StopRcv(&Dev->ReceivePipe, Release);
    StopRcv(&Dev->IntPipe, Release);
    StopSnd(&Dev->WritePipe, Release);
    if (!Dev->SndRcvRef || !Release)
        return;
    Dev->SndRcvRef = 0;
    DEVICE_RELEASE(Dev);
}

// ---- Notifications ----

static void DumpNotification(const char* Message, PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    if (!(TraceMask & TL_ERROR))
        return;
    TracePrint(Message, DEV_PORT_NAME(Dev));
    TraceDump(Data, Length);
}

ULONG ModemLineEvents(ULONG Changed) {
    ULONG Events = 0;
    if (Changed & SERIAL_MSR_CTS)
        Events |= SERIAL_EV_CTS;
    if (Changed & SERIAL_MSR_DSR)
        Events |= SERIAL_EV_DSR;
    if (Changed & SERIAL_MSR_DCD)
        Events |= SERIAL_EV_RLSD;
    if (Changed & SERIAL_MSR_RI)
        Events |= SERIAL_EV_RING;
    return Events;
}

VOID ProzessModemStatus(PDEVICE Dev, USHORT SerialState) {
    TRACE(TL_MODEM, "%P:%S:ProzessModemStatus: ModemStatus %B\n", DEV_PORT_NAME(Dev),
          Dev->ModemStatus);
    // CTS never comes from the serial state, only from NETWORK_CONNECTION.
    ULONG Status = Dev->ModemStatus & SERIAL_MSR_CTS;
    if (SerialState & STATE_DSR) {
        Status |= SERIAL_MSR_DSR;
        TRACE(TL_MODEM, "DSR_on, ");
    } else
        TRACE(TL_MODEM, "DSR_off, ");
    if (SerialState & STATE_RING) {
        Status |= SERIAL_MSR_RI;
        TRACE(TL_MODEM, "RI_on, ");
    } else
        TRACE(TL_MODEM, "RI_off, ");
    if (SerialState & STATE_DCD) {
        Status |= SERIAL_MSR_DCD;
        TRACE(TL_MODEM, "DCD_on\n");
    } else
        TRACE(TL_MODEM, "DCD_off\n");

    if (SerialState & STATE_STOP_SENDING)
        Dev->SendAllowed = 0;
    else if (!Dev->SendAllowed) {
        Dev->SendAllowed = 1;
        KeInsertQueueDpc(&Dev->WritePipe.Dpc, &Dev->WritePipe, NULL);
    }

    ULONG Changed = Status ^ Dev->ModemStatus;
    Dev->ModemStatus = Status;
    Dev->ReceivedModemStatus = Status;
    ULONG Events = ModemLineEvents(Changed);
    if (SerialState & STATE_BREAK) {
        Events |= SERIAL_EV_BREAK;
        TRACE(TL_MODEM, "Break\n");
    }
    if (SerialState & STATE_FRAMING) {
        Events |= SERIAL_EV_ERR;
        TRACE(TL_MODEM, "Frame error\n");
    }
    if (SerialState & STATE_PARITY) {
        Events |= SERIAL_EV_ERR;
        TRACE(TL_MODEM, "Parity error\n");
    }
    if (SerialState & STATE_OVERRUN) {
        Events |= SERIAL_EV_ERR;
        TRACE(TL_MODEM, "Overrun error\n");
    }
    if (Events != 0)
        IndicateWaitEvent(&Dev->Port, Events);
}

static void NetworkConnection(PDEVICE Dev, USHORT Value) {
    TRACE(TL_MODEM, "%P:%S:received new Network Connection %x\n", DEV_PORT_NAME(Dev), Value);
    ULONG Cts = (Value & 1) ? SERIAL_MSR_CTS : 0;
    BOOLEAN Changed = (Dev->ModemStatus & SERIAL_MSR_CTS) != Cts;
    Dev->ModemStatus = (Dev->ModemStatus & ~SERIAL_MSR_CTS) | Cts;
    Dev->ReceivedModemStatus = Dev->ModemStatus;
    if (!Changed)
        return;
    IndicateWaitEvent(&Dev->Port, SERIAL_EV_CTS);
    if (Dev->Cfg.useCtsFlowControl && Cts) {
        TRACE(TL_CTS, "%P:%S:CTS active restart write\n", DEV_PORT_NAME(Dev));
        KeInsertQueueDpc(&Dev->WritePipe.Dpc, &Dev->WritePipe, NULL);
    }
}

ULONG RcvIntIn(PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    TRACE(TL_PPP, "%P:%S:RcvIntIn: len:%d\n", DEV_PORT_NAME(Dev), Length);
    if (Length < NOTIFY_MIN_BYTES) {
        DumpNotification("%P:%S:RcvIntIn: Data packet to small\n", Dev, Data, Length);
        return Length;
    }
    UCHAR Code = Data[1];
    USHORT Value = (USHORT)(Data[2] | (Data[3] << 8));
    switch (Data[0] & NOTIFY_TYPE_MASK) {
    case NOTIFY_TYPE_CLASS:
        switch (Code) {
        case NOTIFY_NETWORK_CONNECTION:
            NetworkConnection(Dev, Value);
            break;
        case NOTIFY_RESPONSE_AVAILABLE:
            TRACE(TL_ERROR, "%P:%S:RcvIntIn: RESPONDS_AVAILABLE not supported\n",
                  DEV_PORT_NAME(Dev));
            break;
        case NOTIFY_SERIAL_STATE:
            if (Length < NOTIFY_SERIAL_STATE_BYTES) {
                DumpNotification("%P:%S:RcvIntIn: Data packet to small for RESPONDS_SERIAL_STATE\n",
                                 Dev, Data, Length);
                break;
            }
            TRACE(TL_MODEM, "%P:%S:received new Serial State %x\n", DEV_PORT_NAME(Dev),
                  Data[8] | (Data[9] << 8));
            ProzessModemStatus(Dev, (USHORT)(Data[8] | (Data[9] << 8)));
            break;
        default:
            DumpNotification("%P:%S:RcvIntIn: Unexpected class responds:\n", Dev, Data, Length);
            break;
        }
        break;
    case NOTIFY_TYPE_VENDOR:
        switch (Code) {
        case OPPP_REQUEST_TO_START_FRAMING:
            TRACE(TL_PPP, "%P:%S:RcvIntIn: OPPP_REQUEST_TO_START_FRAMING received\n",
                  DEV_PORT_NAME(Dev));
            Dev->PppState = PPP_STATE_STARTING;
            WorkerQueue(Dev, SwitchToPppMode, Dev, NULL);
            break;
        case OPPP_REQUEST_TO_STOP_FRAMING:
            TRACE(TL_PPP, "%P:%S:RcvIntIn: OPPP_REQUEST_TO_STOP_FRAMING received\n",
                  DEV_PORT_NAME(Dev));
            Dev->PppState = PPP_STATE_STOPPING;
            WorkerQueue(Dev, StopPppMode, Dev, NULL);
            break;
        default:
            DumpNotification("%P:%S:RcvIntIn: Unexpected vendor responds:\n", Dev, Data, Length);
            break;
        }
        break;
    default:
        DumpNotification("%P:%S:RcvIntIn: Unexpected responds:\n", Dev, Data, Length);
        break;
    }
    return Length;
}

static void SetPppState(PDEVICE Dev, ULONG State) {
    KIRQL OldIrql;
    DEVICE_LOCK(Dev, &OldIrql);
    Dev->PppState = State;
    DEVICE_UNLOCK(Dev, OldIrql);
}

NTSTATUS SwitchToPppMode(PVOID Context) {
    PDEVICE Dev = (PDEVICE)Context;
    ULONG NewState = PPP_STATE_OFF;
    TRACE(TL_PPP, "%P:%S:SwitchToPppMode[\n", DEV_PORT_NAME(Dev));
    // Switch on a frame boundary of the host's byte stream.
    LARGE_INTEGER Timeout;
    Timeout.QuadPart = PPP_FLAG_WAIT_100NS;
    NTSTATUS Status =
        KeWaitForSingleObject(&Dev->FlagSentEvent, Executive, KernelMode, FALSE, &Timeout);
    if (Status == STATUS_SUCCESS) {
        Status = GetSpecialChars(Dev);
        if (NT_SUCCESS(Status)) {
            KIRQL OldIrql;
            DEVICE_LOCK(Dev, &OldIrql);
            PppFramerInit(&Dev->PppFramer, Dev);
            PppDeFramerInit(&Dev->PppDeFramer, Dev);
            DEVICE_UNLOCK(Dev, OldIrql);
            Status = StartFraming(Dev);
        }
        if (NT_SUCCESS(Status))
            NewState = PPP_STATE_ON;
        else
            TRACE(TL_ERROR, "%P:%S:SwitchToPppMode StartFraming failed with %08x\n",
                  DEV_PORT_NAME(Dev), Status);
    } else if (Status == STATUS_TIMEOUT)
        TRACE(TL_ERROR, "%P:%S:SwitchToPppMode failed with timeout!!!\n", DEV_PORT_NAME(Dev));
    else
        TRACE_ASSERT(0);
    SetPppState(Dev, NewState);
    // Sending resumes in the new mode.
    Dev->WritePipe.Indicate(Dev, NULL, 0);
    TRACE(TL_PPP, "%P:%S:SwitchToPppMode] %D\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS StopPppMode(PVOID Context) {
    PDEVICE Dev = (PDEVICE)Context;
    NTSTATUS Status = StopFraming(Dev);
    SetPppState(Dev, PPP_STATE_OFF);
    return Status;
}
