// The internal serial I/O controls that kernel clients send: saving and
// restoring the time-out and flow-control settings, refused wait-wake, and
// invalid codes. (Their short buffers are rows of the serial controls'
// minimum-size test.)
#include "ioctl_rig.h"

#include <cstring>
#include <utility>

using InternalIoctl = IoctlTest;

namespace {
SERIAL_BASIC_SETTINGS ToBasic(const IoctlResult& Result) {
    SERIAL_BASIC_SETTINGS Basic;
    memcpy(&Basic, Result.Output.data(), sizeof(Basic));
    return Basic;
}
} // namespace

TEST_F(InternalIoctl, RestoringSavedSettingsUndoesLaterChanges) {
    SERIAL_TIMEOUTS Timeouts = {7, 8, 9, 10, 11};
    Set(IOCTL_SERIAL_SET_TIMEOUTS, Timeouts);
    SERIAL_HANDFLOW HandFlow = {1, 2, 30, 40};
    Set(IOCTL_SERIAL_SET_HANDFLOW, HandFlow);

    IoctlResult Saved = Ioctl(IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, nullptr, 0, 44, true);
    ASSERT_EQ(Saved.Status, STATUS_SUCCESS);
    ASSERT_EQ(Saved.Information, 44u);
    SERIAL_BASIC_SETTINGS Basic = ToBasic(Saved);
    EXPECT_EQ(memcmp(&Basic.Timeouts, &Timeouts, sizeof(Timeouts)), 0);
    EXPECT_EQ(memcmp(&Basic.HandFlow, &HandFlow, sizeof(HandFlow)), 0);
    EXPECT_EQ(Basic.RxFifo, RigReceiveBufferSize);
    EXPECT_EQ(Basic.TxFifo, RigSendBufferSize);
    EXPECT_TRUE(Traced("ACM:COM3S:Code: 001b000c IOCTL_SERIAL_SET_LINE_CONTROL\n"));

    SERIAL_TIMEOUTS Other = {0xFFFFFFFF, 0, 0, 1, 1};
    Set(IOCTL_SERIAL_SET_TIMEOUTS, Other);
    SERIAL_HANDFLOW OtherFlow = {0, 0, 1, 2};
    Set(IOCTL_SERIAL_SET_HANDFLOW, OtherFlow);
    ULONG TimeModeBeforeRestore = SerPort()->RcvQueue.TimeMode;

    IoctlResult Restored =
        Ioctl(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, Saved.Output.data(), 44, 0, true);
    EXPECT_EQ(Restored.Status, STATUS_SUCCESS);
    EXPECT_EQ(Restored.Information, 0u);
    SERIAL_TIMEOUTS GotTimeouts = Get<SERIAL_TIMEOUTS>(IOCTL_SERIAL_GET_TIMEOUTS);
    EXPECT_EQ(memcmp(&GotTimeouts, &Timeouts, sizeof(Timeouts)), 0);
    SERIAL_HANDFLOW GotFlow = Get<SERIAL_HANDFLOW>(IOCTL_SERIAL_GET_HANDFLOW);
    EXPECT_EQ(memcmp(&GotFlow, &HandFlow, sizeof(HandFlow)), 0);
    EXPECT_EQ(SerPort()->RcvQueue.TimeMode, TimeModeBeforeRestore)
        << "restoring chooses no new time mode";
}

TEST_F(InternalIoctl, RestoredQueueSizesAreReportedWithoutResizing) {
    IoctlResult Saved = Ioctl(IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, nullptr, 0, 44, true);
    SERIAL_BASIC_SETTINGS Basic = ToBasic(Saved);
    Basic.RxFifo = 10;
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, &Basic, sizeof(Basic), 0, true).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(Get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES).CurrentRxQueue, 10u);
    EXPECT_EQ(SerPort()->CircRcvBuf.Size, RigReceiveBufferSize);
    EXPECT_TRUE(modem_->Requests().empty());
}

// Wait-wake is refused as unsupported; a serial code sent as an internal one
// is invalid (its trace names it by its serial name, see the trace-bit test).
TEST_F(InternalIoctl, WaitWakeIsNotSupportedAndSerialCodesAreInvalid) {
    const std::pair<ULONG, NTSTATUS> Cases[] = {
        {IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE, STATUS_NOT_SUPPORTED},
        {IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE, STATUS_NOT_SUPPORTED},
        {IOCTL_SERIAL_GET_BAUD_RATE, STATUS_INVALID_PARAMETER}};
    for (const auto& [Code, Status] : Cases) {
        IoctlResult Result = Ioctl(Code, nullptr, 0, 4, true);
        EXPECT_EQ(Result.Status, Status) << std::hex << Code;
        EXPECT_EQ(Result.Information, 0u);
    }
    EXPECT_TRUE(Traced("ACM:COM3S:]DispatchInternalDeviceControl (C00000BB)\n"));
    EXPECT_EQ(dbg().Count("Invalid IO Control Code"), 1u);
}
