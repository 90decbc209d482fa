// A fresh emulated kernel and fresh driver-wide state (driver_state.h) per
// test: nothing leaks from one test into the next. Tests using it link the trace and wdmkrnl driver
// modules.
#pragma once

#include "kernel_test.h"

#include "driver_state.h"

#include <string>
#include <vector>

class DriverTest : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        ResetDriverState(3); // the mask before driver entry
    }

    void TearDown() override {
        EXPECT_EQ(MemoryCounter, 0u) << "bytes still counted by MemAlloc";
        KernelTest::TearDown();
    }

    // Every line the driver printed so far, the unfinished one excluded.
    const std::vector<std::string>& TraceLines() { return dbg().Lines(); }
};
