// The port object's operations: resolving a device object to its DEVICE
// and PORT_OBJ, the CDC control requests for the serial settings, and the
// wait-on-mask events.
//
// Records: PORT_OBJ is defined in cdcacm.h, embedded in its DEVICE.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent and
// CompleteWaitIrp up to DISPATCH_LEVEL; the control requests at
// PASSIVE_LEVEL.
// Locks: IndicateWaitEvent and CompleteWaitIrp run with the device lock
// held by their caller.
#pragma once

#include "forward.h"
#include "wdmkrnl.h"

// Either kind of the driver's device objects (the data port or the attach
// object) gives the same DEVICE and its embedded PORT_OBJ. Each out pointer
// may be null; nothing is written for a device object of another kind.
VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port);

// Raises serial events (SERIAL_EV_* bits) for the wait-on-mask machinery:
// the masked ones complete the pending wait, or wait for the next one.
VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask);
// Stops the wait-cancel timer and completes the pending wait IRP, if any,
// with Mask. The caller holds the device lock.
VOID CompleteWaitIrp(PPORT_OBJ Port, ULONG Mask);
// Callback of WaitCancelTimer (context: the DEVICE): completes a cancelled
// wait with mask 0.
TIMER_OBJ_CALLBACK DelayWaitCancelFnc;

// CDC class requests for the serial settings, at PASSIVE_LEVEL; each
// returns the status of its control request.
NTSTATUS SendLineCoding(PDEVICE Dev);
NTSTATUS SetDTR(PDEVICE Dev);
NTSTATUS ClrDTR(PDEVICE Dev);
NTSTATUS SetRTS(PDEVICE Dev);
NTSTATUS ClrRTS(PDEVICE Dev);
NTSTATUS SendBreakOn(PDEVICE Dev);
NTSTATUS SendBreakOff(PDEVICE Dev);
// Copies the current modem status (SERIAL_MSR_* line bits); sends nothing.
VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus);
