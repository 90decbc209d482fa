// Serial I/O control dispatch: stores and reports the serial settings of
// the serial port object, hands line coding, DTR, RTS and break to work
// items that send the CDC control requests, purges queues and buffers,
// reports status, statistics and properties, and runs the wait-on-mask
// requests. Also the internal serial I/O controls that save and restore the
// time-out and flow-control settings for kernel clients, and the table of
// debug names of I/O control codes.
//
// Environment: DispatchDeviceControl and DispatchInternalDeviceControl are
// called in the requester's context at PASSIVE_LEVEL; WaitIrp_IrpCancelRoutine
// by the I/O manager with the system cancel spin lock held.
// Locks: each request is handled under the device lock (DEVICE.Lock with
// CheckLock), which guards the settings, the queues, the circular buffers,
// the wait-on-mask state and ReportedModemStatus. The lock is released
// before an IRP is handed on: to the deferred-completion queue, to a work
// item, or to the write dispatch. The cancel routine takes no driver lock.
#define TRACE_FILE "source/cdcacm/ioctl"
#include "cdcacm.h"

// The public request structures, pinned at the sizes applications use.
static_assert(sizeof(SERIAL_BAUD_RATE) == 4, "SERIAL_BAUD_RATE");
static_assert(sizeof(SERIAL_QUEUE_SIZE) == 8, "SERIAL_QUEUE_SIZE");
static_assert(sizeof(SERIAL_LINE_CONTROL) == 3, "SERIAL_LINE_CONTROL");
static_assert(sizeof(SERIAL_TIMEOUTS) == 20, "SERIAL_TIMEOUTS");
static_assert(sizeof(SERIAL_CHARS) == 6, "SERIAL_CHARS");
static_assert(sizeof(SERIAL_HANDFLOW) == 16, "SERIAL_HANDFLOW");
static_assert(sizeof(SERIAL_STATUS) == 20, "SERIAL_STATUS");
static_assert(sizeof(SERIAL_COMMPROP) == 64, "SERIAL_COMMPROP");
static_assert(sizeof(SERIALPERF_STATS) == 24, "SERIALPERF_STATS");
static_assert(sizeof(SERIAL_BASIC_SETTINGS) == 44, "SERIAL_BASIC_SETTINGS");

#define FIRST_SERIAL_IOCTL 0x1B0004 // IOCTL_SERIAL_SET_BAUD_RATE
#define LAST_SERIAL_IOCTL 0x1B0090  // IOCTL_SERIAL_CLEAR_STATS, the last code with a handler

// Modem status lines in the modem-status register layout; the low nibble of
// a reported status holds the delta bits of the same lines.
#define MODEM_STATUS_LINES 0xF0
#define MODEM_STATUS_DELTA_SHIFT 4

// A read interval time-out that, with both read total time-outs 0, asks
// reads to return at once with what is buffered.
#define READ_INTERVAL_RETURN_AT_ONCE 0xFFFFFFFF

// Bits of PcStatus: the control lines sent to the modem.
#define PC_STATUS_DTR 0x01
#define PC_STATUS_RTS 0x02

struct IOCTL_CODE_NAME {
    ULONG Code;
    const char* Name;
};

static const IOCTL_CODE_NAME IoctlCodeNames[] = {
    {0x1B0004, "IOCTL_SERIAL_SET_BAUD_RATE"},
    {0x1B0008, "IOCTL_SERIAL_SET_QUEUE_SIZE"},
    {0x1B000C, "IOCTL_SERIAL_SET_LINE_CONTROL"},
    {0x1B0010, "IOCTL_SERIAL_SET_BREAK_ON"},
    {0x1B0014, "IOCTL_SERIAL_SET_BREAK_OFF"},
    {0x1B0018, "IOCTL_SERIAL_IMMEDIATE_CHAR"},
    {0x1B001C, "IOCTL_SERIAL_SET_TIMEOUTS"},
    {0x1B0020, "IOCTL_SERIAL_GET_TIMEOUTS"},
    {0x1B0024, "IOCTL_SERIAL_SET_DTR"},
    {0x1B0028, "IOCTL_SERIAL_CLR_DTR"},
    {0x1B002C, "IOCTL_SERIAL_RESET_DEVICE"},
    {0x1B0030, "IOCTL_SERIAL_SET_RTS"},
    {0x1B0034, "IOCTL_SERIAL_CLR_RTS"},
    {0x1B0038, "IOCTL_SERIAL_SET_XOFF"},
    {0x1B003C, "IOCTL_SERIAL_SET_XON"},
    {0x1B0040, "IOCTL_SERIAL_GET_WAIT_MASK"},
    {0x1B0044, "IOCTL_SERIAL_SET_WAIT_MASK"},
    {0x1B0048, "IOCTL_SERIAL_WAIT_ON_MASK"},
    {0x1B004C, "IOCTL_SERIAL_PURGE"},
    {0x1B0050, "IOCTL_SERIAL_GET_BAUD_RATE"},
    {0x1B0054, "IOCTL_SERIAL_GET_LINE_CONTROL"},
    {0x1B0058, "IOCTL_SERIAL_GET_CHARS"},
    {0x1B005C, "IOCTL_SERIAL_SET_CHARS"},
    {0x1B0060, "IOCTL_SERIAL_GET_HANDFLOW"},
    {0x1B0064, "IOCTL_SERIAL_SET_HANDFLOW"},
    {0x1B0068, "IOCTL_SERIAL_GET_MODEMSTATUS"},
    {0x1B006C, "IOCTL_SERIAL_GET_COMMSTATUS"},
    {0x1B0070, "IOCTL_SERIAL_XOFF_COUNTER"},
    {0x1B0074, "IOCTL_SERIAL_GET_PROPERTIES"},
    {0x1B0078, "IOCTL_SERIAL_GET_DTRRTS"},
    {0x1B007C, "IOCTL_SERIAL_LSRMST_INSERT"},
    {0x370200, "IOCTL_SERENUM_EXPOSE_HARDWARE"},
    {0x370204, "IOCTL_SERENUM_REMOVE_HARDWARE"},
    {0x370208, "IOCTL_SERENUM_PORT_DESC"},
    {0x37020C, "IOCTL_SERENUM_GET_PORT_NAME"},
    {0x1B0080, "IOCTL_SERIAL_CONFIG_SIZE"},
    {0x1B0084, "IOCTL_SERIAL_GET_COMMCONFIG"},
    {0x1B0088, "IOCTL_SERIAL_SET_COMMCONFIG"},
    {0x1B008C, "IOCTL_SERIAL_GET_STATS"},
    {0x1B0090, "IOCTL_SERIAL_CLEAR_STATS"},
    {0x1B0094, "IOCTL_SERIAL_GET_MODEM_CONTROL"},
    {0x1B0098, "IOCTL_SERIAL_SET_MODEM_CONTROL"},
    {0x1B009C, "IOCTL_SERIAL_SET_FIFO_CONTROL"},
    {0x1B0004, "IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE"},
    {0x1B0008, "IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE"},
    {0x1B000C, "IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS"},
    {0x1B0010, "IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS"},
    {0, NULL},
};

const char* IoctlCodeName(ULONG Code) {
    for (const IOCTL_CODE_NAME* Entry = IoctlCodeNames; Entry->Name != NULL; Entry++) {
        if (Entry->Code == Code)
            return Entry->Name;
    }
    return "Unknown IO Ctrl code";
}

// One serial I/O control request while it is being handled.
typedef struct _IOCTL_REQUEST {
    PDEVICE Dev;
    PPORT_OBJ Port;
    PSER_PORT SerPort;
    PDEVICE_OBJECT DeviceObject; // the one the request came through
    PIRP Irp;
    PVOID Buffer; // the system buffer: input on entry, output on completion
    ULONG InLength;
    ULONG OutLength;
    ULONG Code;
    const WCHAR* Via; // "S": came through the data port, "A": through the attach object
    KIRQL OldIrql;    // to release the device lock with
    NTSTATUS Status;  // the IRP's final status, or the dispatch result of a taken request
} IOCTL_REQUEST, *PIOCTL_REQUEST;

// A handler returns TRUE when it has taken the request: the device lock is
// released and Status is the dispatch routine's result. FALSE leads to the
// common end, which completes the IRP with Status.
typedef BOOLEAN (*IOCTL_HANDLER)(PIOCTL_REQUEST Request);

static BOOLEAN InputTooShort(PIOCTL_REQUEST Request, ULONG Needed) {
    if (Request->InLength >= Needed)
        return FALSE;
    TRACE(TL_ERROR, "%PReq %d InBuffer to small:%d expected:%d\n", Request->Code, Request->InLength,
          Needed);
    Request->Status = STATUS_INVALID_PARAMETER;
    return TRUE;
}

static BOOLEAN OutputTooShort(PIOCTL_REQUEST Request, ULONG Needed) {
    if (Request->OutLength >= Needed)
        return FALSE;
    TRACE(TL_ERROR, "%PReq %d OutBuffer to small:%d expected:%d\n", Request->Code,
          Request->OutLength, Needed);
    Request->Status = STATUS_INVALID_PARAMETER;
    return TRUE;
}

static BOOLEAN InvalidCode(PIOCTL_REQUEST Request) {
    TRACE(TL_ERROR, "%P:%S%S:Invalid IO Control Code %D: %s\n", DEV_PORT_NAME(Request->Dev),
          Request->Via, Request->Code, IoctlCodeName(Request->Code));
    Request->Status = STATUS_INVALID_PARAMETER;
    return FALSE;
}

// The work-item form of a control-request operation of the port module.
template <NTSTATUS (*Operation)(PDEVICE)> static NTSTATUS DeviceWork(PVOID Context) {
    return Operation((PDEVICE)Context);
}

// Sends a setting to the modem from a work item, which completes the IRP
// with the request's status. When no work item can be queued (the device is
// going away, or no memory) the setting stays stored and the IRP completes
// with success at the common end.
static BOOLEAN QueueDeviceWork(PIOCTL_REQUEST Request, WORKER_FUNCTION Function) {
    if (!WorkerQueue(Request->Dev, Function, Request->Dev, Request->Irp))
        return FALSE;
    DEVICE_UNLOCK(Request->Dev, Request->OldIrql);
    Request->Status = STATUS_PENDING;
    return TRUE;
}

static BOOLEAN SetBaudRate(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_BAUD_RATE)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    Settings->BaudRate = ((PSERIAL_BAUD_RATE)Request->Buffer)->BaudRate;
    TRACE(TL_IOCTL, "%P:%S%S: BaudRate: %d\n", DEV_PORT_NAME(Request->Dev), Request->Via,
          Settings->BaudRate);
    return QueueDeviceWork(Request, DeviceWork<SendLineCoding>);
}

static BOOLEAN GetBaudRate(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_BAUD_RATE)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    ((PSERIAL_BAUD_RATE)Request->Buffer)->BaudRate = Settings->BaudRate;
    TRACE(TL_IOCTL, "%P:%S%S: BaudRate: %d\n", DEV_PORT_NAME(Request->Dev), Request->Via,
          Settings->BaudRate);
    Request->Irp->IoStatus.Information = sizeof(SERIAL_BAUD_RATE);
    return FALSE;
}

static BOOLEAN SetQueueSize(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_QUEUE_SIZE)))
        return FALSE;
    PDEVICE Dev = Request->Dev;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_QUEUE_SIZE Sizes = (PSERIAL_QUEUE_SIZE)Request->Buffer;
    TRACE(TL_IOCTL, "%P:%S%S: QueueIN: %d, QueueOUT: %d\n", DEV_PORT_NAME(Dev), Request->Via,
          Sizes->InSize, Sizes->OutSize);
    if (Sizes->InSize != Settings->QueueIn) {
        // Received packets may point into the old buffer's data stream:
        // drop them and read afresh into the new buffer.
        RcvPurge(&Dev->ReceivePipe);
        SerPortSetRcvBufferSize(Request->SerPort, Sizes->InSize);
        Settings->QueueIn = Sizes->InSize;
        RcvScheduleDpc(&Dev->ReceivePipe);
    }
    if (Sizes->OutSize != Settings->QueueOut) {
        SerPortSetSndBufferSize(Request->SerPort, Sizes->OutSize);
        Settings->QueueOut = Sizes->OutSize;
    }
    return FALSE;
}

static VOID TraceLineControl(PIOCTL_REQUEST Request) {
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    TRACE(TL_IOCTL, "%P:%S%S: Parity: %d, StopBits: %d, WordLength: %d\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Settings->Parity, Settings->StopBits,
          Settings->WordLength);
}

static BOOLEAN SetLineControl(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_LINE_CONTROL)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_LINE_CONTROL LineControl = (PSERIAL_LINE_CONTROL)Request->Buffer;
    // Stored as given: the modem judges the values it is sent.
    Settings->StopBits = LineControl->StopBits;
    Settings->Parity = LineControl->Parity;
    Settings->WordLength = LineControl->WordLength;
    TraceLineControl(Request);
    return QueueDeviceWork(Request, DeviceWork<SendLineCoding>);
}

static BOOLEAN GetLineControl(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_LINE_CONTROL)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_LINE_CONTROL LineControl = (PSERIAL_LINE_CONTROL)Request->Buffer;
    LineControl->StopBits = Settings->StopBits;
    LineControl->Parity = Settings->Parity;
    LineControl->WordLength = Settings->WordLength;
    TraceLineControl(Request);
    Request->Irp->IoStatus.Information = sizeof(SERIAL_LINE_CONTROL);
    return FALSE;
}

static BOOLEAN SetBreakOn(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<SendBreakOn>);
}

static BOOLEAN SetBreakOff(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<SendBreakOff>);
}

// The write dispatch takes its byte count from the write-length field of
// the stack location, which for an I/O control overlays the output buffer
// length, and its bytes from the system buffer, which holds the input. The
// character is therefore written as a one-byte write of the input buffer:
// the length field is set to 1 before the IRP is handed over. An empty input
// buffer fails like any short buffer.
static BOOLEAN ImmediateChar(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(UCHAR)))
        return FALSE;
    DEVICE_UNLOCK(Request->Dev, Request->OldIrql);
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Request->Irp);
    Stack->Parameters.Write.Length = sizeof(UCHAR);
    Request->Status = DispatchWrite(Request->DeviceObject, Request->Irp);
    return TRUE;
}

static VOID TraceTimeouts(PIOCTL_REQUEST Request) {
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    TRACE(TL_IOCTL,
          "%P:%S%S: ReadIntervalTimeout: %d, ReadTotalTimeoutConstant: %d, "
          "ReadTotalTimeoutMultiplier: %d\n,WriteTotalTimeoutConstant: %d, "
          "WriteTotalTimeoutMultiplier: %d\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Settings->ReadIntervalTimeout,
          Settings->ReadTotalTimeoutConstant, Settings->ReadTotalTimeoutMultiplier,
          Settings->WriteTotalTimeoutConstant, Settings->WriteTotalTimeoutMultiplier);
}

static BOOLEAN SetTimeouts(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_TIMEOUTS)))
        return FALSE;
    PSER_PORT SerPort = Request->SerPort;
    PSER_SETTINGS Settings = &SerPort->Settings;
    PSERIAL_TIMEOUTS Timeouts = (PSERIAL_TIMEOUTS)Request->Buffer;
    Settings->ReadIntervalTimeout = Timeouts->ReadIntervalTimeout;
    Settings->ReadTotalTimeoutConstant = Timeouts->ReadTotalTimeoutConstant;
    Settings->ReadTotalTimeoutMultiplier = Timeouts->ReadTotalTimeoutMultiplier;
    Settings->WriteTotalTimeoutConstant = Timeouts->WriteTotalTimeoutConstant;
    Settings->WriteTotalTimeoutMultiplier = Timeouts->WriteTotalTimeoutMultiplier;
    TraceTimeouts(Request);
    SqueueCheckTimeMode(&SerPort->RcvQueue, Settings);
    SqueueCheckTimeMode(&SerPort->SndQueue, Settings);
    Request->Port->WaitForImmediate =
        Settings->ReadIntervalTimeout == READ_INTERVAL_RETURN_AT_ONCE &&
        Settings->ReadTotalTimeoutConstant == 0 && Settings->ReadTotalTimeoutMultiplier == 0;
    return FALSE;
}

static BOOLEAN GetTimeouts(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_TIMEOUTS)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_TIMEOUTS Timeouts = (PSERIAL_TIMEOUTS)Request->Buffer;
    Timeouts->ReadIntervalTimeout = Settings->ReadIntervalTimeout;
    Timeouts->ReadTotalTimeoutMultiplier = Settings->ReadTotalTimeoutMultiplier;
    Timeouts->ReadTotalTimeoutConstant = Settings->ReadTotalTimeoutConstant;
    Timeouts->WriteTotalTimeoutMultiplier = Settings->WriteTotalTimeoutMultiplier;
    Timeouts->WriteTotalTimeoutConstant = Settings->WriteTotalTimeoutConstant;
    TraceTimeouts(Request);
    Request->Irp->IoStatus.Information = sizeof(SERIAL_TIMEOUTS);
    return FALSE;
}

static BOOLEAN SetDtr(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<SetDTR>);
}

static BOOLEAN ClrDtr(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<ClrDTR>);
}

static BOOLEAN SetRts(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<SetRTS>);
}

static BOOLEAN ClrRts(PIOCTL_REQUEST Request) {
    return QueueDeviceWork(Request, DeviceWork<ClrRTS>);
}

// RESET_DEVICE, SET_XOFF and SET_XON: the modem keeps its own flow control.
static BOOLEAN Ignored(PIOCTL_REQUEST) {
    return FALSE;
}

static BOOLEAN GetWaitMask(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    ULONG WaitMask = Request->SerPort->Settings.WaitMask;
    *(PULONG)Request->Buffer = WaitMask;
    TRACE(TL_WAIT, "%P:%S%S:Mask: %D\n", DEV_PORT_NAME(Request->Dev), Request->Via, WaitMask);
    Request->Irp->IoStatus.Information = sizeof(ULONG);
    return FALSE;
}

// Any bits are accepted; a pending wait completes with mask 0, and events
// raised under the old mask stay pending.
static BOOLEAN SetWaitMask(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    ULONG WaitMask = *(PULONG)Request->Buffer;
    Request->SerPort->Settings.WaitMask = WaitMask;
    TRACE(TL_WAIT, "%P:%S%S:Mask: %D\n", DEV_PORT_NAME(Request->Dev), Request->Via, WaitMask);
    CompleteWaitIrp(Request->Port, 0);
    return FALSE;
}

static BOOLEAN WaitOnMask(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    PDEVICE Dev = Request->Dev;
    PPORT_OBJ Port = Request->Port;
    PIRP Irp = Request->Irp;
    if (Request->SerPort->Settings.WaitMask == 0) {
        TRACE(TL_ERROR, "%P:%S%S:IOCTL_SERIAL_WAIT_ON_MASK: failing request, WaitMask==zero\n",
              DEV_PORT_NAME(Dev), Request->Via);
        Request->Status = STATUS_INVALID_PARAMETER;
        return FALSE;
    }
    if (Irp != Port->WaitIrp)
        CompleteWaitIrp(Port, 0);
    else
        TRACE(TL_ASSERT, "%P:%S%S:Upper driver sends the same WaitIrp again\n", DEV_PORT_NAME(Dev),
              Request->Via);
    TRACE(TL_WAIT, "%P:%S%S:Store new wait IRP: %D\n", DEV_PORT_NAME(Dev), Request->Via,
          (ULONG)(ULONG_PTR)Irp);

    (VOID) IoSetCancelRoutine(Irp, WaitIrp_IrpCancelRoutine);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
        // Cancelled before it could be stored, and the I/O manager will not
        // call the cancel routine any more.
        Request->Status = STATUS_CANCELLED;
        return FALSE;
    }
    Port->WaitIrp = Irp;
    IoMarkIrpPending(Irp);
    // Events that arrived while no wait was pending complete it at once.
    IndicateWaitEvent(Port, 0);
    DEVICE_UNLOCK(Dev, Request->OldIrql);
    Request->Status = STATUS_PENDING;
    return TRUE;
}

// The purge order matters: requests are flushed before the buffers they
// copy from are emptied.
static BOOLEAN Purge(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    PDEVICE Dev = Request->Dev;
    PSER_PORT SerPort = Request->SerPort;
    ULONG Mask = *(PULONG)Request->Buffer;
    TRACE(TL_IOCTL, "%P:%S%S:Mask: %02x\n", DEV_PORT_NAME(Dev), Request->Via, Mask);
    if (Mask & SERIAL_PURGE_RXABORT)
        SqueueFlush(&SerPort->RcvQueue);
    if (Mask & SERIAL_PURGE_TXABORT)
        SqueueFlush(&SerPort->SndQueue);
    if (Mask & SERIAL_PURGE_RXCLEAR) {
        CircBufReset(&SerPort->CircRcvBuf);
        RcvPurge(&Dev->ReceivePipe);
        RcvScheduleDpc(&Dev->ReceivePipe);
    }
    if (Mask & SERIAL_PURGE_TXCLEAR) {
        CircBufReset(&SerPort->CircSendBuf);
        SndPurge(&Dev->WritePipe);
    }
    return FALSE;
}

static BOOLEAN GetChars(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_CHARS)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_CHARS Chars = (PSERIAL_CHARS)Request->Buffer;
    Chars->EofChar = Settings->EofChar;
    Chars->ErrorChar = Settings->ErrorChar;
    Chars->BreakChar = Settings->BreakChar;
    Chars->EventChar = Settings->EventChar;
    Chars->XonChar = Settings->XonChar;
    Chars->XoffChar = Settings->XoffChar;
    Request->Irp->IoStatus.Information = sizeof(SERIAL_CHARS);
    return FALSE;
}

static BOOLEAN SetChars(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_CHARS)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_CHARS Chars = (PSERIAL_CHARS)Request->Buffer;
    Settings->EofChar = Chars->EofChar;
    Settings->ErrorChar = Chars->ErrorChar;
    Settings->BreakChar = Chars->BreakChar;
    Settings->EventChar = Chars->EventChar;
    Settings->XonChar = Chars->XonChar;
    Settings->XoffChar = Chars->XoffChar;
    TRACE(TL_IOCTL,
          "%P:%S%S:EofChar: %B, EventChar: %B, ErrorChar: %B, XonChar: %B, XoffChar: %B\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Settings->EofChar, Settings->EventChar,
          Settings->ErrorChar, Settings->XonChar, Settings->XoffChar);
    return FALSE;
}

static BOOLEAN GetHandflow(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_HANDFLOW)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_HANDFLOW HandFlow = (PSERIAL_HANDFLOW)Request->Buffer;
    HandFlow->ControlHandShake = Settings->ControlHandShake;
    HandFlow->FlowReplace = Settings->FlowReplace;
    HandFlow->XonLimit = (LONG)Settings->XonLimit;
    HandFlow->XoffLimit = (LONG)Settings->XoffLimit;
    Request->Irp->IoStatus.Information = sizeof(SERIAL_HANDFLOW);
    return FALSE;
}

// Stored for GET_HANDFLOW only: flow control is the modem's business.
static BOOLEAN SetHandflow(PIOCTL_REQUEST Request) {
    if (InputTooShort(Request, sizeof(SERIAL_HANDFLOW)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_HANDFLOW HandFlow = (PSERIAL_HANDFLOW)Request->Buffer;
    Settings->ControlHandShake = HandFlow->ControlHandShake;
    Settings->FlowReplace = HandFlow->FlowReplace;
    Settings->XoffLimit = (ULONG)HandFlow->XoffLimit;
    Settings->XonLimit = (ULONG)HandFlow->XonLimit;
    TRACE(TL_IOCTL, "%P:%S%S: ControlHandShake: %D, FlowReplace %D, XoffLimit %d,XonLimit: %d\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Settings->ControlHandShake,
          Settings->FlowReplace, Settings->XoffLimit, Settings->XonLimit);
    return FALSE;
}

// The low nibble reports which lines changed, in either direction, since
// the previous GET_MODEMSTATUS on this port.
static BOOLEAN GetModemStatusIoctl(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    PPORT_OBJ Port = Request->Port;
    ULONG ModemStatus;
    GetModemStatus(Request->Dev, &ModemStatus);
    ULONG Lines = ModemStatus & MODEM_STATUS_LINES;
    ULONG Changes = (Lines ^ Port->ReportedModemStatus) >> MODEM_STATUS_DELTA_SHIFT;
    Port->ReportedModemStatus = Lines | Changes;
    *(PULONG)Request->Buffer = Port->ReportedModemStatus;
    TRACE(TL_IOCTL, "%P:%S%S: DispatchDeviceControl GetModemStatus (%D)\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Port->ReportedModemStatus);
    Request->Irp->IoStatus.Information = sizeof(ULONG);
    return FALSE;
}

static BOOLEAN GetCommStatus(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_STATUS)))
        return FALSE;
    PSER_PORT SerPort = Request->SerPort;
    PUSB_PACKET_POOL SendPool = Request->Dev->WritePipe.Pool;
    PSERIAL_STATUS Status = (PSERIAL_STATUS)Request->Buffer;
    // The structure has padding; clear it so no stale buffer bytes reach the caller.
    RtlZeroMemory(Status, sizeof(SERIAL_STATUS));
    Status->Errors = 0;
    Status->HoldReasons = 0;
    Status->AmountInInQueue = SerPort->CircRcvBuf.Count;
    Status->AmountInOutQueue = SerPort->CircSendBuf.Count;
    // A bulk-out packet at the USB stack holds at least one more byte. The
    // send pool exists from the device's creation to its deletion.
    if (SendPool->Count != SendPool->PacketCount)
        Status->AmountInOutQueue++;
    Status->EofReceived = FALSE;
    Status->WaitForImmediate = Request->Port->WaitForImmediate;
    TRACE(TL_IOCTL,
          "%P:%S%S:IOCTL_SERIAL_GET_COMMSTATUS: AmountInInQueue: %d, AmountInOutQueue: %d, "
          "EofReceived: %d, Errors: %d, HoldResons: %d, WaitForImmediate %d\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Status->AmountInInQueue,
          Status->AmountInOutQueue, (ULONG)Status->EofReceived, Status->Errors, Status->HoldReasons,
          (ULONG)Status->WaitForImmediate);
    Request->Irp->IoStatus.Information = sizeof(SERIAL_STATUS);
    return FALSE;
}

static BOOLEAN GetProperties(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIAL_COMMPROP)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIAL_COMMPROP Properties = (PSERIAL_COMMPROP)Request->Buffer;
    RtlZeroMemory(Properties, sizeof(SERIAL_COMMPROP));
    Properties->PacketLength = sizeof(SERIAL_COMMPROP);
    Properties->PacketVersion = 2;
    Properties->ServiceMask = SERIAL_SP_SERIALCOMM;
    Properties->MaxTxQueue = 0; // no limit
    Properties->MaxRxQueue = 0;
    Properties->MaxBaud = SERIAL_BAUD_USER;
    Properties->ProvSubType = SERIAL_SP_RS232;
    Properties->ProvCapabilities = SERIAL_PCF_DTRDSR | SERIAL_PCF_RTSCTS | SERIAL_PCF_CD |
                                   SERIAL_PCF_TOTALTIMEOUTS | SERIAL_PCF_INTTIMEOUTS;
    Properties->SettableParams = SERIAL_SP_PARITY | SERIAL_SP_BAUD | SERIAL_SP_DATABITS |
                                 SERIAL_SP_STOPBITS | SERIAL_SP_HANDSHAKING |
                                 SERIAL_SP_CARRIER_DETECT;
    // All 19 fixed-rate bits (SERIAL_BAUD_075 up to SERIAL_BAUD_57600, the
    // highest bit), not SERIAL_BAUD_USER; any rate is passed to the modem.
    Properties->SettableBaud = (SERIAL_BAUD_57600 << 1) - SERIAL_BAUD_075;
    Properties->SettableData = SERIAL_DATABITS_8;
    Properties->SettableStopParity = SERIAL_STOPBITS_10 | SERIAL_PARITY_NONE;
    Properties->CurrentTxQueue = Settings->QueueOut;
    Properties->CurrentRxQueue = Settings->QueueIn;
    Request->Irp->IoStatus.Information = sizeof(SERIAL_COMMPROP);
    return FALSE;
}

static BOOLEAN GetDtrRts(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    UCHAR PcStatus = Request->Dev->PcStatus;
    ULONG Lines = 0;
    if (PcStatus & PC_STATUS_RTS)
        Lines |= SERIAL_RTS_STATE;
    if (PcStatus & PC_STATUS_DTR)
        Lines |= SERIAL_DTR_STATE;
    *(PULONG)Request->Buffer = Lines;
    Request->Irp->IoStatus.Information = sizeof(ULONG);
    return FALSE;
}

// No provider-specific configuration block.
static BOOLEAN ConfigSize(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(ULONG)))
        return FALSE;
    *(PULONG)Request->Buffer = 0;
    Request->Irp->IoStatus.Information = sizeof(ULONG);
    return FALSE;
}

static BOOLEAN GetStats(PIOCTL_REQUEST Request) {
    if (OutputTooShort(Request, sizeof(SERIALPERF_STATS)))
        return FALSE;
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    PSERIALPERF_STATS Stats = (PSERIALPERF_STATS)Request->Buffer;
    Stats->ReceivedCount = Settings->ReceivedCount;
    Stats->TransmittedCount = Settings->TransmittedCount;
    Stats->FrameErrorCount = Settings->FrameErrorCount;
    Stats->SerialOverrunErrorCount = Settings->SerialOverrunErrorCount;
    Stats->BufferOverrunErrorCount = Settings->BufferOverrunErrorCount;
    Stats->ParityErrorCount = Settings->ParityErrorCount;
    TRACE(TL_IOCTL,
          "%P:%S%S: ReceivedCount: %d, TransmittedCount: %d, BufferOverrunErrorCount: %d\n",
          DEV_PORT_NAME(Request->Dev), Request->Via, Stats->ReceivedCount, Stats->TransmittedCount,
          Stats->BufferOverrunErrorCount);
    Request->Irp->IoStatus.Information = sizeof(SERIALPERF_STATS);
    return FALSE;
}

static BOOLEAN ClearStats(PIOCTL_REQUEST Request) {
    PSER_SETTINGS Settings = &Request->SerPort->Settings;
    Settings->ReceivedCount = 0;
    Settings->TransmittedCount = 0;
    Settings->FrameErrorCount = 0;
    Settings->SerialOverrunErrorCount = 0;
    Settings->BufferOverrunErrorCount = 0;
    Settings->ParityErrorCount = 0;
    return FALSE;
}

// Indexed by (code - FIRST_SERIAL_IOCTL) / 4; null entries take the
// invalid-code path.
static const IOCTL_HANDLER SerialIoctlHandlers[] = {
    SetBaudRate,         // 0x1B0004 SET_BAUD_RATE
    SetQueueSize,        // 0x1B0008 SET_QUEUE_SIZE
    SetLineControl,      // 0x1B000C SET_LINE_CONTROL
    SetBreakOn,          // 0x1B0010 SET_BREAK_ON
    SetBreakOff,         // 0x1B0014 SET_BREAK_OFF
    ImmediateChar,       // 0x1B0018 IMMEDIATE_CHAR
    SetTimeouts,         // 0x1B001C SET_TIMEOUTS
    GetTimeouts,         // 0x1B0020 GET_TIMEOUTS
    SetDtr,              // 0x1B0024 SET_DTR
    ClrDtr,              // 0x1B0028 CLR_DTR
    Ignored,             // 0x1B002C RESET_DEVICE
    SetRts,              // 0x1B0030 SET_RTS
    ClrRts,              // 0x1B0034 CLR_RTS
    Ignored,             // 0x1B0038 SET_XOFF
    Ignored,             // 0x1B003C SET_XON
    GetWaitMask,         // 0x1B0040 GET_WAIT_MASK
    SetWaitMask,         // 0x1B0044 SET_WAIT_MASK
    WaitOnMask,          // 0x1B0048 WAIT_ON_MASK
    Purge,               // 0x1B004C PURGE
    GetBaudRate,         // 0x1B0050 GET_BAUD_RATE
    GetLineControl,      // 0x1B0054 GET_LINE_CONTROL
    GetChars,            // 0x1B0058 GET_CHARS
    SetChars,            // 0x1B005C SET_CHARS
    GetHandflow,         // 0x1B0060 GET_HANDFLOW
    SetHandflow,         // 0x1B0064 SET_HANDFLOW
    GetModemStatusIoctl, // 0x1B0068 GET_MODEMSTATUS
    GetCommStatus,       // 0x1B006C GET_COMMSTATUS
    NULL,                // 0x1B0070 XOFF_COUNTER
    GetProperties,       // 0x1B0074 GET_PROPERTIES
    GetDtrRts,           // 0x1B0078 GET_DTRRTS
    NULL,                // 0x1B007C LSRMST_INSERT
    ConfigSize,          // 0x1B0080 CONFIG_SIZE
    NULL,                // 0x1B0084 GET_COMMCONFIG
    NULL,                // 0x1B0088 SET_COMMCONFIG
    GetStats,            // 0x1B008C GET_STATS
    ClearStats,          // 0x1B0090 CLEAR_STATS
};

static_assert(sizeof(SerialIoctlHandlers) / sizeof(SerialIoctlHandlers[0]) ==
                  (LAST_SERIAL_IOCTL - FIRST_SERIAL_IOCTL) / 4 + 1,
              "one entry per code from SET_BAUD_RATE to CLEAR_STATS");

static IOCTL_HANDLER SerialIoctlHandler(ULONG Code) {
    ULONG Offset = Code - FIRST_SERIAL_IOCTL; // wraps for codes below the first
    if (Offset > LAST_SERIAL_IOCTL - FIRST_SERIAL_IOCTL || Offset % 4 != 0)
        return NULL;
    return SerialIoctlHandlers[Offset / 4];
}

// Fills the parts of a request that both dispatch routines share.
static VOID BeginRequest(PIOCTL_REQUEST Request, PDEVICE_OBJECT DeviceObject, PIRP Irp, PDEVICE Dev,
                         PPORT_OBJ Port) {
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    Request->Dev = Dev;
    Request->Port = Port;
    Request->Irp = Irp;
    Request->Buffer = Irp->AssociatedIrp.SystemBuffer;
    Request->InLength = Stack->Parameters.DeviceIoControl.InputBufferLength;
    Request->OutLength = Stack->Parameters.DeviceIoControl.OutputBufferLength;
    Request->Code = Stack->Parameters.DeviceIoControl.IoControlCode;
    Request->Via = DEVOBJ_LETTER(DeviceObject);
    Request->DeviceObject = DeviceObject;
    Request->SerPort = Port->SerPort;
    Request->Status = STATUS_SUCCESS;
}

NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    IOCTL_REQUEST Request;
    PDEVICE Dev = NULL;
    PPORT_OBJ Port = NULL;
    Irp->IoStatus.Information = 0;
    GetDevAndPort(DeviceObject, &Dev, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    BeginRequest(&Request, DeviceObject, Irp, Dev, Port);
    TRACE(TL_IOCTL, "%P:%S%S: [DispatchDeviceControl\n", DEV_PORT_NAME(Dev), Request.Via);
    TRACE(TL_IOCTL, "%P:%S%S: Code: %08x %s\n", DEV_PORT_NAME(Dev), Request.Via, Request.Code,
          IoctlCodeName(Request.Code));

    DEVICE_LOCK(Dev, &Request.OldIrql);
    IOCTL_HANDLER Handler = SerialIoctlHandler(Request.Code);
    if (Handler == NULL)
        InvalidCode(&Request);
    else if (Handler(&Request))
        return Request.Status;
    DEVICE_UNLOCK(Dev, Request.OldIrql);

    Irp->IoStatus.Status = Request.Status;
    QueueCompleteIrp(&Dev->CompleteQueue, Irp);
    TRACE(TL_IOCTL, "%P:%S%S:]DispatchDeviceControl (%x)\n", DEV_PORT_NAME(Dev), Request.Via,
          Request.Status);
    return STATUS_PENDING;
}

// The saved settings belong to the caller; RESTORE_SETTINGS stores them
// without choosing new time modes or resizing the circular buffers.
static VOID ReportBasicSettings(PSER_SETTINGS Settings, PSERIAL_BASIC_SETTINGS Basic) {
    Basic->Timeouts.ReadIntervalTimeout = Settings->ReadIntervalTimeout;
    Basic->Timeouts.ReadTotalTimeoutMultiplier = Settings->ReadTotalTimeoutMultiplier;
    Basic->Timeouts.ReadTotalTimeoutConstant = Settings->ReadTotalTimeoutConstant;
    Basic->Timeouts.WriteTotalTimeoutMultiplier = Settings->WriteTotalTimeoutMultiplier;
    Basic->Timeouts.WriteTotalTimeoutConstant = Settings->WriteTotalTimeoutConstant;
    Basic->HandFlow.ControlHandShake = Settings->ControlHandShake;
    Basic->HandFlow.FlowReplace = Settings->FlowReplace;
    Basic->HandFlow.XonLimit = (LONG)Settings->XonLimit;
    Basic->HandFlow.XoffLimit = (LONG)Settings->XoffLimit;
    Basic->RxFifo = Settings->QueueIn;
    Basic->TxFifo = Settings->QueueOut;
}

static VOID RestoreBasicSettings(PSER_SETTINGS Settings, const SERIAL_BASIC_SETTINGS* Basic) {
    Settings->ReadIntervalTimeout = Basic->Timeouts.ReadIntervalTimeout;
    Settings->ReadTotalTimeoutMultiplier = Basic->Timeouts.ReadTotalTimeoutMultiplier;
    Settings->ReadTotalTimeoutConstant = Basic->Timeouts.ReadTotalTimeoutConstant;
    Settings->WriteTotalTimeoutMultiplier = Basic->Timeouts.WriteTotalTimeoutMultiplier;
    Settings->WriteTotalTimeoutConstant = Basic->Timeouts.WriteTotalTimeoutConstant;
    Settings->ControlHandShake = Basic->HandFlow.ControlHandShake;
    Settings->FlowReplace = Basic->HandFlow.FlowReplace;
    Settings->XonLimit = (ULONG)Basic->HandFlow.XonLimit;
    Settings->XoffLimit = (ULONG)Basic->HandFlow.XoffLimit;
    Settings->QueueIn = Basic->RxFifo;
    Settings->QueueOut = Basic->TxFifo;
}

NTSTATUS NTAPI DispatchInternalDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    IOCTL_REQUEST Request;
    PDEVICE Dev = NULL;
    PPORT_OBJ Port = NULL;
    Irp->IoStatus.Information = 0;
    GetDevAndPort(DeviceObject, &Dev, &Port);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    BeginRequest(&Request, DeviceObject, Irp, Dev, Port);
    TRACE(TL_IOCTL, "%P:%S%S:[DispatchInternalDeviceControl\n", DEV_PORT_NAME(Dev), Request.Via);

    DEVICE_LOCK(Dev, &Request.OldIrql);
    TRACE(TL_IOCTL, "%P:%S%S:Code: %08x %s\n", DEV_PORT_NAME(Dev), Request.Via, Request.Code,
          IoctlCodeName(Request.Code));
    PSER_SETTINGS Settings = &Request.SerPort->Settings;
    switch (Request.Code) {
    case IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE:
    case IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE:
        // Wait-wake is handled by the driver's own power management.
        Request.Status = STATUS_NOT_SUPPORTED;
        break;
    case IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS:
        if (OutputTooShort(&Request, sizeof(SERIAL_BASIC_SETTINGS)))
            break;
        ReportBasicSettings(Settings, (PSERIAL_BASIC_SETTINGS)Request.Buffer);
        Irp->IoStatus.Information = sizeof(SERIAL_BASIC_SETTINGS);
        break;
    case IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS:
        if (InputTooShort(&Request, sizeof(SERIAL_BASIC_SETTINGS)))
            break;
        RestoreBasicSettings(Settings, (const SERIAL_BASIC_SETTINGS*)Request.Buffer);
        break;
    default:
        TRACE(TL_ERROR, "%P:%S%S:Internal: Invalid IO Control Code %D: %s\n", DEV_PORT_NAME(Dev),
              Request.Via, Request.Code, IoctlCodeName(Request.Code));
        Request.Status = STATUS_INVALID_PARAMETER;
        break;
    }
    DEVICE_UNLOCK(Dev, Request.OldIrql);

    Irp->IoStatus.Status = Request.Status;
    QueueCompleteIrp(&Dev->CompleteQueue, Irp);
    TRACE(TL_IOCTL, "%P:%S%S:]DispatchInternalDeviceControl (%D)\n", DEV_PORT_NAME(Dev),
          Request.Via, Request.Status);
    return STATUS_PENDING;
}

VOID NTAPI WaitIrp_IrpCancelRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    TRACE(TL_WAIT, "%P:WaitIrp_IrpCancelRoutine\n");
    PDEVICE Dev = NULL;
    GetDevAndPort(DeviceObject, &Dev, NULL);
    // Completion is left to the timer (or an earlier event), which takes the
    // device lock that this routine may not take.
    PTIMER_OBJ Timer = &Dev->WaitCancelTimer;
    KeSetTimer(&Timer->Timer, Timer->DueTime, &Timer->Dpc);
}
