// Doubles of the device lifecycle operations that the transfer engines,
// work items and re-initialisation call and whose module comes later: the
// deletion of the data port and the wait-wake request. Each records its
// call; a real module linked into a test replaces them (they are weak).
#include "device_rig.h"

LifecycleCalls& Lifecycle() {
    static LifecycleCalls calls;
    return calls;
}

#define WEAK __attribute__((weak))

// The rig deletes the data port itself at teardown.
WEAK VOID DeleteDevice(PDEVICE_OBJECT DeviceObject) {
    Lifecycle().deleted.push_back(DeviceObject);
}
WEAK VOID RequestWakeupIrp(PDEVICE) {
    Lifecycle().wakeup_requests++;
}
