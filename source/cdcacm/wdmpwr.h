// Power management: the power dispatch routine, the translation of system
// states into device states, the device power-down and power-up, the
// synchronous device power request, the wait-wake request that lets the
// modem wake the system, and the names of power states for trace lines.
//
// Environment: DispatchPower, SetDevicePowerState, RequestPowerIrpAndWait
// and RequestWakeupIrp at PASSIVE_LEVEL; the completion routines up to
// DISPATCH_LEVEL; the name functions at any IRQL.
// Locks: the power-down takes DEVICE.DeviceMutex around the state change and
// the stop of the transfers.
#pragma once

#include "forward.h"

DRIVER_DISPATCH DispatchPower;
// Passes a power IRP on: without Routine the next power IRP starts now;
// with it, Routine starts it.
NTSTATUS PwrPassDownIrp(PDEVICE_OBJECT LowerDevObj, PIRP Irp, PIO_COMPLETION_ROUTINE Routine,
                        PVOID Context);
NTSTATUS PwrSetSystemPowerState(PDEVICE Dev, PIRP Irp, ULONG SystemState);
NTSTATUS PwrSetDevicePowerState(PDEVICE Dev, PIRP Irp, ULONG DeviceState);
NTSTATUS PwrQuerySystemPowerState(PDEVICE Dev, PIRP Irp, ULONG SystemState);
NTSTATUS PwrQueryDevicePowerState(PDEVICE Dev, PIRP Irp, ULONG DeviceState);
// Requests a device set-power IRP for the device's stack and waits for it.
NTSTATUS SetDevicePowerState(PDEVICE Dev, ULONG DeviceState);
NTSTATUS RequestPowerIrpAndWait(PDEVICE_OBJECT Target, UCHAR MinorFunction, ULONG DeviceState);
REQUEST_POWER_COMPLETE RequestPowerIrpCompletionRoutine;
IO_COMPLETION_ROUTINE PwrCompRoutDevOn;
// Asks the bus for a wait-wake IRP when the modem can wake the system and
// none is pending; called after every successful re-initialisation.
VOID RequestWakeupIrp(PDEVICE Dev);
REQUEST_POWER_COMPLETE WakeCompletionRoutine;

// Constant names of power states, request types and actions; "unknown" for
// a value outside the type.
const char* SystemPowerStateName(ULONG State);
const char* DevicePowerStateName(ULONG State);
const char* PowerTypeName(ULONG Type);
const char* PowerActionName(ULONG Action);
