// The driver-wide state a freshly loaded driver starts with: the trace mask
// and lock, the memory lock and counters, the device list and its mutex, and
// the registry path copy. Tests, benchmarks and fuzzers reset it inside
// their emulated kernel before each run, so nothing leaks from one run into
// the next. Users link the trace and wdmkrnl driver modules.
#pragma once

#include "trace.h"
#include "wdmkrnl.h"

inline void ResetDriverState(ULONG trace_mask) {
    TraceMask = trace_mask;
    TraceInit();
    MemInit();
    MemoryCounter = 0;
    ContMemoryCounter = 0;
    InitializeListHead(&DeviceList);
    KeInitializeMutex(&DeviceListMutex, 0);
    RtlZeroMemory(RegistryPathBuffer, sizeof(RegistryPathBuffer));
    DriverRegistryPath.Length = 0;
    DriverRegistryPath.MaximumLength = REGISTRY_PATH_BYTES;
    DriverRegistryPath.Buffer = RegistryPathBuffer;
}
