// Plug and Play dispatch: passing requests down the device stack, device
// start (configuration, identity values, first re-initialisation), stop,
// the query and cancel requests, surprise removal and removal.
//
// Environment: PASSIVE_LEVEL; PnpIrpCompletionRoutine up to DISPATCH_LEVEL.
// Locks: DispatchPnp holds the device's DeviceMutex over a whole request;
// the removal routines take the device lock around the modem-status reset.
#pragma once

#include "forward.h"

DRIVER_DISPATCH DispatchPnp;
// Sends the IRP down and waits until the lower stack has completed it; the
// IRP comes back to the caller, who completes it.
NTSTATUS PassDownIrpAndWait(PDEVICE_OBJECT LowerDevObj, PIRP Irp);
IO_COMPLETION_ROUTINE PnpIrpCompletionRoutine;
// Hands the IRP on with the same parameters; it does not come back.
NTSTATUS PassDownIrp(PDEVICE_OBJECT LowerDevObj, PIRP Irp);
NTSTATUS PnpStartDevice(PDEVICE Dev);
// Fills Sernum and SernumLength from the device's serial-number string.
NTSTATUS GetSerialNumber(PDEVICE Dev);
NTSTATUS PnpQueryStopDevice(PDEVICE Dev);
NTSTATUS PnpQueryRemoveDevice(PDEVICE Dev);
VOID PnpSurpriseRemoval(PDEVICE Dev, PDEVICE_OBJECT DeviceObject);
VOID PnpRemoveDevice(PDEVICE Dev, PDEVICE_OBJECT DeviceObject);
