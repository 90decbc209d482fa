#include "usb_fixture.h"

void UsbDeviceTest::Start(const sm::Profile& profile, hu::BusOptions options, size_t function) {
    TraceMask = TL_ASSERT | TL_ERROR | TL_INFO | TL_HUB | TL_USBCFG | TL_SND;
    bus_ = std::make_unique<hu::Bus>(options);
    modem_ = std::make_shared<sm::Modem>(profile);
    port_ = bus_->Plug(modem_);
    PDEVICE_OBJECT pdo = bus_->Pdo(port_, function);
    ASSERT_NE(pdo, nullptr);
    ASSERT_EQ(IoCreateDevice(driver_.Object(), 0, nullptr, FILE_DEVICE_MODEM, 0, FALSE, &attach_),
              STATUS_SUCCESS);
    device_ = std::make_unique<DEVICE>();
    dev_ = device_.get();
    dev_->Type = EXTENSION_TYPE_DEVICE;
    dev_->Magic = DEVICE_MAGIC;
    dev_->Port.PortName = port_name_;
    dev_->Pdo = pdo;
    dev_->LowerDevObj = IoAttachDeviceToDeviceStack(attach_, pdo);
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

NTSTATUS NTAPI UsbDeviceTest::OnTransferDone(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* transfer = static_cast<TestTransfer*>(context);
    transfer->completed = true;
    transfer->status = irp->IoStatus.Status;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TestTransfer* UsbDeviceTest::Submit(PUSB_PIPE pipe, bool in, std::vector<uint8_t> data,
                                    ULONG in_length) {
    transfers_.push_back(std::make_unique<TestTransfer>());
    TestTransfer* transfer = transfers_.back().get();
    transfer->buffer = in ? std::vector<uint8_t>(in_length) : std::move(data);
    auto& bulk = transfer->urb.UrbBulkOrInterruptTransfer;
    bulk.Hdr.Length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    bulk.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    bulk.PipeHandle = pipe->PipeHandle;
    bulk.TransferFlags = USBD_SHORT_TRANSFER_OK | (in ? USBD_TRANSFER_DIRECTION_IN : 0);
    bulk.TransferBuffer = transfer->buffer.data();
    bulk.TransferBufferLength = ULONG(transfer->buffer.size());
    transfer->irp = IoAllocateIrp(dev_->StackSize, FALSE);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(transfer->irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = &transfer->urb;
    IoSetCompletionRoutine(transfer->irp, OnTransferDone, transfer, TRUE, TRUE, TRUE);
    IoCallDriver(dev_->LowerDevObj, transfer->irp);
    return transfer;
}

void UsbDeviceTest::TearDown() {
    if (dev_ != nullptr) {
        for (auto& transfer : transfers_)
            if (!transfer->completed)
                IoCancelIrp(transfer->irp);
        RunFor(1);
        for (auto& transfer : transfers_) {
            EXPECT_TRUE(transfer->completed) << "a transfer never completed";
            IoFreeIrp(transfer->irp);
        }
        UnconfigureDevice(usb_, FALSE);
        MemFree(dev_->ControlIrp);
        IoDetachDevice(dev_->LowerDevObj);
        IoDeleteDevice(attach_);
    }
    transfers_.clear();
    if (bus_)
        bus_->Unplug(port_);
    bus_.reset();
    modem_.reset();
    DriverTest::TearDown();
}
