// The driver's shared header and table of contents: every module header,
// and the device context records that all modules work on.
//
// Records defined here:
// - DEVICE: extension of the named data port, zero-filled and filled by the
//   add-device routine; it lives until the last RefCount reference is
//   dropped, possibly longer than any attached modem.
// - PORT_OBJ: embedded in DEVICE; its operations live in the port module.
// - ATTACH_OBJ: extension of the unnamed attach object on the physical
//   device's stack; lives while the modem is present and while opens through
//   its device interface hold references.
//
// Environment: any IRQL; each field is used at the IRQL its owning module
// states.
// Locks: DEVICE.Lock (spin lock, with CheckLock) guards the serial port
// object, its queues, buffers and settings, the PPP converters, the transfer
// contexts, the modem status and the wait-on-mask state; the IRP-queue,
// completion-queue, request-pool and packet-pool locks nest inside it, and
// the system cancel spin lock is released before it is taken.
// DEVICE.DeviceMutex serialises Plug and Play requests, opens and work items
// of one device and is taken before DeviceListMutex. RefCount fields change
// only by interlocked operations.
#pragma once

#include "platform.h"
#include "forward.h"
#include "trace.h"
#include "wdmkrnl.h"

#include "squeue.h"
#include "serport.h"
#include "ppp_frame.h"
#include "dpool.h"
#include "irpqueue.h"
#include "dispatch.h"
#include "ioctl.h"
#include "port.h"
#include "usbsbmit.h"
#include "usbpckt.h"
#include "sndrcv.h"
#include "wrsupport.h"
#include "usbcfg.h"
#include "ntcfg.h"
#include "pnpadd.h"
#include "wdmpwr.h"
#include "wdmpnp.h"
#include "worker.h"
#include "entry.h"

// Magics: four characters stored little-endian, so that a memory dump
// spells the name.
#define DEVICE_MAGIC 0x4F766544   // 'DevO'
#define PORT_OBJ_MAGIC 0x4F747250 // 'PrtO'

// A pointer to a context record that is not null and carries its type's
// magic. Every record checked this way has a field Magic and a constant
// <TYPE>_MAGIC: DEVICE, PORT_OBJ, SER_PORT, USB_PACKET_POOL, USB_PACKET.
#define PTRVALID(p, TYPE) ((p) != NULL && (p)->Magic == TYPE##_MAGIC)

// The first field of both kinds of device extension.
#define EXTENSION_TYPE_DEVICE 0 // DEVICE, extension of the data port
#define EXTENSION_TYPE_ATTACH 1 // ATTACH_OBJ, extension of the attach object

// DEVICE.PppState: steers the data path through the PPP converters.
#define PPP_STATE_OFF 0
#define PPP_STATE_STARTING 1
#define PPP_STATE_ON 2
#define PPP_STATE_STOPPING 3

// DEVICE.PnpState: where the device is in its Plug and Play life.
#define PNP_STATE_STARTED 0
#define PNP_STATE_STOP_PENDING 1
#define PNP_STATE_STOPPED 2
#define PNP_STATE_REMOVE_PENDING 3
#define PNP_STATE_REMOVED 4
#define PNP_STATE_SURPRISE_REMOVED 5
#define PNP_STATE_ADDED 8 // added, never started

// DEVICE.ModemStatus bits, as in the serial modem-status register.
#define SERIAL_MSR_CTS 0x10
#define SERIAL_MSR_DSR 0x20
#define SERIAL_MSR_RI 0x40
#define SERIAL_MSR_DCD 0x80

// Byte capacity of the fixed name buffers of PORT_OBJ.
#define PORT_NAME_BUFFER_BYTES 240
// Byte capacity of DEVICE.Sernum.
#define SERNUM_BUFFER_BYTES 256

struct _ATTACH_OBJ {
    ULONG Type; // EXTENSION_TYPE_ATTACH
    PDEVICE_OBJECT DeviceObject;
    PDEVICE Device;             // the data port this attachment serves
    PDEVICE_OBJECT LowerDevObj; // null once detached
    BOOLEAN SurpriseRemoved;
    volatile LONG RefCount; // detached and deleted when it drops to 0
};

// The port object. Ownership: SerPort and InterfaceName's buffer are
// released by DeletePort; PortName and the three fixed-buffer names belong
// to device creation and naming.
struct _PORT_OBJ {
    UNICODE_STRING DeviceName; // "\Device\" + base name + number
    WCHAR DeviceNameBuffer[PORT_NAME_BUFFER_BYTES / sizeof(WCHAR)];
    PDEVICE_OBJECT DeviceObject; // the named data port
    PDEVICE Device;
    PSER_PORT SerPort;          // null until CreatePort made it
    PWSTR PortName;             // "COMn" from the registry, or null
    UNICODE_STRING DosLinkName; // "\DosDevices\" + PortName
    WCHAR DosLinkNameBuffer[PORT_NAME_BUFFER_BYTES / sizeof(WCHAR)];
    BOOLEAN LinkCreated;
    UNICODE_STRING SerialCommValueName; // value name under SERIALCOMM
    WCHAR SerialCommValueNameBuffer[PORT_NAME_BUFFER_BYTES / sizeof(WCHAR)];
    UNICODE_STRING InterfaceName; // buffer from the system; null when none registered
    DPOOL RequestPool;
    IRP_QUEUE ReadIrpQueue;
    IRP_QUEUE WriteIrpQueue;
    PIRP WaitIrp;              // the pending wait-on-mask IRP
    ULONG ReportedModemStatus; // as last returned by GET_MODEMSTATUS
    ULONG PendingEvents;       // raised, masked and not yet delivered
    BOOLEAN WaitForImmediate;  // reads return at once (time-outs ask for it)
    ULONG Magic;               // PORT_OBJ_MAGIC, set by CreatePort
};

// The device context: extension of the data port, zero-filled at creation.
struct _DEVICE {
    ULONG Type; // EXTENSION_TYPE_DEVICE
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT Pdo;         // of the current attachment
    PDEVICE_OBJECT LowerDevObj; // target of every request sent down; null while detached
    PORT_OBJ Port;
    DEVICE_CAPABILITIES Capabilities;
    ULONG PnpState;
    ULONG DevicePowerState;
    PIRP ControlIrp; // for the class and vendor control requests
    USHORT IrpSize;  // bytes of an IRP with StackSize locations
    CCHAR StackSize; // of the lower device object, taken at creation
    DEVICE_CFG Cfg;
    PIRP WakeIrp;
    BOOLEAN RemoteWakeup; // the configuration announces remote wake-up
    LIST_ENTRY ListEntry; // in DeviceList
    LONG OpenCount;
    SNDRCV_PIPE ReceivePipe; // bulk-in
    SNDRCV_PIPE WritePipe;   // bulk-out
    SNDRCV_PIPE IntPipe;     // interrupt-in
    ULONG SendChunkSize;     // bytes per bulk-out packet
    TIMER_OBJ FlowTestTimer;
    TIMER_OBJ QueueTimer; // ticks the timed queues every TimerInterval ms
    BOOLEAN TimerActive;
    volatile LONG TimerPending;
    KEVENT TimerIdle; // notification: no queue timer DPC pending
    USB_DEVICE_DESCRIPTOR DeviceDescriptor;
    COMPLETE_QUEUE CompleteQueue;
    KMUTEX DeviceMutex;
    KSPIN_LOCK Lock; // with CheckLock, see DEVICE_LOCK
    volatile LONG ReinitPending;
    TIMER_OBJ ReinitTimer;
    ULONG ReinitCount;
    ULONG ReceivedModemStatus; // SERIAL_MSR_* bits as last received
    ULONG ModemStatus;         // SERIAL_MSR_* bits as current
    UCHAR PcStatus;            // control lines sent to the modem
    USB_DEVICE UsbDevice;
    WCHAR Sernum[SERNUM_BUFFER_BYTES / sizeof(WCHAR)]; // USB serial number, zero-padded
    ULONG SernumLength; // bytes without terminator; 0: no serial number
    BOOLEAN PortInUse;
    BOOLEAN UsbDeviceEnabled;
    BOOLEAN DeviceInitialized;
    BOOLEAN SndRcvRef;      // the running transfers hold a reference
    volatile LONG RefCount; // the data port is deleted when it drops to 0
    BOOLEAN SendAllowed;
    TIMER_OBJ WaitCancelTimer;
    ULONG PppState; // PPP_STATE_*
    PPP_FRAMER PppFramer;
    PPP_DEFRAMER PppDeFramer;
    KEVENT FlagSentEvent;
    BOOLEAN FlagSent;
    ULONG WaitingData; // bytes that may still go out while CTS is inactive
    ULONG Magic;       // DEVICE_MAGIC
    LONG CheckLock;    // holders of Lock: 1 while held, 0 otherwise
};

static_assert(offsetof(DEVICE, Type) == 0 && offsetof(ATTACH_OBJ, Type) == 0,
              "both kinds of extension are told apart by their first field");

// The port name for trace lines, "COM?" while the port has none.
#define DEV_PORT_NAME(Dev) ((Dev)->Port.PortName != NULL ? (Dev)->Port.PortName : WSTR("COM?"))

// The device lock. Every holder raises CheckLock to 1 after acquiring and
// brings it back to 0 before releasing; the assertion texts name the
// caller's expression, e.g. "(Port->WrContext)->CheckLock==1".
// clang-format off
#define DEVICE_LOCK(Dev, OldIrql)                                                                  \
    do {                                                                                           \
        KeAcquireSpinLock(&(Dev)->Lock, (OldIrql));                                                \
        (Dev)->CheckLock++;                                                                        \
        TRACE_ASSERT((Dev)->CheckLock==1);                                                         \
    } while (0)

#define DEVICE_UNLOCK(Dev, OldIrql)                                                                \
    do {                                                                                           \
        (Dev)->CheckLock--;                                                                        \
        TRACE_ASSERT((Dev)->CheckLock==0);                                                         \
        KeReleaseSpinLock(&(Dev)->Lock, (OldIrql));                                                \
    } while (0)

#define DEVICE_LOCK_AT_DPC(Dev)                                                                    \
    do {                                                                                           \
        KeAcquireSpinLockAtDpcLevel(&(Dev)->Lock);                                                 \
        (Dev)->CheckLock++;                                                                        \
        TRACE_ASSERT((Dev)->CheckLock==1);                                                         \
    } while (0)

#define DEVICE_UNLOCK_AT_DPC(Dev)                                                                  \
    do {                                                                                           \
        (Dev)->CheckLock--;                                                                        \
        TRACE_ASSERT((Dev)->CheckLock==0);                                                         \
        KeReleaseSpinLockFromDpcLevel(&(Dev)->Lock);                                               \
    } while (0)
// clang-format on
