#include "bus_client.h"

#include <cstring>

void BusTest::TearDown() {
    for (auto& request : requests_) {
        if (request->irp != nullptr && !request->completed)
            IoCancelIrp(request->irp);
    }
    kernel().Sleep(1);
    for (auto& request : requests_) {
        EXPECT_TRUE(request->completed) << "a request never completed";
        if (request->irp != nullptr && request->completed)
            IoFreeIrp(request->irp);
    }
    requests_.clear();
    if (bus_ && port_ != 0)
        bus_->Unplug(port_);
    bus_.reset();
    modem_.reset();
    KernelTest::TearDown();
}

void BusTest::Plug(const sm::Profile& profile, hu::Speed speed, hu::BusOptions options) {
    bus_ = std::make_unique<hu::Bus>(options);
    modem_ = std::make_shared<sm::Modem>(profile);
    port_ = bus_->Plug(modem_, speed);
    pdo_ = bus_->Pdo(port_);
}

NTSTATUS NTAPI BusTest::OnComplete(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* request = static_cast<BusRequest*>(context);
    request->completed = true;
    request->status = irp->IoStatus.Status;
    request->completed_at = hk::Kernel::Current().Now();
    request->irql = KeGetCurrentIrql();
    request->order = ++*request->counter;
    if (request->on_complete)
        request->on_complete();
    KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

BusRequest* BusTest::NewRequest(size_t urb_bytes, size_t buffer_bytes) {
    requests_.push_back(std::make_unique<BusRequest>());
    BusRequest* request = requests_.back().get();
    request->urb.assign(std::max(urb_bytes, sizeof(URB)), 0);
    request->Urb()->UrbHeader.Length = USHORT(urb_bytes);
    request->buffer.assign(buffer_bytes, 0);
    request->counter = &completions_;
    KeInitializeEvent(&request->done, NotificationEvent, FALSE);
    return request;
}

BusRequest* BusTest::Send(BusRequest* request, ULONG code, PVOID argument, PDEVICE_OBJECT to) {
    PDEVICE_OBJECT target = to ? to : pdo_;
    request->irp = IoAllocateIrp(target->StackSize, FALSE);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(request->irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.Others.Argument1 =
        code == IOCTL_INTERNAL_USB_SUBMIT_URB ? request->urb.data() : argument;
    IoSetCompletionRoutine(request->irp, OnComplete, request, TRUE, TRUE, TRUE);
    request->returned = IoCallDriver(target, request->irp);
    return request;
}

bool BusTest::Wait(BusRequest* request, int64_t ms) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -ms * 10000;
    NTSTATUS status = KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, &timeout);
    return status == STATUS_SUCCESS;
}

BusRequest* BusTest::GetDescriptor(UCHAR type, UCHAR index, ULONG length, USHORT language) {
    BusRequest* request = NewRequest(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), length);
    auto& d = request->Urb()->UrbControlDescriptorRequest;
    d.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    d.DescriptorType = type;
    d.Index = index;
    d.LanguageId = language;
    d.TransferBuffer = request->buffer.data();
    d.TransferBufferLength = length;
    return Send(request);
}

BusRequest* BusTest::ClassOrVendor(USHORT function, bool in, UCHAR code, USHORT value, USHORT index,
                                   std::vector<uint8_t> data, ULONG in_length, ULONG flags) {
    BusRequest* request = NewRequest(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
    request->buffer = in ? std::vector<uint8_t>(in_length) : std::move(data);
    auto& c = request->Urb()->UrbControlVendorClassRequest;
    c.Hdr.Function = function;
    c.TransferFlags = flags | (in ? USBD_TRANSFER_DIRECTION_IN : 0);
    c.TransferBuffer = request->buffer.empty() ? nullptr : request->buffer.data();
    c.TransferBufferLength = ULONG(request->buffer.size());
    c.Request = code;
    c.Value = value;
    c.Index = index;
    return Send(request);
}

BusRequest* BusTest::Transfer(uint8_t endpoint, bool in, std::vector<uint8_t> data, ULONG in_length,
                              ULONG flags) {
    BusRequest* request = NewRequest(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
    request->buffer = in ? std::vector<uint8_t>(in_length) : std::move(data);
    auto& b = request->Urb()->UrbBulkOrInterruptTransfer;
    b.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    b.PipeHandle = pipes_[endpoint];
    b.TransferFlags = flags | (in ? USBD_TRANSFER_DIRECTION_IN : 0);
    b.TransferBuffer = request->buffer.empty() ? nullptr : request->buffer.data();
    b.TransferBufferLength = ULONG(request->buffer.size());
    return Send(request);
}

BusRequest* BusTest::PipeRequest(USHORT function, uint8_t endpoint) {
    BusRequest* request = NewRequest(sizeof(struct _URB_PIPE_REQUEST));
    request->Urb()->UrbPipeRequest.Hdr.Function = function;
    request->Urb()->UrbPipeRequest.PipeHandle = pipes_[endpoint];
    return Send(request);
}

NTSTATUS BusTest::Select(size_t configuration_index, size_t function) {
    const sm::Profile& profile = modem_->profile();
    config_ = sm::ConfigurationBytes(profile.configurations.at(configuration_index));
    auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config_.data());
    std::vector<USBD_INTERFACE_LIST_ENTRY> list;
    const std::vector<uint8_t> interfaces = modem_->Functions().at(function);
    for (uint8_t number : interfaces)
        list.push_back(
            {USBD_ParseConfigurationDescriptorEx(config, config, number, 0, -1, -1, -1), nullptr});
    list.push_back({nullptr, nullptr});
    PURB urb = USBD_CreateConfigurationRequestEx(config, list.data());
    BusRequest* request = NewRequest(urb->UrbHeader.Length);
    memcpy(request->urb.data(), urb, urb->UrbHeader.Length);
    ExFreePool(urb);
    Send(request, IOCTL_INTERNAL_USB_SUBMIT_URB, nullptr, bus_->Pdo(port_, function));
    Wait(request);
    auto& select = request->Urb()->UrbSelectConfiguration;
    PUCHAR end = request->urb.data() + select.Hdr.Length;
    for (auto* info = &select.Interface; reinterpret_cast<PUCHAR>(info) < end;
         info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(info) +
                                                              info->Length))
        for (ULONG p = 0; p < info->NumberOfPipes; ++p)
            pipes_[info->Pipes[p].EndpointAddress] = info->Pipes[p].PipeHandle;
    return request->status;
}

NTSTATUS BusTest::Deselect(size_t function) {
    BusRequest* request = NewRequest(sizeof(struct _URB_SELECT_CONFIGURATION));
    request->Urb()->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    Send(request, IOCTL_INTERNAL_USB_SUBMIT_URB, nullptr, bus_->Pdo(port_, function));
    Wait(request);
    return request->status;
}
