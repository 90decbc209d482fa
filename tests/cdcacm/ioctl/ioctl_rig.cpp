#include "ioctl_rig.h"

#include <cstring>

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
                      ULONG OutputLength) {
    KeInitializeEvent(&Request->Event, NotificationEvent, FALSE);
    Request->Output.assign(OutputLength, 0xCC);
    Request->IoStatus.Status = DEFAULT_STATUS;
    Request->IoStatus.Information = 0;
    Request->Irp =
        IoBuildDeviceIoControlRequest(Code, data_port_, const_cast<void*>(Input), InputLength,
                                      OutputLength != 0 ? Request->Output.data() : nullptr,
                                      OutputLength, FALSE, &Request->Event, &Request->IoStatus);
    ASSERT_NE(Request->Irp, nullptr);
    Request->DispatchResult = IoCallDriver(data_port_, Request->Irp);
}

IoctlResult IoctlTest::Ioctl(ULONG Code, const void* Input, ULONG InputLength, ULONG OutputLength,
                             bool Internal) {
    KEVENT Event;
    IO_STATUS_BLOCK IoStatus;
    IoStatus.Status = DEFAULT_STATUS;
    IoStatus.Information = 0;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IoctlResult Result;
    Result.Output.assign(OutputLength, 0xCC);
    PIRP Irp =
        IoBuildDeviceIoControlRequest(Code, data_port_, const_cast<void*>(Input), InputLength,
                                      OutputLength != 0 ? Result.Output.data() : nullptr,
                                      OutputLength, Internal, &Event, &IoStatus);
    EXPECT_NE(Irp, nullptr);
    if (Irp == nullptr)
        return Result;
    NTSTATUS Status = IoCallDriver(data_port_, Irp);
    if (Status == STATUS_PENDING)
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    Result.Status = IoStatus.Status;
    Result.Information = IoStatus.Information;
    return Result;
}

void IoctlTest::RaiseEvents(ULONG Events) {
    KIRQL OldIrql;
    DEVICE_LOCK(dev_, &OldIrql);
    IndicateWaitEvent(&dev_->Port, Events);
    DEVICE_UNLOCK(dev_, OldIrql);
}
