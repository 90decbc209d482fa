// The port object: its creation and deletion, the physical port's
// initialisation, the modem's re-initialisation with its delayed retries,
// the system error log, resolving a request's device object to the device
// context and its embedded port object, the wait-on-mask events that
// complete the pending IOCTL_SERIAL_WAIT_ON_MASK request, and the CDC class
// and vendor control requests sent on the modem's default pipe.
//
// Re-initialisation: Reinit runs as a work item under DeviceMutex (never
// beside another work item of the device); ScheduleReinit and
// ReinitTimerFnc take no lock and count ReinitPending with interlocked
// operations; InitPort takes the device lock only around the modem-status
// copy and its events.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent and
// CompleteWaitIrp up to DISPATCH_LEVEL; DelayWaitCancelFnc at
// DISPATCH_LEVEL (timer callback); the control requests at PASSIVE_LEVEL
// under DeviceMutex, which also guards PcStatus; GetSpecialChars takes the
// device lock to change the PPP framer's escape table.
// Locks: GetDevAndPort takes none; it reads only the extension's fixed
// fields. The device lock (DEVICE.Lock) guards WaitIrp, PendingEvents and
// the settings' WaitMask: IndicateWaitEvent and CompleteWaitIrp run with it
// held by their caller, DelayWaitCancelFnc takes it. CompleteWaitIrp may
// take the system cancel spin lock for a moment inside the device lock;
// nobody holds the cancel spin lock while waiting for the device lock. The
// wait IRP is handed to the deferred-completion queue, never completed under
// the lock.
#define TRACE_FILE "source/cdcacm/port"
#include "cdcacm.h"

VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port) {
    // Both kinds of extension start with their Type; the attach object's
    // extension points at the data port's DEVICE.
    PVOID Extension = DeviceObject->DeviceExtension;
    PDEVICE Device;

    switch (*(PULONG)Extension) {
    case EXTENSION_TYPE_DEVICE:
        Device = (PDEVICE)Extension;
        break;
    case EXTENSION_TYPE_ATTACH:
        Device = ((PATTACH_OBJ)Extension)->Device;
        break;
    default:
        return;
    }
    if (Dev != NULL)
        *Dev = Device;
    if (Port != NULL)
        *Port = &Device->Port;
}

VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask) {
    TRACE(TL_WAIT, "%PIndicateWaitEvent Mask: %x\n", Mask);
    // An event outside the mask at the moment it happens is lost, even if
    // the mask is widened later.
    WaitPort->PendingEvents |= WaitPort->SerPort->Settings.WaitMask & Mask;
    if (WaitPort->WaitIrp != NULL && WaitPort->PendingEvents != 0) {
        ULONG Events = WaitPort->PendingEvents;
        WaitPort->PendingEvents = 0;
        CompleteWaitIrp(WaitPort, Events);
    }
}

VOID CompleteWaitIrp(PPORT_OBJ Port, ULONG Mask) {
    PDEVICE Dev = Port->Device;
    // Whatever completes the wait makes a delayed cancellation pointless.
    KeCancelTimer(&Dev->WaitCancelTimer.Timer);
    PIRP Irp = Port->WaitIrp;
    if (Irp == NULL)
        return;
    TRACE(TL_WAIT, "%PComplete Wait IRP: %x Mask: %x\n", (ULONG)(ULONG_PTR)Irp, Mask);
    Port->WaitIrp = NULL;
    if (IoSetCancelRoutine(Irp, NULL) == NULL) {
        // IoCancelIrp has taken the cancel routine, which reads the IRP until
        // it releases the cancel spin lock: wait for that release before the
        // IRP goes to be completed. The timer the routine arms afterwards
        // finds this wait gone and leaves the next one alone.
        KIRQL CancelIrql;
        IoAcquireCancelSpinLock(&CancelIrql);
        IoReleaseCancelSpinLock(CancelIrql);
    }
    Irp->IoStatus.Status = Dev->UsbDeviceEnabled ? STATUS_SUCCESS : STATUS_DEVICE_REMOVED;
    Irp->IoStatus.Information = sizeof(ULONG);
    *(PULONG)Irp->AssociatedIrp.SystemBuffer = Mask;
    QueueCompleteIrp(&Dev->CompleteQueue, Irp);
}

VOID DelayWaitCancelFnc(PTIMER_OBJ Timer, PVOID Context) {
    UNREFERENCED_PARAMETER(Timer);
    PDEVICE Dev = (PDEVICE)Context;
    TRACE(TL_INFO, "%P:%S:DelayWaitCancelFnc\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    PPORT_OBJ Port = &Dev->Port;
    DEVICE_LOCK_AT_DPC(Port->Device);
    // The timer is armed only for a cancelled wait. Whatever completes that
    // wait first cancels the timer, but a DPC already queued or running
    // still comes here, as does a timer armed by a cancel routine that lost
    // the race with the completion: a wait that is not cancelled is a newer
    // one, and not ours to end.
    PIRP Irp = Port->WaitIrp;
    if (Irp == NULL || Irp->Cancel)
        CompleteWaitIrp(Port, 0);
    DEVICE_UNLOCK_AT_DPC(Port->Device);
}

// The class or vendor requests all address the communication interface.
static VOID InitCtrlRequest(PUSB_CTRL_REQUEST Request, UCHAR Code, ULONG Interface) {
    RtlZeroMemory(Request, sizeof(*Request));
    Request->Type = BMREQUEST_CLASS;
    Request->Recipient = BMREQUEST_TO_INTERFACE;
    Request->Request = Code;
    Request->Index = (USHORT)Interface;
}

// A request without a data stage.
static NTSTATUS SendCtrlRequest(PDEVICE Dev, UCHAR Type, UCHAR Code, USHORT Value) {
    USB_CTRL_REQUEST Request;
    ULONG Length = 0;
    InitCtrlRequest(&Request, Code, Dev->Cfg.UsbInterface);
    Request.Type = Type;
    Request.Value = Value;
    return ClassVendorRequest(FALSE, Dev, Dev->ControlIrp, &Request, NULL, &Length);
}

NTSTATUS SetPcStatus(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[SetPcStatus: %02x\n", DEV_PORT_NAME(Dev), Dev->PcStatus);
    NTSTATUS Status =
        SendCtrlRequest(Dev, BMREQUEST_CLASS, CDC_SET_CONTROL_LINE_STATE, Dev->PcStatus);
    TRACE(TL_SND, "%P:%S:]SetPcStatus (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// PcStatus keeps the new lines even when the request fails: the next
// SetPcStatus sends them again.
static NTSTATUS ChangeLines(PDEVICE Dev, UCHAR Set, UCHAR Clear) {
    Dev->PcStatus = (UCHAR)((Dev->PcStatus | Set) & ~Clear);
    return SetPcStatus(Dev);
}

NTSTATUS SetDTR(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[SetDTR\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, PC_STATUS_DTR, 0);
    TRACE(TL_MODEM, "%P:%S:]SetDTR (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ClrDTR(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[ClrDTR\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, 0, PC_STATUS_DTR);
    TRACE(TL_MODEM, "%P:%S:]ClrDTR (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SetRTS(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[SetRTS\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, PC_STATUS_RTS, 0);
    TRACE(TL_MODEM, "%P:%S:]SetRTS (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ClrRTS(PDEVICE Dev) {
    TRACE(TL_MODEM, "%P:%S:[ClrRTS\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = ChangeLines(Dev, 0, PC_STATUS_RTS);
    TRACE(TL_MODEM, "%P:%S:]ClrRTS (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// wValue 0xFFFF holds the break until the next SEND_BREAK with 0.
NTSTATUS SendBreak(PDEVICE Dev, BOOLEAN On) {
    TRACE(TL_SND, "%P:%S:[SendBreak\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_CLASS, CDC_SEND_BREAK, On ? 0xFFFF : 0);
    TRACE(TL_SND, "%P:%S:]SendBreak (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS SendBreakOn(PDEVICE Dev) {
    return SendBreak(Dev, TRUE);
}

NTSTATUS SendBreakOff(PDEVICE Dev) {
    return SendBreak(Dev, FALSE);
}

// The CDC line coding: the stored settings, neither checked nor converted.
NTSTATUS SendLineCoding(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[SendLineCoding\n", DEV_PORT_NAME(Dev));
    PSER_SETTINGS Settings = &Dev->Port.SerPort->Settings;
    UCHAR Coding[CDC_LINE_CODING_BYTES];
    ULONG Rate = Settings->BaudRate;
    Coding[0] = (UCHAR)Rate;
    Coding[1] = (UCHAR)(Rate >> 8);
    Coding[2] = (UCHAR)(Rate >> 16);
    Coding[3] = (UCHAR)(Rate >> 24);
    Coding[4] = Settings->StopBits;
    Coding[5] = Settings->Parity;
    Coding[6] = Settings->WordLength;
    USB_CTRL_REQUEST Request;
    ULONG Length = sizeof(Coding);
    InitCtrlRequest(&Request, CDC_SET_LINE_CODING, Dev->Cfg.UsbInterface);
    NTSTATUS Status = ClassVendorRequest(FALSE, Dev, Dev->ControlIrp, &Request, Coding, &Length);
    TRACE(TL_SND, "%P:%S:]SendLineCoding (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

// The modem's table of characters to escape replaces the framer's whole
// table; a failure leaves the old one.
NTSTATUS GetSpecialChars(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[GetSpecialChars\n", DEV_PORT_NAME(Dev));
    UCHAR Chars[PPP_SPECIAL_CHARS_BYTES];
    ULONG Length = sizeof(Chars);
    USB_CTRL_REQUEST Request;
    InitCtrlRequest(&Request, VENDOR_GET_SPECIAL_CHARS, Dev->Cfg.UsbInterface);
    Request.Type = BMREQUEST_VENDOR;
    NTSTATUS Status = ClassVendorRequest(TRUE, Dev, Dev->ControlIrp, &Request, Chars, &Length);
    if (NT_SUCCESS(Status)) {
        if (TraceMask & TL_PPP) {
            TracePrint("%P:%S:GetSpecialChars: called\n", DEV_PORT_NAME(Dev));
            TraceDump(Chars, Length);
        }
        KIRQL OldIrql;
        DEVICE_LOCK(Dev, &OldIrql);
        PppSetSpecialChars(&Dev->PppFramer, Chars, Length);
        DEVICE_UNLOCK(Dev, OldIrql);
    }
    TRACE(TL_SND, "%P:%S:]GetSpecialChars (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS StartFraming(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[StartFraming\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_VENDOR, VENDOR_START_FRAMING, 0);
    TRACE(TL_SND, "%P:%S:]StartFraming (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS StopFraming(PDEVICE Dev) {
    TRACE(TL_SND, "%P:%S:[StopFraming\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SendCtrlRequest(Dev, BMREQUEST_VENDOR, VENDOR_STOP_FRAMING, 0);
    TRACE(TL_SND, "%P:%S:]StopFraming (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus) {
    *ModemStatus = Dev->ModemStatus;
}

// ---- Port object, re-initialisation and error log ----

#define LOG_MESSAGE_BYTES 104 // 51 characters and the terminator
#define LOG_STRING_OFFSET 40
#define LOG_ENTRY_OVERHEAD 50
#define LOG_UNIQUE_VALUE 0xEBEBEBEB
#define REINIT_DELAY_MS 500
#define REINIT_MAX_RETRIES 4
#define REINIT_MAX_QUEUED 2

NTSTATUS CreatePort(PDEVICE Dev, PPORT_OBJ Port) {
    TRACE(TL_LIFECYCLE, "%P:%S:[CreatePort \n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    Port->Device = Dev;
    IrpQueueInit(&Port->ReadIrpQueue);
    IrpQueueInit(&Port->WriteIrpQueue);
    Port->Magic = PORT_OBJ_MAGIC;
    NTSTATUS Status = DPoolInit(&Port->RequestPool, 5, 40, 10, sizeof(SER_REQUEST));
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:CreatePort: DPoolInit failed (%D)\n", DEV_PORT_NAME(Dev), Status);
        DeletePort(Port);
        TRACE(TL_ERROR, "%P:%S:]CreatePort (%D) \n", DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    PDEVICE_OBJECT DataPort = Port->DeviceObject;
    DataPort->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    DataPort->Flags &= ~DO_DEVICE_INITIALIZING;
    Status = AddPort(&Port->SerPort, Dev, Dev->Cfg.ReadCircBufferSize, Dev->Cfg.WriteCircBufferSize,
                     Dev->Cfg.TimerInterval, Port);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:CreatePort: AddPort failed (%D)\n", DEV_PORT_NAME(Dev), Status);
        DeletePort(Port);
        TRACE(TL_ERROR, "%P:%S:]CreatePort (%D) \n", DEV_PORT_NAME(Dev), STATUS_UNSUCCESSFUL);
        return STATUS_UNSUCCESSFUL;
    }
    TRACE(TL_LIFECYCLE, "%P:%S]CreatePort (%D) \n", DEV_PORT_NAME(Dev), STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

VOID DeletePort(PPORT_OBJ Port) {
    TRACE(TL_LIFECYCLE, "%P:%S:[DeletePort \n", DEV_PORT_NAME(Port->Device));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    if (Port->SerPort != NULL) {
        DeleteSerPort(Port->SerPort);
        Port->SerPort = NULL;
    }
    if (Port->InterfaceName.Buffer != NULL) {
        IoSetDeviceInterfaceState(&Port->InterfaceName, FALSE);
        RtlFreeUnicodeString(&Port->InterfaceName);
        Port->InterfaceName.Buffer = NULL;
    }
    DPoolExit(&Port->RequestPool);
    TRACE(TL_LIFECYCLE, "%P:%S:]DeletePort \n", DEV_PORT_NAME(Port->Device));
}

// Resets the receive, interrupt and write pipes in that order; the first
// failure ends it.
static NTSTATUS ResetTransferPipes(PDEVICE Dev) {
    const struct {
        PSNDRCV_PIPE Pipe;
        const char* Failed;
    } Steps[] = {
        {&Dev->ReceivePipe, "%P:%S:InitPort ResetPipe ReceivePipe failed (%D)\n"},
        {&Dev->IntPipe, "%P:%S:InitPort ResetPipe IntPipe failed (%D)\n"},
        {&Dev->WritePipe, "%P:%S:InitPort ResetPipe WritePipe failed (%D)\n"},
    };
    for (const auto& Step : Steps) {
        NTSTATUS Status = ResetPipe(&Dev->UsbDevice, Step.Pipe->Pipe);
        if (!NT_SUCCESS(Status)) {
            TRACE(TL_ERROR, Step.Failed, DEV_PORT_NAME(Dev), Status);
            return Status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS InitPort(PDEVICE Dev, BOOLEAN ResetPipes) {
    TRACE(TL_LIFECYCLE, "%P:%S:[InitPort\n", DEV_PORT_NAME(Dev));
    NTSTATUS Status = SetPcStatus(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:InitPort SetPcStatus failed (%D)\n", DEV_PORT_NAME(Dev), Status);
    } else {
        // The modem status becomes what the modem last reported; a waiting
        // application sees the lines that changed meanwhile as their events
        // (the status bits themselves are no event mask).
        KIRQL OldIrql;
        DEVICE_LOCK(Dev, &OldIrql);
        ULONG Changed = Dev->ModemStatus ^ Dev->ReceivedModemStatus;
        Dev->ModemStatus = Dev->ReceivedModemStatus;
        IndicateWaitEvent(&Dev->Port, ModemLineEvents(Changed));
        DEVICE_UNLOCK(Dev, OldIrql);
        Dev->SendChunkSize = Dev->Cfg.FlowTest != 0 ? 64 : Dev->Cfg.WriteBufferSize;
        if (ResetPipes)
            Status = ResetTransferPipes(Dev);
    }
    TRACE(TL_LIFECYCLE, "%P:%S:]InitPort (%D)\n", DEV_PORT_NAME(Dev), Status);
    if (!NT_SUCCESS(Status))
        LogError(Dev->DriverObject, LOG_ERROR_CODE, "Unable to init physical port.");
    return Status;
}

NTSTATUS Reinit(PDEVICE Dev) {
    TRACE(TL_INFO, "%P:%S:[Reinit\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    BOOLEAN Done = FALSE;
    Dev->DeviceInitialized = FALSE;
    if (!Dev->UsbDeviceEnabled) {
        TRACE(TL_INFO, "%P:%S:Reinit: UsbDeviceEnabled not enabled\n", DEV_PORT_NAME(Dev));
        Done = TRUE;
    } else if (Dev->DevicePowerState != PowerDeviceD0) {
        TRACE(TL_INFO, "%P:%S:Reinit: Device is in sleep mode\n", DEV_PORT_NAME(Dev));
        Done = TRUE;
    } else {
        TRACE(TL_INFO, "%P:%S:Reinit Set Power state\n", DEV_PORT_NAME(Dev));
        SerPortEnable(Dev->Port.SerPort, TRUE);
        TRACE(TL_INFO, "%P:%S:Reinit stop sndrcv\n", DEV_PORT_NAME(Dev));
        StopSendAndReceive(Dev, TRUE);
        if (Dev->ReinitCount > 1) {
            TRACE(TL_INFO, "%P:%S:Reinit: USBResetDevice \n", DEV_PORT_NAME(Dev));
            NTSTATUS ResetStatus = ResetDevice(Dev);
            if (!NT_SUCCESS(ResetStatus))
                TRACE(TL_ERROR, "%P:%S:Reinit: ResetDevice failed (%D)\n", DEV_PORT_NAME(Dev),
                      ResetStatus);
        }
        TRACE(TL_INFO, "%P:%S:Reinit Init Port\n", DEV_PORT_NAME(Dev));
        NTSTATUS Status = InitPort(Dev, TRUE);
        if (NT_SUCCESS(Status)) {
            TRACE(TL_INFO, "%P:%S:Reinit start sndrcv\n", DEV_PORT_NAME(Dev));
            StartSendAndReceive(Dev);
            StartTimer(Dev);
            SerPortEnable(Dev->Port.SerPort, FALSE);
            Done = TRUE;
            Dev->DeviceInitialized = TRUE;
            Dev->ReinitCount = 0;
            RequestWakeupIrp(Dev);
        } else
            TRACE(TL_ERROR, "%P:%S:Reinit: InitPort failed (%D)\n", DEV_PORT_NAME(Dev), Status);
    }
    if (Dev->PnpState == PNP_STATE_STARTED && !Done && Dev->ReinitCount < REINIT_MAX_RETRIES) {
        Dev->ReinitCount++;
        TRACE(TL_INFO, "%P:%S:Reinit: Schedule delayed reinit\n", DEV_PORT_NAME(Dev));
        KeSetTimer(&Dev->ReinitTimer.Timer, Dev->ReinitTimer.DueTime, &Dev->ReinitTimer.Dpc);
    }
    InterlockedDecrement(&Dev->ReinitPending);
    TRACE(TL_INFO, "%P:%S:]Reinit\n", DEV_PORT_NAME(Dev));
    return STATUS_SUCCESS;
}

static NTSTATUS ReinitWorkItem(PVOID Context) {
    return Reinit((PDEVICE)Context);
}

VOID ScheduleReinit(PDEVICE Dev) {
    TRACE(TL_INFO, "%P:%S:ScheduleReinit\n", DEV_PORT_NAME(Dev));
    // Check and count in one step, so that racing callers never queue a third.
    for (;;) {
        LONG Pending = Dev->ReinitPending;
        if (Pending >= REINIT_MAX_QUEUED)
            return;
        if (InterlockedCompareExchange(&Dev->ReinitPending, Pending + 1, Pending) == Pending)
            break;
    }
    // A refused work item never runs to give its count back.
    if (!WorkerQueue(Dev, ReinitWorkItem, Dev, NULL))
        InterlockedDecrement(&Dev->ReinitPending);
}

VOID ReinitTimerFnc(PTIMER_OBJ TimerObj, PVOID Context) {
    UNREFERENCED_PARAMETER(TimerObj);
    PDEVICE Dev = (PDEVICE)Context;
    TRACE(TL_INFO, "%P:%S:ReinitTimerFnc\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    ScheduleReinit(Dev);
}

VOID LogError(PVOID IoObject, ULONG ErrorCode, const char* Message) {
    WCHAR Buffer[LOG_MESSAGE_BYTES / sizeof(WCHAR)];
    UNICODE_STRING Text;
    ANSI_STRING Ansi;
    Text.Buffer = Buffer;
    Text.Length = 0;
    Text.MaximumLength = sizeof(Buffer);
    RtlInitAnsiString(&Ansi, Message);
    if (!NT_SUCCESS(RtlAnsiStringToUnicodeString(&Text, &Ansi, FALSE))) {
        TRACE(TL_ASSERT, "%P:LogError:FATAL: conversion of '%s' to UNICODE failed\n", Message);
        // The entry still tells what went wrong: the message cut to what
        // fits, never more than was converted.
        Ansi.Length = (USHORT)(sizeof(Buffer) / sizeof(WCHAR) - 1);
        Text.Length = 0;
        if (!NT_SUCCESS(RtlAnsiStringToUnicodeString(&Text, &Ansi, FALSE)))
            Text.Length = 0;
    }
    UCHAR Size = (UCHAR)(Text.Length + LOG_ENTRY_OVERHEAD);
    PUCHAR Entry = (PUCHAR)IoAllocateErrorLogEntry(IoObject, Size);
    if (Entry == NULL) {
        TRACE(TL_ASSERT, "%P:LogError:FATAL: IoAllocateErrorLogEntry failed, size:%i\n", Size);
        return;
    }
    RtlZeroMemory(Entry, Size);
    PIO_ERROR_LOG_PACKET Packet = (PIO_ERROR_LOG_PACKET)Entry;
    Packet->NumberOfStrings = 1;
    Packet->StringOffset = LOG_STRING_OFFSET;
    Packet->ErrorCode = (NTSTATUS)ErrorCode;
    Packet->UniqueErrorValue = LOG_UNIQUE_VALUE;
    Packet->FinalStatus = (NTSTATUS)ErrorCode;
    RtlCopyMemory(Entry + LOG_STRING_OFFSET, Text.Buffer, Text.Length);
    IoWriteErrorLogEntry(Entry);
    TRACE(TL_ERROR, "%P:LogError: '%s'\n", Message);
}

VOID LogNoMemory(PVOID IoObject, ULONG ErrorCode) {
    LogError(IoObject, ErrorCode, "Unable to allocate memory.");
}

VOID CopyPortName(PDEVICE Dev, WCHAR* Copy) {
    const WCHAR* Name = DEV_PORT_NAME(Dev);
    ULONG Index = 0;
    for (; Index + 1 < PORT_NAME_COPY_CHARS && Name[Index] != 0; Index++)
        Copy[Index] = Name[Index];
    Copy[Index] = 0;
}

VOID BuildNumberedName(PUNICODE_STRING Dest, PCWSTR Prefix, PCWSTR Base, ULONG Number) {
    WCHAR Digits[12]; // 24 bytes: ten digits and the terminator
    UNICODE_STRING Decimal;
    Decimal.Buffer = Digits;
    Decimal.Length = 0;
    Decimal.MaximumLength = sizeof(Digits);
    Dest->Length = 0;
    if (Prefix != NULL)
        RtlAppendUnicodeToString(Dest, Prefix);
    RtlAppendUnicodeToString(Dest, Base);
    if (NT_SUCCESS(RtlIntegerToUnicodeString(Number, 10, &Decimal)))
        RtlAppendUnicodeStringToString(Dest, &Decimal);
}
