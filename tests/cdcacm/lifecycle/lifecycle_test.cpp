// A modem's whole life under the emulated Plug and Play manager, with the
// driver loaded through its entry: loading and unloading, naming and links,
// surprise removal and re-plug with a handle open, the stop, query, cancel
// and capabilities requests, open and close, and every allocation of add
// and start failed in turn.
#include "modem_life.h"
#include "hostkernel/errorlog.h"

#include <map>

namespace {

// The driver loads at the first modem and unloads after the last, reporting
// memory it still counts; an unreadable service key makes it trace all.
TEST_F(ModemLife, TheDriverLoadsWithItsFirstModemAndUnloadsAfterTheLast) {
    int port = Plug();
    EXPECT_EQ(pnp().Loads("cdcacm"), 1);
    EXPECT_TRUE(
        dbg().Contains("ACM:\\Registry\\Machine\\System\\CurrentControlSet\\Services\\cdcacm"));
    EXPECT_EQ(TraceMask, kTraceMask) << "read from the service key";
    PVOID kept = MemAlloc(10, 'tpeK');
    Unplug(port);
    EXPECT_EQ(pnp().Unloads("cdcacm"), 1);
    EXPECT_TRUE(dbg().Contains("ACM:Memory Log:"));
    EXPECT_TRUE(dbg().Contains("  MemoryCounter:      10"));
    EXPECT_TRUE(dbg().Contains("ACM.]DriverUnload"));
    MemFree(kept);

    dbg().Clear();
    kernel().registry().Faults().Add("service key",
                                     hk::FaultKnob{.nth = 1, .match = hk::Registry::kOpen});
    port = Plug();
    kernel().registry().Faults().Clear();
    EXPECT_EQ(pnp().Loads("cdcacm"), 2) << "a new load for the next modem";
    EXPECT_EQ(TraceMask, 255u);
    EXPECT_TRUE(dbg().Contains("ACM:Open of Software key failed"));
    EXPECT_TRUE(dbg().Contains("ACM:DriverEntry: read configuration failed."));
    Unplug(port);
    EXPECT_FALSE(dbg().Contains("Memory Log")) << "nothing leaked: only the two unload lines";
    EXPECT_EQ(dbg().Count("DriverUnload"), 2u);
}

TEST_F(ModemLife, DataPortsAreNumberedAndLinkedToTheirComNames) {
    kernel().registry().SetString(std::string(hk::Registry::kEnumPath) + "\\" + kOrdinary +
                                      "\\Device Parameters",
                                  "PortName", "COM12");
    int ordinary = Plug();
    Plug(sm::NoSerialNumber());
    EXPECT_EQ(pnp().Device(kOrdinary)->state, hk::PnpState::kStarted);
    EXPECT_EQ(hk::detail::Narrow(*hk::detail::Io().LinkTarget(u"\\DosDevices\\COM12")),
              "\\Device\\korvadem0");
    EXPECT_EQ(hk::detail::Narrow(*hk::detail::Io().LinkTarget(u"\\DosDevices\\COM1")),
              "\\Device\\korvadem1");
    EXPECT_EQ(kernel().registry().GetString(kSerialComm, "\\Device\\korvadem0"), "COM12");
    EXPECT_EQ(kernel().registry().GetString(kSerialComm, "\\Device\\korvadem1"), "COM1");
    auto enabled = [&] {
        size_t count = 0;
        for (const hk::DeviceInterface& interface : pnp().interfaces().List())
            count += interface.enabled;
        return count;
    };
    EXPECT_EQ(enabled(), 2u) << "one COM-port interface per modem, enabled";
    PDEVICE dev = DataPort(u"\\Device\\korvadem0");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->SernumLength, 18u) << "KM0000001 in UTF-16";
    EXPECT_EQ(kernel().registry().GetString(std::string(hk::Registry::kEnumPath) + "\\" +
                                                kOrdinary + "\\Device Parameters",
                                            "SerialNumber"),
              "KM0000001");

    Unplug(ordinary);
    EXPECT_EQ(hk::detail::Io().LinkTarget(u"\\DosDevices\\COM12"), nullptr);
    EXPECT_FALSE(kernel().registry().GetString(kSerialComm, "\\Device\\korvadem0"));
    EXPECT_EQ(enabled(), 1u);
    EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), nullptr) << "an idle data port goes with its modem";
}

TEST_F(ModemLife, ALinkThatCannotBeCreatedFailsTheAddAndIsLogged) {
    UNICODE_STRING link, target;
    RtlInitUnicodeString(&link, u"\\DosDevices\\COM1");
    RtlInitUnicodeString(&target, u"\\Device\\Elsewhere");
    ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
    Plug();
    EXPECT_EQ(pnp().Device(kOrdinary)->state, hk::PnpState::kAddFailed);
    ASSERT_EQ(kernel().errorlog().Entries().size(), 1u);
    EXPECT_NE(kernel().errorlog().Format().find("Cannot create symbolic link. Use Device Manager"),
              std::string::npos);
    EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), nullptr);
    EXPECT_TRUE(kernel().registry().ValueNames(kSerialComm).empty());
    EXPECT_EQ(MemoryCounter, 0u);
    IoDeleteSymbolicLink(&link);
}

// The handle keeps the data port across the modem's absence and the same
// modem joins it again. (That a read pending across it completes and data
// flows both ways afterwards is the simulator's surprise-removal scenario.)
TEST_F(ModemLife, AnOpenPortSurvivesSurpriseRemovalAndTheSameModemJoinsItAgain) {
    int port = Plug();
    PDEVICE dev = DataPort(u"\\Device\\korvadem0");
    hk::File& file = Open(u"\\DosDevices\\COM1");
    ULONG mask = SERIAL_EV_RXCHAR;
    ASSERT_EQ(file.DeviceIoControl(IOCTL_SERIAL_SET_WAIT_MASK, &mask, 4, nullptr, 0).status,
              STATUS_SUCCESS);
    auto wait = file.DeviceIoControlAsync(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, 4);
    auto write = file.WriteAsync("hello", 5);
    kernel().Sleep(20);

    Unplug(port);
    EXPECT_EQ(pnp().Device(kOrdinary)->state, hk::PnpState::kRemoved)
        << "the data port's handle does not hold the modem's stack";
    ASSERT_TRUE(wait->Done());
    EXPECT_EQ(wait->Result().status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(wait->Output()[0], 0) << "the wait completes with no event";
    EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), dev) << "the open handle holds the data port";
    EXPECT_EQ(hk::detail::Io().LinkTarget(u"\\DosDevices\\COM1"), nullptr);
    EXPECT_FALSE(dbg().Contains("IoDeleteSymbolicLink_1 failed"))
        << "removal deletes nothing twice";

    Plug();
    EXPECT_TRUE(dbg().Contains("PnPAddDevice use existing Device Object"));
    EXPECT_EQ(DataPort(u"\\Device\\korvadem1"), nullptr) << "no second data port";
    EXPECT_TRUE(dev->DeviceInitialized);
    EXPECT_EQ(bus_->Notifications(ports_.back()).size(), 1u)
        << "the new lower stack is told the port is open";

    file.Close();
    EXPECT_TRUE(write->Done());
    Unplug(ports_.back());
    EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), nullptr);
}

TEST_F(ModemLife, WhichPlugsShareADataPort) {
    struct Row {
        const char* what;
        sm::Profile profile;
        bool keep_open;         // a handle holds the first data port over the re-plug
        const char16_t* second; // the data port the re-plug gets
        bool joined;            // ... by joining the one still held
    };
    const Row rows[] = {
        {"idle, same serial number", sm::OrdinaryModem(), false, u"\\Device\\korvadem0", false},
        {"open, no serial number", sm::NoSerialNumber(), true, u"\\Device\\korvadem1", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        int port = Plug(row.profile);
        if (row.keep_open)
            Open(u"\\Device\\korvadem0");
        Unplug(port);
        dbg().Clear();
        int again = Plug(row.profile);
        EXPECT_NE(DataPort(row.second), nullptr);
        EXPECT_EQ(dbg().Contains("PnPAddDevice use existing Device Object"), row.joined);
        files_.clear();
        Unplug(again);
        EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), nullptr);
        EXPECT_EQ(DataPort(u"\\Device\\korvadem1"), nullptr);
    }

    // One serial number, two interfaces: two data ports, and each function
    // of a re-plug joins its own.
    int composite = Plug(sm::CompositeTwoAcm());
    Open(u"\\Device\\korvadem0");
    Open(u"\\Device\\korvadem1");
    Unplug(composite);
    dbg().Clear();
    Plug(sm::CompositeTwoAcm());
    for (const char* instance :
         {"USB\\VID_FFF0&PID_0001&MI_00\\KM0000001", "USB\\VID_FFF0&PID_0001&MI_02\\KM0000001"})
        EXPECT_EQ(pnp().Device(instance)->state, hk::PnpState::kStarted) << instance;
    EXPECT_EQ(dbg().Count("PnPAddDevice use existing Device Object"), 2u);
    EXPECT_EQ(DataPort(u"\\Device\\korvadem2"), nullptr);
}

TEST_F(ModemLife, ASecondModemWithTheSerialNumberOfOneAttachedIsRefused) {
    Plug();
    sm::Profile twin = sm::OrdinaryModem();
    twin.product_id = 0x0002;
    const std::string key = "USB\\VID_FFF0&PID_0002\\KM0000001";
    // The twin was started before, while the first modem was away: its key
    // names the same serial number, interface and configuration.
    const DEVICE_CFG& cfg = DataPort(u"\\Device\\korvadem0")->Cfg;
    const std::string twin_key =
        std::string(hk::Registry::kEnumPath) + "\\" + key + "\\Device Parameters";
    kernel().registry().SetDword(twin_key, "UsbInterface", cfg.UsbInterface);
    kernel().registry().SetDword(twin_key, "UsbConfig", cfg.UsbConfig);
    kernel().registry().SetString(twin_key, "SerialNumber", "KM0000001");
    Plug(twin);
    EXPECT_TRUE(dbg().Contains("PnPAddDevice LowerDevObj != NULL! serial number KM0000001!"));
    EXPECT_EQ(pnp().Device(key)->state, hk::PnpState::kAddFailed);
    EXPECT_EQ(DataPort(u"\\Device\\korvadem1"), nullptr);
}

TEST_F(ModemLife, StopQueryAndCancelRequestsStopAndResumeTheTransfers) {
    int port = Plug();
    PDEVICE dev = DataPort(u"\\Device\\korvadem0");
    Open(u"\\DosDevices\\COM1");
    auto reads_out = [&] { return 5 - dev->ReceivePipe.Pool->Count; };
    ASSERT_EQ(reads_out(), 5u);

    EXPECT_EQ(hk::PnpManager::Send(Top(port), IRP_MN_QUERY_STOP_DEVICE).status, STATUS_SUCCESS);
    EXPECT_EQ(reads_out(), 0u);
    EXPECT_TRUE(dev->SndRcvRef) << "a query keeps the transfers' reference";
    EXPECT_EQ(hk::PnpManager::Send(Top(port), IRP_MN_CANCEL_STOP_DEVICE).status, STATUS_SUCCESS);
    kernel().Sleep(10);
    EXPECT_EQ(reads_out(), 5u);
    EXPECT_EQ(dev->PnpState, ULONG(PNP_STATE_STARTED));

    // A rebalance stops, releases and starts again, writing the identity anew.
    const std::string key =
        std::string(hk::Registry::kEnumPath) + "\\" + kOrdinary + "\\Device Parameters";
    kernel().registry().SetString(key, "SerialNumber", "stale");
    const LONG refs = dev->RefCount;
    ASSERT_TRUE(pnp().Rebalance(kOrdinary));
    EXPECT_TRUE(dbg().Contains("DispatchPnp: IRP_MN_STOP_DEVICE"));
    EXPECT_EQ(kernel().registry().GetString(key, "SerialNumber"), "KM0000001");
    kernel().Sleep(100);
    EXPECT_EQ(dev->RefCount, refs) << "the stop released the reference the restart took again";
    EXPECT_EQ(reads_out(), 5u);

    // Unsupported requests go down with their status untouched.
    EXPECT_EQ(hk::PnpManager::Send(Top(port), kLegacyBusInformation).status, STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(dbg().Contains("unsupported MinorFunction: 18, pass thru"));

    const DEVICE_CAPABILITIES& caps = pnp().Device(kOrdinary)->capabilities;
    EXPECT_EQ(caps.DeviceState[PowerSystemHibernate], PowerDeviceD3);
    EXPECT_EQ(caps.DeviceState[PowerSystemShutdown], PowerDeviceD3);
    EXPECT_TRUE(caps.SurpriseRemovalOK);
    EXPECT_EQ(dev->Capabilities.SurpriseRemovalOK, 1u);
}

TEST_F(ModemLife, OpenIsExclusiveAndNeedsAnInitializedDevice) {
    int port = Plug();
    PDEVICE dev = DataPort(u"\\Device\\korvadem0");
    hk::File& file = Open(u"\\DosDevices\\COM1");
    const LONG refs = dev->RefCount;
    // The modem's interface leads to the attach object, which the I/O
    // manager does not hold exclusive for the data port's handle.
    Open(pnp().interfaces().List().at(0).name, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(dbg().Contains("ACM:COM1A:Open data port rejected, in use"));
    EXPECT_EQ(dev->OpenCount, 1);
    EXPECT_EQ(dev->RefCount, refs);
    file.Close();
    Unplug(port);

    // The modem refuses its control lines: no re-initialisation succeeds.
    hu::UsbFaultKnob always;
    always.every = 1;
    always.match = hu::RequestKey(sm::kSetControlLineState);
    bus_->AddFault(hu::Fault::kError, always);
    Plug();
    dev = DataPort(u"\\Device\\korvadem0");
    EXPECT_FALSE(dev->DeviceInitialized);
    Open(u"\\DosDevices\\COM1", STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(dbg().Contains(
        "ACM:COM1S:DispatchCreate Device not initialized, hardware problem, reject open"));
    EXPECT_EQ(dev->OpenCount, 0);
    bus_->ClearFaults();
    kernel().Sleep(2500); // the retries run out
}

TEST_F(ModemLife, CleanupHangsUpAndFlushesPendingRequests) {
    Plug();
    hk::File& file = Open(u"\\DosDevices\\COM1");
    ULONG mask = SERIAL_EV_RXCHAR;
    file.DeviceIoControl(IOCTL_SERIAL_SET_WAIT_MASK, &mask, 4, nullptr, 0);
    auto wait = file.DeviceIoControlAsync(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, 4);
    auto read = file.ReadAsync(10);
    // The bulk-out pipe holds the first write; the second waits in the queue.
    bus_->AddFault(hu::Fault::kDelay, DelayedOut(5000));
    // A packet of 2048 bytes in flight, 2048 in the send buffer, the rest
    // of the write waiting.
    std::vector<uint8_t> big(6000, 'x');
    auto write = file.WriteAsync(big.data(), ULONG(big.size()));
    kernel().Sleep(20);
    const size_t requests = ModemOn(0).Requests().size();
    file.Cleanup();
    kernel().Sleep(10);
    EXPECT_EQ(read->Result().status, STATUS_CANCELLED);
    EXPECT_EQ(write->Result().status, STATUS_CANCELLED);
    EXPECT_EQ(wait->Result().status, STATUS_SUCCESS);
    EXPECT_EQ(wait->Output()[0], 0);
    ASSERT_GT(ModemOn(0).Requests().size(), requests);
    EXPECT_EQ(ModemOn(0).Requests()[requests].setup.request, sm::kSetControlLineState);
    EXPECT_EQ(ModemOn(0).Requests()[requests].setup.value, 0);
    file.Close();
}

// The last close lets the send buffer drain for about a second, then stops
// the transfers whatever is left.
TEST_F(ModemLife, CloseDrainsTheSendBufferForAtMostASecond) {
    struct Row {
        bool cts_flow; // CTS never comes: the bytes stay in the send buffer
        int64_t min_ms, max_ms;
        const char* line;
    };
    for (const Row& row : {Row{false, 50, 80, "DispatchClose: TX buf is empty."},
                           Row{true, 1020, 1045, "DispatchClose: TIMED OUT waiting"}}) {
        SCOPED_TRACE(row.line);
        kernel().registry().SetDword(std::string(hk::Registry::kEnumPath) + "\\" + kOrdinary +
                                         "\\Device Parameters",
                                     "useCtsFlowControl", row.cts_flow);
        int port = Plug();
        hk::File& file = Open(u"\\DosDevices\\COM1");
        // Without flow control the first packet is held 50 ms, and ten bytes
        // wait behind it.
        if (!row.cts_flow)
            bus_->AddFault(hu::Fault::kDelay, DelayedOut(50));
        file.WriteAsync("0123456789", 10);
        kernel().Sleep(1);
        file.WriteAsync("0123456789", 10);
        int64_t start = kernel().NowMs();
        file.Close();
        int64_t took = kernel().NowMs() - start;
        EXPECT_GE(took, row.min_ms);
        EXPECT_LE(took, row.max_ms);
        EXPECT_TRUE(dbg().Contains(row.line));
        EXPECT_TRUE(dbg().Contains("OpenCount == 0 Stop SendAndReceive"));
        bus_->ClearFaults();
        files_.clear();
        Unplug(port);
        dbg().Clear();
    }
}

// Each allocation of add and start, failed in turn: the add leaves nothing
// behind, or the start fails and a later plug starts.
TEST_F(ModemLife, EveryAllocationOfAddAndStartMayFail) {
    std::map<hk::PnpState, int> outcomes;
    for (uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        modems_.push_back(std::make_shared<sm::Modem>(sm::OrdinaryModem()));
        int port = bus_->Plug(modems_.back());
        ports_.push_back(port);
        hk::FaultKnob fault;
        fault.nth = nth;
        fault.except = hk::detail::kIrpTag; // the manager's own requests
        hk::FaultKnob& knob = kernel().pool().Faults().Add("add and start", fault);
        pnp().Settle();
        kernel().Sleep(100);
        const bool fired = knob.fired != 0;
        kernel().pool().Faults().Clear();
        // The fault may also hit the bus's answers to the manager, which
        // then never gets to the driver.
        const hk::PnpDevice* device = pnp().Device(kOrdinary);
        if (device != nullptr)
            outcomes[device->state]++;
        if (device == nullptr || device->state != hk::PnpState::kStarted) {
            EXPECT_TRUE(fired);
            if (device != nullptr && device->state == hk::PnpState::kAddFailed) {
                EXPECT_EQ(bus_->Pdo(port)->AttachedDevice, nullptr) << "no attach object left";
            }
            EXPECT_EQ(DataPort(u"\\Device\\korvadem0"), nullptr);
            EXPECT_TRUE(kernel().registry().ValueNames(kSerialComm).empty());
            Unplug(port);
            EXPECT_EQ(MemoryCounter, 0u);
            port = Plug();
            EXPECT_EQ(pnp().Device(kOrdinary)->state, hk::PnpState::kStarted);
        }
        Unplug(port);
        EXPECT_EQ(MemoryCounter, 0u);
        if (!fired || HasFailure())
            break;
    }
    EXPECT_GT(outcomes[hk::PnpState::kAddFailed], 5);
    EXPECT_GT(outcomes[hk::PnpState::kStartFailed], 0);
}

} // namespace
