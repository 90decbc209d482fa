#include "kernel_test.h"

namespace {
void InstallFailureHandler(hk::Kernel& kernel) {
    kernel.verifier().SetHandler([&kernel](const std::string&, const std::string& message) {
        ADD_FAILURE() << message << " (seed " << kernel.Seed() << ")";
    });
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
