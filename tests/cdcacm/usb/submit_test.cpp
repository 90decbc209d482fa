// Synchronous submission against the simulated bus: time-outs in virtual
// time, the cancelled IRP's return, the folding of USB status into NT
// status, short transfers, and requests that must never leave the driver;
// the abort and reset requests on a configured modem's pipes, and the pipe
// and interface records a failed allocation leaves none of. (A stalled pipe
// reset is the simulator's stall-recovery scenario and the bulk-out error
// tests.)
#include "usb_fixture.h"

#include <cstdio>

namespace {

constexpr int64_t kMs = 10000;

class SubmitTest : public ConfiguredUsbTest {
  protected:
    // SET_CONTROL_LINE_STATE through the device's control IRP.
    NTSTATUS SetLines(USHORT lines) {
        USB_CTRL_REQUEST request = {
            BMREQUEST_CLASS, BMREQUEST_TO_INTERFACE, 0, sm::kSetControlLineState, lines, 0};
        ULONG length = 0;
        return ClassVendorRequest(FALSE, dev_, dev_->ControlIrp, &request, nullptr, &length);
    }
    hu::UsbFaultKnob& AddControlFault(hu::Fault kind, hu::UsbFaultKnob knob) {
        knob.nth = 1;
        knob.match = hu::RequestKey(sm::kSetControlLineState);
        return bus_->AddFault(kind, knob);
    }
};

TEST_F(SubmitTest, TimeOutOfZeroWaitsAsLongAsTheRequestTakes) {
    hu::UsbFaultKnob slow;
    slow.delay_ms = 5000;
    AddControlFault(hu::Fault::kDelay, slow);
    dev_->Cfg.RequestTimeout = 0;
    int64_t start = kernel().Now();
    EXPECT_EQ(SetLines(1), STATUS_SUCCESS);
    EXPECT_GE(kernel().Now() - start, 5000 * kMs);
    EXPECT_LE(kernel().Now() - start, 5001 * kMs);
    EXPECT_FALSE(dbg().Contains("TIMEOUT"));
}

TEST_F(SubmitTest, UnansweredRequestTimesOutOnlyAfterTheCancelledIrpCameBack) {
    hu::UsbFaultKnob& silent = AddControlFault(hu::Fault::kNoAnswer, {});
    int64_t start = kernel().Now();
    EXPECT_EQ(SetLines(1), STATUS_IO_TIMEOUT);
    EXPECT_EQ(silent.fired, 1u);
    EXPECT_EQ(kernel().Now() - start, 400 * kMs);
    EXPECT_TRUE(dbg().Contains("ACM:COM7:SubmitIrpAndWait: TIMEOUT:400"));
    EXPECT_EQ(bus_->PendingTransfers(port_), 0u) << "the IRP is back from the bus";
    // The same control IRP serves the next request.
    EXPECT_EQ(SetLines(3), STATUS_SUCCESS);
    ASSERT_EQ(modem_->Requests().size(), 1u);
    EXPECT_EQ(modem_->ControlLineState(), 3);
}

struct Folding {
    const char* name;
    USBD_STATUS usbd;
    NTSTATUS nt; // the IRP's status the bus is told to use; 0: its own mapping
    NTSTATUS expected;
};

class FoldingTest : public SubmitTest, public ::testing::WithParamInterface<Folding> {};

TEST_P(FoldingTest, UsbStatusFoldsIntoTheResult) {
    hu::UsbFaultKnob error;
    error.status = GetParam().usbd;
    error.nt_status = GetParam().nt;
    AddControlFault(hu::Fault::kError, error);
    NTSTATUS status = SetLines(1);
    EXPECT_EQ(ULONG(status), ULONG(GetParam().expected));
    char line[96];
    std::snprintf(line, sizeof line, "ACM:COM7:ClassVendorRequest: SubmitUrbAndWait failed (%08X).",
                  unsigned(GetParam().expected));
    EXPECT_TRUE(dbg().Contains(line)) << line;
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, FoldingTest,
    ::testing::Values(Folding{"NtFailureWithUsbSuccess", USBD_STATUS_SUCCESS,
                              STATUS_DEVICE_DATA_ERROR, STATUS_DEVICE_DATA_ERROR},
                      Folding{"EndpointHalted", USBD_STATUS_ENDPOINT_HALTED, 0,
                              NTSTATUS(0xE0000030)},
                      Folding{"Stall", USBD_STATUS_STALL_PID, 0, NTSTATUS(0xE0000004)},
                      Folding{"HighReasonBits", USBD_STATUS_CANCELED, 0, NTSTATUS(0xE0010000)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SubmitTest, ShortDeviceToHostRequestReportsTheShorterLength) {
    USB_CTRL_REQUEST request = {
        BMREQUEST_CLASS, BMREQUEST_TO_INTERFACE, 0, sm::kGetLineCoding, 0, 0};
    UCHAR buffer[64] = {};
    ULONG length = sizeof buffer;
    EXPECT_EQ(ClassVendorRequest(TRUE, dev_, dev_->ControlIrp, &request, buffer, &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(buffer[6], 8) << "8 data bits of the modem's line coding";
    EXPECT_TRUE(dbg().Contains("ACM:COM7:ClassVendorRequest: Transferred Bytes 7"));
}

// A removed device sends nothing: disabled, or without its lower device.
class NotSentTest : public SubmitTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NotSentTest, FailsWithoutSendingAnything) {
    const bool disabled = GetParam();
    PDEVICE_OBJECT lower = dev_->LowerDevObj;
    if (disabled)
        dev_->UsbDeviceEnabled = FALSE;
    else
        dev_->LowerDevObj = nullptr;
    uint64_t before = Urbs();
    EXPECT_EQ(SetLines(1), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Urbs(), before);
    EXPECT_EQ(dbg().Contains("ACM:COM7:ClassVendorRequest skipped, Device disabled"), disabled);
    dev_->LowerDevObj = lower;
}

INSTANTIATE_TEST_SUITE_P(Removal, NotSentTest, ::testing::Bool());

// --- pipes ---

using PipesTest = ConfiguredUsbTest;

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
