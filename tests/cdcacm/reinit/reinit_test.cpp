// Re-initialisation of the modem after USB errors: what a successful run
// restarts, the four delayed retries of a failing one with their port resets
// and error-log entries, the limit of two queued runs, the runs that have
// nothing to do; the error-log entries themselves and the numbered names.
// (A port object whose creation fails is the modem life's allocation sweep.)
#define TRACE_FILE "tests/cdcacm/reinit"
#include "device_fixture.h"
#include "hostkernel/errorlog.h"

namespace {

class Reinitialisation : public DeviceFixture {
  protected:
    Reinitialisation() { options_.started = true; }
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
        dev->Cfg.FlowTest = row.flow_test;
        dev->ReinitCount = 3; // a series ends on its first success
        ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_SET_WAIT_MASK, {SERIAL_EV_CTS, 0, 0, 0}, 0)));
        Locked([&] {
            dev->ReceivedModemStatus = SERIAL_MSR_CTS; // reported while the port was down
            dev->ModemStatus = 0;
        });
        const size_t requests = modem->Requests().size();

        ScheduleReinit(dev);
        RunFor(200);
        EXPECT_TRUE(dev->DeviceInitialized);
        EXPECT_EQ(dev->ReinitCount, 0u);
        EXPECT_EQ(dev->ReinitPending, 0);
        EXPECT_EQ(dev->SendChunkSize, row.chunk);
        EXPECT_EQ(dev->ModemStatus, ULONG(SERIAL_MSR_CTS));
        EXPECT_EQ(port->PendingEvents & SERIAL_EV_CTS, ULONG(SERIAL_EV_CTS))
            << "the line that changed while the port was down is an event";
        ASSERT_GT(modem->Requests().size(), requests);
        EXPECT_EQ(modem->Requests()[requests].setup.request, sm::kSetControlLineState);
        EXPECT_EQ(dev->ReceivePipe.Pool->Count, 0u) << "the five reads are out again";
        AppRequest* write = Write("ok");
        ASSERT_TRUE(Wait(write));
        RunFor(20);
        EXPECT_EQ(modem->Pull(), (std::vector<uint8_t>{'o', 'k'}));
    }
    EXPECT_EQ(dbg().Count("ACM:COM3:RequestWakeupIrp: PC does not support wake up"), 2u)
        << "a wait-wake is considered after each success";
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: USBResetDevice "), 2u) << "the series' third attempt";
}

TEST_F(Reinitialisation, AFailingInitPortRetriesFourTimes500msApartWithPortResets) {
    hu::UsbFaultKnob always;
    always.every = 1;
    always.match = hu::RequestKey(sm::kSetControlLineState);
    bus->AddFault(hu::Fault::kError, always);

    ScheduleReinit(dev);
    RunFor(5000);
    EXPECT_EQ(Runs(), 5u);
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: Schedule delayed reinit"), 4u);
    EXPECT_EQ(dbg().Count("ACM:COM3:Reinit: USBResetDevice "), 3u) << "runs three to five";
    EXPECT_FALSE(dev->DeviceInitialized);
    EXPECT_EQ(dev->ReinitPending, 0);
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
    bus->ClearFaults();
}

TEST_F(Reinitialisation, ThreeSchedulesBeforeAnyRunQueueTwo) {
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql); // no run can finish meanwhile
    for (int n = 0; n < 3; ++n)
        ScheduleReinit(dev);
    EXPECT_EQ(dev->ReinitPending, 2);
    KeLowerIrql(irql);
    RunFor(500);
    EXPECT_EQ(Runs(), 2u);
    EXPECT_EQ(dev->ReinitPending, 0);
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
        dev->DeviceInitialized = TRUE;
        dev->UsbDeviceEnabled = row.enabled;
        dev->DevicePowerState = row.power;
        ScheduleReinit(dev);
        RunFor(1500);
        EXPECT_TRUE(dbg().Contains(row.trace));
        EXPECT_EQ(Runs(), 1u) << "no retry";
        EXPECT_FALSE(dev->DeviceInitialized);
        EXPECT_EQ(dev->ReinitPending, 0);
        EXPECT_EQ(dev->ReceivePipe.Pool->Count, 0u) << "nothing was stopped";
        dev->UsbDeviceEnabled = TRUE;
        dev->DevicePowerState = PowerDeviceD0;
    }
    EXPECT_TRUE(Logged().empty());
}

TEST_F(Reinitialisation, ErrorLogEntriesCarryTheMessageCutTo51Characters) {
    TraceMask |= TL_ASSERT;
    const char* link_message = "Cannot create symbolic link. Use Device Manager to select a free "
                               "COM port for this driver.";
    LogError(dev->Pdo, 0xC0000035, link_message);
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
    LogNoMemory(dev->DriverObject, LOG_ERROR_CODE);
    EXPECT_TRUE(dbg().Contains("ACM:LogError:FATAL: IoAllocateErrorLogEntry failed, size:102"));
    EXPECT_EQ(Logged().size(), 1u);
    kernel().pool().Faults().Clear();
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
