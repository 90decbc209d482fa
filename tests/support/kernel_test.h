// A fresh emulated kernel per test. Verifier violations become test
// failures; the teardown reports leaked pool, timers, DPCs and threads.
#pragma once

#include "hostkernel/emu.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

// A due time or time-out ms milliseconds from now, as the kernel takes it.
inline LARGE_INTEGER RelativeMs(int64_t ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Recreates the kernel with other options (a seed, real time).
    void Restart(hk::KernelOptions options);
    // The options the next SetUp builds its kernel with, instead of the
    // environment's (a test that tears down and sets up again per seed).
    void UseOptions(hk::KernelOptions options) { next_options_ = options; }
    hk::Kernel& kernel() { return *kernel_; }
    // On two processors the completion DPC may run on both at once, so IRPs
    // queued for completion in one burst may finish in another order, and a
    // DPC may start while the lock it waits for is still held.
    bool OnTwoProcessors() const {
        const auto& options = kernel_->Options().interleave;
        return options.enabled && options.processors > 1;
    }
    hk::Debugger& dbg() { return kernel_->Dbg(); }

  private:
    std::unique_ptr<hk::Kernel> kernel_;
    std::optional<hk::KernelOptions> next_options_;
};
