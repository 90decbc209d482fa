// The emulated Plug and Play manager. Off until a test or tool configures
// it; then a bus's IoInvalidateDeviceRelations makes it enumerate the bus
// on a system worker thread.
//
// Environment: host code of the stand-in; its requests go down device
// stacks at PASSIVE_LEVEL from the system worker thread.
// Locks: none of its own; the scheduler runs one emulated thread at a time.
#pragma once

#include "hostkernel/wdk.h"

#include <functional>

namespace hk {

// How one PnP request came back.
struct PnpAnswer {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

class PnpManager {
  public:
    bool Active() const { return false; }
    void InvalidateRelations(PDEVICE_OBJECT bus_device, DEVICE_RELATION_TYPE type);

    // Sends one IRP_MJ_PNP request to the device as the manager sends it: a
    // new IRP whose status starts as STATUS_NOT_SUPPORTED, the parameters
    // filled by fill, waited for at PASSIVE_LEVEL and freed.
    static PnpAnswer Send(PDEVICE_OBJECT device, UCHAR minor,
                          const std::function<void(IO_STACK_LOCATION&)>& fill = {});
};

} // namespace hk
