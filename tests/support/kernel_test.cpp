#include "kernel_test.h"

void KernelTest::SetUp() {
    // HK_SEED and HK_INTERLEAVE let a campaign run every test under other
    // seeds and the interleaving mode.
    Restart(next_options_.value_or(hk::KernelOptions::FromEnvironment()));
}

void KernelTest::TearDown() {
    kernel_.reset();
}

void KernelTest::Restart(hk::KernelOptions options) {
    kernel_.reset();
    kernel_ = std::make_unique<hk::Kernel>(options);
    // The verifier's message already names the options that reproduce the run.
    kernel_->verifier().SetHandler(
        [](const std::string&, const std::string& message) { ADD_FAILURE() << message; });
}
