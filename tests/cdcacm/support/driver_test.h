// A fresh emulated kernel and fresh driver-wide state per test: the trace
// mask and lock, the memory lock and counters, the device list and its
// mutex, and the registry path copy. Nothing leaks from one test into the
// next. Tests using it link the trace and wdmkrnl driver modules.
#pragma once

#include "kernel_test.h"

#include "trace.h"
#include "wdmkrnl.h"

#include <string>
#include <vector>

class DriverTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        TraceMask = 3; // the mask before driver entry
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

    void TearDown() override {
        EXPECT_EQ(MemoryCounter, 0u) << "bytes still counted by MemAlloc";
        KernelTest::TearDown();
    }

    // Every line the driver printed so far, the unfinished one excluded.
    const std::vector<std::string>& TraceLines() { return dbg().Lines(); }
};
