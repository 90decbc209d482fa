// Doubles of the device lifecycle operations that the transfer engines and
// work items call and whose module comes later: re-initialisation and the
// deletion of the data port. Each records its call; a real module linked
// into a test replaces them (they are weak).
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
WEAK NTSTATUS Reinit(PDEVICE) {
    Lifecycle().reinit++;
    return STATUS_SUCCESS;
}
WEAK VOID ScheduleReinit(PDEVICE) {
    Lifecycle().schedule_reinit++;
}
