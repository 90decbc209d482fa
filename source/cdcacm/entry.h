// Driver entry and unload.
//
// Environment: PASSIVE_LEVEL, with nothing else of the driver running.
#pragma once

#include "forward.h"

// Reads the trace mask, prepares the driver-wide state and installs the
// dispatch routines; never fails.
extern "C" DRIVER_INITIALIZE DriverEntry;
// Reports memory still counted; frees nothing.
DRIVER_UNLOAD DriverUnload;
