// The double of the wait-wake request, which re-initialisation calls and
// whose power module comes later. It records its calls; the real module
// linked into a test replaces it (it is weak).
#include "device_rig.h"

LifecycleCalls& Lifecycle() {
    static LifecycleCalls calls;
    return calls;
}

#define WEAK __attribute__((weak))

WEAK VOID RequestWakeupIrp(PDEVICE) {
    Lifecycle().wakeup_requests++;
}
