#include "ioctl_rig.h"

void IoctlTest::SetUp() {
    DeviceFixture::SetUp();
    TraceMask = 0xFFFFFFFF; // every line, so that tests can look for the ones they expect
    dbg().Clear();
}

void IoctlTest::TearDown() {
    if (dev_ != nullptr) {
        EXPECT_EQ(dev_->Port.WaitIrp, nullptr) << "a test left a wait pending";
    }
    DeviceFixture::TearDown();
}

IoctlResult IoctlTest::Ioctl(ULONG Code, const void* Input, ULONG InputLength, ULONG OutputLength,
                             bool Internal) {
    const auto* Bytes = static_cast<const uint8_t*>(Input);
    AppRequest* Request =
        Control(Code, std::vector<uint8_t>(Bytes, Bytes + InputLength), OutputLength, Internal);
    EXPECT_TRUE(Wait(Request));
    return IoctlResult{Request->status, Request->information, Request->buffer};
}

void IoctlTest::RaiseEvents(ULONG Events) {
    KIRQL OldIrql;
    DEVICE_LOCK(dev_, &OldIrql);
    IndicateWaitEvent(&dev_->Port, Events);
    DEVICE_UNLOCK(dev_, OldIrql);
}
