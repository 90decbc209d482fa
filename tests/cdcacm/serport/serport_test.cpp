// The serial port object on the real send and receive engines: the circular
// buffers, the send path in the four PPP states with its frame-flag
// tracking and SERIAL_EV_TXEMPTY, and the receive path with its events.
// (A serial port whose creation fails is the modem life's allocation sweep
// and the simulator's faults scenario.)
#include "serial_port_test.h"

#include <numeric>

namespace {

Bytes Pattern(size_t length, uint8_t first = 1) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
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

                Bytes in = Pattern(length, uint8_t(offset * 16 + 1));
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
                EXPECT_TRUE(buf.Empty && !buf.Full);
                EXPECT_EQ(buf.ReadPtr, buf.WritePtr);
                CircBufFree(&buf);
            }
        }
    }
}

TEST_F(CircBufTest, EmptyAndFullChangeOnlyWhenBytesMove) {
    CIRC_BUF buf;
    ASSERT_TRUE(CircBufAlloc(&buf, 4));
    Bytes data = Pattern(6), out(10);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 6), 4u);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 1), 0u);
    EXPECT_EQ(CircBufRead(&buf, out.data(), 0), 0u);
    EXPECT_TRUE(buf.Full) << "a read of nothing leaves Full";
    EXPECT_EQ(CircBufRead(&buf, out.data(), 10), 4u);
    EXPECT_EQ(CircBufWrite(&buf, data.data(), 0), 0u);
    EXPECT_TRUE(buf.Empty) << "a write of nothing leaves Empty";
    CircBufWrite(&buf, data.data(), 3);
    CircBufReset(&buf);
    EXPECT_TRUE(buf.Empty && buf.Count == 0 && buf.ReadPtr == buf.Start &&
                buf.WritePtr == buf.Start);
    CircBufFree(&buf);
}

// --- send path ---

using SerPort = SerialPortTest;

TEST_F(SerPort, AFailedResizeLeavesRequestsWaitingInsteadOfSpinning) {
    TraceMask |= TL_SERPORT;
    kernel().pool().Faults().Add("crc", hk::FaultKnob{.every = 1, .match = CIRC_BUF_TAG});
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_SET_QUEUE_SIZE, {0, 2, 0, 0, 0, 2, 0, 0}, 0)));
    EXPECT_TRUE(dbg().Contains("ACMCould'nt allocate CircRcvBuf!"));
    EXPECT_TRUE(dbg().Contains("ACMCould'nt allocate CircSendBuf!"));
    const ULONG purge = SERIAL_PURGE_RXCLEAR | SERIAL_PURGE_TXCLEAR; // resets both buffers
    const auto* bytes = reinterpret_cast<const uint8_t*>(&purge);
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_PURGE, {bytes, bytes + 4}, 0)));

    AppRequest* read = Read(5);
    EXPECT_EQ(Receive(Pattern(5)), 0u);
    AppRequest* write = Write(Pattern(5));
    EXPECT_TRUE(Sent().empty());
    EXPECT_FALSE(read->completed || write->completed);
}

class SmallSendBuffer : public SerialPortTest {
  protected:
    SmallSendBuffer() {
        options_.snd_buffer = 16;
        options_.write_packet = 8;
    }
};

TEST_F(SmallSendBuffer, WritesWaitForRoomAndLeaveInOrder) {
    TraceMask |= TL_SERPORT;
    AppRequest* first = Write(Pattern(40, 1));
    AppRequest* second = Write(Pattern(20, 41));
    AppRequest* empty = Write(Bytes{}); // completes once the buffer has room
    EXPECT_TRUE(dbg().Contains("ACM:COM3:No Send Buffer")) << "the one packet is out";
    EXPECT_EQ(TakeEvents() & SERIAL_EV_TXEMPTY, 0u);
    ASSERT_TRUE(Wait(empty));
    EXPECT_EQ(Sent(), Pattern(60, 1));
    EXPECT_EQ(first->information, 40u);
    EXPECT_EQ(second->information, 20u);
    EXPECT_EQ(empty->information, 0u);
    if (!OnTwoProcessors()) { // there the completion DPC may finish them in either order
        EXPECT_LT(first->completion_order, second->completion_order);
        EXPECT_LT(second->completion_order, empty->completion_order);
    }
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_TXEMPTY));
}

// A stopped port keeps its bytes and raises nothing until it is enabled.
TEST_F(SerPort, TxEmptyFollowsSentBytesOrANewRequestOnceTheBufferIsEmpty) {
    SerPortSend(ser, FALSE);
    EXPECT_EQ(TakeEvents(), 0u) << "nothing sent, no new request";
    SerPortSend(ser, TRUE);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_TXEMPTY));
    SerPortEnable(ser, TRUE);
    Write(Pattern(5));
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(TakeEvents(), 0u) << "bytes still buffered";
    SerPortEnable(ser, FALSE);
    EXPECT_EQ(Sent(), Pattern(5));
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_TXEMPTY));
}

// Starting PPP framing, the host's bytes go out unchanged up to its first
// flag, which is consumed and marks the frame boundary; stopping, nothing goes.
struct ModeCase {
    ULONG state;
    ULONG packet; // bytes per send packet
    Bytes written;
    Bytes sent;
    ULONG left; // bytes the send buffer keeps
};

class SendInMode : public SerialPortTest, public ::testing::WithParamInterface<ModeCase> {
  protected:
    SendInMode() { options_.write_packet = GetParam().packet; }
};

TEST_P(SendInMode, SendsUpToTheHostsFirstFlag) {
    const ModeCase& c = GetParam();
    const bool starting = c.state == PPP_STATE_STARTING;
    Locked([&] {
        dev->PppState = c.state;
        ser->PendingValid = TRUE;
    });
    Write(c.written);
    EXPECT_EQ(Sent(), c.sent);
    EXPECT_EQ(ser->CircSendBuf.Count, c.left);
    EXPECT_EQ(bool(dev->FlagSent), starting);
    EXPECT_EQ(KeReadStateEvent(&dev->FlagSentEvent), starting ? 1 : 0);
    EXPECT_EQ(bool(ser->PendingValid), !starting);
    SerPortSend(ser, FALSE);
    EXPECT_TRUE(Sent().empty()) << "nothing more once the flag is taken";
    EXPECT_EQ(dev->WritePipe.Pool->Count, 1u) << "an unused packet goes back";
}

INSTANTIATE_TEST_SUITE_P(
    SerPort, SendInMode,
    ::testing::Values(ModeCase{PPP_STATE_STARTING, 64, {0xA1, 0xB2, 0x7E, 0xC3}, {0xA1, 0xB2}, 1},
                      ModeCase{PPP_STATE_STARTING, 64, {0x7E, 0xC3}, {}, 1},
                      ModeCase{PPP_STATE_STARTING, 3, {1, 2, 3, 4, 5, 0x7E, 6}, {1, 2, 3, 4, 5}, 1},
                      ModeCase{PPP_STATE_STOPPING, 64, {1, 0x7E, 3, 4}, {}, 4}));

TEST_F(SerPort, FramingOnSendsHostFramesAsModemPackets) {
    Locked([&] {
        dev->PppState = PPP_STATE_ON;
        PppDeFramerInit(&dev->PppDeFramer, dev);
    });
    Write(Bytes{0x01, 0x7D, 0x22, 0x03, 0x3B, 0x9D, 0x7E});
    EXPECT_EQ(Sent(), Bytes({0xAA, 0xBB, 0x00, 0x09, 0x01, 0x02, 0x03, 0x3B, 0x9D}));
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_TXEMPTY)) << "raised for the new request";

    // The second frame finds the one send packet out: the byte after it waits.
    Write(Bytes{0x04, 0x7E, 0x05, 0x7E, 0x06});
    EXPECT_TRUE(ser->PendingValid);
    EXPECT_EQ(ser->PendingChar, 0x06);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_TXEMPTY));
    EXPECT_EQ(Sent(), Bytes({0xAA, 0xBB, 0x08, 0x05, 0x04, 0xAA, 0xBB, 0x10, 0x05, 0x05}));
    EXPECT_FALSE(ser->PendingValid);
    EXPECT_EQ(TakeEvents(), 0u) << "deframed bytes do not count as sent";
}

// --- receive path ---

struct RxCase {
    UCHAR SER_SETTINGS::*special; // set to 0x33 when given
    Bytes offered;
    ULONG events;
};

class ReceiveEvents : public SerialPortTest, public ::testing::WithParamInterface<RxCase> {};

TEST_P(ReceiveEvents, RaiseRxCharAndRxFlagTogether) {
    if (GetParam().special != nullptr)
        ser->Settings.*GetParam().special = 0x33;
    EXPECT_EQ(Receive(GetParam().offered), GetParam().offered.size());
    EXPECT_EQ(TakeEvents(), GetParam().events);
}

const Bytes kWithSpecial{0x10, 0x33, 0x20}, kPlain{0x10, 0x20};
INSTANTIATE_TEST_SUITE_P(
    SerPort, ReceiveEvents,
    ::testing::Values(
        RxCase{nullptr, {}, 0}, RxCase{nullptr, kWithSpecial, SERIAL_EV_RXCHAR},
        RxCase{&SER_SETTINGS::EventChar, kPlain, SERIAL_EV_RXCHAR},
        RxCase{&SER_SETTINGS::EventChar, kWithSpecial, SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG},
        RxCase{&SER_SETTINGS::ErrorChar, kWithSpecial, SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG},
        RxCase{&SER_SETTINGS::EofChar, kWithSpecial, SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG}));

// The 1000-byte buffer: RX80FULL counts what the reads leave against QueueIn.
TEST_F(SerPort, TheReceiveBufferTakesWhatFitsAndRx80FullCountsWhatReadsLeave) {
    EXPECT_EQ(Receive(Bytes(800)), 800u);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_RXCHAR)) << "exactly 80 % raises nothing";
    EXPECT_EQ(Receive(Bytes(250)), 200u);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_RXCHAR | SERIAL_EV_RX80FULL));
    EXPECT_EQ(Receive(Bytes(3)), 0u);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_RXCHAR | SERIAL_EV_RX80FULL))
        << "raised for every offered byte";

    Locked([&] { CircBufReset(&ser->CircRcvBuf); });
    AppRequest* read = Read(100);
    EXPECT_EQ(Receive(Bytes(900)), 900u);
    EXPECT_EQ(TakeEvents(), ULONG(SERIAL_EV_RXCHAR)) << "the read took 100 first";
    EXPECT_TRUE(Wait(read));
}

} // namespace
