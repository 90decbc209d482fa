// Power management of the device: the wait-wake request that lets the
// modem wake the system.
//
// Environment: PASSIVE_LEVEL.
#pragma once

#include "forward.h"

// Asks the bus for a wait-wake IRP when the modem can wake the system and
// none is pending; called after every successful re-initialisation.
VOID RequestWakeupIrp(PDEVICE Dev);
