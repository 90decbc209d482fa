// The serial port object: circular buffers, creation and resizing, the send
// path in the three PPP states, and the receive path with its events.
#include "serial_fixture.h"

#include <numeric>

namespace {

Bytes Pattern(size_t length, UCHAR first = 1) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

bool HasLine(hk::Debugger& dbg, const char* text) {
    for (const auto& line : dbg.Lines())
        if (line == text)
            return true;
    return false;
}

// --- circular buffer ---

using CircBufTest = DriverTest;

TEST_F(CircBufTest, WrapsInBothDirectionsAtEveryOffset) {
    const ULONG size = 7; // a ring of 8 positions
    for (ULONG offset = 0; offset <= size; offset++) {
        for (ULONG length = 1; length <= size; length++) {
            for (ULONG split = 0; split <= length; split++) {
                CIRC_BUF buf;
                ASSERT_TRUE(CircBufAlloc(&buf, size));
                Bytes skip(offset);
                ASSERT_EQ(CircBufWrite(&buf, skip.data(), offset), offset);
                ASSERT_EQ(CircBufRead(&buf, skip.data(), offset), offset);

                Bytes in = Pattern(length, (UCHAR)(offset * 16 + 1));
                ASSERT_EQ(CircBufWrite(&buf, in.data(), split), split);
                ASSERT_EQ(CircBufWrite(&buf, in.data() + split, length - split), length - split);
                EXPECT_EQ(buf.Count, length);
                EXPECT_EQ(bool(buf.Full), length == size);
                EXPECT_FALSE(buf.Empty);

                Bytes out(length);
                ULONG first = length - split; // read in other pieces than written
                ASSERT_EQ(CircBufRead(&buf, out.data(), first), first);
                ASSERT_EQ(CircBufRead(&buf, out.data() + first, size), length - first);
                EXPECT_EQ(out, in) << "offset " << offset << " length " << length;
                EXPECT_TRUE(buf.Empty);
                EXPECT_FALSE(buf.Full);
                EXPECT_TRUE(buf.ReadPtr >= buf.Start && buf.ReadPtr < buf.End);
                EXPECT_EQ(buf.ReadPtr, buf.WritePtr);
                CircBufFree(&buf);
            }
        }
    }
}

TEST_F(CircBufTest, FullAndEmptyFollowCount) {
    CIRC_BUF buf;
    ASSERT_TRUE(CircBufAlloc(&buf, 4));
    EXPECT_EQ(buf.End - buf.Start, 5);
    Bytes data = Pattern(6), out(10);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 6), 4u);
    EXPECT_TRUE(buf.Full);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 1), 0u);
    EXPECT_EQ(CircBufRead(&buf, out.data(), 0), 0u);
    EXPECT_TRUE(buf.Full) << "a read of nothing leaves Full";
    EXPECT_EQ(CircBufRead(&buf, out.data(), 1), 1u);
    EXPECT_FALSE(buf.Full);
    EXPECT_EQ(CircBufRead(&buf, out.data(), 10), 3u);
    EXPECT_TRUE(buf.Empty);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 0), 0u);
    EXPECT_TRUE(buf.Empty) << "a write of nothing leaves Empty";
    CircBufWrite(&buf, data.data(), 3);
    CircBufReset(&buf);
    EXPECT_TRUE(buf.Empty);
    EXPECT_EQ(buf.Count, 0u);
    EXPECT_EQ(buf.ReadPtr, buf.Start);
    EXPECT_EQ(buf.WritePtr, buf.Start);
    CircBufFree(&buf);
}

TEST_F(CircBufTest, FailedAllocationIsFullAndEmptyForever) {
    auto& knob =
        kernel().pool().Faults().Add("crc", hk::FaultKnob{.nth = 1, .match = CIRC_BUF_TAG});
    CIRC_BUF buf;
    EXPECT_FALSE(CircBufAlloc(&buf, 50));
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(buf.Size, 0u);
    Bytes data = Pattern(3);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 3), 0u);
    EXPECT_EQ(CircBufRead(&buf, data.data(), 3), 0u);
    EXPECT_TRUE(buf.Full);
    EXPECT_TRUE(buf.Empty);
    CircBufReset(&buf); // as a purge does
    EXPECT_TRUE(buf.Full) << "a reset must not open a buffer that has no room";
    EXPECT_TRUE(buf.Empty);
    CircBufFree(&buf);
}

// --- creation and resizing ---

struct AllocFault {
    ULONG tag;
    uint64_t nth;
    bool traced; // the buffer failures report themselves
};

class AddPortFailure : public DriverTest, public ::testing::WithParamInterface<AllocFault> {};

TEST_P(AddPortFailure, LeavesNothingAllocated) {
    TraceMask |= TL_SERPORT;
    auto& knob = kernel().pool().Faults().Add(
        "f", hk::FaultKnob{.nth = GetParam().nth, .match = GetParam().tag});
    PSER_PORT port = reinterpret_cast<PSER_PORT>(1);
    DEVICE dev{};
    EXPECT_EQ(AddPort(&port, &dev, 100, 100, 10, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(dbg().Text().find("ACM:AddPort: Not success! Status:c000009a") != std::string::npos,
              GetParam().traced);
    if (GetParam().traced) {
        EXPECT_EQ(port, nullptr);
        EXPECT_EQ(knob.calls, 2u) << "both buffers are asked for before the failure is handled";
    }
}

INSTANTIATE_TEST_SUITE_P(SerPort, AddPortFailure,
                         ::testing::Values(AllocFault{SER_PORT_TAG, 1, false},
                                           AllocFault{CIRC_BUF_TAG, 1, true},
                                           AllocFault{CIRC_BUF_TAG, 2, true}));

TEST_F(SerialTest, AddPortRecordsRequestedSizes) {
    MakePort(300, 200, 10);
    // clang-format off
    EXPECT_TRUE(PTRVALID(port,SER_PORT));
    // clang-format on
    EXPECT_EQ(port->CircRcvBuf.Size, 300u);
    EXPECT_EQ(port->CircSendBuf.Size, 200u);
    EXPECT_EQ(port->Settings.QueueIn, 300u);
    EXPECT_EQ(port->Settings.QueueOut, 200u);
    EXPECT_EQ(port->WaitPort, &dev->Port);
    EXPECT_EQ(port->SndQueue.TimeMode, (ULONG)INTERVALTIME_OFF);
    EXPECT_EQ(port->Settings.StopBits, 1);
}

TEST_F(SerialTest, ResizeGivesAtLeast100BytesAndDropsContents) {
    Indicate(Pattern(20));
    SerPortSetRcvBufferSize(port, 10);
    EXPECT_EQ(port->CircRcvBuf.Size, 100u);
    EXPECT_TRUE(port->CircRcvBuf.Empty);
    SerPortSetSndBufferSize(port, 250);
    EXPECT_EQ(port->CircSendBuf.Size, 250u);
}

TEST_F(SerialTest, FailedResizeLeavesRequestsWaiting) {
    TraceMask |= TL_SERPORT;
    kernel().pool().Faults().Add("crc", hk::FaultKnob{.every = 1, .match = CIRC_BUF_TAG});
    SerPortSetRcvBufferSize(port, 500);
    SerPortSetSndBufferSize(port, 500);
    EXPECT_TRUE(HasLine(dbg(), "ACMCould'nt allocate CircRcvBuf!"));
    EXPECT_TRUE(HasLine(dbg(), "ACMCould'nt allocate CircSendBuf!"));
    // A purge resets the buffers; the write below must still wait, not spin.
    CircBufReset(&port->CircRcvBuf);
    CircBufReset(&port->CircSendBuf);

    PSER_REQUEST read = NewRead(5);
    AddRead(read);
    EXPECT_EQ(Indicate(Pattern(5)), 0u);
    PSER_REQUEST write = NewWrite(Pattern(5));
    EXPECT_EQ(SendRequest(port, write), STATUS_PENDING);
    EXPECT_TRUE(fakes.completions.empty());
    EXPECT_TRUE(fakes.engine.submitted.empty());
}

// --- send path ---

TEST_F(SerialTest, WriteThatFitsCompletesBeforeAnyByteReachesUsb) {
    PSER_REQUEST write = NewWrite(Pattern(10));
    EXPECT_EQ(SendRequest(port, write), STATUS_SUCCESS);
    ASSERT_NE(CompletionOf(write), nullptr);
    EXPECT_EQ(CompletionOf(write)->status, STATUS_SUCCESS);
    EXPECT_EQ(CompletionOf(write)->length, 10u);
    EXPECT_EQ(CompletionOf(write)->bytes_submitted, 0u);
    EXPECT_EQ(fakes.engine.Stream(), Pattern(10));
    EXPECT_EQ(fakes.engine.submitted[0].check_lock, 0) << "submitted with the device lock held";
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u);
}

TEST_F(SerialTest, FullSendBufferPendsUntilTheEngineDrainsIt) {
    TraceMask |= TL_SERPORT;
    MakePort(100, 16, 10);
    fakes.engine.Configure(1, 8);
    PSER_REQUEST first = NewWrite(Pattern(40, 1));
    PSER_REQUEST second = NewWrite(Pattern(20, 101));
    EXPECT_EQ(SendRequest(port, first), STATUS_PENDING);
    EXPECT_EQ(SendRequest(port, second), STATUS_PENDING);
    EXPECT_TRUE(HasLine(dbg(), "ACM:COM7:No Send Buffer"));
    EXPECT_EQ(fakes.engine.bytes_submitted, 8u);
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 0u);

    fakes.engine.Drain(port);
    Bytes expected = Pattern(40, 1), tail = Pattern(20, 101);
    expected.insert(expected.end(), tail.begin(), tail.end());
    EXPECT_EQ(fakes.engine.Stream(), expected);
    for (const auto& chunk : fakes.engine.submitted)
        EXPECT_LE(chunk.bytes.size(), 8u);
    ASSERT_EQ(fakes.completions.size(), 2u);
    EXPECT_EQ(fakes.completions[0].request, first);
    EXPECT_EQ(fakes.completions[0].length, 40u);
    // Complete once the last byte is buffered: at most a buffer's worth was still unsent.
    EXPECT_GE(fakes.completions[0].bytes_submitted, 40u - 16u);
    EXPECT_LT(fakes.completions[0].bytes_submitted, 40u);
    EXPECT_EQ(fakes.completions[1].length, 20u);
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u);
}

TEST_F(SerialTest, ZeroLengthWriteIsReportedAndCompletesOnceTheBufferHasRoom) {
    MakePort(100, 4, 10);
    fakes.engine.allowed = false;
    SendRequest(port, NewWrite(Pattern(4)));
    PSER_REQUEST empty = NewWrite({});
    EXPECT_EQ(SendRequest(port, empty), STATUS_PENDING) << "the send buffer is full";
    EXPECT_TRUE(dbg().Contains("ACM:ASSERTION FAILED: (Request->Length != 0)"));
    EXPECT_TRUE(dbg().Contains("  source/cdcacm/serport("));
    fakes.engine.allowed = true;
    SerPortSend(port, FALSE);
    ASSERT_NE(CompletionOf(empty), nullptr);
    EXPECT_EQ(CompletionOf(empty)->status, STATUS_SUCCESS);
    EXPECT_EQ(CompletionOf(empty)->length, 0u);
}

TEST_F(SerialTest, TxEmptyNeedsSentBytesOrANewRequest) {
    SerPortSend(port, FALSE);
    EXPECT_TRUE(fakes.events.empty());
    SerPortSend(port, TRUE);
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u);
    fakes.engine.allowed = false;
    SendRequest(port, NewWrite(Pattern(5)));
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u) << "bytes still buffered";
    fakes.engine.allowed = true;
    SerPortSend(port, FALSE);
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 2u);
}

TEST_F(SerialTest, TransparentChunkEndingInFlagMarksFrameBoundary) {
    SendRequest(port, NewWrite({0x01, 0x7E}));
    EXPECT_TRUE(dev->FlagSent);
    EXPECT_EQ(KeReadStateEvent(&dev->FlagSentEvent), 1);
    fakes.engine.CompleteAll();
    SendRequest(port, NewWrite({0x7E, 0x02}));
    EXPECT_FALSE(dev->FlagSent);
    EXPECT_EQ(KeReadStateEvent(&dev->FlagSentEvent), 0);
}

TEST_F(SerialTest, StoppedPortSendsNothingAndRaisesNoEvent) {
    SerPortEnable(port, TRUE);
    SendRequest(port, NewWrite(Pattern(5)));
    EXPECT_TRUE(fakes.engine.submitted.empty());
    EXPECT_TRUE(fakes.events.empty());
    SerPortEnable(port, FALSE);
    EXPECT_EQ(fakes.engine.Stream(), Pattern(5));
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u);
}

// While PPP framing starts, the host's bytes go out unchanged up to its
// first flag, which marks the frame boundary and stays for the deframer.
struct StartingCase {
    size_t packets;
    ULONG packet_size;
    Bytes written;
    std::vector<Bytes> sent;
};

class StartingMode : public SerialTest, public ::testing::WithParamInterface<StartingCase> {};

TEST_P(StartingMode, SendsUpToTheHostsFirstFlag) {
    const StartingCase& c = GetParam();
    dev->PppState = PPP_STATE_STARTING;
    port->PendingValid = TRUE;
    fakes.engine.Configure(c.packets, c.packet_size);
    SendRequest(port, NewWrite(c.written));
    ASSERT_EQ(fakes.engine.submitted.size(), c.sent.size());
    for (size_t i = 0; i < c.sent.size(); i++) {
        EXPECT_EQ(fakes.engine.submitted[i].bytes, c.sent[i]);
        EXPECT_EQ(fakes.engine.submitted[i].check_lock, 0) << "submitted with the lock held";
    }
    EXPECT_EQ(fakes.engine.returned, c.sent.empty() ? 1 : 0);
    EXPECT_TRUE(dev->FlagSent);
    EXPECT_EQ(KeReadStateEvent(&dev->FlagSentEvent), 1);
    EXPECT_FALSE(port->PendingValid);
    EXPECT_EQ(port->CircSendBuf.Count, 1u) << "the byte after the flag stays for the deframer";
    fakes.engine.CompleteAll();
    SerPortSend(port, FALSE);
    EXPECT_EQ(fakes.engine.submitted.size(), c.sent.size())
        << "nothing more once the flag is taken";
}

INSTANTIATE_TEST_SUITE_P(
    SerPort, StartingMode,
    ::testing::Values(StartingCase{1, 64, {0xA1, 0xB2, 0x7E, 0xC3}, {{0xA1, 0xB2}}},
                      StartingCase{1, 64, {0x7E, 0xC3}, {}},
                      StartingCase{2, 3, {1, 2, 3, 4, 5, 0x7E, 6}, {{1, 2, 3}, {4, 5}}}));

TEST_F(SerialTest, OnModeSendsHostFramesAsModemPackets) {
    dev->PppState = PPP_STATE_ON;
    PppDeFramerInit(&dev->PppDeFramer, dev.get());
    SendRequest(port, NewWrite({0x01, 0x7D, 0x22, 0x03, 0x3B, 0x9D, 0x7E}));
    ASSERT_EQ(fakes.engine.submitted.size(), 1u);
    EXPECT_EQ(fakes.engine.submitted[0].bytes,
              (Bytes{0xAA, 0xBB, 0x00, 0x09, 0x01, 0x02, 0x03, 0x3B, 0x9D}));
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 1u) << "raised for the new request";

    // No send packet for the next frame: the byte after it waits.
    SendRequest(port, NewWrite({0x05, 0x7E, 0x06}));
    EXPECT_TRUE(port->PendingValid);
    EXPECT_EQ(port->PendingChar, 0x06);
    fakes.engine.CompleteAll();
    SerPortSend(port, FALSE);
    ASSERT_EQ(fakes.engine.submitted.size(), 2u);
    EXPECT_EQ(fakes.engine.submitted[1].bytes, (Bytes{0xAA, 0xBB, 0x08, 0x05, 0x05}));
    EXPECT_FALSE(port->PendingValid);
    EXPECT_EQ(EventCount(SERIAL_EV_TXEMPTY), 2u) << "deframed bytes do not count as sent";
}

TEST_F(SerialTest, StoppingModeSendsNothing) {
    dev->PppState = PPP_STATE_STOPPING;
    SendRequest(port, NewWrite(Pattern(4)));
    EXPECT_TRUE(fakes.engine.submitted.empty());
    EXPECT_EQ(port->CircSendBuf.Count, 4u);
}

// --- receive path ---

TEST_F(SerialTest, IndicationFillsReadsAndRaisesReceiveEvents) {
    PSER_REQUEST read = NewRead(4);
    AddRead(read);
    EXPECT_EQ(Indicate(Pattern(6)), 6u);
    ASSERT_NE(CompletionOf(read), nullptr);
    EXPECT_EQ(ReadData(read), Pattern(4));
    EXPECT_EQ(port->CircRcvBuf.Count, 2u);
    EXPECT_EQ(fakes.events, std::vector<ULONG>{SERIAL_EV_RXCHAR});
    Indicate({});
    EXPECT_EQ(fakes.events.size(), 1u) << "nothing received, nothing raised";
}

TEST_F(SerialTest, SpecialCharactersRaiseRxFlagInTheSameEvent) {
    UCHAR SER_SETTINGS::*chars[] = {&SER_SETTINGS::EventChar, &SER_SETTINGS::ErrorChar,
                                    &SER_SETTINGS::EofChar};
    for (auto field : chars) {
        port->Settings.*field = 0x33;
        fakes.events.clear();
        Indicate({0x10, 0x33, 0x20});
        Indicate({0x10, 0x20});
        EXPECT_EQ(fakes.events,
                  (std::vector<ULONG>{SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG, SERIAL_EV_RXCHAR}));
        port->Settings.*field = 0;
        CircBufReset(&port->CircRcvBuf);
    }
}

TEST_F(SerialTest, Rx80FullCountsBytesLeftAfterReadsAgainstQueueIn) {
    Indicate(Pattern(200));
    Indicate(Bytes(600));
    EXPECT_EQ(EventCount(SERIAL_EV_RX80FULL), 0u) << "exactly 80 % raises nothing";
    Indicate({1});
    EXPECT_EQ(EventCount(SERIAL_EV_RX80FULL), 1u);

    CircBufReset(&port->CircRcvBuf);
    AddRead(NewRead(100));
    Indicate(Bytes(900));
    EXPECT_EQ(EventCount(SERIAL_EV_RX80FULL), 1u) << "the read took 100 first";
}

TEST_F(SerialTest, FullReceiveBufferAcceptsWhatFits) {
    MakePort(10, 100, 10);
    EXPECT_EQ(Indicate(Pattern(15)), 10u);
    EXPECT_EQ(Indicate(Pattern(3)), 0u);
    EXPECT_EQ(EventCount(SERIAL_EV_RXCHAR), 2u) << "raised for every offered byte";
}

} // namespace
