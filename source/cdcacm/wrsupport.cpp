// The serial port's side of the send engine (how the serial port and the
// PPP deframer borrow the one bulk-out packet, fill it and hand it on) and
// the queue timer, the periodic tick of the serial read and write
// time-outs.
//
// Environment: GetWriteBuffer, ReturnWriteBuffer and SubmitWriteBuffer up
// to DISPATCH_LEVEL; StartTimer up to DISPATCH_LEVEL; TimerDpcRoutine at
// DISPATCH_LEVEL; StopTimer at PASSIVE_LEVEL.
// Locks: GetWriteBuffer and ReturnWriteBuffer run under the device lock
// (DEVICE.Lock), which also guards WaitingData, TimerActive and the timed
// queues the tick works on; SubmitWriteBuffer takes no lock and is called
// with or without it. TimerPending counts the armed timer plus a
// running tick and changes only by interlocked operations; TimerIdle is
// signalled when it drops to 0.
#define TRACE_FILE "source/cdcacm/wrsupport"
#include "cdcacm.h"

// How long StopTimer waits for a running tick: 1 s, relative.
#define STOP_TIMER_WAIT_100NS (-10000000LL)

BOOLEAN GetWriteBuffer(PDEVICE Dev, PUCHAR* Buffer, PULONG MaxLength, PUSB_PACKET* Packet) {
    PSNDRCV_PIPE Pipe = &Dev->WritePipe;
    if (Pipe->Pool == NULL || !Dev->SendAllowed)
        return FALSE;
    if (Dev->Cfg.useCtsFlowControl && !(Dev->ModemStatus & SERIAL_MSR_CTS) &&
        Dev->WaitingData == 0) {
        TRACE(TL_CTS, "%P:%S:Stop sending because CTS is inactive\n", DEV_PORT_NAME(Dev));
        return FALSE;
    }
    PUSB_PACKET UsbPacket = UsbPacketGet(Pipe->Pool);
    if (UsbPacket == NULL)
        return FALSE;
    *Buffer = UsbPacket->Buffer;
    *MaxLength = Dev->SendChunkSize;
    *Packet = UsbPacket;
    return TRUE;
}

void SubmitWriteBuffer(PDEVICE Dev, PUCHAR Buffer, ULONG Length, PUSB_PACKET Packet) {
    UNREFERENCED_PARAMETER(Buffer);
    TRACE(TL_SND, "%P:%S:[SubmitWriteBuffer %d\n", DEV_PORT_NAME(Dev), Length);
    if (Dev->Cfg.useCtsFlowControl) {
        // Bytes granted while CTS is inactive are used up by what goes out.
        if (Length <= Dev->WaitingData) {
            TRACE(TL_CTS, "%P:%S:Send %u waiting data of %u\n", DEV_PORT_NAME(Dev), Length,
                  Dev->WaitingData);
            Dev->WaitingData -= Length;
        } else
            Dev->WaitingData = 0;
    }
    // clang-format off
    TRACE_ASSERT(PTRVALID(Packet,USB_PACKET));
    // clang-format on
    Packet->Length = Length;
    NTSTATUS Status = SubmitWriteUrb(&Dev->WritePipe, Packet);
    if (Status != STATUS_SUCCESS && Status != STATUS_PENDING)
        TRACE(TL_ERROR, "%P:%S:SubmitWriteBuffer IoCallDriver failed %D\n", DEV_PORT_NAME(Dev),
              Status);
    TRACE(TL_SND, "%P:%S:]SubmitWriteBuffer\n", DEV_PORT_NAME(Dev));
}

void ReturnWriteBuffer(PDEVICE Dev, PUCHAR Buffer, PUSB_PACKET Packet) {
    UNREFERENCED_PARAMETER(Buffer);
    TRACE(TL_SND, "%P:%S:ReturnWriteBuffer\n", DEV_PORT_NAME(Dev));
    UsbPacketPut(Packet);
}

ULONG SndOutComplete(PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(Length);
    TRACE(TL_SND, "%P:%S:SndOutComplete\n", DEV_PORT_NAME(Dev));
    SerPortSend(Dev->Port.SerPort, FALSE);
    return 0;
}

void StartTimer(PDEVICE Dev) {
    Dev->TimerActive = 1;
    if (!KeSetTimer(&Dev->QueueTimer.Timer, Dev->QueueTimer.DueTime, &Dev->QueueTimer.Dpc))
        InterlockedIncrement(&Dev->TimerPending);
}

VOID TimerDpcRoutine(PTIMER_OBJ TimerObj, PVOID Context) {
    PDEVICE Dev = (PDEVICE)Context;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    DEVICE_LOCK_AT_DPC(Dev);
    if (Dev->TimerActive) {
        PSER_PORT SerPort = Dev->Port.SerPort;
        SqueueTimerTick(&SerPort->RcvQueue);
        SqueueTimerTick(&SerPort->SndQueue);
        // Counted only when this arms it: a StartTimer during the tick may
        // have armed and counted it already.
        if (!KeSetTimer(&TimerObj->Timer, TimerObj->DueTime, &TimerObj->Dpc))
            InterlockedIncrement(&Dev->TimerPending);
    }
    DEVICE_UNLOCK_AT_DPC(Dev);
    if (InterlockedDecrement(&Dev->TimerPending) == 0)
        KeSetEvent(&Dev->TimerIdle, IO_NO_INCREMENT, FALSE);
}

void StopTimer(PDEVICE Dev) {
    KIRQL OldIrql;
    DEVICE_LOCK(Dev, &OldIrql);
    Dev->TimerActive = 0;
    if (KeCancelTimer(&Dev->QueueTimer.Timer))
        InterlockedDecrement(&Dev->TimerPending);
    DEVICE_UNLOCK(Dev, OldIrql);

    KeClearEvent(&Dev->TimerIdle);
    if (Dev->TimerPending > 0) {
        LARGE_INTEGER Timeout;
        Timeout.QuadPart = STOP_TIMER_WAIT_100NS;
        if (KeWaitForSingleObject(&Dev->TimerIdle, Executive, KernelMode, FALSE, &Timeout) ==
            STATUS_TIMEOUT)
            TRACE(TL_ERROR, "%P:%S:PwrSetDevicePowerState KeWaitForSingleObject %d\n",
                  DEV_PORT_NAME(Dev), Dev->TimerPending);
    }
}
