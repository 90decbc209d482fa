// The simulated bus driver as a function driver meets it: URB validation,
// handles of a replaced configuration, cancel from a completion, composite
// functions, bulk-out timing; and as the PnP manager meets it: the IDs and
// capabilities of a function's PDO, and transfers failing at a surprise
// removal. (IN transfers, abort, cancel, the lower-driver notifications, the
// fault knobs' statuses, texts, bus relations and the state requests are
// what every driver test and the simulator's scenarios run through.)
#include "bus_client.h"

#include "hostkernel/pnp.h"

#include <string>
#include <vector>

namespace {

constexpr uint8_t kBulkIn = 0x81;
constexpr uint8_t kBulkOut = 0x01;

// An ordinary modem at full speed in its first configuration.
class ConfiguredBusTest : public BusTest {
  public:
    void SetUp() override {
        BusTest::SetUp();
        Plug(sm::OrdinaryModem());
        ASSERT_EQ(Select(0), STATUS_SUCCESS);
    }
    // A URB of the length with only its function set.
    BusRequest* Bare(size_t length, USHORT function) {
        BusRequest* request = NewRequest(length);
        request->Urb()->UrbHeader.Function = function;
        return request;
    }
    using BusTest::pipes_;
    using BusTest::Send;
    using BusTest::Transfer;
};

// --- validation ---------------------------------------------------------

struct Refusal {
    const char* name;
    BusRequest* (*send)(ConfiguredBusTest&);
    NTSTATUS status;
    USBD_STATUS usbd;
    const char* diagnostic;
};

class BusValidationTest : public ConfiguredBusTest,
                          public ::testing::WithParamInterface<Refusal> {};

TEST_P(BusValidationTest, RefusesWithTheBusDriversStatusAndNamesTheProblem) {
    BusRequest* request = GetParam().send(*this);
    EXPECT_TRUE(request->completed) << "a refused request completes at once";
    EXPECT_EQ(request->returned, GetParam().status);
    EXPECT_EQ(request->status, GetParam().status);
    EXPECT_EQ(request->UsbStatus(), GetParam().usbd);
    ASSERT_FALSE(bus_->Diagnostics().empty());
    EXPECT_NE(bus_->Diagnostics().back().find(GetParam().diagnostic), std::string::npos)
        << bus_->Diagnostics().back();
}

INSTANTIATE_TEST_SUITE_P(
    Urbs, BusValidationTest,
    ::testing::Values(
        Refusal{"UnknownFunction",
                [](ConfiguredBusTest& t) { return t.Send(t.Bare(sizeof(_URB_HEADER), 0x0033)); },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_URB_FUNCTION, "not supported"},
        Refusal{"HeaderLengthOfAnotherLayout",
                [](ConfiguredBusTest& t) {
                    return t.Send(t.Bare(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER),
                                         URB_FUNCTION_VENDOR_INTERFACE));
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "header length"},
        Refusal{"PipeHandleNeverHandedOut",
                [](ConfiguredBusTest& t) {
                    t.pipes_[0x7f] = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
                    return t.Transfer(0x7f, false, {1, 2, 3});
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PIPE_HANDLE, "not a valid handle"},
        Refusal{"TransferWithoutBuffer",
                [](ConfiguredBusTest& t) {
                    BusRequest* r = t.Bare(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER),
                                           URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER);
                    r->Urb()->UrbBulkOrInterruptTransfer.PipeHandle = t.pipes_[kBulkOut];
                    r->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 10;
                    return t.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "without a buffer"},
        Refusal{"DirectionAgainstTheEndpoint",
                [](ConfiguredBusTest& t) {
                    return t.Transfer(kBulkOut, false, {1}, 0, USBD_TRANSFER_DIRECTION_IN);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "does not match endpoint"},
        Refusal{"ControlLengthWithoutBuffer",
                [](ConfiguredBusTest& t) {
                    BusRequest* r = t.Bare(sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                                           URB_FUNCTION_CLASS_INTERFACE);
                    r->Urb()->UrbControlVendorClassRequest.TransferBufferLength = 7;
                    return t.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "without a buffer"},
        Refusal{"UnknownControlCode",
                [](ConfiguredBusTest& t) { return t.Send(t.Bare(sizeof(URB), 0), 0x00220999); },
                STATUS_INVALID_DEVICE_REQUEST, USBD_STATUS_SUCCESS, "unknown internal control"}),
    [](const auto& info) { return std::string(info.param.name); });

// Refusals go on for as long as a simulator runs: only the latest are kept.
TEST_F(ConfiguredBusTest, KeepsTheLatestDiagnosticsOnly) {
    for (size_t i = 0; i < 2 * hu::Bus::kDiagnosticsKept; ++i)
        Send(Bare(sizeof(_URB_HEADER), 0x0033));
    Send(Bare(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), URB_FUNCTION_VENDOR_INTERFACE));
    EXPECT_EQ(bus_->Diagnostics().size(), hu::Bus::kDiagnosticsKept);
    EXPECT_NE(bus_->Diagnostics().back().find("header length"), std::string::npos);
}

// Another configuration, then none: pending transfers end cancelled and
// the old handles stop working.
TEST_F(ConfiguredBusTest, HandlesDieWithTheConfiguration) {
    USBD_PIPE_HANDLE old_out = pipes_[kBulkOut];
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    ASSERT_EQ(Select(1), STATUS_SUCCESS);
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 2);
    EXPECT_EQ(modem_->Configuration(), 2);
    ASSERT_TRUE(Wait(Transfer(kBulkOut, false, {1})));
    USBD_PIPE_HANDLE new_out = pipes_[kBulkOut];
    pipes_[kBulkOut] = old_out;
    EXPECT_EQ(Transfer(kBulkOut, false, {2})->UsbStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);

    pending = Transfer(kBulkIn, true, {}, 64);
    ASSERT_EQ(Deselect(), STATUS_SUCCESS);
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 0);
    pipes_[kBulkOut] = new_out;
    EXPECT_EQ(Transfer(kBulkOut, false, {3})->UsbStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);
}

// Full-speed bulk moves 19 packets of 64 bytes in a 1 ms frame, high speed
// 13 of 512 in a 125 us microframe; a transfer takes the frames it needs.
struct Timing {
    hu::Speed speed;
    ULONG bytes;
    int64_t frames; // frames (or microframes) from the frame the transfer starts in
};

class BusTimingTest : public BusTest, public ::testing::WithParamInterface<Timing> {};

TEST_P(BusTimingTest, BulkOutTakesItsFramesAndReachesTheModem) {
    const Timing& row = GetParam();
    Plug(sm::OrdinaryModem(row.speed), row.speed);
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    kernel().Sleep(3); // mid-frame starts are rounded to the frame's end
    const int64_t frame = row.speed == hu::Speed::kFull ? 10000 : 1250;
    const int64_t start = kernel().Now() / frame * frame;
    BusRequest* out = Transfer(kBulkOut, false, std::vector<uint8_t>(row.bytes, 0x5a));
    ASSERT_TRUE(Wait(out));
    EXPECT_EQ(out->completed_at - start, row.frames * frame);
    EXPECT_EQ(modem_->Pull().size(), row.bytes);
}

INSTANTIATE_TEST_SUITE_P(Speeds, BusTimingTest,
                         ::testing::Values(Timing{hu::Speed::kFull, 19 * 64, 1},
                                           Timing{hu::Speed::kFull, 19 * 64 + 1, 2},
                                           Timing{hu::Speed::kHigh, 13 * 512 + 1, 2}));

// --- cancel, abort, device gone --------------------------------------------

TEST_F(ConfiguredBusTest, CancelFromACompletionOfTheSamePassCompletesOnce) {
    // Both are due at the next frame boundary, so one pass takes both.
    BusRequest* first =
        ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState, 1, 0, {});
    BusRequest* second = Transfer(kBulkOut, false, {1});
    first->on_complete = [second] { IoCancelIrp(second->irp); };
    ASSERT_TRUE(Wait(second));
    EXPECT_EQ(second->status, STATUS_CANCELLED);
    EXPECT_EQ(second->completed_at, first->completed_at);
    EXPECT_TRUE(modem_->Pull().empty());
}

// A device gone at a request takes the pending transfers and the later
// requests with it, and its knob is no longer asked. (Each knob kind's
// statuses are the driver's USB submit and transport tests'.)
TEST_F(ConfiguredBusTest, AGoneDeviceTakesThePendingAndTheLaterRequests) {
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    hu::UsbFaultKnob& added = bus_->AddFault(hu::Fault::kDeviceGone, knob);
    BusRequest* first = Transfer(kBulkOut, false, {1});
    BusRequest* later = Transfer(kBulkOut, false, {2});
    for (BusRequest* request : {pending, first, later}) {
        ASSERT_TRUE(Wait(request));
        EXPECT_EQ(request->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    }
    EXPECT_EQ(later->status, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(added.calls, 1u);
}

// --- composite devices -------------------------------------------------

// (That the second function's configuration descriptor holds only its own
// interfaces the driver's configuration test on it shows.)
TEST_F(BusTest, CompositeFunctionsEachSeeTheirOwnInterfaces) {
    Plug(sm::CompositeTwoAcm());
    ASSERT_EQ(bus_->Pdo(port_, 2), nullptr);
    pdo_ = bus_->Pdo(port_, 1);
    ASSERT_NE(pdo_, nullptr);
    EXPECT_EQ(Select(0, 1), STATUS_SUCCESS);
    EXPECT_NE(pipes_.count(0x84), 0u);
    EXPECT_EQ(pipes_.count(0x81), 0u);
    // The device stays configured while one of its functions is.
    EXPECT_EQ(Select(0, 0), STATUS_SUCCESS);
    EXPECT_EQ(Deselect(1), STATUS_SUCCESS);
    EXPECT_EQ(modem_->Configuration(), 1);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 1);
    EXPECT_EQ(Deselect(0), STATUS_SUCCESS);
    EXPECT_EQ(modem_->Configuration(), 0);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 0);
}

// --- PnP ------------------------------------------------------------------

// The strings of an answer from paged pool, which the caller frees.
std::vector<std::string> TakeStrings(const hk::PnpAnswer& answer, bool multi) {
    std::vector<std::string> strings;
    auto* text = reinterpret_cast<const WCHAR*>(answer.information);
    if (text == nullptr)
        return strings;
    EXPECT_TRUE(hk::Kernel::Current().pool().IsPaged(text)) << "answers come from paged pool";
    for (const WCHAR* at = text; *at != 0 || strings.empty(); ++at) {
        std::string one;
        for (; *at != 0; ++at)
            one += char(*at);
        strings.push_back(one);
        if (!multi)
            break;
    }
    ExFreePool(const_cast<WCHAR*>(text));
    return strings;
}

class BusPnpTest : public BusTest {
  protected:
    hk::PnpAnswer Query(UCHAR minor, PDEVICE_OBJECT to = nullptr,
                        const std::function<void(IO_STACK_LOCATION&)>& fill = {}) {
        return hk::PnpManager::Send(to ? to : pdo_, minor, fill);
    }
    std::vector<std::string> Ids(BUS_QUERY_ID_TYPE type, size_t function, NTSTATUS* status) {
        hk::PnpAnswer answer =
            Query(IRP_MN_QUERY_ID, bus_->Pdo(port_, function),
                  [&](IO_STACK_LOCATION& s) { s.Parameters.QueryId.IdType = type; });
        *status = answer.status;
        return TakeStrings(answer, type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs);
    }
};

struct IdCase {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    size_t function;
    BUS_QUERY_ID_TYPE type;
    std::vector<std::string> strings;
    NTSTATUS status;
};

IdCase Id(const char* name, sm::Profile (*profile)(hu::Speed), size_t function,
          BUS_QUERY_ID_TYPE type, std::vector<std::string> strings,
          NTSTATUS status = STATUS_SUCCESS) {
    return {name, profile, function, type, strings, status};
}

class BusIdTest : public BusPnpTest, public ::testing::WithParamInterface<IdCase> {};

TEST_P(BusIdTest, AnswersAsAUsbBusDriver) {
    Plug(GetParam().profile(hu::Speed::kFull));
    NTSTATUS status;
    EXPECT_EQ(Ids(GetParam().type, GetParam().function, &status), GetParam().strings);
    EXPECT_EQ(status, GetParam().status);
}

const std::vector<std::string> kCompatible = {"USB\\Class_02&SubClass_02&Prot_01",
                                              "USB\\Class_02&SubClass_02", "USB\\Class_02"};
const auto kOrdinary = sm::OrdinaryModem, kNoSerial = sm::NoSerialNumber,
           kComposite = sm::CompositeTwoAcm;

INSTANTIATE_TEST_SUITE_P(
    Ids, BusIdTest,
    ::testing::Values(
        Id("Device", kOrdinary, 0, BusQueryDeviceID, {"USB\\VID_FFF0&PID_0001"}),
        Id("Hardware", kOrdinary, 0, BusQueryHardwareIDs,
           {"USB\\VID_FFF0&PID_0001&REV_0100", "USB\\VID_FFF0&PID_0001"}),
        Id("Compatible", kOrdinary, 0, BusQueryCompatibleIDs, kCompatible),
        Id("InstanceIsTheSerial", kOrdinary, 0, BusQueryInstanceID, {"KM0000001"}),
        Id("InstanceWithoutSerialIsThePorts", kNoSerial, 0, BusQueryInstanceID, {"1&0&1"}),
        Id("NoSerialKeepsTheStatus", kNoSerial, 0, BusQueryDeviceSerialNumber, {},
           STATUS_NOT_SUPPORTED),
        Id("CompositeDevice", kComposite, 1, BusQueryDeviceID, {"USB\\VID_FFF0&PID_0001&MI_02"}),
        Id("CompositeHardware", kComposite, 1, BusQueryHardwareIDs,
           {"USB\\VID_FFF0&PID_0001&REV_0100&MI_02", "USB\\VID_FFF0&PID_0001&MI_02"}),
        Id("CompositeCompatible", kComposite, 1, BusQueryCompatibleIDs, kCompatible)),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BusPnpTest, CapabilitiesAreAUsbDevicesWithAUniqueIdOnlyWithASerialNumber) {
    for (auto* profile : {sm::OrdinaryModem, sm::NoSerialNumber}) {
        Plug(profile(hu::Speed::kFull));
        bool wake = (modem_->profile().configurations[0].attributes & 0x20) != 0;
        DEVICE_CAPABILITIES caps{};
        caps.Size = sizeof caps;
        caps.Version = 1;
        hk::PnpAnswer answer = Query(IRP_MN_QUERY_CAPABILITIES, nullptr, [&](IO_STACK_LOCATION& s) {
            s.Parameters.DeviceCapabilities.Capabilities = &caps;
        });
        SCOPED_TRACE(modem_->profile().name);
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(caps.UniqueID, profile == sm::OrdinaryModem ? 1u : 0u);
        EXPECT_EQ(caps.Removable, 1u);
        EXPECT_EQ(caps.SurpriseRemovalOK, 0u);
        EXPECT_EQ(caps.Address, ULONG(port_));
        EXPECT_EQ(caps.DeviceState[PowerSystemWorking], PowerDeviceD0);
        EXPECT_EQ(caps.DeviceState[PowerSystemSleeping3], wake ? PowerDeviceD2 : PowerDeviceD3);
        EXPECT_EQ(caps.DeviceState[PowerSystemHibernate], PowerDeviceD3);
        EXPECT_EQ(caps.DeviceState[PowerSystemShutdown], PowerDeviceD3);
        bus_->Unplug(port_);
        port_ = 0;
    }
}

// A surprise removal fails the function's pending and later transfers, even
// with the modem still in its port.
TEST_F(BusPnpTest, SurpriseRemovalFailsPendingAndLaterTransfers) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    EXPECT_EQ(Query(IRP_MN_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    for (BusRequest* request : {pending, Transfer(kBulkIn, true, {}, 64)}) {
        ASSERT_TRUE(Wait(request));
        EXPECT_EQ(request->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    }
}

} // namespace
