#include "serial_fixture.h"

#include <algorithm>

SerialFakes* g_fakes = nullptr;

// --- doubles of the send engine ---

BOOLEAN GetWriteBuffer(PDEVICE Dev, PUCHAR* Buffer, PULONG MaxLength, PUSB_PACKET* Packet) {
    EXPECT_GT(Dev->CheckLock, 0) << "GetWriteBuffer needs the device lock";
    if (!g_fakes->engine.allowed)
        return FALSE;
    for (auto& packet : g_fakes->engine.packets) {
        if (!packet.out) {
            packet.out = true;
            *Buffer = packet.buffer.data();
            *MaxLength = (ULONG)packet.buffer.size();
            *Packet = reinterpret_cast<PUSB_PACKET>(&packet);
            return TRUE;
        }
    }
    return FALSE;
}

void SubmitWriteBuffer(PDEVICE Dev, PUCHAR Buffer, ULONG Length, PUSB_PACKET Packet) {
    auto* packet = reinterpret_cast<FakeSendEngine::Packet*>(Packet);
    EXPECT_TRUE(packet->out);
    EXPECT_LE(Length, packet->buffer.size());
    g_fakes->engine.submitted.push_back({Bytes(Buffer, Buffer + Length), Dev->CheckLock});
    g_fakes->engine.bytes_submitted += Length;
}

void ReturnWriteBuffer(PDEVICE Dev, PUCHAR, PUSB_PACKET Packet) {
    EXPECT_GT(Dev->CheckLock, 0) << "ReturnWriteBuffer needs the device lock";
    reinterpret_cast<FakeSendEngine::Packet*>(Packet)->out = false;
    g_fakes->engine.returned++;
}

void FakeSendEngine::Configure(size_t count, ULONG size) {
    packets.assign(count, Packet{Bytes(size), false});
}

void FakeSendEngine::CompleteAll() {
    for (auto& packet : packets)
        packet.out = false;
}

void FakeSendEngine::Drain(PSER_PORT port) {
    for (int round = 0; round < 10000; round++) {
        size_t before = bytes_submitted;
        CompleteAll();
        SerPortSend(port, FALSE);
        if (bytes_submitted == before)
            return;
    }
    ADD_FAILURE() << "the send engine never drained";
}

Bytes FakeSendEngine::Stream() const {
    Bytes all;
    for (const auto& chunk : submitted)
        all.insert(all.end(), chunk.bytes.begin(), chunk.bytes.end());
    return all;
}

// --- doubles of the port, dispatch and receive modules ---

VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask) {
    EXPECT_GT(WaitPort->Device->CheckLock, 0) << "IndicateWaitEvent needs the device lock";
    g_fakes->events.push_back(Mask);
}

VOID CompleteRequest(PSER_REQUEST Request) {
    EXPECT_GT(g_fakes->dev->CheckLock, 0) << "CompleteRequest needs the device lock";
    EXPECT_EQ(Request->ListEntry.Flink, &Request->ListEntry) << "completed while still queued";
    for (const auto& done : g_fakes->completions)
        EXPECT_NE(done.request, Request) << "request completed twice";
    g_fakes->completions.push_back(
        {Request, Request->Status, Request->Length, g_fakes->engine.bytes_submitted});
}

ULONG SndRcvIndicateData(PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    return IndicateReadBuffer(Dev->Port.SerPort, Data, Length);
}

static VOID NTAPI SendDpcDouble(PKDPC, PVOID Context, PVOID Pipe, PVOID) {
    auto* dev = static_cast<PDEVICE>(Context);
    EXPECT_EQ(Pipe, &dev->WritePipe);
    g_fakes->send_dpc_runs++;
}

// --- fixture ---

void SerialTest::SetUp() {
    DriverTest::SetUp();
    g_fakes = &fakes;
    fakes.engine.Configure(1, 64);
    dev.reset(new DEVICE());
    fakes.dev = dev.get();
    dev->Magic = DEVICE_MAGIC;
    dev->Port.Magic = PORT_OBJ_MAGIC;
    dev->Port.Device = dev.get();
    dev->Port.PortName = const_cast<PWSTR>(WSTR("COM7"));
    KeInitializeSpinLock(&dev->Lock);
    KeInitializeEvent(&dev->FlagSentEvent, NotificationEvent, FALSE);
    KeInitializeDpc(&dev->WritePipe.Dpc, SendDpcDouble, dev.get());
    MakePort(1000, 1000, 10);
}

void SerialTest::TearDown() {
    if (port != nullptr)
        DeleteSerPort(port);
    port = nullptr;
    g_fakes = nullptr;
    DriverTest::TearDown();
}

void SerialTest::MakePort(ULONG rcv_size, ULONG snd_size, ULONG tick_ms) {
    if (port != nullptr)
        DeleteSerPort(port);
    port = nullptr;
    ASSERT_EQ(AddPort(&port, dev.get(), rcv_size, snd_size, tick_ms, &dev->Port), STATUS_SUCCESS);
    dev->Port.SerPort = port;
}

PSER_REQUEST SerialTest::NewRead(ULONG length) {
    requests_.emplace_back();
    TestRequest& r = requests_.back();
    r.data.assign(length, 0);
    r.request = SER_REQUEST{};
    InitializeListHead(&r.request.ListEntry);
    r.request.Buffer = r.data.data();
    r.request.Length = length;
    r.request.Status = DEFAULT_STATUS;
    r.request.Irp = reinterpret_cast<PIRP>(&r.irp);
    r.request.Port = &dev->Port;
    r.request.Flags = SER_REQUEST_READ;
    return &r.request;
}

PSER_REQUEST SerialTest::NewWrite(const Bytes& data) {
    PSER_REQUEST request = NewRead((ULONG)data.size());
    std::copy(data.begin(), data.end(), static_cast<PUCHAR>(request->Buffer));
    request->Flags = 0;
    return request;
}

NTSTATUS SerialTest::AddRead(PSER_REQUEST request) {
    KIRQL irql;
    DEVICE_LOCK(dev.get(), &irql);
    NTSTATUS status = SqueueAddRequest(&port->RcvQueue, request, &port->CircRcvBuf);
    DEVICE_UNLOCK(dev.get(), irql);
    return status;
}

ULONG SerialTest::Indicate(const Bytes& data) {
    KIRQL irql;
    DEVICE_LOCK(dev.get(), &irql);
    ULONG accepted = IndicateReadBuffer(port, data.data(), (ULONG)data.size());
    DEVICE_UNLOCK(dev.get(), irql);
    return accepted;
}

void SerialTest::Tick(int count) {
    for (int i = 0; i < count; i++) {
        KIRQL irql;
        DEVICE_LOCK(dev.get(), &irql);
        SqueueTimerTick(&port->RcvQueue);
        SqueueTimerTick(&port->SndQueue);
        DEVICE_UNLOCK(dev.get(), irql);
    }
}

void SerialTest::SetTimeouts(ULONG interval, ULONG read_multiplier, ULONG read_constant,
                             ULONG write_multiplier, ULONG write_constant) {
    SER_SETTINGS& s = port->Settings;
    s.ReadIntervalTimeout = interval;
    s.ReadTotalTimeoutMultiplier = read_multiplier;
    s.ReadTotalTimeoutConstant = read_constant;
    s.WriteTotalTimeoutMultiplier = write_multiplier;
    s.WriteTotalTimeoutConstant = write_constant;
    KIRQL irql;
    DEVICE_LOCK(dev.get(), &irql);
    SqueueCheckTimeMode(&port->RcvQueue, &s);
    SqueueCheckTimeMode(&port->SndQueue, &s);
    DEVICE_UNLOCK(dev.get(), irql);
}

const Completion* SerialTest::CompletionOf(PSER_REQUEST request) const {
    for (const auto& done : fakes.completions)
        if (done.request == request)
            return &done;
    return nullptr;
}

Bytes SerialTest::ReadData(PSER_REQUEST request) const {
    auto* data = static_cast<const UCHAR*>(request->Buffer);
    return Bytes(data, data + request->Length);
}

size_t SerialTest::EventCount(ULONG mask) const {
    return std::count(fakes.events.begin(), fakes.events.end(), mask);
}
