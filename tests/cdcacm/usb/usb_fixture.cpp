#include "usb_fixture.h"

void UsbDeviceTest::Start(const sm::Profile& profile, hu::BusOptions options, size_t function) {
    TraceMask = TL_ASSERT | TL_ERROR | TL_INFO | TL_HUB | TL_USBCFG | TL_SND;
    Plug(profile, hu::Speed::kFull, options);
    pdo_ = bus_->Pdo(port_, function);
    ASSERT_NE(pdo_, nullptr);
    ASSERT_EQ(IoCreateDevice(driver_.Object(), 0, nullptr, FILE_DEVICE_MODEM, 0, FALSE, &attach_),
              STATUS_SUCCESS);
    device_ = std::make_unique<DEVICE>();
    dev_ = device_.get();
    dev_->Type = EXTENSION_TYPE_DEVICE;
    dev_->Magic = DEVICE_MAGIC;
    dev_->Port.PortName = port_name_;
    dev_->Pdo = pdo_;
    dev_->LowerDevObj = IoAttachDeviceToDeviceStack(attach_, pdo_);
    dev_->StackSize = dev_->LowerDevObj->StackSize;
    dev_->IrpSize = IoSizeOfIrp(dev_->StackSize);
    // As device creation makes it: pool of IRP size, initialised by hand.
    dev_->ControlIrp = static_cast<PIRP>(MemAlloc(dev_->IrpSize, 'PNP0'));
    IoInitializeIrp(dev_->ControlIrp, dev_->IrpSize, dev_->StackSize);
    dev_->Cfg.RequestTimeout = 400;
    dev_->Cfg.HighPowerCfg = 1;
    dev_->Cfg.LowPowerCfg = 0;
    usb_ = &dev_->UsbDevice;
    UsbDeviceInit(dev_, usb_);
}

NTSTATUS UsbDeviceTest::Configure() {
    NTSTATUS status = GetDeviceDescriptor(usb_, &dev_->DeviceDescriptor);
    if (!NT_SUCCESS(status))
        return status;
    status = InitUsbDevice(usb_);
    dev_->UsbDeviceEnabled = NT_SUCCESS(status);
    return status;
}

void UsbDeviceTest::TearDown() {
    EndRequests();
    if (dev_ != nullptr) {
        UnconfigureDevice(usb_, FALSE);
        MemFree(dev_->ControlIrp);
        IoDetachDevice(dev_->LowerDevObj);
        IoDeleteDevice(attach_);
    }
    BusRig::TearDown();
}
