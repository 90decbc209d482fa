#include "kernel_test.h"

namespace {
void InstallFailureHandler(hk::Kernel& kernel) {
    // The verifier's message already names the seed that reproduces the run.
    kernel.verifier().SetHandler(
        [](const std::string&, const std::string& message) { ADD_FAILURE() << message; });
}
} // namespace

void KernelTest::SetUp() {
    kernel_ = std::make_unique<hk::Kernel>();
    InstallFailureHandler(*kernel_);
}

void KernelTest::TearDown() {
    kernel_.reset();
}

void KernelTest::Restart(hk::KernelOptions options) {
    kernel_.reset();
    kernel_ = std::make_unique<hk::Kernel>(options);
    InstallFailureHandler(*kernel_);
}
