// Re-initialisation of the modem after USB errors: what a successful run
// restarts, the four delayed retries of a failing one with their port resets
// and error-log entries, the limit of two queued runs, the runs that have
// nothing to do; the error-log entries themselves and the numbered names.
#define TRACE_FILE "tests/cdcacm/reinit"
#include "device_fixture.h"
#include "hostkernel/errorlog.h"

#include <cstring>

namespace {

class Reinitialisation : public DeviceFixture {
  protected:
    Options DeviceOptions() override {
        Options options;
        options.started = true;
        return options;
    }
    void SetUp() override {
        DeviceFixture::SetUp();
        TraceMask |= TL_INFO | TL_ERROR;
    }
    size_t Runs() { return dbg().Count("ACM:COM3:[Reinit"); }
    const std::vector<hk::ErrorLogEntry>& Logged() { return kernel().errorlog().Entries(); }
};

TEST_F(Reinitialisation, ASuccessfulRunRestartsTheTransfersAndMarksTheDeviceInitialized) {
    struct Row {
        ULONG flow_test;
        ULONG chunk; // SendChunkSize afterwards
    };
    for (const Row& row : {Row{0, 4096}, Row{50, 64}}) {
        dev_->Cfg.FlowTest = row.flow_test;
        dev_->ReinitCount = 3; // a series ends on its first success
        ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_SET_WAIT_MASK, {SERIAL_EV_CTS, 0, 0, 0}, 0)));
        KIRQL irql;
        DEVICE_LOCK(dev_, &irql);
        dev_->ReceivedModemStatus = SERIAL_MSR_CTS; // reported while the port was down
        dev_->ModemStatus = 0;
        DEVICE_UNLOCK(dev_, irql);
        const size_t requests = modem_->Requests().size();

        ScheduleReinit(dev_);
        RunFor(200);
        EXPECT_TRUE(dev_->DeviceInitialized);
        EXPECT_EQ(dev_->ReinitCount, 0u);
        EXPECT_EQ(dev_->ReinitPending, 0);
        EXPECT_EQ(dev_->SendChunkSize, row.chunk);
        EXPECT_EQ(dev_->ModemStatus, ULONG(SERIAL_MSR_CTS));
        EXPECT_EQ(port_->PendingEvents & SERIAL_EV_CTS, ULONG(SERIAL_EV_CTS))
            << "the line that changed while the port was down is an event";
        ASSERT_GT(modem_->Requests().size(), requests);
        EXPECT_EQ(modem_->Requests()[requests].setup.request, sm::kSetControlLineState);
        EXPECT_EQ(dev_->ReceivePipe.Pool->Count, 0u) << "the five reads are out again";
        AppRequest* write = Write("ok");
        ASSERT_TRUE(Wait(write));
        RunFor(20);
        EXPECT_EQ(modem_->Pull(), (std::vector<uint8_t>{'o', 'k'}));
    }
    EXPECT_EQ(dbg().Count("ACM:COM3:RequestWakeupIrp: PC does not support wake up"), 2u)
        << "a wait-wake is considered after each success";
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: USBResetDevice "), 2u) << "the series' third attempt";
}

TEST_F(Reinitialisation, AFailingInitPortRetriesFourTimes500msApartWithPortResets) {
    hu::UsbFaultKnob always;
    always.every = 1;
    always.match = hu::RequestKey(sm::kSetControlLineState);
    bus_->AddFault(hu::Fault::kError, always);

    ScheduleReinit(dev_);
    RunFor(5000);
    EXPECT_EQ(Runs(), 5u);
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: Schedule delayed reinit"), 4u);
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: USBResetDevice "), 3u) << "runs three to five";
    EXPECT_FALSE(dev_->DeviceInitialized);
    EXPECT_EQ(dev_->ReinitPending, 0);
    ASSERT_EQ(Logged().size(), 5u);
    for (size_t n = 0; n < Logged().size(); ++n) {
        const hk::ErrorLogEntry& entry = Logged()[n];
        EXPECT_EQ(entry.size, 108u);
        EXPECT_EQ(entry.error_code, NTSTATUS(LOG_ERROR_CODE));
        EXPECT_EQ(entry.unique_error_value, 0xEBEBEBEBu);
        EXPECT_EQ(entry.strings, std::vector<std::u16string>{u"Unable to init physical port."});
        EXPECT_EQ(entry.raw[40], 'U');
        if (n > 0) {
            const int64_t apart = entry.time_ms - Logged()[n - 1].time_ms;
            EXPECT_GE(apart, 500);
            EXPECT_LT(apart, 600);
        }
    }
    bus_->ClearFaults();
}

TEST_F(Reinitialisation, ThreeSchedulesBeforeAnyRunQueueTwo) {
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql); // no run can finish meanwhile
    for (int n = 0; n < 3; ++n)
        ScheduleReinit(dev_);
    EXPECT_EQ(dev_->ReinitPending, 2);
    KeLowerIrql(irql);
    RunFor(500);
    EXPECT_EQ(Runs(), 2u);
    EXPECT_EQ(dev_->ReinitPending, 0);
}

TEST_F(Reinitialisation, ADisabledOrSleepingDeviceIsLeftAloneAndNotRetried) {
    struct Row {
        BOOLEAN enabled;
        ULONG power;
        const char* trace;
    };
    const Row rows[] = {{FALSE, PowerDeviceD0, "ACM:COM3:Reinit: UsbDeviceEnabled not enabled"},
                        {TRUE, PowerDeviceD3, "ACM:COM3:Reinit: Device is in sleep mode"}};
    for (const Row& row : rows) {
        dbg().Clear();
        dev_->DeviceInitialized = TRUE;
        dev_->UsbDeviceEnabled = row.enabled;
        dev_->DevicePowerState = row.power;
        ScheduleReinit(dev_);
        RunFor(1500);
        EXPECT_TRUE(dbg().Contains(row.trace));
        EXPECT_EQ(Runs(), 1u) << "no retry";
        EXPECT_FALSE(dev_->DeviceInitialized);
        EXPECT_EQ(dev_->ReinitPending, 0);
        EXPECT_EQ(dev_->ReceivePipe.Pool->Count, 0u) << "nothing was stopped";
        dev_->UsbDeviceEnabled = TRUE;
        dev_->DevicePowerState = PowerDeviceD0;
    }
    EXPECT_TRUE(Logged().empty());
}

TEST_F(Reinitialisation, ErrorLogEntriesCarryTheMessageCutTo51Characters) {
    TraceMask |= TL_ASSERT;
    const char* link_message = "Cannot create symbolic link. Use Device Manager to select a free "
                               "COM port for this driver.";
    LogError(dev_->Pdo, 0xC0000035, link_message);
    ASSERT_EQ(Logged().size(), 1u);
    EXPECT_EQ(Logged()[0].size, 50u + 51 * 2);
    EXPECT_EQ(Logged()[0].final_status, NTSTATUS(0xC0000035));
    const std::string text(link_message);
    EXPECT_EQ(Logged()[0].strings,
              std::vector<std::u16string>{std::u16string(text.begin(), text.begin() + 51)});
    EXPECT_TRUE(dbg().Contains(std::string("ACM:LogError:FATAL: conversion of '") + link_message +
                               "' to UNICODE failed"));

    kernel().pool().Faults().Add("error log",
                                 hk::FaultKnob{.every = 1, .match = hk::ErrorLog::kTag});
    LogNoMemory(dev_->DriverObject, LOG_ERROR_CODE);
    EXPECT_TRUE(dbg().Contains("ACM:LogError:FATAL: IoAllocateErrorLogEntry failed, size:102"));
    EXPECT_EQ(Logged().size(), 1u);
    kernel().pool().Faults().Clear();
}

using PortObject = DriverTest;

// CreatePort undoes what it built when the request pool or the serial port
// cannot be had; the data port stays initialising until the pool exists.
TEST_F(PortObject, CreatePortUndoesWhatItBuiltWhenAnAllocationFails) {
    struct Row {
        ULONG tag;
        NTSTATUS status;
        const char* trace;
        bool initialising;
    };
    const Row rows[] = {
        {DPOOL_TAG, STATUS_INSUFFICIENT_RESOURCES,
         "ACM:COM?:CreatePort: DPoolInit failed (C000009A)", true},
        {SER_PORT_TAG, STATUS_UNSUCCESSFUL, "ACM:COM?:CreatePort: AddPort failed (C000009A)",
         false},
    };
    TraceMask |= TL_ERROR;
    hk::Driver driver;
    for (const Row& row : rows) {
        PDEVICE_OBJECT data_port;
        ASSERT_EQ(IoCreateDevice(driver.Object(), sizeof(DEVICE), nullptr, FILE_DEVICE_SERIAL_PORT,
                                 0, FALSE, &data_port),
                  STATUS_SUCCESS);
        auto* dev = static_cast<PDEVICE>(data_port->DeviceExtension);
        std::memset(dev, 0, sizeof(DEVICE));
        dev->Magic = DEVICE_MAGIC;
        dev->Cfg.ReadCircBufferSize = dev->Cfg.WriteCircBufferSize = 100;
        dev->Cfg.TimerInterval = 10;
        dev->Port.DeviceObject = data_port;
        kernel().pool().Faults().Add("create port", hk::FaultKnob{.nth = 1, .match = row.tag});
        EXPECT_EQ(CreatePort(dev, &dev->Port), row.status);
        EXPECT_TRUE(dbg().Contains(row.trace));
        char exit_line[48];
        std::snprintf(exit_line, sizeof exit_line, "ACM:COM?:]CreatePort (%08X) ",
                      unsigned(row.status));
        EXPECT_TRUE(dbg().Contains(exit_line));
        EXPECT_EQ(dev->Port.SerPort, nullptr);
        EXPECT_EQ(MemoryCounter, 0u) << "nothing is left allocated";
        EXPECT_EQ((data_port->Flags & DO_DEVICE_INITIALIZING) != 0, row.initialising);
        kernel().pool().Faults().Clear();
        IoDeleteDevice(data_port);
    }
}

using NumberedName = KernelTest;

TEST_F(NumberedName, AppendsWhatFitsOfPrefixBaseAndNumber) {
    struct Row {
        const char16_t* prefix;
        const char16_t* base;
        ULONG number;
        USHORT room; // bytes
        std::u16string expected;
    };
    const Row rows[] = {
        {u"\\Device\\", u"korvadem", 0, 240, u"\\Device\\korvadem0"},
        {nullptr, u"COM", 4294967295u, 240, u"COM4294967295"},
        {u"\\Device\\", u"korvadem", 123, 36, u"\\Device\\korvadem"},
    };
    for (const Row& row : rows) {
        WCHAR buffer[120];
        UNICODE_STRING name{7, row.room, buffer}; // a stale length is reset
        BuildNumberedName(&name, row.prefix, row.base, row.number);
        EXPECT_EQ(std::u16string(buffer, name.Length / sizeof(WCHAR)), row.expected);
    }
}

} // namespace
