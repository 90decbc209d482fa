// Registry configuration: the per-device parameters read from the device's
// hardware key.
//
// Records: DEVICE_CFG lives inside its DEVICE; it is filled when the device
// is added, and the endpoint, interface and configuration fields are
// rewritten when the device starts.
//
// Environment: PASSIVE_LEVEL for every registry access.
// Locks: none; the block is written before the device runs and at start,
// under the device's DeviceMutex.
#pragma once

#include "forward.h"

struct _DEVICE_CFG {
    ULONG RequestTimeout; // ms, for requests sent down and waited for
    ULONG DataInPipe;     // endpoint addresses, found at start
    ULONG DataOutPipe;
    ULONG IntInPipe;
    ULONG UsbInterface; // as read; rewritten with the values found at start
    ULONG UsbConfig;
    ULONG TimerInterval; // ms, period of the queue timer
    ULONG HighPowerCfg;  // configuration index for a 500 mA port
    ULONG LowPowerCfg;   // configuration index for a 100 mA port
    ULONG ReadBufferSize;
    ULONG WriteBufferSize;
    ULONG ReadCircBufferSize;
    ULONG WriteCircBufferSize;
    ULONG useCtsFlowControl;
    ULONG FlowTest; // ms between bulk-in resubmissions; 0 off
};
