// Serial and internal serial I/O controls: the IRP_MJ_DEVICE_CONTROL and
// IRP_MJ_INTERNAL_DEVICE_CONTROL routines of both device objects of a
// modem, the cancel routine of the wait-on-mask IRP, and the debug names of
// I/O control codes.
//
// Environment: the dispatch routines at PASSIVE_LEVEL (at most
// DISPATCH_LEVEL); the cancel routine is entered with the system cancel spin
// lock held.
// Locks: every handler runs under the device lock (DEVICE.Lock), except the
// work-item functions and the write path of IMMEDIATE_CHAR; no IRP is
// completed under it.
#pragma once

#include "forward.h"

DRIVER_DISPATCH DispatchDeviceControl;
DRIVER_DISPATCH DispatchInternalDeviceControl;

// Arms the device's WaitCancelTimer; the wait IRP stays in WaitIrp until
// the timer (or an event) completes it.
DRIVER_CANCEL WaitIrp_IrpCancelRoutine;

// The debug name of an I/O control code, "Unknown IO Ctrl code" for codes
// outside the table; never null. The four internal serial codes share
// their values with the first four serial codes and get those names.
const char* IoctlCodeName(ULONG Code);
