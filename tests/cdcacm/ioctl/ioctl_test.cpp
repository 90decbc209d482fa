// The serial I/O controls sent by an application through the I/O manager:
// settings stored and reported in the public structures' order, settings
// handed to work items, purges, status and properties, and the requests
// that are refused; and the internal controls that kernel clients send:
// saving and restoring the time-out and flow-control settings, refused
// wait-wake, and invalid codes (their short buffers are rows of the
// minimum-size test).
#include "ioctl_rig.h"

#include <cstring>
#include <utility>

using IoctlDispatch = IoctlTest;

namespace {
using Requests = std::vector<std::pair<uint8_t, uint16_t>>; // bRequest, wValue
const Requests NoCalls;
SERIAL_BASIC_SETTINGS ToBasic(const IoctlResult& Result) {
    SERIAL_BASIC_SETTINGS Basic;
    memcpy(&Basic, Result.Output.data(), sizeof(Basic));
    return Basic;
}
} // namespace

TEST(IoctlCodeName, NamesCodesByThePlatformValuesAndTheFirstMatchWins) {
    const std::pair<ULONG, const char*> Codes[] = {
        {IOCTL_SERIAL_SET_BAUD_RATE, "IOCTL_SERIAL_SET_BAUD_RATE"},
        {IOCTL_SERIAL_LSRMST_INSERT, "IOCTL_SERIAL_LSRMST_INSERT"},
        {IOCTL_SERIAL_CONFIG_SIZE, "IOCTL_SERIAL_CONFIG_SIZE"},
        {IOCTL_SERIAL_SET_FIFO_CONTROL, "IOCTL_SERIAL_SET_FIFO_CONTROL"},
        {0x37020C, "IOCTL_SERENUM_GET_PORT_NAME"},
        // The internal codes share the first four values and their names.
        {IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE, "IOCTL_SERIAL_SET_BAUD_RATE"},
        {IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, "IOCTL_SERIAL_SET_BREAK_ON"},
    };
    for (const auto& [Code, Name] : Codes)
        EXPECT_STREQ(IoctlCodeName(Code), Name) << std::hex << Code;
    EXPECT_STREQ(IoctlCodeName(0), "Unknown IO Ctrl code");
    EXPECT_STREQ(IoctlCodeName(0x1B00A0), "Unknown IO Ctrl code");
}

// (The line coding it sends is the transport's setup-packet test.)
TEST_F(IoctlDispatch, BaudRateIsStoredTracedAndReportedBack) {
    SERIAL_BAUD_RATE Rate = {115200};
    IoctlResult Result = Set(IOCTL_SERIAL_SET_BAUD_RATE, Rate);
    EXPECT_EQ(Result.Status, STATUS_SUCCESS);
    EXPECT_EQ(Result.Information, 0u);
    EXPECT_TRUE(Traced("ACM:COM3S: BaudRate: 115200\n"));
    EXPECT_EQ(Get<SERIAL_BAUD_RATE>(IOCTL_SERIAL_GET_BAUD_RATE).BaudRate, 115200u);
}

// Internal codes too: the saved settings are read and written whole or not at all.
TEST_F(IoctlDispatch, EveryCodeRefusesABufferOneByteShortOfItsMinimum) {
    struct Minimum {
        ULONG Code;
        ULONG In;
        ULONG Out;
        bool Internal = false;
    };
    const Minimum Minima[] = {
        {IOCTL_SERIAL_SET_BAUD_RATE, 4, 0},
        {IOCTL_SERIAL_SET_QUEUE_SIZE, 8, 0},
        {IOCTL_SERIAL_SET_LINE_CONTROL, 3, 0},
        {IOCTL_SERIAL_SET_TIMEOUTS, 20, 0},
        {IOCTL_SERIAL_GET_TIMEOUTS, 0, 20},
        {IOCTL_SERIAL_GET_WAIT_MASK, 0, 4},
        {IOCTL_SERIAL_SET_WAIT_MASK, 4, 0},
        {IOCTL_SERIAL_WAIT_ON_MASK, 0, 4},
        {IOCTL_SERIAL_PURGE, 4, 0},
        {IOCTL_SERIAL_GET_BAUD_RATE, 0, 4},
        {IOCTL_SERIAL_GET_LINE_CONTROL, 0, 3},
        {IOCTL_SERIAL_GET_CHARS, 0, 6},
        {IOCTL_SERIAL_SET_CHARS, 6, 0},
        {IOCTL_SERIAL_GET_HANDFLOW, 0, 16},
        {IOCTL_SERIAL_SET_HANDFLOW, 16, 0},
        {IOCTL_SERIAL_GET_MODEMSTATUS, 0, 4},
        {IOCTL_SERIAL_GET_COMMSTATUS, 0, 20},
        {IOCTL_SERIAL_GET_PROPERTIES, 0, 64},
        {IOCTL_SERIAL_GET_DTRRTS, 0, 4},
        {IOCTL_SERIAL_CONFIG_SIZE, 0, 4},
        {IOCTL_SERIAL_GET_STATS, 0, 24},
        {IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, 0, 44, true},
        {IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, 44, 0, true},
    };
    const SER_SETTINGS Before = Settings();
    const std::vector<UCHAR> Input(64, 0x5A);
    for (const Minimum& Needed : Minima) {
        const bool ShortInput = Needed.In != 0;
        IoctlResult Result =
            ShortInput ? Ioctl(Needed.Code, Input.data(), Needed.In - 1, 0, Needed.Internal)
                       : Ioctl(Needed.Code, nullptr, 0, Needed.Out - 1, Needed.Internal);
        EXPECT_EQ(Result.Status, STATUS_INVALID_PARAMETER) << IoctlCodeName(Needed.Code);
        EXPECT_EQ(Result.Information, 0u) << IoctlCodeName(Needed.Code);
        const ULONG Given = (ShortInput ? Needed.In : Needed.Out) - 1;
        EXPECT_TRUE(Traced(
            "ACMReq " + std::to_string(Needed.Code) + (ShortInput ? " InBuffer" : " OutBuffer") +
            " to small:" + std::to_string(Given) + " expected:" + std::to_string(Given + 1) + "\n"))
            << IoctlCodeName(Needed.Code);
    }
    EXPECT_EQ(memcmp(&Before, &Settings(), sizeof(Before)), 0)
        << "a refused request stores nothing";
    EXPECT_EQ(ModemRequests(), NoCalls);
    EXPECT_EQ(dev->Port.WaitIrp, nullptr);
}

TEST_F(IoctlDispatch, FrameLinesAndErrorLinesHaveTheirOwnTraceBits) {
    auto Refused = [this](ULONG Mask) {
        TraceMask = Mask;
        dbg().Clear();
        ULONG PurgeMask = 0;
        Ioctl(IOCTL_SERIAL_PURGE, &PurgeMask, 3, 0);
        Ioctl(IOCTL_SERIAL_LSRMST_INSERT, nullptr, 0, 0);
        Ioctl(0x1B0014, nullptr, 0, 0, true);
    };
    Refused(TL_ERROR);
    EXPECT_TRUE(Traced("ACMReq 1769548 InBuffer to small:3 expected:4\n"));
    EXPECT_TRUE(Traced("ACM:COM3S:Invalid IO Control Code 001B007C: IOCTL_SERIAL_LSRMST_INSERT\n"));
    EXPECT_TRUE(Traced("ACM:COM3S:Internal: Invalid IO Control Code 001B0014: "
                       "IOCTL_SERIAL_SET_BREAK_OFF\n"));
    EXPECT_FALSE(Traced("DeviceControl"));
    EXPECT_FALSE(Traced("Code: "));

    Refused(TL_IOCTL);
    EXPECT_TRUE(Traced("ACM:COM3S: [DispatchDeviceControl\nACM:COM3S: Code: 001b004c "
                       "IOCTL_SERIAL_PURGE\nACM:COM3S:]DispatchDeviceControl (c000000d)\n"));
    EXPECT_TRUE(Traced("ACM:COM3S:[DispatchInternalDeviceControl\nACM:COM3S:Code: 001b0014 "
                       "IOCTL_SERIAL_SET_BREAK_OFF\nACM:COM3S:]DispatchInternalDeviceControl "
                       "(C000000D)\n"));
    EXPECT_FALSE(Traced("to small"));
    EXPECT_FALSE(Traced("Invalid IO Control Code"));
}

TEST_F(IoctlDispatch, AFailedControlRequestFailsTheIrpButKeepsTheSetting) {
    hu::UsbFaultKnob Stall;
    Stall.match = hu::RequestKey(0x20);
    Stall.every = 1;
    bus->AddFault(hu::Fault::kStall, Stall);
    SERIAL_LINE_CONTROL Line = {2, 1, 7}; // StopBits, Parity, WordLength
    EXPECT_FALSE(NT_SUCCESS(Set(IOCTL_SERIAL_SET_LINE_CONTROL, Line).Status));
    EXPECT_TRUE(modem->Requests().empty()) << "the stalled request was not accepted";
    EXPECT_TRUE(Traced("ACM:COM3S: Parity: 1, StopBits: 2, WordLength: 7\n"));
    SERIAL_LINE_CONTROL Got = Get<SERIAL_LINE_CONTROL>(IOCTL_SERIAL_GET_LINE_CONTROL);
    EXPECT_EQ(memcmp(&Got, &Line, sizeof(Got)), 0);
}

TEST_F(IoctlDispatch, WithoutAWorkItemTheSettingIsStoredAndTheIrpSucceeds) {
    dev->RefCount = 0; // the device is being removed: no work is accepted
    SERIAL_BAUD_RATE Rate = {57600};
    EXPECT_EQ(Set(IOCTL_SERIAL_SET_BAUD_RATE, Rate).Status, STATUS_SUCCESS);
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_SET_DTR, nullptr, 0, 0).Status, STATUS_SUCCESS);
    EXPECT_EQ(ModemRequests(), NoCalls);
    EXPECT_EQ(Settings().BaudRate, 57600u);
    dev->RefCount = 1;
}

// The time-outs come back as set; reads return at once (WaitForImmediate in
// the comm status) only for a maximal interval without total time-outs.
TEST_F(IoctlDispatch, TimeoutsRoundTripAndOnlyAMaximalIntervalAloneReadsAtOnce) {
    const struct {
        SERIAL_TIMEOUTS Timeouts; // interval, multiplier, constant, w-mult, w-const
        BOOLEAN Immediate;
    } Rows[] = {{{1, 2, 3, 4, 5}, FALSE},
                {{0xFFFFFFFF, 0, 0, 0, 0}, TRUE},
                {{0xFFFFFFFF, 1, 0, 0, 0}, FALSE},
                {{0xFFFFFFFF, 0, 0, 0, 0}, TRUE},
                {{0xFFFFFFFF, 0, 1, 0, 0}, FALSE}};
    for (const auto& Row : Rows) {
        EXPECT_EQ(Set(IOCTL_SERIAL_SET_TIMEOUTS, Row.Timeouts).Status, STATUS_SUCCESS);
        SERIAL_TIMEOUTS Got = Get<SERIAL_TIMEOUTS>(IOCTL_SERIAL_GET_TIMEOUTS);
        EXPECT_EQ(memcmp(&Got, &Row.Timeouts, sizeof(Got)), 0);
        EXPECT_EQ(Get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).WaitForImmediate, Row.Immediate)
            << Row.Timeouts.ReadTotalTimeoutMultiplier << " "
            << Row.Timeouts.ReadTotalTimeoutConstant;
    }
    EXPECT_TRUE(Traced("ReadIntervalTimeout: 1, ReadTotalTimeoutConstant: 3, "
                       "ReadTotalTimeoutMultiplier: 2\n"));
}

TEST_F(IoctlDispatch, HandflowAndCharsRoundTrip) {
    SERIAL_HANDFLOW HandFlow = {0x09, 0x80, 10, 20}; // ControlHandShake, FlowReplace, Xon, Xoff
    EXPECT_EQ(Set(IOCTL_SERIAL_SET_HANDFLOW, HandFlow).Status, STATUS_SUCCESS);
    EXPECT_EQ(Settings().XonLimit, 10u);
    EXPECT_EQ(Settings().XoffLimit, 20u);
    SERIAL_HANDFLOW GotFlow = Get<SERIAL_HANDFLOW>(IOCTL_SERIAL_GET_HANDFLOW);
    EXPECT_EQ(memcmp(&GotFlow, &HandFlow, sizeof(GotFlow)), 0);
    EXPECT_TRUE(
        Traced("ControlHandShake: 00000009, FlowReplace 00000080, XoffLimit 20,XonLimit: 10\n"));

    SERIAL_CHARS Chars = {0x1A, 0x3F, 0x00, 0x7E, 0x11, 0x13};
    EXPECT_EQ(Set(IOCTL_SERIAL_SET_CHARS, Chars).Status, STATUS_SUCCESS);
    EXPECT_EQ(Settings().EventChar, 0x7E);
    SERIAL_CHARS GotChars = Get<SERIAL_CHARS>(IOCTL_SERIAL_GET_CHARS);
    EXPECT_EQ(memcmp(&GotChars, &Chars, sizeof(GotChars)), 0);
    EXPECT_TRUE(Traced("EofChar: 1A, EventChar: 7E, ErrorChar: 3F, XonChar: 11, XoffChar: 13\n"));
}

TEST_F(IoctlDispatch, QueueSizeResizesOnlyTheBufferWhoseSizeChanged) {
    SERIAL_QUEUE_SIZE Same = {RigReceiveBufferSize, RigSendBufferSize};
    EXPECT_EQ(Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Same).Status, STATUS_SUCCESS);
    EXPECT_EQ(ser->CircRcvBuf.Size, RigReceiveBufferSize);

    SERIAL_QUEUE_SIZE SmallIn = {50, RigSendBufferSize};
    Set(IOCTL_SERIAL_SET_QUEUE_SIZE, SmallIn);
    EXPECT_EQ(ser->CircRcvBuf.Size, 100u) << "a buffer is never smaller than 100 bytes";
    EXPECT_EQ(Settings().QueueIn, 50u);
    EXPECT_EQ(ser->CircSendBuf.Size, RigSendBufferSize);

    SERIAL_QUEUE_SIZE BigOut = {50, 8000};
    Set(IOCTL_SERIAL_SET_QUEUE_SIZE, BigOut);
    EXPECT_EQ(ser->CircSendBuf.Size, 8000u);
    EXPECT_EQ(Get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES).CurrentTxQueue, 8000u);
    EXPECT_TRUE(Traced("ACM:COM3S: QueueIN: 50, QueueOUT: 8000\n"));
}

// The comm status counts a bulk-out packet at the stack as one byte more
// out; a purge empties only the buffers its mask names.
TEST_F(IoctlDispatch, CommStatusCountsBufferedBytesAndPurgeEmptiesTheNamedBuffers) {
    const UCHAR Bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    Locked([&] {
        CircBufWrite(&ser->CircRcvBuf, Bytes, 10);
        CircBufWrite(&ser->CircSendBuf, Bytes, 7);
    });
    EXPECT_EQ(Get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInOutQueue, 7u);
    PUSB_PACKET Out = UsbPacketGet(dev->WritePipe.Pool); // the one packet is out
    SERIAL_STATUS Status = Get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS);
    UsbPacketPut(Out);
    EXPECT_EQ(Status.AmountInInQueue, 10u);
    EXPECT_EQ(Status.AmountInOutQueue, 8u);
    EXPECT_EQ(Status.Errors | Status.HoldReasons, 0u);
    EXPECT_EQ(Status.EofReceived, FALSE);
    EXPECT_TRUE(Traced("ACM:COM3S:IOCTL_SERIAL_GET_COMMSTATUS: AmountInInQueue: 10, "
                       "AmountInOutQueue: 8, EofReceived: 0, Errors: 0, HoldResons: 0, "
                       "WaitForImmediate 0\n"));

    ULONG ReceiveOnly = SERIAL_PURGE_RXCLEAR;
    Set(IOCTL_SERIAL_PURGE, ReceiveOnly);
    EXPECT_EQ(ser->CircRcvBuf.Count, 0u);
    EXPECT_EQ(ser->CircSendBuf.Count, 7u);
    ULONG All = 0xF;
    EXPECT_EQ(Set(IOCTL_SERIAL_PURGE, All).Status, STATUS_SUCCESS);
    EXPECT_EQ(ser->CircSendBuf.Count, 0u);
    EXPECT_TRUE(Traced("ACM:COM3S:Mask: 0f\n"));
}

TEST_F(IoctlDispatch, PurgeAbortsPendingReadsBeforePendingWrites) {
    AppRequest* PendingRead = Read(10);
    AppRequest* PendingWrite = Write(std::vector<uint8_t>(RigSendBufferSize + 10, 0x55));
    ASSERT_FALSE(PendingRead->completed);
    ASSERT_FALSE(PendingWrite->completed);

    ULONG Aborts = SERIAL_PURGE_TXABORT | SERIAL_PURGE_RXABORT;
    EXPECT_EQ(Set(IOCTL_SERIAL_PURGE, Aborts).Status, STATUS_SUCCESS);
    ASSERT_TRUE(Wait(PendingRead));
    ASSERT_TRUE(Wait(PendingWrite));
    EXPECT_EQ(PendingRead->status, STATUS_CANCELLED);
    EXPECT_EQ(PendingWrite->status, STATUS_CANCELLED);
    if (!OnTwoProcessors()) {
        EXPECT_LT(PendingRead->completion_order, PendingWrite->completion_order);
    }
    EXPECT_EQ(ser->CircSendBuf.Count, RigSendBufferSize) << "aborting empties no buffer";
    EXPECT_EQ(ModemRequests(), NoCalls);
}

TEST_F(IoctlDispatch, ModemStatusReportsChangedLinesOnce) {
    dev->ModemStatus = 0x10; // CTS came on; DSR and DCD off
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_MODEMSTATUS), 0x11u);
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_MODEMSTATUS), 0x10u);
    dev->ModemStatus = 0xA0; // CTS off, DSR and DCD on
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_GET_MODEMSTATUS), 0xABu);
    EXPECT_TRUE(Traced("ACM:COM3S: DispatchDeviceControl GetModemStatus (000000AB)\n"));
}

TEST_F(IoctlDispatch, PropertiesFillExactly64Bytes) {
    IoctlResult Result = Ioctl(IOCTL_SERIAL_GET_PROPERTIES, nullptr, 0, 80);
    EXPECT_EQ(Result.Status, STATUS_SUCCESS);
    ASSERT_EQ(Result.Information, 64u);
    SERIAL_COMMPROP Properties;
    memcpy(&Properties, Result.Output.data(), sizeof(Properties));
    EXPECT_EQ(Properties.PacketLength, 64);
    EXPECT_EQ(Properties.PacketVersion, 2);
    EXPECT_EQ(Properties.ServiceMask, 1u);
    EXPECT_EQ(Properties.MaxBaud, 0x10000000u);
    EXPECT_EQ(Properties.ProvSubType, 1u);
    EXPECT_EQ(Properties.ProvCapabilities, 0xC7u);
    EXPECT_EQ(Properties.SettableParams, 0x5Fu);
    EXPECT_EQ(Properties.SettableBaud, 0x7FFFFu);
    EXPECT_EQ(Properties.SettableData, 0x0008);
    EXPECT_EQ(Properties.SettableStopParity, 0x0101);
    EXPECT_EQ(Properties.CurrentTxQueue, RigSendBufferSize);
    EXPECT_EQ(Properties.CurrentRxQueue, RigReceiveBufferSize);
    EXPECT_EQ(Properties.ProvSpec1 | Properties.ProvSpec2 | Properties.MaxTxQueue |
                  Properties.MaxRxQueue | Properties.ProvChar[0],
              0u);
    EXPECT_EQ(Result.Output[64], hk::Pool::kNewFill) << "nothing beyond the structure is written";
}

TEST_F(IoctlDispatch, StatisticsAreReportedInTheirOrderAndCleared) {
    Settings().ReceivedCount = 100;
    Settings().TransmittedCount = 200;
    Settings().FrameErrorCount = 1;
    Settings().SerialOverrunErrorCount = 2;
    Settings().BufferOverrunErrorCount = 3;
    Settings().ParityErrorCount = 4;
    SERIALPERF_STATS Stats = Get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    const SERIALPERF_STATS Expected = {100, 200, 1, 2, 3, 4}, Cleared = {};
    EXPECT_EQ(memcmp(&Stats, &Expected, sizeof(Stats)), 0);
    EXPECT_TRUE(Traced("ReceivedCount: 100, TransmittedCount: 200, BufferOverrunErrorCount: 3\n"));
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_CLEAR_STATS, nullptr, 0, 0).Status, STATUS_SUCCESS);
    Stats = Get<SERIALPERF_STATS>(IOCTL_SERIAL_GET_STATS);
    EXPECT_EQ(memcmp(&Stats, &Cleared, sizeof(Stats)), 0);
}

TEST_F(IoctlDispatch, NoOpCodesSucceedAndCodesWithoutHandlerAreInvalidEvenWhenNamed) {
    EXPECT_EQ(Get<ULONG>(IOCTL_SERIAL_CONFIG_SIZE), 0u);
    const std::pair<ULONG, NTSTATUS> Codes[] = {
        {IOCTL_SERIAL_RESET_DEVICE, STATUS_SUCCESS},
        {IOCTL_SERIAL_SET_XOFF, STATUS_SUCCESS},
        {IOCTL_SERIAL_SET_XON, STATUS_SUCCESS},
        {IOCTL_SERIAL_LSRMST_INSERT, STATUS_INVALID_PARAMETER},
        {IOCTL_SERIAL_XOFF_COUNTER, STATUS_INVALID_PARAMETER},
        {IOCTL_SERIAL_GET_COMMCONFIG, STATUS_INVALID_PARAMETER},
        {IOCTL_SERIAL_SET_MODEM_CONTROL, STATUS_INVALID_PARAMETER},
        {IOCTL_SERIAL_SET_FIFO_CONTROL, STATUS_INVALID_PARAMETER},
        {0x370200, STATUS_INVALID_PARAMETER},
        {0x1B0007 /* between two codes */, STATUS_INVALID_PARAMETER},
        {0x1B0000, STATUS_INVALID_PARAMETER}};
    UCHAR Buffer[64] = {};
    for (const auto& [Code, Expected] : Codes) {
        IoctlResult Result = Ioctl(Code, Buffer, sizeof(Buffer), sizeof(Buffer));
        EXPECT_EQ(Result.Status, Expected) << std::hex << Code;
        EXPECT_EQ(Result.Information, 0u);
    }
    EXPECT_EQ(ModemRequests(), NoCalls);
    EXPECT_TRUE(Traced("ACM:COM3S:Invalid IO Control Code 001B0007: Unknown IO Ctrl code\n"));
}

TEST_F(IoctlDispatch, ImmediateCharIsWrittenAsAOneByteWrite) {
    const UCHAR Char = 'Z';
    IoctlResult Result = Ioctl(IOCTL_SERIAL_IMMEDIATE_CHAR, &Char, 1, 0);
    EXPECT_EQ(Result.Status, STATUS_SUCCESS);
    ASSERT_EQ(ser->CircSendBuf.Count, 1u);
    EXPECT_EQ(*ser->CircSendBuf.ReadPtr, 'Z');
    EXPECT_TRUE(Traced("ACM:COM3S:[DispatchWrite len:1\n"));

    EXPECT_EQ(Ioctl(IOCTL_SERIAL_IMMEDIATE_CHAR, nullptr, 0, 0).Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ser->CircSendBuf.Count, 1u);
}

TEST_F(IoctlDispatch, TheAttachObjectReachesTheSameSettingsAndTracesA) {
    PDEVICE_OBJECT AttachObject = nullptr;
    ASSERT_EQ(IoCreateDevice(&driver, sizeof(ATTACH_OBJ), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE,
                             &AttachObject),
              STATUS_SUCCESS);
    PATTACH_OBJ Attach = (PATTACH_OBJ)AttachObject->DeviceExtension;
    Attach->Type = EXTENSION_TYPE_ATTACH;
    Attach->DeviceObject = AttachObject;
    Attach->Device = dev;
    AttachObject->Flags = (AttachObject->Flags | DO_BUFFERED_IO) & ~DO_DEVICE_INITIALIZING;

    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK IoStatus = {};
    SERIAL_BAUD_RATE Rate = {};
    PIRP Irp = IoBuildDeviceIoControlRequest(IOCTL_SERIAL_GET_BAUD_RATE, AttachObject, nullptr, 0,
                                             &Rate, sizeof(Rate), FALSE, &Event, &IoStatus);
    ASSERT_NE(Irp, nullptr);
    if (IoCallDriver(AttachObject, Irp) == STATUS_PENDING)
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(IoStatus.Status, STATUS_SUCCESS);
    EXPECT_EQ(Rate.BaudRate, Settings().BaudRate);
    EXPECT_TRUE(Traced("ACM:COM3A: [DispatchDeviceControl\n"));
    EXPECT_TRUE(Traced("ACM:COM3A:]DispatchDeviceControl (0)\n"));
    IoDeleteDevice(AttachObject);
}

// --- the internal controls of kernel clients ---

using InternalIoctl = IoctlTest;

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
    ULONG TimeModeBeforeRestore = ser->RcvQueue.TimeMode;

    IoctlResult Restored =
        Ioctl(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, Saved.Output.data(), 44, 0, true);
    EXPECT_EQ(Restored.Status, STATUS_SUCCESS);
    EXPECT_EQ(Restored.Information, 0u);
    SERIAL_TIMEOUTS GotTimeouts = Get<SERIAL_TIMEOUTS>(IOCTL_SERIAL_GET_TIMEOUTS);
    EXPECT_EQ(memcmp(&GotTimeouts, &Timeouts, sizeof(Timeouts)), 0);
    SERIAL_HANDFLOW GotFlow = Get<SERIAL_HANDFLOW>(IOCTL_SERIAL_GET_HANDFLOW);
    EXPECT_EQ(memcmp(&GotFlow, &HandFlow, sizeof(HandFlow)), 0);
    EXPECT_EQ(ser->RcvQueue.TimeMode, TimeModeBeforeRestore)
        << "restoring chooses no new time mode";
}

TEST_F(InternalIoctl, RestoredQueueSizesAreReportedWithoutResizing) {
    IoctlResult Saved = Ioctl(IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, nullptr, 0, 44, true);
    SERIAL_BASIC_SETTINGS Basic = ToBasic(Saved);
    Basic.RxFifo = 10;
    EXPECT_EQ(Ioctl(IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, &Basic, sizeof(Basic), 0, true).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(Get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES).CurrentRxQueue, 10u);
    EXPECT_EQ(ser->CircRcvBuf.Size, RigReceiveBufferSize);
    EXPECT_TRUE(modem->Requests().empty());
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
