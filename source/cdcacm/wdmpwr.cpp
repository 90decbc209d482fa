// Power management: the names of system and device power states that the
// trace lines print.
//
// Environment: any IRQL; the tables are constant.
// Locks: none.
#define TRACE_FILE "source/cdcacm/power"
#include "cdcacm.h"

static const char* const SystemStateNames[] = {
    "PowerSystemUnspecified", "PowerSystemWorking",   "PowerSystemSleeping1",
    "PowerSystemSleeping2",   "PowerSystemSleeping3", "PowerSystemHibernate",
    "PowerSystemShutdown",    "PowerSystemMaximum",
};

static const char* const DeviceStateNames[] = {
    "PowerDeviceUnspecified", "PowerDeviceD0", "PowerDeviceD1",
    "PowerDeviceD2",          "PowerDeviceD3", "PowerDeviceMaximum",
};

#define NAME_COUNT(Table) (sizeof(Table) / sizeof((Table)[0]))

const char* SystemPowerStateName(ULONG State) {
    return State < NAME_COUNT(SystemStateNames) ? SystemStateNames[State] : "unknown";
}

const char* DevicePowerStateName(ULONG State) {
    return State < NAME_COUNT(DeviceStateNames) ? DeviceStateNames[State] : "unknown";
}
