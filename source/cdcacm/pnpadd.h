// Device creation, naming and COM port links: the add-device routine and
// the deletion of the data port.
//
// Environment: PASSIVE_LEVEL.
#pragma once

#include "forward.h"

// Deletes the data port whose last DEVICE reference was just dropped.
VOID DeleteDevice(PDEVICE_OBJECT DeviceObject);
