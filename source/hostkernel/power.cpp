// The power manager's record of device power states: PoSetPowerState.
//
// Environment: host code of the stand-in, called by drivers at IRQL up to
// APC_LEVEL, or up to DISPATCH_LEVEL when the state set is D0.
// Locks: none of its own; the scheduler runs one emulated thread at a time.
#include "hostkernel/iomgr.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace hk::detail;

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
    POWER_STATE previous{};
    bool to_d0 = Type == DevicePowerState && State.DeviceState == PowerDeviceD0;
    CheckIoIrql("PoSetPowerState", to_d0 ? DISPATCH_LEVEL : APC_LEVEL);
    DeviceInfo* info = Io().FindDevice(DeviceObject);
    if (!info) {
        std::fprintf(stderr, "hostkernel: PoSetPowerState on %p, which is not a device object\n",
                     static_cast<void*>(DeviceObject));
        std::abort();
    }
    previous.DeviceState = info->power;
    if (Type != DevicePowerState) {
        hk::Kernel::Current().verifier().Violation(hk::rule::kPowerStateType,
                                                   "PoSetPowerState type " + std::to_string(Type));
        return previous;
    }
    info->power = State.DeviceState;
    return previous;
}
