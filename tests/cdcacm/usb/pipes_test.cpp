// Interface and pipe records, and the abort and reset requests on a
// configured modem.
#include "usb_fixture.h"

namespace {

using PipesTest = ConfiguredUsbTest;

struct Lookup {
    UCHAR address;
    bool found;
    USBD_PIPE_TYPE type;
};

class FindPipeTest : public PipesTest, public ::testing::WithParamInterface<Lookup> {};

TEST_P(FindPipeTest, MatchesTheAddressWithItsDirectionBit) {
    PUSB_PIPE pipe = FindPipe(usb_, GetParam().address);
    ASSERT_EQ(pipe != nullptr, GetParam().found);
    if (pipe != nullptr) {
        EXPECT_EQ(pipe->EndpointAddress, GetParam().address);
        EXPECT_EQ(pipe->PipeType, GetParam().type);
    }
}

INSTANTIATE_TEST_SUITE_P(Addresses, FindPipeTest,
                         ::testing::Values(Lookup{0x81, true, UsbdPipeTypeBulk},
                                           Lookup{0x01, true, UsbdPipeTypeBulk},
                                           Lookup{0x82, true, UsbdPipeTypeInterrupt},
                                           Lookup{0x02, false, UsbdPipeTypeControl},
                                           Lookup{0x00, false, UsbdPipeTypeControl}));

TEST_F(PipesTest, AbortWithNothingPendingSendsNothing) {
    uint64_t before = Urbs();
    EXPECT_EQ(AbortPipe(usb_, dev_->ReceivePipe.Pipe), STATUS_SUCCESS);
    EXPECT_EQ(Urbs(), before);
    EXPECT_TRUE(dbg().Contains("ACM:COM7:Abort Pipe for EP:81 not required"));
}

class AbortPendingTest : public PipesTest, public ::testing::WithParamInterface<int> {};

TEST_P(AbortPendingTest, CompletesThePendingTransfersFirst) {
    PUSB_PIPE pipe = dev_->ReceivePipe.Pipe;
    std::vector<BusRequest*> transfers;
    for (int i = 0; i < GetParam(); ++i)
        transfers.push_back(Submit(pipe, true, {}, 64));
    pipe->PendingRequests = GetParam(); // as the receive engine counts them
    EXPECT_EQ(AbortPipe(usb_, pipe), STATUS_SUCCESS);
    for (BusRequest* transfer : transfers) {
        EXPECT_TRUE(transfer->completed) << "back before the abort returned";
        EXPECT_EQ(transfer->status, STATUS_CANCELLED);
        EXPECT_EQ(transfer->UsbStatus(), USBD_STATUS_CANCELED);
    }
    EXPECT_TRUE(dbg().Contains("ACM:COM7:Abort Pipe EP:81, pending requests:" +
                               std::to_string(GetParam())));
    pipe->PendingRequests = 0;
}

INSTANTIATE_TEST_SUITE_P(Transfers, AbortPendingTest, ::testing::Values(1, 2));

// A stall halts the endpoint until the pipe is reset.
TEST_F(PipesTest, ResetClearsAStall) {
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    knob.match = hu::EndpointKey(0x01);
    bus_->AddFault(hu::Fault::kStall, knob);
    PUSB_PIPE pipe = dev_->WritePipe.Pipe;
    BusRequest* stalled = Submit(pipe, false, {1});
    BusRequest* halted = Submit(pipe, false, {2});
    RunFor(2);
    EXPECT_EQ(stalled->UsbStatus(), USBD_STATUS_STALL_PID);
    EXPECT_EQ(halted->UsbStatus(), USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(ResetPipe(usb_, pipe), STATUS_SUCCESS);
    BusRequest* after = Submit(pipe, false, {3});
    RunFor(2);
    EXPECT_EQ(after->status, STATUS_SUCCESS);
    EXPECT_EQ(modem_->Pull(), std::vector<uint8_t>{3});
}

// A disabled device sends no reset; a reset the bus fails is traced.
TEST_F(PipesTest, ResetOfADisabledDeviceSendsNothingAndAFailedOneIsTraced) {
    hu::UsbFaultKnob knob;
    knob.nth = 1; // fails with USBD_STATUS_DEV_NOT_RESPONDING
    bus_->AddFault(hu::Fault::kResetPipeFail, knob);
    dev_->UsbDeviceEnabled = FALSE;
    uint64_t before = Urbs();
    EXPECT_EQ(ResetPipe(usb_, dev_->WritePipe.Pipe), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Urbs(), before);
    dev_->UsbDeviceEnabled = TRUE;
    EXPECT_EQ(ULONG(ResetPipe(usb_, dev_->WritePipe.Pipe)), 0xE0000005u);
    EXPECT_TRUE(dbg().Contains("ACM:COM7:ResetPipe: SubmitUrbAndWait failed (E0000005)."));
}

struct RecordFailure {
    const char* name;
    ULONG tag;
    uint64_t nth;
    const char* trace;
};

class RecordFailureTest : public UsbDeviceTest,
                          public ::testing::WithParamInterface<RecordFailure> {};

TEST_P(RecordFailureTest, LeavesNoRecords) {
    Start(sm::SingleInterface());
    // An interface with three pipes, as a completed selection returns it.
    std::vector<uint8_t> storage(GET_USBD_INTERFACE_SIZE(3));
    auto* info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(storage.data());
    info->Length = USHORT(storage.size());
    info->NumberOfPipes = 3;
    for (ULONG i = 0; i < 3; ++i) {
        info->Pipes[i].EndpointAddress = UCHAR(0x81 + i);
        info->Pipes[i].PipeHandle = reinterpret_cast<USBD_PIPE_HANDLE>(uintptr_t(0x100 + i));
    }
    kernel().pool().Faults().Add("record",
                                 hk::FaultKnob{.nth = GetParam().nth, .match = GetParam().tag});
    EXPECT_EQ(CreateInterfacePipes(usb_, info, nullptr), STATUS_NO_MEMORY);
    EXPECT_TRUE(IsListEmpty(&usb_->PipeList));
    EXPECT_TRUE(IsListEmpty(&usb_->InterfaceList));
    EXPECT_TRUE(dbg().Contains(GetParam().trace));
    kernel().pool().Faults().Clear();
}

INSTANTIATE_TEST_SUITE_P(Allocations, RecordFailureTest,
                         ::testing::Values(RecordFailure{"SecondOfThreePipes", USB_PIPE_TAG, 2,
                                                         "ACM:COM7:allocation of USB_PIPE failed"},
                                           RecordFailure{
                                               "Interface", USB_INTERFACE_TAG, 1,
                                               "ACM:COM7:allocation of USB_INTERFACE failed"}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
