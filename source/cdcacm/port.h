// The port object's operations: resolving a device object to its DEVICE
// and PORT_OBJ, and the wait-on-mask events.
//
// Records: PORT_OBJ is defined in cdcacm.h, embedded in its DEVICE.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent up to
// DISPATCH_LEVEL.
// Locks: IndicateWaitEvent runs with the device lock held by its caller.
#pragma once

#include "forward.h"

// Either kind of the driver's device objects (the data port or the attach
// object) gives the same DEVICE and its embedded PORT_OBJ. Each out pointer
// may be null; nothing is written for a device object of another kind.
VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port);

// Raises serial events (SERIAL_EV_* bits) for the wait-on-mask machinery.
VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask);
