// Dispatch routines for read, write, the serial I/O controls, open,
// cleanup, close and system control, and the completion of serial-port
// requests.
//
// Environment: dispatch routines at PASSIVE_LEVEL; CompleteRequest up to
// DISPATCH_LEVEL.
// Locks: CompleteRequest runs with the device lock held by its caller; it
// hands the IRP to the deferred-completion queue instead of completing it.
#pragma once

#include "forward.h"

// The letter that trace lines of dispatch routines print after the port name
// for the device object a request came through: "A" for the attach object,
// "S" for the data port.
#define DEVOBJ_LETTER(DeviceObject)                                                                \
    (*(const ULONG*)(DeviceObject)->DeviceExtension == EXTENSION_TYPE_ATTACH ? WSTR("A")           \
                                                                             : WSTR("S"))

DRIVER_DISPATCH DispatchRead;
// Also the immediate-character I/O control, which hands over its IRP as is.
DRIVER_DISPATCH DispatchWrite;

// Finishes a request whose Status and Length are set: counts its bytes,
// returns it to the request pool and queues its IRP for completion.
VOID CompleteRequest(PSER_REQUEST Request);

// Open, cleanup and close of the COM port, through the data port or the
// attach object: one opener at a time, only on an initialised device in D0.
DRIVER_DISPATCH DispatchCreate;
DRIVER_DISPATCH DispatchCleanup;
DRIVER_DISPATCH DispatchClose;
DRIVER_DISPATCH DispatchSystemControl;

// Tell the driver below the modem that the port was opened or closed;
// callers ignore the result.
NTSTATUS NotifyLowerAttach(PDEVICE Dev);
NTSTATUS NotifyLowerDetach(PDEVICE Dev);
