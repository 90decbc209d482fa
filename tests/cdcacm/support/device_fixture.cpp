// The device lock macros name the file in their assertions.
#define TRACE_FILE "tests/cdcacm/support/device_fixture"
#include "device_fixture.h"

#include <algorithm>

void DeviceFixture::SetUp() {
    DriverTest::SetUp();
    Lifecycle() = LifecycleCalls{};
    const Options options = DeviceOptions();

    driver_.Type = IO_TYPE_DRIVER;
    driver_.Size = sizeof(DRIVER_OBJECT);
    driver_extension_.DriverObject = &driver_;
    driver_.DriverExtension = &driver_extension_;
    driver_.MajorFunction[IRP_MJ_READ] = DispatchRead;
    driver_.MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
    driver_.MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    driver_.MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalDeviceControl;

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, WSTR("\\Device\\korvadem0"));
    ASSERT_EQ(IoCreateDevice(&driver_, sizeof(DEVICE), &name, FILE_DEVICE_SERIAL_PORT, 0, FALSE,
                             &data_port_),
              STATUS_SUCCESS);
    data_port_->Flags |= DO_BUFFERED_IO;
    data_port_->Flags &= ~DO_DEVICE_INITIALIZING;

    dev_ = static_cast<PDEVICE>(data_port_->DeviceExtension);
    port_ = &dev_->Port;
    dev_->Type = EXTENSION_TYPE_DEVICE;
    dev_->DriverObject = &driver_;
    dev_->Magic = DEVICE_MAGIC;
    dev_->DevicePowerState = PowerDeviceD0;
    dev_->Cfg.TimerInterval = options.timer_interval;
    dev_->RefCount = 1; // the data port's own reference
    InitTimerObj(&dev_->QueueTimer, TimerDpcRoutine, dev_, options.timer_interval);
    InitTimerObj(&dev_->WaitCancelTimer, DelayWaitCancelFnc, dev_, 100);
    KeInitializeEvent(&dev_->TimerIdle, NotificationEvent, FALSE);
    KeInitializeMutex(&dev_->DeviceMutex, 0);
    KeInitializeSpinLock(&dev_->Lock);
    CompleteQueueInit(&dev_->CompleteQueue);

    port_->DeviceObject = data_port_;
    port_->Device = dev_;
    port_->PortName = port_name_;
    IrpQueueInit(&port_->ReadIrpQueue);
    IrpQueueInit(&port_->WriteIrpQueue);
    port_->Magic = PORT_OBJ_MAGIC;
    ASSERT_EQ(DPoolInit(&port_->RequestPool, 5, 40, 10, sizeof(SER_REQUEST)), STATUS_SUCCESS);
    ASSERT_EQ(AddPort(&port_->SerPort, dev_, options.rcv_buffer, options.snd_buffer,
                      options.timer_interval, port_),
              STATUS_SUCCESS);
    ser_ = port_->SerPort;
    AttachToModem(options);
}

void DeviceFixture::AttachToModem(const Options& options) {
    bus_ = std::make_unique<hu::Bus>(options.bus);
    modem_ = std::make_shared<sm::Modem>(sm::OrdinaryModem(options.speed),
                                         options.loopback ? sm::Modem::DataMode::kLoopback
                                                          : sm::Modem::DataMode::kTest);
    bus_port_ = bus_->Plug(modem_, options.speed);
    ASSERT_EQ(IoCreateDevice(&driver_, sizeof(ATTACH_OBJ), nullptr, FILE_DEVICE_MODEM, 0, FALSE,
                             &attach_),
              STATUS_SUCCESS);
    auto* attach = static_cast<PATTACH_OBJ>(attach_->DeviceExtension);
    attach->Type = EXTENSION_TYPE_ATTACH;
    attach->DeviceObject = attach_;
    attach->Device = dev_;
    dev_->Pdo = bus_->Pdo(bus_port_);
    dev_->LowerDevObj = IoAttachDeviceToDeviceStack(attach_, dev_->Pdo);
    attach->LowerDevObj = dev_->LowerDevObj;
    attach_->Flags &= ~DO_DEVICE_INITIALIZING;
    dev_->StackSize = dev_->LowerDevObj->StackSize;
    dev_->IrpSize = IoSizeOfIrp(dev_->StackSize);
    dev_->ControlIrp = static_cast<PIRP>(MemAlloc(dev_->IrpSize, 'PNP0'));
    IoInitializeIrp(dev_->ControlIrp, dev_->IrpSize, dev_->StackSize);

    // As device creation leaves them: registry defaults, pipe contexts
    // without pipes, the flow-test timer and the frame-flag event.
    dev_->Cfg.RequestTimeout = 400;
    dev_->Cfg.HighPowerCfg = 1;
    dev_->Cfg.LowPowerCfg = 0;
    dev_->Cfg.ReadBufferSize = options.read_packet;
    dev_->Cfg.WriteBufferSize = options.write_packet;
    dev_->SendChunkSize = options.write_packet;
    InitTimerObj(&dev_->FlowTestTimer, RcvTimerRoutine, dev_, 0);
    KeInitializeEvent(&dev_->FlagSentEvent, NotificationEvent, FALSE);
    ASSERT_EQ(SndInit(&dev_->WritePipe, dev_, SndOutComplete, nullptr, options.write_packet, 1),
              STATUS_SUCCESS);
    ASSERT_EQ(RcvInit(&dev_->ReceivePipe, dev_, SndRcvIndicateData, nullptr, options.read_packet, 5,
                      FALSE),
              STATUS_SUCCESS);
    ASSERT_EQ(RcvInit(&dev_->IntPipe, dev_, RcvIntIn, nullptr, 16, 1, TRUE), STATUS_SUCCESS);

    UsbDeviceInit(dev_, &dev_->UsbDevice);
    ASSERT_EQ(GetDeviceDescriptor(&dev_->UsbDevice, &dev_->DeviceDescriptor), STATUS_SUCCESS);
    ASSERT_EQ(InitUsbDevice(&dev_->UsbDevice), STATUS_SUCCESS);
    dev_->UsbDeviceEnabled = TRUE;
    if (options.started)
        StartPipes();
}

void DeviceFixture::StartPipes() {
    dev_->OpenCount = 1;
    StartSendAndReceive(dev_);
}

void DeviceFixture::DetachFromModem() {
    if (attach_ == nullptr)
        return;
    StopSendAndReceive(dev_, TRUE);
    RunFor(1);
    SndFree(&dev_->WritePipe);
    RcvFree(&dev_->ReceivePipe);
    RcvFree(&dev_->IntPipe);
    UnconfigureDevice(&dev_->UsbDevice, FALSE);
    MemFree(dev_->ControlIrp);
    IoDetachDevice(dev_->LowerDevObj);
    IoDeleteDevice(attach_);
    bus_->Unplug(bus_port_);
    bus_.reset();
    modem_.reset();
}

std::vector<std::pair<uint8_t, uint16_t>> DeviceFixture::ModemRequests() const {
    std::vector<std::pair<uint8_t, uint16_t>> requests;
    for (const sm::RecordedRequest& request : modem_->Requests())
        requests.emplace_back(request.setup.request, request.setup.value);
    return requests;
}

void DeviceFixture::TearDown() {
    if (dev_ != nullptr) {
        StopTimer(dev_);
        KeCancelTimer(&dev_->WaitCancelTimer.Timer);
        for (auto& request : requests_)
            if (!request->completed && request->irp != nullptr)
                IoCancelIrp(request->irp);
        RunFor(1); // completion DPCs and work items
        DetachFromModem();
        if (ser_ != nullptr) {
            KIRQL irql;
            KeAcquireSpinLock(&dev_->Lock, &irql);
            SqueueFlush(&ser_->RcvQueue);
            SqueueFlush(&ser_->SndQueue);
            KeReleaseSpinLock(&dev_->Lock, irql);
            RunFor(1);
            DeleteSerPort(ser_);
        }
        for (auto& request : requests_) {
            EXPECT_TRUE(request->completed) << "a request never completed";
        }
        DPoolExit(&port_->RequestPool);
        IoDeleteDevice(data_port_);
    }
    requests_.clear();
    DriverTest::TearDown();
}

NTSTATUS NTAPI DeviceFixture::OnComplete(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
    auto* request = static_cast<AppRequest*>(Context);
    request->completions++;
    request->completed = true;
    request->status = Irp->IoStatus.Status;
    request->information = Irp->IoStatus.Information;
    request->pending_returned = Irp->PendingReturned;
    request->completed_at_ms = hk::Kernel::Current().NowMs();
    request->completion_order = ++*request->order_source;
    request->irp = nullptr;
    IoFreeIrp(Irp);
    if (request->on_complete)
        request->on_complete();
    KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
    // The IRP was ours and is freed: the I/O manager must not touch it again.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

AppRequest* DeviceFixture::NewRequest(UCHAR major, ULONG buffer_length) {
    auto request = std::make_unique<AppRequest>();
    KeInitializeEvent(&request->done, NotificationEvent, FALSE);
    request->order_source = &completions_;
    // Like the I/O manager's system buffer, past the input it holds garbage.
    request->buffer.assign(std::max<ULONG>(buffer_length, 1), hk::Pool::kNewFill);
    PIRP irp = IoAllocateIrp(data_port_->StackSize, FALSE);
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

AppRequest* DeviceFixture::Prepare(UCHAR major, ULONG buffer_length) {
    return NewRequest(major, buffer_length);
}

void DeviceFixture::Send(AppRequest* request, bool cancel_first) {
    if (cancel_first) {
        EXPECT_FALSE(IoCancelIrp(request->irp)) << "no cancel routine is set yet";
    }
    request->returned = IoCallDriver(data_port_, request->irp);
}

AppRequest* DeviceFixture::Read(ULONG length, bool cancel_first) {
    AppRequest* request = NewRequest(IRP_MJ_READ, length);
    IoGetNextIrpStackLocation(request->irp)->Parameters.Read.Length = length;
    Send(request, cancel_first);
    return request;
}

AppRequest* DeviceFixture::Write(const std::vector<uint8_t>& data, bool cancel_first) {
    AppRequest* request = NewRequest(IRP_MJ_WRITE, static_cast<ULONG>(data.size()));
    std::copy(data.begin(), data.end(), request->buffer.begin());
    IoGetNextIrpStackLocation(request->irp)->Parameters.Write.Length =
        static_cast<ULONG>(data.size());
    Send(request, cancel_first);
    return request;
}

AppRequest* DeviceFixture::Control(ULONG code, const std::vector<uint8_t>& input,
                                   ULONG output_length, bool internal) {
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

bool DeviceFixture::Wait(AppRequest* request, int64_t ms) {
    if (!request->completed) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -ms * 10000;
        KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, &timeout);
    }
    return request->completed;
}

ULONG DeviceFixture::Receive(const std::vector<uint8_t>& data) {
    KIRQL irql;
    DEVICE_LOCK(dev_, &irql);
    ULONG taken = IndicateReadBuffer(ser_, data.data(), static_cast<ULONG>(data.size()));
    DEVICE_UNLOCK(dev_, irql);
    return taken;
}

void DeviceFixture::SetReadTimeouts(ULONG interval, ULONG multiplier, ULONG constant) {
    const SERIAL_TIMEOUTS timeouts = {interval, multiplier, constant, 0, 0};
    const auto* bytes = reinterpret_cast<const uint8_t*>(&timeouts);
    AppRequest* request = Control(IOCTL_SERIAL_SET_TIMEOUTS, {bytes, bytes + sizeof(timeouts)}, 0);
    ASSERT_TRUE(Wait(request));
    EXPECT_EQ(request->status, STATUS_SUCCESS);
}
