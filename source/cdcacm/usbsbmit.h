// Synchronous USB submission: internal device controls and URBs sent down
// the device stack and waited for with a time-out, and the class and vendor
// control requests built from a USB_CTRL_REQUEST.
//
// Records: USB_CTRL_REQUEST is built by the caller, usually on its stack,
// and read only for the duration of the request.
//
// Environment: PASSIVE_LEVEL.
// Locks: none.
#pragma once

#include "forward.h"

// Type takes BMREQUEST_CLASS or BMREQUEST_VENDOR, Recipient one of
// BMREQUEST_TO_DEVICE, _INTERFACE, _ENDPOINT or _OTHER.
struct _USB_CTRL_REQUEST {
    UCHAR Type;
    UCHAR Recipient;
    UCHAR ReservedBits; // request-type reserved bits of the setup packet
    UCHAR Request;      // bRequest
    USHORT Value;       // wValue
    USHORT Index;       // wIndex
};

// True at PASSIVE_LEVEL; the assertion of every synchronous request.
#define IRQL_EQ_PASSIVE() (KeGetCurrentIrql() == PASSIVE_LEVEL)

// Sends the initialised Irp to the device's lower driver as an internal
// device control with one argument and waits up to TimeoutMs (0: without
// limit). After a time-out the IRP is cancelled and waited for, so the
// caller may reuse it at once.
NTSTATUS SubmitIrpAndWait(PDEVICE Dev, PIRP Irp, PVOID Argument1, ULONG IoControlCode,
                          ULONG TimeoutMs);
// Completion routine of SubmitIrpAndWait: signals the event in Context and
// keeps the IRP for its caller.
IO_COMPLETION_ROUTINE IrpCompletionRoutineWait;
// Submits the URB and folds its USB status into the returned NT status.
NTSTATUS SubmitUrbAndWait(PDEVICE Dev, PIRP Irp, PURB Urb, ULONG TimeoutMs);
// A class or vendor control request on the default pipe; Length is the
// buffer's length on entry and the bytes transferred on success. Irp is
// re-initialised before use (the device's ControlIrp).
NTSTATUS ClassVendorRequest(BOOLEAN DirectionIn, PDEVICE Dev, PIRP Irp, PUSB_CTRL_REQUEST Request,
                            PVOID Buffer, PULONG Length);
