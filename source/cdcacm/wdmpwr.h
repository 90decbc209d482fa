// Power management of the device: the wait-wake request that lets the
// modem wake the system, and the names of power states for trace lines.
//
// Environment: RequestWakeupIrp at PASSIVE_LEVEL; the name functions at any
// IRQL.
#pragma once

#include "forward.h"

// Asks the bus for a wait-wake IRP when the modem can wake the system and
// none is pending; called after every successful re-initialisation.
VOID RequestWakeupIrp(PDEVICE Dev);

// Constant names of power states, requests and actions; "unknown" for a
// value outside the type.
const char* SystemPowerStateName(ULONG State);
const char* DevicePowerStateName(ULONG State);
