// The data-port rig: builds the device on a simulated modem, sends the
// application's requests and takes it all apart again (device_rig.h).
// Runs on the application thread of the current emulated kernel; takes
// the device lock only in Receive.
// The device lock macros name the file in their assertions.
#define TRACE_FILE "tests/cdcacm/support/device_rig"
#include "device_rig.h"

#include "hostkernel/iomgr.h"

#include <algorithm>
#include <cstdio>

void DeviceRig::Fail(const std::string& message) {
    failures_.push_back(message);
    if (on_failure_)
        on_failure_(message);
}

bool DeviceRig::Check(NTSTATUS status, const char* what) {
    if (status == STATUS_SUCCESS)
        return true;
    char text[160];
    std::snprintf(text, sizeof(text), "%s failed with status 0x%08x", what, unsigned(status));
    Fail(text);
    return false;
}

bool DeviceRig::DataPortDeleted() const {
    const hk::detail::DeviceInfo* info = hk::detail::Io().FindDevice(data_port);
    return info == nullptr || info->delete_requested;
}

bool DeviceRig::Build(const Options& options) {
    keep_irps_ = options.keep_irps;
    driver.Type = IO_TYPE_DRIVER;
    driver.Size = sizeof(DRIVER_OBJECT);
    driver_extension.DriverObject = &driver;
    driver.DriverExtension = &driver_extension;
    driver.MajorFunction[IRP_MJ_READ] = DispatchRead;
    driver.MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
    driver.MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    driver.MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalDeviceControl;

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, WSTR("\\Device\\korvadem0"));
    if (!Check(IoCreateDevice(&driver, sizeof(DEVICE), &name, FILE_DEVICE_SERIAL_PORT, 0, FALSE,
                              &data_port),
               "IoCreateDevice of the data port"))
        return false;

    // The rig's own reference keeps the extension readable after the driver
    // deleted the data port.
    ObReferenceObject(data_port);
    dev = static_cast<PDEVICE>(data_port->DeviceExtension);
    port = &dev->Port;
    InitializeListHead(&dev->ListEntry);
    dev->Type = EXTENSION_TYPE_DEVICE;
    dev->DriverObject = &driver;
    dev->Magic = DEVICE_MAGIC;
    dev->DevicePowerState = PowerDeviceD0;
    dev->Cfg.TimerInterval = options.timer_interval;
    dev->Cfg.ReadCircBufferSize = options.rcv_buffer;
    dev->Cfg.WriteCircBufferSize = options.snd_buffer;
    dev->RefCount = 1; // the data port's own reference
    InitTimerObj(&dev->QueueTimer, TimerDpcRoutine, dev, options.timer_interval);
    InitTimerObj(&dev->ReinitTimer, ReinitTimerFnc, dev, 500);
    InitTimerObj(&dev->WaitCancelTimer, DelayWaitCancelFnc, dev, 100);
    KeInitializeEvent(&dev->TimerIdle, NotificationEvent, FALSE);
    KeInitializeMutex(&dev->DeviceMutex, 0);
    KeInitializeSpinLock(&dev->Lock);
    CompleteQueueInit(&dev->CompleteQueue);

    port->DeviceObject = data_port;
    // Device deletion frees the name, as it frees one read from the registry.
    port->PortName = static_cast<PWSTR>(MemAlloc(sizeof(kPortName), 'emaN'));
    RtlCopyMemory(port->PortName, kPortName, sizeof(kPortName));
    if (!Check(CreatePort(dev, port), "CreatePort"))
        return false;
    ser = port->SerPort;
    return AttachToModem(options);
}

bool DeviceRig::AttachToModem(const Options& options) {
    bus = std::make_unique<hu::Bus>(options.bus);
    modem = std::make_shared<sm::Modem>(sm::OrdinaryModem(options.speed),
                                        options.loopback ? sm::Modem::DataMode::kLoopback
                                                         : sm::Modem::DataMode::kTest);
    bus_port = bus->Plug(modem, options.speed);
    if (!Check(IoCreateDevice(&driver, sizeof(ATTACH_OBJ), nullptr, FILE_DEVICE_MODEM, 0, FALSE,
                              &attach_),
               "IoCreateDevice of the attach object"))
        return false;
    auto* attach = static_cast<PATTACH_OBJ>(attach_->DeviceExtension);
    attach->Type = EXTENSION_TYPE_ATTACH;
    attach->DeviceObject = attach_;
    attach->Device = dev;
    dev->Pdo = bus->Pdo(bus_port);
    dev->LowerDevObj = IoAttachDeviceToDeviceStack(attach_, dev->Pdo);
    attach->LowerDevObj = dev->LowerDevObj;
    attach_->Flags &= ~DO_DEVICE_INITIALIZING;
    dev->StackSize = dev->LowerDevObj->StackSize;
    dev->IrpSize = IoSizeOfIrp(dev->StackSize);
    dev->ControlIrp = static_cast<PIRP>(MemAlloc(dev->IrpSize, 'PNP0'));
    IoInitializeIrp(dev->ControlIrp, dev->IrpSize, dev->StackSize);

    // As device creation leaves them: registry defaults, pipe contexts
    // without pipes, the flow-test timer and the frame-flag event.
    dev->Cfg.RequestTimeout = 400;
    dev->Cfg.HighPowerCfg = 1;
    dev->Cfg.LowPowerCfg = 0;
    dev->Cfg.ReadBufferSize = options.read_packet;
    dev->Cfg.WriteBufferSize = options.write_packet;
    dev->SendChunkSize = options.write_packet;
    InitTimerObj(&dev->FlowTestTimer, RcvTimerRoutine, dev, 0);
    KeInitializeEvent(&dev->FlagSentEvent, NotificationEvent, FALSE);
    if (!Check(SndInit(&dev->WritePipe, dev, SndOutComplete, nullptr, options.write_packet, 1),
               "SndInit") ||
        !Check(RcvInit(&dev->ReceivePipe, dev, SndRcvIndicateData, nullptr, options.read_packet, 5,
                       FALSE),
               "RcvInit of the bulk-in pipe") ||
        !Check(RcvInit(&dev->IntPipe, dev, RcvIntIn, nullptr, 16, 1, TRUE),
               "RcvInit of the interrupt pipe"))
        return false;

    UsbDeviceInit(dev, &dev->UsbDevice);
    if (!Check(GetDeviceDescriptor(&dev->UsbDevice, &dev->DeviceDescriptor),
               "GetDeviceDescriptor") ||
        !Check(InitUsbDevice(&dev->UsbDevice), "InitUsbDevice"))
        return false;
    dev->UsbDeviceEnabled = TRUE;
    if (options.started)
        StartPipes();
    return true;
}

void DeviceRig::StartPipes() {
    dev->OpenCount = 1;
    StartSendAndReceive(dev);
}

void DeviceRig::DetachFromModem() {
    if (attach_ == nullptr)
        return;
    // A device the driver deleted has its packet pools freed already.
    if (!DataPortDeleted()) {
        StopSendAndReceive(dev, TRUE);
        RunFor(1);
    }
    UnconfigureDevice(&dev->UsbDevice, FALSE);
    IoDetachDevice(dev->LowerDevObj);
    IoDeleteDevice(attach_);
    attach_ = nullptr;
    bus->Unplug(bus_port);
    bus.reset();
    modem.reset();
}

bool DeviceRig::SwitchToPpp(const std::vector<uint8_t>& special_chars) {
    modem->SetSpecialChars(special_chars);
    modem->RequestFraming(true);
    RunFor(20); // the interrupt endpoint's next poll
    AppRequest* flag = Write(std::vector<uint8_t>{0x7E});
    if (!Wait(flag) || flag->status != STATUS_SUCCESS) {
        Fail("the flag that starts framing was not written");
        return false;
    }
    RunFor(50); // the framing requests
    if (dev->PppState != PPP_STATE_ON || !modem->Framing()) {
        Fail("framing did not start");
        return false;
    }
    return true;
}

std::vector<std::pair<uint8_t, uint16_t>> DeviceRig::ModemRequests() const {
    std::vector<std::pair<uint8_t, uint16_t>> requests;
    for (const sm::RecordedRequest& request : modem->Requests())
        requests.emplace_back(request.setup.request, request.setup.value);
    return requests;
}

void DeviceRig::TearDown() {
    if (dev != nullptr) {
        // A data port the driver deleted has nothing left to stop or flush.
        bool deleted = DataPortDeleted();
        if (!deleted)
            StopDevice();
        DetachFromModem();
        if (!deleted && ser != nullptr) {
            KIRQL irql;
            KeAcquireSpinLock(&dev->Lock, &irql);
            SqueueFlush(&ser->RcvQueue);
            SqueueFlush(&ser->SndQueue);
            KeReleaseSpinLock(&dev->Lock, irql);
            RunFor(1);
        }
        for (auto& request : requests_)
            if (!request->completed)
                Fail("a request never completed");
        DropCompleted();
        // The data port's own reference goes last, and with it the device.
        if (!deleted) {
            dev->RefCount = 1;
            DEVICE_RELEASE(dev);
        }
        ObDereferenceObject(data_port);
    }
    requests_.clear();
    dev = nullptr;
    port = nullptr;
    ser = nullptr;
    data_port = nullptr;
}

void DeviceRig::StopDevice() {
    // Re-initialisations still queued or retrying run out first: each may
    // start the queue timer and the transfers again.
    for (int wait = 0; wait < 100 && dev->ReinitPending > 0; ++wait) {
        KeCancelTimer(&dev->ReinitTimer.Timer);
        RunFor(10);
    }
    KeCancelTimer(&dev->ReinitTimer.Timer);
    StopTimer(dev);
    KeCancelTimer(&dev->WaitCancelTimer.Timer);
    for (auto& request : requests_)
        if (!request->completed && request->irp != nullptr)
            IoCancelIrp(request->irp);
    RunFor(1); // completion DPCs and work items
}

NTSTATUS NTAPI DeviceRig::OnComplete(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    auto* request = static_cast<AppRequest*>(Context);
    request->completions++;
    request->completed = true;
    request->status = Irp->IoStatus.Status;
    request->information = Irp->IoStatus.Information;
    request->pending_returned = Irp->PendingReturned;
    request->context_cleared = true;
    for (PVOID word : Irp->Tail.Overlay.DriverContext)
        request->context_cleared = request->context_cleared && word == nullptr;
    request->completed_at_ms = hk::Kernel::Current().NowMs();
    request->completion_order = ++*request->order_source;
    if (request->keep_irp) {
        Irp->CancelIrql = 0xCD; // no processor runs at it
    } else {
        request->irp = nullptr;
        IoFreeIrp(Irp);
    }
    if (request->on_complete)
        request->on_complete();
    KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
    // The IRP was ours and is freed: the I/O manager must not touch it again.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

AppRequest* DeviceRig::NewRequest(UCHAR major, ULONG buffer_length) {
    auto request = std::make_unique<AppRequest>();
    KeInitializeEvent(&request->done, NotificationEvent, FALSE);
    request->order_source = &completions_;
    request->keep_irp = keep_irps_;
    // Like the I/O manager's system buffer, past the input it holds garbage.
    request->buffer.assign(std::max<ULONG>(buffer_length, 1), hk::Pool::kNewFill);
    PIRP irp = IoAllocateIrp(data_port->StackSize, FALSE);
    irp->AssociatedIrp.SystemBuffer = request->buffer.data();
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    irp->RequestorMode = UserMode;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    IoSetCompletionRoutine(irp, OnComplete, request.get(), TRUE, TRUE, TRUE);
    request->irp = irp;
    requests_.push_back(std::move(request));
    return requests_.back().get();
}

void DeviceRig::DropCompleted() {
    for (auto& request : requests_)
        if (request->completed && request->keep_irp)
            IoFreeIrp(request->irp);
    requests_.erase(std::remove_if(requests_.begin(), requests_.end(),
                                   [](const auto& request) { return request->completed; }),
                    requests_.end());
}

AppRequest* DeviceRig::Prepare(UCHAR major, ULONG buffer_length) {
    return NewRequest(major, buffer_length);
}

void DeviceRig::Send(AppRequest* request, bool cancel_first) {
    if (cancel_first && IoCancelIrp(request->irp))
        Fail("IoCancelIrp found a cancel routine before the driver had the IRP");
    request->returned = IoCallDriver(data_port, request->irp);
}

AppRequest* DeviceRig::Read(ULONG length, bool cancel_first) {
    AppRequest* request = NewRequest(IRP_MJ_READ, length);
    IoGetNextIrpStackLocation(request->irp)->Parameters.Read.Length = length;
    Send(request, cancel_first);
    return request;
}

AppRequest* DeviceRig::Write(const std::vector<uint8_t>& data, bool cancel_first) {
    AppRequest* request = NewRequest(IRP_MJ_WRITE, static_cast<ULONG>(data.size()));
    std::copy(data.begin(), data.end(), request->buffer.begin());
    IoGetNextIrpStackLocation(request->irp)->Parameters.Write.Length =
        static_cast<ULONG>(data.size());
    Send(request, cancel_first);
    return request;
}

AppRequest* DeviceRig::Control(ULONG code, const std::vector<uint8_t>& input, ULONG output_length,
                               bool internal) {
    ULONG input_length = static_cast<ULONG>(input.size());
    AppRequest* request =
        NewRequest(internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL,
                   std::max(input_length, output_length));
    std::copy(input.begin(), input.end(), request->buffer.begin());
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(request->irp);
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    stack->Parameters.DeviceIoControl.InputBufferLength = input_length;
    stack->Parameters.DeviceIoControl.OutputBufferLength = output_length;
    Send(request);
    return request;
}

bool DeviceRig::Wait(AppRequest* request, int64_t ms) {
    if (!request->completed) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -ms * 10000;
        KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, &timeout);
    }
    return request->completed;
}

ULONG DeviceRig::Receive(const std::vector<uint8_t>& data) {
    KIRQL irql;
    DEVICE_LOCK(dev, &irql);
    ULONG taken = IndicateReadBuffer(ser, data.data(), static_cast<ULONG>(data.size()));
    DEVICE_UNLOCK(dev, irql);
    return taken;
}

bool DeviceRig::SetReadTimeouts(ULONG interval, ULONG multiplier, ULONG constant) {
    const SERIAL_TIMEOUTS timeouts = {interval, multiplier, constant, 0, 0};
    const auto* bytes = reinterpret_cast<const uint8_t*>(&timeouts);
    AppRequest* request = Control(IOCTL_SERIAL_SET_TIMEOUTS, {bytes, bytes + sizeof(timeouts)}, 0);
    if (!Wait(request)) {
        Fail("IOCTL_SERIAL_SET_TIMEOUTS never completed");
        return false;
    }
    return Check(request->status, "IOCTL_SERIAL_SET_TIMEOUTS");
}
