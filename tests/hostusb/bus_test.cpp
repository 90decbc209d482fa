// The simulated bus driver as a function driver meets it: URB validation,
// transfer timing in virtual time, IN transfers waiting for data, cancel
// and abort, the fault knobs, the hub queries and the lower-driver
// notifications.
#include "bus_client.h"

#include <functional>

namespace {

constexpr int64_t kFrame = 10000; // 1 ms
constexpr int64_t kMicro = 1250;  // 125 us
constexpr uint8_t kBulkIn = 0x81;
constexpr uint8_t kBulkOut = 0x01;
constexpr uint8_t kInterruptIn = 0x82;

// --- validation ---------------------------------------------------------

struct Refusal {
    const char* name;
    std::function<BusRequest*(BusTest&)> send;
    NTSTATUS status;
    USBD_STATUS usbd;
    const char* diagnostic;
};

class BusValidationTest : public BusTest, public ::testing::WithParamInterface<Refusal> {
  public:
    using BusTest::ClassOrVendor;
    using BusTest::NewRequest;
    using BusTest::pipes_;
    using BusTest::Send;
    using BusTest::Transfer;
};

TEST_P(BusValidationTest, RefusesWithTheBusDriversStatusAndNamesTheProblem) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* request = GetParam().send(*this);
    EXPECT_TRUE(request->completed) << "a refused URB completes at once";
    EXPECT_EQ(request->returned, GetParam().status);
    EXPECT_EQ(request->UsbStatus(), GetParam().usbd);
    ASSERT_FALSE(bus_->Diagnostics().empty());
    EXPECT_NE(bus_->Diagnostics().back().find(GetParam().diagnostic), std::string::npos)
        << bus_->Diagnostics().back();
}

INSTANTIATE_TEST_SUITE_P(
    Urbs, BusValidationTest,
    ::testing::Values(
        Refusal{"UnknownFunction",
                [](BusTest& t) {
                    auto& self = static_cast<BusValidationTest&>(t);
                    BusRequest* r = self.NewRequest(sizeof(struct _URB_HEADER));
                    r->Urb()->UrbHeader.Function = 0x0033;
                    return self.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_URB_FUNCTION, "not supported"},
        Refusal{"HeaderLengthOfAnotherLayout",
                [](BusTest& t) {
                    auto& self = static_cast<BusValidationTest&>(t);
                    BusRequest* r = self.NewRequest(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
                    r->Urb()->UrbHeader.Function = URB_FUNCTION_VENDOR_INTERFACE;
                    return self.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "header length"},
        Refusal{"PipeHandleNeverHandedOut",
                [](BusTest& t) {
                    auto& self = static_cast<BusValidationTest&>(t);
                    self.pipes_[0x7f] = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
                    return self.Transfer(0x7f, false, {1, 2, 3});
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PIPE_HANDLE, "not a valid handle"},
        Refusal{"TransferWithoutBuffer",
                [](BusTest& t) {
                    auto& self = static_cast<BusValidationTest&>(t);
                    BusRequest* r = self.NewRequest(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
                    auto& b = r->Urb()->UrbBulkOrInterruptTransfer;
                    b.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
                    b.PipeHandle = self.pipes_[kBulkOut];
                    b.TransferBufferLength = 10;
                    return self.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "without a buffer"},
        Refusal{"DirectionAgainstTheEndpoint",
                [](BusTest& t) {
                    return static_cast<BusValidationTest&>(t).Transfer(kBulkOut, false, {1}, 0,
                                                                       USBD_TRANSFER_DIRECTION_IN);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "does not match endpoint"},
        Refusal{"ControlLengthWithoutBuffer",
                [](BusTest& t) {
                    auto& self = static_cast<BusValidationTest&>(t);
                    BusRequest* r =
                        self.NewRequest(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
                    auto& c = r->Urb()->UrbControlVendorClassRequest;
                    c.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
                    c.TransferBufferLength = 7;
                    return self.Send(r);
                },
                STATUS_INVALID_PARAMETER, USBD_STATUS_INVALID_PARAMETER, "without a buffer"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BusTest, ZeroLengthOutTransferIsValid) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* zlp = Transfer(kBulkOut, false, {});
    ASSERT_TRUE(Wait(zlp));
    EXPECT_EQ(zlp->status, STATUS_SUCCESS);
}

TEST_F(BusTest, HandlesDieWithTheConfiguration) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    ASSERT_EQ(Deselect(), STATUS_SUCCESS);
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 0);
    BusRequest* stale = Transfer(kBulkOut, false, {1});
    EXPECT_EQ(stale->UsbStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST_F(BusTest, SelectingAgainReplacesThePipes) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    USBD_PIPE_HANDLE old_out = pipes_[kBulkOut];
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    ASSERT_EQ(Select(1), STATUS_SUCCESS);
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 2);
    EXPECT_EQ(modem_->Configuration(), 2);
    ASSERT_TRUE(Wait(Transfer(kBulkOut, false, {1})));
    pipes_[kBulkOut] = old_out;
    EXPECT_EQ(Transfer(kBulkOut, false, {2})->UsbStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST_F(BusTest, UnknownControlCodesAreRefused) {
    Plug(sm::OrdinaryModem());
    BusRequest* request = NewRequest(sizeof(URB));
    Send(request, 0x00220999);
    EXPECT_EQ(request->status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_NE(bus_->Diagnostics().back().find("unknown internal control"), std::string::npos);
}

// --- timing -------------------------------------------------------------

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
    std::vector<uint8_t> data(row.bytes);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = uint8_t(i);
    int64_t frame = row.speed == hu::Speed::kFull ? kFrame : kMicro;
    int64_t start = kernel().Now() / frame * frame;
    BusRequest* out = Transfer(kBulkOut, false, data);
    ASSERT_TRUE(Wait(out));
    EXPECT_EQ(out->status, STATUS_SUCCESS);
    EXPECT_EQ(out->irql, DISPATCH_LEVEL);
    EXPECT_EQ(out->completed_at - start, row.frames * frame);
    EXPECT_EQ(modem_->Pull(), data);
}

INSTANTIATE_TEST_SUITE_P(Speeds, BusTimingTest,
                         ::testing::Values(Timing{hu::Speed::kFull, 1, 1},
                                           Timing{hu::Speed::kFull, 19 * 64, 1},
                                           Timing{hu::Speed::kFull, 19 * 64 + 1, 2},
                                           Timing{hu::Speed::kFull, 4096, 4},
                                           Timing{hu::Speed::kHigh, 13 * 512, 1},
                                           Timing{hu::Speed::kHigh, 13 * 512 + 1, 2}));

// --- IN transfers -------------------------------------------------------

TEST_F(BusTest, InTransferWaitsForDataAndEndsAtAShortPacket) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* in = Transfer(kBulkIn, true, {}, 256);
    kernel().Sleep(50);
    EXPECT_FALSE(in->completed);
    modem_->Push(std::vector<uint8_t>(100, 0x55));
    ASSERT_TRUE(Wait(in));
    EXPECT_EQ(in->status, STATUS_SUCCESS);
    EXPECT_EQ(in->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 100u);
    EXPECT_EQ(in->buffer[99], 0x55);
}

TEST_F(BusTest, ZeroLengthPacketEndsATransferOfFullPackets) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    modem_->Push(std::vector<uint8_t>(128, 1)); // two full packets and a zero-length one
    BusRequest* full = Transfer(kBulkIn, true, {}, 256);
    ASSERT_TRUE(Wait(full));
    EXPECT_EQ(full->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 128u);
    modem_->Push(std::vector<uint8_t>(64, 2)); // one full packet and a zero-length one
    BusRequest* exact = Transfer(kBulkIn, true, {}, 64);
    BusRequest* zlp = Transfer(kBulkIn, true, {}, 256);
    ASSERT_TRUE(Wait(zlp));
    EXPECT_EQ(exact->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 64u);
    EXPECT_EQ(zlp->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 0u);
    EXPECT_EQ(zlp->status, STATUS_SUCCESS);
}

TEST_F(BusTest, ShortPacketWithoutShortTransferOkIsAnError) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    modem_->Push({1, 2, 3});
    BusRequest* in = Transfer(kBulkIn, true, {}, 64, 0);
    ASSERT_TRUE(Wait(in));
    EXPECT_EQ(in->UsbStatus(), USBD_STATUS_ERROR_SHORT_TRANSFER);
}

TEST_F(BusTest, InterruptEndpointIsPolledAtItsInterval) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* in = Transfer(kInterruptIn, true, {}, 16);
    kernel().Sleep(5);
    modem_->SendSerialState(0x03);
    ASSERT_TRUE(Wait(in));
    EXPECT_EQ(in->completed_at % (16 * kFrame), 0) << "completes at a 16 ms poll";
    EXPECT_EQ(in->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength, 10u);
    EXPECT_EQ(in->buffer[1], sm::kSerialState);
    EXPECT_EQ(in->buffer[8], 0x03);
}

TEST_F(BusTest, LoopbackModemAnswersWhatItWasSent) {
    bus_ = std::make_unique<hu::Bus>();
    modem_ = std::make_shared<sm::Modem>(sm::OrdinaryModem(), sm::Modem::DataMode::kLoopback);
    port_ = bus_->Plug(modem_);
    pdo_ = bus_->Pdo(port_);
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* in = Transfer(kBulkIn, true, {}, 64);
    Transfer(kBulkOut, false, {'A', 'T', '\r'});
    ASSERT_TRUE(Wait(in));
    EXPECT_EQ(std::string(in->buffer.begin(), in->buffer.begin() + 3), "AT\r");
}

// --- cancel, abort, device gone --------------------------------------------

TEST_F(BusTest, CancelCompletesAPendingTransferCancelled) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* in = Transfer(kBulkIn, true, {}, 64);
    kernel().Sleep(10);
    EXPECT_TRUE(IoCancelIrp(in->irp));
    ASSERT_TRUE(Wait(in, 1));
    EXPECT_EQ(in->status, STATUS_CANCELLED);
    EXPECT_EQ(in->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_EQ(in->irql, DISPATCH_LEVEL);
    EXPECT_EQ(bus_->PendingTransfers(port_), 0u);
}

TEST_F(BusTest, CancelFromACompletionOfTheSamePassCompletesOnce) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
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

TEST_F(BusTest, AbortCompletesEveryPendingTransferBeforeItself) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* first = Transfer(kBulkIn, true, {}, 64);
    BusRequest* second = Transfer(kBulkIn, true, {}, 64);
    BusRequest* other = Transfer(kInterruptIn, true, {}, 16);
    BusRequest* abort = PipeRequest(URB_FUNCTION_ABORT_PIPE, kBulkIn);
    ASSERT_TRUE(Wait(abort));
    EXPECT_EQ(abort->status, STATUS_SUCCESS);
    for (BusRequest* aborted : {first, second}) {
        EXPECT_EQ(aborted->UsbStatus(), USBD_STATUS_CANCELED);
        EXPECT_LT(aborted->order, abort->order);
    }
    EXPECT_FALSE(other->completed) << "only the aborted pipe's transfers end";
}

TEST_F(BusTest, GoneDeviceFailsPendingAndLaterTransfers) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    kernel().Sleep(5);
    bus_->DeviceGone(port_);
    ASSERT_TRUE(Wait(pending, 1));
    BusRequest* later = Transfer(kBulkOut, false, {1});
    ASSERT_TRUE(Wait(later));
    for (BusRequest* request : {pending, later}) {
        EXPECT_EQ(request->UsbStatus(), USBD_STATUS_DEVICE_GONE);
        EXPECT_EQ(request->status, STATUS_DEVICE_NOT_CONNECTED);
    }
}

TEST_F(BusTest, GoneKnobTakesTheDeviceAwayFromItsUrbOn) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    hu::UsbFaultKnob knob;
    knob.nth = 2;
    hu::UsbFaultKnob& gone = bus_->AddFault(hu::Fault::kDeviceGone, knob);
    BusRequest* before = Transfer(kBulkOut, false, {1});
    ASSERT_TRUE(Wait(before));
    BusRequest* at = Transfer(kBulkOut, false, {2});
    ASSERT_TRUE(Wait(at));
    ASSERT_TRUE(Wait(pending, 1));
    EXPECT_EQ(before->status, STATUS_SUCCESS);
    EXPECT_EQ(at->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(gone.fired, 1u);
}

// --- fault knobs -----------------------------------------------------------

TEST_F(BusTest, StallHaltsTheEndpointUntilResetPipe) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    knob.match = hu::EndpointKey(kBulkOut);
    hu::UsbFaultKnob& stall = bus_->AddFault(hu::Fault::kStall, knob);
    BusRequest* stalled = Transfer(kBulkOut, false, {1});
    BusRequest* halted = Transfer(kBulkOut, false, {2});
    ASSERT_TRUE(Wait(halted));
    EXPECT_EQ(stalled->UsbStatus(), USBD_STATUS_STALL_PID);
    EXPECT_EQ(halted->UsbStatus(), USBD_STATUS_ENDPOINT_HALTED);
    BusRequest* reset = PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, kBulkOut);
    ASSERT_TRUE(Wait(reset));
    BusRequest* after = Transfer(kBulkOut, false, {3});
    ASSERT_TRUE(Wait(after));
    EXPECT_EQ(after->status, STATUS_SUCCESS);
    EXPECT_EQ(modem_->Pull(), std::vector<uint8_t>{3});
    EXPECT_EQ(stall.fired, 1u);
}

struct KnobCase {
    const char* name;
    hu::Fault kind;
    USBD_STATUS status;   // knob status
    NTSTATUS nt_status;   // knob NT status
    USBD_STATUS expected; // the URB's status
    NTSTATUS expected_nt; // the IRP's status
};

class BusKnobTest : public BusTest, public ::testing::WithParamInterface<KnobCase> {};

TEST_P(BusKnobTest, FiresOnTheNthMatchingRequestOnly) {
    const KnobCase& row = GetParam();
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 2;
    knob.match = hu::RequestKey(sm::kSetControlLineState);
    knob.status = row.status;
    knob.nt_status = row.nt_status;
    hu::UsbFaultKnob& added = bus_->AddFault(row.kind, knob);
    std::vector<BusRequest*> sent;
    for (int i = 0; i < 3; ++i) {
        sent.push_back(ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState,
                                     USHORT(i), 0, {}));
        ASSERT_TRUE(Wait(sent.back()));
    }
    ClassOrVendor(URB_FUNCTION_VENDOR_INTERFACE, false, sm::kStartFraming, 0, 0, {});
    EXPECT_EQ(added.calls, 3u) << "only matching requests count";
    EXPECT_EQ(added.fired, 1u);
    EXPECT_EQ(sent[1]->UsbStatus(), row.expected);
    EXPECT_EQ(sent[1]->status, row.expected_nt);
    EXPECT_EQ(sent[2]->status, STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(
    Control, BusKnobTest,
    ::testing::Values(
        KnobCase{"Stall", hu::Fault::kStall, 0, 0, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
        KnobCase{"UsbdError", hu::Fault::kError, USBD_STATUS_DEV_NOT_RESPONDING, 0,
                 USBD_STATUS_DEV_NOT_RESPONDING, STATUS_UNSUCCESSFUL},
        KnobCase{"NtErrorOnly", hu::Fault::kError, USBD_STATUS_SUCCESS, STATUS_DEVICE_DATA_ERROR,
                 USBD_STATUS_SUCCESS, STATUS_DEVICE_DATA_ERROR}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BusTest, ControlRequestThatNeverAnswersEndsOnlyByCancel) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    bus_->AddFault(hu::Fault::kNoAnswer, knob);
    BusRequest* silent =
        ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState, 1, 0, {});
    EXPECT_FALSE(Wait(silent, 60000));
    IoCancelIrp(silent->irp);
    ASSERT_TRUE(Wait(silent, 1));
    EXPECT_EQ(silent->UsbStatus(), USBD_STATUS_CANCELED);
    EXPECT_TRUE(modem_->Requests().empty()) << "the modem never saw it";
}

TEST_F(BusTest, DelayedCompletionComesLater) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    knob.delay_ms = 250;
    bus_->AddFault(hu::Fault::kDelay, knob);
    int64_t start = kernel().Now();
    BusRequest* slow =
        ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState, 1, 0, {});
    ASSERT_TRUE(Wait(slow));
    EXPECT_GE(slow->completed_at - start, 250 * kFrame);
    EXPECT_LE(slow->completed_at - start, 251 * kFrame);
}

TEST_F(BusTest, PortAndPipeResetFaults) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    knob.status = USBD_STATUS_DEV_NOT_RESPONDING;
    bus_->AddFault(hu::Fault::kResetPipeFail, knob);
    bus_->AddFault(hu::Fault::kResetPortFail, knob);
    BusRequest* pipe = PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, kBulkIn);
    BusRequest* port = Send(NewRequest(sizeof(URB)), IOCTL_INTERNAL_USB_RESET_PORT);
    BusRequest* again = Send(NewRequest(sizeof(URB)), IOCTL_INTERNAL_USB_RESET_PORT);
    ASSERT_TRUE(Wait(again));
    ASSERT_TRUE(Wait(pipe));
    EXPECT_EQ(pipe->UsbStatus(), USBD_STATUS_DEV_NOT_RESPONDING);
    EXPECT_EQ(port->status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(again->status, STATUS_SUCCESS);
}

// --- hub, notifications, composite devices ---------------------------------

struct HubCase {
    bool self_powered;
    bool query_fails;
};

class BusHubTest : public BusTest, public ::testing::WithParamInterface<HubCase> {};

TEST_P(BusHubTest, ParentHubReportsItsPower) {
    hu::BusOptions options;
    options.hub_self_powered = GetParam().self_powered;
    Plug(sm::OrdinaryModem(), hu::Speed::kFull, options);
    if (GetParam().query_fails) {
        hu::UsbFaultKnob knob;
        knob.nth = 1;
        bus_->AddFault(hu::Fault::kHubQueryFail, knob);
    }
    PDEVICE_OBJECT hub = nullptr;
    BusRequest* parent =
        Send(NewRequest(sizeof(URB)), IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO, &hub);
    if (GetParam().query_fails) {
        EXPECT_EQ(parent->status, STATUS_UNSUCCESSFUL);
        return;
    }
    ASSERT_EQ(parent->status, STATUS_SUCCESS);
    ASSERT_EQ(hub, bus_->HubDevice());
    USB_NODE_INFORMATION info{};
    KEVENT event;
    IO_STATUS_BLOCK iosb{};
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP irp =
        IoBuildDeviceIoControlRequest(IOCTL_USB_GET_NODE_INFORMATION, hub, &info, sizeof(info),
                                      &info, sizeof(info), FALSE, &event, &iosb);
    EXPECT_EQ(IoCallDriver(hub, irp), STATUS_SUCCESS);
    EXPECT_EQ(info.NodeType, UsbHub);
    EXPECT_EQ(info.u.HubInformation.HubIsBusPowered, GetParam().self_powered ? FALSE : TRUE);
    EXPECT_EQ(info.u.HubInformation.HubDescriptor.bNumberOfPorts, 4);
}

INSTANTIATE_TEST_SUITE_P(Power, BusHubTest,
                         ::testing::Values(HubCase{true, false}, HubCase{false, false},
                                           HubCase{true, true}));

TEST_F(BusTest, LowerDriverNotificationsSucceedAndAreRecorded) {
    Plug(sm::OrdinaryModem());
    kernel().Sleep(7);
    BusRequest* open = Send(NewRequest(sizeof(URB)), 0x89312007);
    BusRequest* close = Send(NewRequest(sizeof(URB)), 0x8931200B);
    EXPECT_EQ(open->status, STATUS_SUCCESS);
    EXPECT_EQ(close->status, STATUS_SUCCESS);
    auto notes = bus_->Notifications(port_);
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_EQ(notes[0].code, 0x89312007u);
    EXPECT_EQ(notes[1].code, 0x8931200Bu);
    EXPECT_EQ(notes[0].time_ms, 7);
}

TEST_F(BusTest, CompositeFunctionsEachSeeTheirOwnInterfaces) {
    Plug(sm::CompositeTwoAcm());
    ASSERT_NE(bus_->Pdo(port_, 1), nullptr);
    ASSERT_EQ(bus_->Pdo(port_, 2), nullptr);
    BusRequest* request = NewRequest(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST), 255);
    auto& d = request->Urb()->UrbControlDescriptorRequest;
    d.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    d.DescriptorType = USB_CONFIGURATION_DESCRIPTOR_TYPE;
    d.TransferBuffer = request->buffer.data();
    d.TransferBufferLength = 255;
    Send(request, IOCTL_INTERNAL_USB_SUBMIT_URB, nullptr, bus_->Pdo(port_, 1));
    ASSERT_TRUE(Wait(request));
    auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(request->buffer.data());
    EXPECT_EQ(config->wTotalLength, 67);
    EXPECT_EQ(config->bNumInterfaces, 2);
    EXPECT_EQ(USBD_ParseConfigurationDescriptorEx(config, config, 0, -1, -1, -1, -1), nullptr);
    EXPECT_NE(USBD_ParseConfigurationDescriptorEx(config, config, 3, -1, -1, -1, -1), nullptr);
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
