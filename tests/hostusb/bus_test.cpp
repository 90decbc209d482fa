// The simulated bus driver as a function driver meets it: URB validation,
// handles of a replaced configuration, cancel from a completion, a fault
// knob's counting, composite functions, bulk-out timing. (IN transfers,
// abort, cancel and the lower-driver notifications are what every driver
// test and the simulator's scenarios run through.)
#include "bus_client.h"

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
    BusRequest* LineState(USHORT lines) {
        return ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState, lines,
                             0, {});
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
    BusRequest* first = LineState(1);
    BusRequest* second = Transfer(kBulkOut, false, {1});
    first->on_complete = [second] { IoCancelIrp(second->irp); };
    ASSERT_TRUE(Wait(second));
    EXPECT_EQ(second->status, STATUS_CANCELLED);
    EXPECT_EQ(second->completed_at, first->completed_at);
    EXPECT_TRUE(modem_->Pull().empty());
}

// --- fault knobs -----------------------------------------------------------

struct KnobCase {
    const char* name;
    hu::Fault kind;
    USBD_STATUS status;   // knob status
    NTSTATUS nt_status;   // knob NT status
    USBD_STATUS expected; // the URB's status
    NTSTATUS expected_nt; // the IRP's status
};

class BusKnobTest : public ConfiguredBusTest, public ::testing::WithParamInterface<KnobCase> {};

// The knob counts matching requests only and fires on the second; a gone
// device takes the pending transfers and the later requests with it, and
// its knob is no longer asked.
TEST_P(BusKnobTest, FiresOnTheNthMatchingRequestOnly) {
    const KnobCase& row = GetParam();
    const bool gone = row.kind == hu::Fault::kDeviceGone;
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    hu::UsbFaultKnob knob;
    knob.nth = 2;
    knob.match = gone ? 0 : hu::RequestKey(sm::kSetControlLineState); // gone counts every URB
    knob.status = row.status;
    knob.nt_status = row.nt_status;
    hu::UsbFaultKnob& added = bus_->AddFault(row.kind, knob);
    std::vector<BusRequest*> sent;
    for (USHORT i = 0; i < 3; ++i) {
        sent.push_back(LineState(i));
        ASSERT_TRUE(Wait(sent.back()));
    }
    ClassOrVendor(URB_FUNCTION_VENDOR_INTERFACE, false, sm::kStartFraming, 0, 0, {});
    EXPECT_EQ(added.calls, gone ? 2u : 3u) << "only matching requests count";
    EXPECT_EQ(added.fired, 1u);
    EXPECT_EQ(sent[0]->status, STATUS_SUCCESS);
    EXPECT_EQ(sent[1]->UsbStatus(), row.expected);
    EXPECT_EQ(sent[1]->status, row.expected_nt);
    EXPECT_EQ(sent[2]->status, gone ? row.expected_nt : STATUS_SUCCESS);
    EXPECT_EQ(pending->completed, gone);
    if (gone) {
        EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Control, BusKnobTest,
    ::testing::Values(
        KnobCase{"Stall", hu::Fault::kStall, 0, 0, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
        KnobCase{"UsbdError", hu::Fault::kError, USBD_STATUS_DEV_NOT_RESPONDING, 0,
                 USBD_STATUS_DEV_NOT_RESPONDING, STATUS_UNSUCCESSFUL},
        KnobCase{"NtErrorOnly", hu::Fault::kError, USBD_STATUS_SUCCESS, STATUS_DEVICE_DATA_ERROR,
                 USBD_STATUS_SUCCESS, STATUS_DEVICE_DATA_ERROR},
        KnobCase{"DeviceGone", hu::Fault::kDeviceGone, 0, 0, USBD_STATUS_DEVICE_GONE,
                 STATUS_DEVICE_NOT_CONNECTED}),
    [](const auto& info) { return std::string(info.param.name); });

// --- notifications, composite devices ---------------------------------

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

} // namespace
