#include "ioctl_rig.h"

#include <cstring>
#include <utility>

bool PendingIoctl::Completed() {
    return KeReadStateEvent(&Event) != 0;
}

bool PendingIoctl::Wait(int64_t Milliseconds) {
    LARGE_INTEGER Timeout;
    Timeout.QuadPart = -Milliseconds * 10000;
    return KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, &Timeout) == STATUS_SUCCESS;
}

ULONG PendingIoctl::Mask() const {
    ULONG Value = 0;
    memcpy(&Value, Output.data(), sizeof(Value));
    return Value;
}

void IoctlTest::SetUp() {
    DeviceFixture::SetUp();
    TraceMask = 0xFFFFFFFF; // every line, so that tests can look for the ones they expect
    dev_->UsbDeviceEnabled = TRUE;
    send_pool_.Magic = USB_PACKET_POOL_MAGIC;
    send_pool_.PacketCount = 1;
    send_pool_.Count = 1;
    dev_->WritePipe.Pool = &send_pool_;
    dbg().Clear();
}

void IoctlTest::TearDown() {
    if (dev_ != nullptr) {
        EXPECT_EQ(dev_->Port.WaitIrp, nullptr) << "a test left a wait pending";
        dev_->WritePipe.Pool = nullptr;
    }
    DeviceFixture::TearDown();
}

void IoctlTest::Start(PendingIoctl* Request, ULONG Code, const void* Input, ULONG InputLength,
                      ULONG OutputLength, bool Internal) {
    KeInitializeEvent(&Request->Event, NotificationEvent, FALSE);
    Request->Output.assign(OutputLength, 0xCC);
    Request->IoStatus.Status = DEFAULT_STATUS;
    Request->IoStatus.Information = 0;
    Request->Irp =
        IoBuildDeviceIoControlRequest(Code, data_port_, const_cast<void*>(Input), InputLength,
                                      OutputLength != 0 ? Request->Output.data() : nullptr,
                                      OutputLength, Internal, &Request->Event, &Request->IoStatus);
    ASSERT_NE(Request->Irp, nullptr);
    Request->DispatchResult = IoCallDriver(data_port_, Request->Irp);
}

IoctlResult IoctlTest::Ioctl(ULONG Code, const void* Input, ULONG InputLength, ULONG OutputLength,
                             bool Internal) {
    PendingIoctl Request;
    Start(&Request, Code, Input, InputLength, OutputLength, Internal);
    if (Request.DispatchResult == STATUS_PENDING)
        KeWaitForSingleObject(&Request.Event, Executive, KernelMode, FALSE, NULL);
    return IoctlResult{Request.IoStatus.Status, Request.IoStatus.Information,
                       std::move(Request.Output)};
}

void IoctlTest::RaiseEvents(ULONG Events) {
    KIRQL OldIrql;
    DEVICE_LOCK(dev_, &OldIrql);
    IndicateWaitEvent(&dev_->Port, Events);
    DEVICE_UNLOCK(dev_, OldIrql);
}
