// Bytes the whole way: application writes through the send engine to the
// simulated modem, the modem's bytes through five bulk-in reads to the
// application's reads, and the modem's notifications to the modem lines and
// the send decision. Everything runs on the simulated bus in virtual time.
//
// Errors on the bulk pipes, injected by the bus's fault knobs: the send
// engine's reset-and-resend and its escalation to re-initialisation, a
// device that is gone, a halted bulk-in endpoint, and a stop that waits for
// transfers the controller is slow to give back.
//
// The PPP mode switch's failures: time-outs and failed requests leave
// framing off, and a transfer that fails inside the framed send pass. (The
// switch and the stop of a working session are the simulator's dial-up
// scenarios; the frames both ways are the PPP frame tests.)
#define TRACE_FILE "tests/cdcacm/transport"
#include "device_fixture.h"
#include "hostusb/capture.h"
#include "ppp_reference.h"

#include <cstdio>
#include <random>

#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;

// Long enough for a notification: the interrupt endpoint is polled every
// 16 ms at full speed.
constexpr int64_t kPoll = 20;

Bytes Pattern(size_t length, uint8_t seed) {
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = uint8_t(seed + i * 7);
    return bytes;
}

class Transport : public DeviceFixture {
  protected:
    Transport() {
        options_.started = true;
        options_.snd_buffer = 8192; // a 4096-byte write leaves in one packet
    }
    // Bulk-in transfers waiting at the bus (the interrupt read excluded).
    size_t BulkReadsOut() { return 5 - dev->ReceivePipe.Pool->Count - ParkedPackets(); }
    size_t ParkedPackets() {
        size_t count = 0;
        for (PLIST_ENTRY e = dev->ReceivePipe.Queue.Flink; e != &dev->ReceivePipe.Queue;
             e = e->Flink)
            ++count;
        return count;
    }
    void Notify(const Bytes& packet) {
        Locked([&] { RcvIntIn(dev, packet.data(), ULONG(packet.size())); });
    }
};

class Loopback : public Transport {
  protected:
    Loopback() { options_.loopback = true; }
};

// With every pool allocation failing but the application's own requests:
// the data path allocates nothing.
TEST_F(Loopback, RandomWritesAndReadsArriveCompleteAndInOrderWithoutPool) {
    // 'Irp ': the application's own requests
    hk::FaultKnob& knob =
        kernel().pool().Faults().Add("pool", hk::FaultKnob{.every = 1, .except = 0x20707249});
    std::mt19937 rng(7);
    Bytes sent;
    std::vector<size_t> sizes;
    while (sent.size() < 60000) {
        size_t size = std::uniform_int_distribution<size_t>(1, 3 * 4096)(rng);
        sizes.push_back(size);
        Bytes chunk = Pattern(size, uint8_t(sizes.size()));
        sent.insert(sent.end(), chunk.begin(), chunk.end());
    }
    hk::Thread writer("writer", [&] {
        size_t offset = 0;
        for (size_t size : sizes) {
            AppRequest* write = Write(Bytes(sent.begin() + offset, sent.begin() + offset + size));
            ASSERT_TRUE(Wait(write, 20000));
            EXPECT_EQ(write->information, size);
            offset += size;
        }
    });
    Bytes got;
    while (got.size() < sent.size()) {
        // Without time-outs a read larger than the receive buffer would wait
        // for the next read to offer the parked bytes again.
        size_t ask = std::uniform_int_distribution<size_t>(1, options_.rcv_buffer)(rng);
        AppRequest* read = Read(ULONG(std::min(ask, sent.size() - got.size())));
        ASSERT_TRUE(Wait(read, 20000)) << "after " << got.size() << " bytes";
        Bytes data = read->Data();
        got.insert(got.end(), data.begin(), data.end());
    }
    writer.Join();
    EXPECT_EQ(got, sent);
    EXPECT_EQ(knob.fired, 0u) << "the data path allocated";
    kernel().pool().Faults().Clear();
}

class CapturedTransport : public Transport {
  protected:
    // One file per process: campaigns run several copies at once.
    CapturedTransport() {
        options_.bus.capture_file =
            ::testing::TempDir() + "cdcacm_transport_" + std::to_string(getpid()) + ".pcap";
    }
    ~CapturedTransport() override { std::remove(options_.bus.capture_file.c_str()); }
    // The lengths of the bulk-out transfers in the capture, as submitted.
    std::vector<size_t> CapturedWrites() {
        bus->CloseCapture();
        std::vector<size_t> lengths;
        for (const hu::CaptureRecord& record : hu::ReadCapture(options_.bus.capture_file))
            if (record.transfer == hu::CaptureTransfer::kBulk && !record.completion &&
                record.endpoint == dev->WritePipe.Pipe->EndpointAddress)
                lengths.push_back(record.data.size());
        return lengths;
    }
};

TEST_F(CapturedTransport, AZeroLengthPacketFollowsEveryMultipleOf64) {
    TraceMask |= TL_BULK_DUMP;
    struct Row {
        size_t length;
        bool zlp;
    };
    const Row rows[] = {{64, true}, {128, true}, {4096, true}, {63, false}, {65, false}};
    for (const Row& row : rows) {
        dbg().Clear();
        ASSERT_TRUE(Wait(Write(Pattern(row.length, 1))));
        RunFor(20);
        EXPECT_EQ(modem->Pull(), Pattern(row.length, 1));
        EXPECT_EQ(dbg().Count("ACM:COM3:SND: " + std::to_string(row.length)), 1u);
        EXPECT_EQ(dbg().Count("ACM:COM3:SND: 0"), row.zlp ? 1u : 0u) << row.length;
        EXPECT_FALSE(dev->WritePipe.SendZlp);
    }
    EXPECT_EQ(CapturedWrites(), (std::vector<size_t>{64, 0, 128, 0, 4096, 0, 63, 65}));
}

class ReceiveFlow : public Transport {
  protected:
    ReceiveFlow() {
        options_.rcv_buffer = 100; // the smallest receive buffer
        options_.read_packet = 64;
    }
};

// The rest of a partly taken packet comes next and first: the bytes read
// back are the bytes sent, in order.
TEST_F(ReceiveFlow, AFullBufferParksPacketsAndAReadRestartsThemWithNothingLost) {
    const Bytes data = Pattern(100 + 5 * 63 + 200, 3);
    // Short packets end each transfer: one 63-byte transfer per packet.
    for (size_t offset = 0; offset < data.size(); offset += 63)
        modem->Push(
            Bytes(data.begin() + offset, data.begin() + std::min(offset + 63, data.size())));
    RunFor(50);
    EXPECT_EQ(ser->CircRcvBuf.Count, 100u);
    EXPECT_EQ(ParkedPackets(), 5u) << "every packet holds bytes the port has no room for";
    EXPECT_EQ(BulkReadsOut(), 0u) << "all five parked stop the reads";

    EXPECT_EQ(ReadAll(data.size(), [] { return 37; }), data);
    RunFor(20);
    EXPECT_EQ(ParkedPackets(), 0u);
    EXPECT_EQ(BulkReadsOut(), 5u) << "the reads were restarted";
}

TEST_F(Transport, PurgeDropsParkedBytesAndReadsResume) {
    ASSERT_EQ(Wait(Control(IOCTL_SERIAL_SET_QUEUE_SIZE, {100, 0, 0, 0, 100, 0, 0, 0}, 0)), true);
    modem->Push(Pattern(300, 1));
    RunFor(20);
    ASSERT_GT(ParkedPackets(), 0u);
    const ULONG purge = SERIAL_PURGE_RXCLEAR;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&purge);
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_PURGE, {bytes, bytes + 4}, 0)));
    RunFor(20);
    EXPECT_EQ(ParkedPackets(), 0u);
    EXPECT_EQ(ser->CircRcvBuf.Count, 0u);
    modem->Push(Pattern(5, 2));
    EXPECT_EQ(ReadAll(5, [] { return 5; }), Pattern(5, 2))
        << "reads were resubmitted after the purge";
}

TEST_F(Transport, FlowTestSpacesBulkInResubmissionsButNotInterruptIn) {
    dev->Cfg.FlowTest = 50;
    InitTimerObj(&dev->FlowTestTimer, RcvTimerRoutine, dev, 50);
    // Seven short transfers: the five reads out take five, the next reads go
    // out 50 ms after the last completion.
    for (uint8_t i = 0; i < 7; ++i)
        modem->Push(Pattern(3, i));
    RunFor(10);
    EXPECT_EQ(ser->CircRcvBuf.Count, 15u);
    RunFor(35);
    EXPECT_EQ(ser->CircRcvBuf.Count, 15u) << "no read before the flow-test delay";
    RunFor(20);
    EXPECT_EQ(ser->CircRcvBuf.Count, 21u);

    modem->SendSerialState(0x0001);
    RunFor(kPoll);
    EXPECT_EQ(dev->ModemStatus & SERIAL_MSR_DCD, ULONG(SERIAL_MSR_DCD));
    modem->SendSerialState(0x0000);
    RunFor(kPoll);
    EXPECT_EQ(dev->ModemStatus & SERIAL_MSR_DCD, 0u) << "interrupt-in is resubmitted at once";
}

TEST_F(Transport, CtsFlowControlHoldsDataUntilTheModemRaisesCts) {
    dev->Cfg.useCtsFlowControl = 1;
    TraceMask |= TL_CTS;
    ASSERT_TRUE(Wait(Write("held")));
    RunFor(50);
    EXPECT_TRUE(modem->Pull().empty());
    EXPECT_TRUE(dbg().Contains("ACM:COM3:Stop sending because CTS is inactive"));
    modem->SendNetworkConnection(true);
    RunFor(20);
    EXPECT_EQ(modem->Pull(), Bytes({'h', 'e', 'l', 'd'}));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:CTS active restart write"));
}

TEST_F(Transport, AGrantWhileCtsIsInactiveIsUsedUpByWhatIsSent) {
    dev->Cfg.useCtsFlowControl = 1;
    struct Step {
        ULONG length;
        ULONG left;
    };
    PUCHAR buffer;
    ULONG max_length;
    PUSB_PACKET packet;
    auto get_buffer = [&] {
        BOOLEAN got = FALSE;
        Locked([&] { got = GetWriteBuffer(dev, &buffer, &max_length, &packet); });
        return got;
    };
    dev->WaitingData = 10;
    for (const Step& step : {Step{6, 4}, Step{12, 0}}) {
        ASSERT_TRUE(get_buffer()) << "a grant lets bytes out while CTS is inactive";
        SubmitWriteBuffer(dev, buffer, step.length, packet);
        EXPECT_EQ(dev->WaitingData, step.left);
        RunFor(20);
    }
    EXPECT_FALSE(get_buffer());
}

TEST_F(Transport, TheStopSendingBitHoldsDataAndItsClearingResumesAtOnce) {
    modem->SendSerialState(0x0100);
    RunFor(kPoll);
    EXPECT_FALSE(dev->SendAllowed);
    ASSERT_TRUE(Wait(Write("wait")));
    RunFor(50);
    EXPECT_TRUE(modem->Pull().empty());
    modem->SendSerialState(0x0000);
    RunFor(kPoll);
    EXPECT_EQ(modem->Pull(), Bytes({'w', 'a', 'i', 't'}));
}

// One serial state after another: the modem lines and the events raised.
TEST_F(Transport, SerialStatesMoveTheLinesAndRaiseTheirEvents) {
    const ULONG all = 0x1FF;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&all);
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_SET_WAIT_MASK, {bytes, bytes + 4}, 0)));
    struct Row {
        uint16_t state;
        ULONG lines;  // ModemStatus after it
        ULONG events; // raised by it
    };
    const Row rows[] = {
        {0x0003, 0xA0, 0x30},  // DCD and DSR on
        {0x0003, 0xA0, 0x00},  // no change, no event
        {0x0008, 0x40, 0x130}, // RI on, DCD and DSR off
        {0x0004, 0x00, 0x140}, // break, RI off
        {0x0004, 0x00, 0x40},  // break again: raised each time
        {0x0010, 0x00, 0x80},  // framing error
        {0x0020, 0x00, 0x80},  // parity error
        {0x0040, 0x00, 0x80},  // overrun
    };
    for (const Row& row : rows) {
        port->PendingEvents = 0;
        modem->SendSerialState(row.state);
        RunFor(kPoll);
        EXPECT_EQ(dev->ModemStatus, row.lines) << std::hex << row.state;
        EXPECT_EQ(dev->ReceivedModemStatus, row.lines);
        EXPECT_EQ(port->PendingEvents, row.events) << std::hex << row.state;
    }
    port->PendingEvents = 0;
    modem->SendNetworkConnection(true);
    RunFor(kPoll);
    EXPECT_EQ(dev->ModemStatus, ULONG(SERIAL_MSR_CTS));
    EXPECT_EQ(port->PendingEvents, ULONG(SERIAL_EV_CTS));
    modem->SendSerialState(0x0002);
    RunFor(kPoll);
    EXPECT_EQ(dev->ModemStatus, ULONG(SERIAL_MSR_CTS | SERIAL_MSR_DSR))
        << "CTS comes only from NETWORK_CONNECTION";
}

TEST_F(Transport, MalformedAndUnknownNotificationsAreTracedAndTheReadGoesOn) {
    struct Row {
        Bytes packet;
        const char* trace;
    };
    const Row rows[] = {
        {{0xA1, 0x20, 0, 0, 0, 0, 2, 0, 3}, "RcvIntIn: Data packet to small for RESPONDS_SERIAL_"},
        {{0xA1, 0x20, 0, 0}, "RcvIntIn: Data packet to small"},
        {{0xA1, 0x01, 0, 0, 0, 0, 0, 0}, "RcvIntIn: RESPONDS_AVAILABLE not supported"},
        {{0xA1, 0x2A, 0, 0, 0, 0, 0, 0}, "RcvIntIn: Unexpected class responds:"},
        {{0xC1, 0x12, 0, 0, 0, 0, 0, 0}, "RcvIntIn: Unexpected vendor responds:"},
        {{0x81, 0x00, 0, 0, 0, 0, 0, 0}, "RcvIntIn: Unexpected responds:"},
    };
    for (const Row& row : rows) {
        Notify(row.packet);
        EXPECT_TRUE(dbg().Contains(row.trace)) << row.trace;
    }
    EXPECT_EQ(dev->ModemStatus, 0u);
    Notify({0xA1, 0x20, 0, 0, 0, 0, 2, 0, 3, 0});
    EXPECT_EQ(dev->ModemStatus, ULONG(SERIAL_MSR_DCD | SERIAL_MSR_DSR))
        << "a 10-byte serial state is processed";
    modem->SendSerialState(0);
    RunFor(kPoll);
    EXPECT_EQ(dev->ModemStatus, 0u) << "the interrupt read is still running";
}

TEST_F(Transport, ControlLinesAndLineCodingReachTheModemAsSetupPackets) {
    struct Row {
        ULONG code;
        Bytes input;
        uint8_t request;
        uint16_t value;
        uint8_t dtr_rts; // IOCTL_SERIAL_GET_DTRRTS after it
    };
    const Row rows[] = {
        {IOCTL_SERIAL_SET_BAUD_RATE, {0x00, 0xC2, 0x01, 0x00}, 0x20, 0, 0},
        {IOCTL_SERIAL_SET_LINE_CONTROL, {1, 3, 8}, 0x20, 0, 0}, // 1.5 stop bits, mark parity
        {IOCTL_SERIAL_SET_DTR, {}, 0x22, 1, SERIAL_DTR_STATE},
        {IOCTL_SERIAL_SET_RTS, {}, 0x22, 3, SERIAL_DTR_STATE | SERIAL_RTS_STATE},
        {IOCTL_SERIAL_SET_BREAK_ON, {}, 0x23, 0xFFFF, 3},
        {IOCTL_SERIAL_SET_BREAK_OFF, {}, 0x23, 0, 3},
        {IOCTL_SERIAL_CLR_DTR, {}, 0x22, 2, SERIAL_RTS_STATE},
        {IOCTL_SERIAL_CLR_RTS, {}, 0x22, 0, 0},
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(Wait(Control(row.code, row.input, 0)));
        const sm::RecordedRequest& got = modem->Requests().back();
        EXPECT_EQ(got.setup.request_type, 0x21);
        EXPECT_EQ(got.setup.request, row.request);
        EXPECT_EQ(got.setup.value, row.value);
        EXPECT_EQ(got.setup.index, dev->Cfg.UsbInterface & 0xFFFF);
        AppRequest* lines = Control(IOCTL_SERIAL_GET_DTRRTS, {}, 4);
        ASSERT_TRUE(Wait(lines));
        EXPECT_EQ(lines->Data(), Bytes({row.dtr_rts, 0, 0, 0})) << std::hex << row.code;
    }
    EXPECT_EQ(modem->Requests()[0].data, Bytes({0x00, 0xC2, 0x01, 0x00, 1, 0, 8}));
    EXPECT_EQ(modem->Requests()[1].data, Bytes({0x00, 0xC2, 0x01, 0x00, 1, 3, 8}));

    dev->UsbDeviceEnabled = FALSE;
    ASSERT_TRUE(Wait(Control(IOCTL_SERIAL_SET_RTS, {}, 0)));
    dev->UsbDeviceEnabled = TRUE;
    EXPECT_EQ(modem->Requests().size(), std::size(rows)) << "nothing is sent while disabled";
    EXPECT_EQ(dev->PcStatus, 0x02) << "the lines change all the same";
}

// --- pipe errors ---

Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

class PipeErrors : public DeviceFixture {
  protected:
    PipeErrors() { options_.started = true; }
    uint8_t OutEndpoint() const { return dev->WritePipe.Pipe->EndpointAddress; }
    hu::UsbFaultKnob& AddFault(hu::Fault kind, uint32_t match, hu::UsbFaultKnob knob = {}) {
        knob.match = match;
        return bus->AddFault(kind, knob);
    }
    // A knob that never fires counts the endpoint's pipe resets.
    hu::UsbFaultKnob& CountResets(uint8_t endpoint) {
        return AddFault(hu::Fault::kResetPipeFail, hu::EndpointKey(endpoint));
    }
};

TEST_F(PipeErrors, BulkOutErrorsResendOnceThenAskForReinitialisation) {
    struct Row {
        const char* name;
        hu::Fault fault;
        uint64_t errors;    // consecutive failing transfers
        bool any_urb;       // the knob matches every URB, not only bulk-out
        uint64_t resets;    // bulk-out pipe resets, the re-initialisation's included
        size_t reinits;     // ScheduleReinit calls
        bool delivered;     // the written bytes reached the modem
        bool still_enabled; // the send context takes more bytes afterwards
        const char* trace;
    };
    const Row rows[] = {
        {"stall once", hu::Fault::kStall, 1, false, 1, 0, true, true,
         "ACM:COM3:WriteCompletionRoutine: UrbStatus C0000004"},
        {"error once", hu::Fault::kError, 1, false, 1, 0, true, true,
         "ACM:COM3:WriteCompletionRoutine: UrbStatus C0000005"},
        {"two errors", hu::Fault::kError, 2, false, 2, 1, false, true,
         "ACM:COM3:WriteCompletionRoutine: Schedule restart USB read"},
        {"device gone", hu::Fault::kDeviceGone, 1, true, 0, 0, false, false,
         "ACM:COM3:WriteCompletionRoutine USBD_STATUS_DEVICE_GONE"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        TearDown();
        SetUp();
        hu::UsbFaultKnob& resets = CountResets(OutEndpoint());
        hu::UsbFaultKnob knob;
        knob.every = 1;
        knob.max_fires = row.errors;
        AddFault(row.fault, row.any_urb ? 0 : hu::EndpointKey(OutEndpoint()), knob);
        TraceMask |= TL_ERROR | TL_INFO;

        AppRequest* write = Write("hello");
        ASSERT_TRUE(Wait(write));
        RunFor(50);
        EXPECT_EQ(write->status, STATUS_SUCCESS);
        EXPECT_EQ(resets.calls, row.resets);
        EXPECT_EQ(dbg().Count("ACM:COM3:ScheduleReinit"), row.reinits);
        EXPECT_EQ(modem->Pull(), Text(row.delivered ? "hello" : ""));
        EXPECT_TRUE(dbg().Contains(row.trace));
        EXPECT_EQ(dev->WritePipe.Enabled != 0, row.still_enabled);

        AppRequest* next = Write("more");
        ASSERT_TRUE(Wait(next));
        RunFor(50);
        EXPECT_EQ(modem->Pull(), Text(row.still_enabled ? "more" : ""));
        EXPECT_EQ(dev->WritePipe.ErrorCount, 0);
    }
}

TEST_F(PipeErrors, AStopWaitsForTransfersInStepsOfOneSecond) {
    hu::UsbFaultKnob slow;
    slow.nth = 1;
    slow.delay_ms = 2500;
    AddFault(hu::Fault::kDelay, hu::EndpointKey(OutEndpoint()), slow);
    TraceMask |= TL_ERROR;
    Write("x");
    RunFor(5);
    ASSERT_EQ(dev->WritePipe.Pool->Count, 0u) << "the transfer is at the bus";

    const int64_t start = kernel().NowMs();
    StopSendAndReceive(dev, TRUE);
    EXPECT_GE(kernel().NowMs() - start, 2500);
    EXPECT_LT(kernel().NowMs() - start, 2510);
    EXPECT_EQ(dbg().Count("ACM:COM3: StopSnd wait for PacketPool: PoolCount:0"), 2u);
    EXPECT_EQ(dbg().Count("StopRcv wait for PacketPool"), 0u) << "aborted reads came back at once";
    EXPECT_EQ(dev->WritePipe.Pool->Count, dev->WritePipe.Pool->PacketCount);
}

// --- the PPP mode switch ---

class PppSwitch : public DeviceFixture {
  protected:
    PppSwitch() {
        options_.started = true;
        options_.snd_buffer = 8192;
    }
    Bytes Requested() {
        Bytes codes;
        for (const sm::RecordedRequest& request : modem->Requests())
            codes.push_back(request.setup.request);
        return codes;
    }
};

TEST_F(PppSwitch, WithoutAFlagWithin300msFramingStaysOffAndSendingGoesOn) {
    TraceMask |= TL_ERROR;
    modem->RequestFraming(true);
    RunFor(kPoll);
    ASSERT_TRUE(Wait(Write("no flag")));
    RunFor(350);
    EXPECT_EQ(dev->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dbg().Contains("ACM:COM3:SwitchToPppMode failed with timeout!!!"));
    EXPECT_TRUE(Requested().empty());
    EXPECT_EQ(modem->Pull(), Bytes({'n', 'o', ' ', 'f', 'l', 'a', 'g'}));
}

TEST_F(PppSwitch, AFailedSpecialCharacterRequestKeepsTheOldTable) {
    ASSERT_TRUE(SwitchToPpp({0x11, 0x13}));
    modem->RequestFraming(false);
    RunFor(kPoll + 10);
    modem->SetSpecialChars({0x05});
    modem->StallNextGetSpecialChars();
    // The host's stream is still at the flag: the switch goes ahead at once.
    modem->RequestFraming(true);
    RunFor(kPoll + 10);
    EXPECT_EQ(dev->PppState, ULONG(PPP_STATE_OFF));
    EXPECT_TRUE(dev->PppFramer.EscapeTable[0x11]);
    EXPECT_FALSE(dev->PppFramer.EscapeTable[0x05]);
    EXPECT_EQ(Requested(), Bytes({0x60, 0x61, 0x62})) << "no start after the failed read";
}

// The deframer sends from inside the serial port's locked pass. When the bus
// fails that transfer inside IoCallDriver, the completion must not wait for
// the lock its own submitter holds.
TEST_F(PppSwitch, AnInlineCompletionUnderTheDeviceLockFinishesAfterTheLock) {
    ASSERT_TRUE(SwitchToPpp({0x11, 0x13}));
    hu::UsbFaultKnob gone;
    gone.every = 1;
    gone.match = hu::EndpointKey(uint8_t(dev->Cfg.DataOutPipe));
    gone.status = USBD_STATUS_DEVICE_GONE;
    hu::UsbFaultKnob& knob = bus->AddFault(hu::Fault::kInline, gone);
    Bytes frame = ppp_test::HdlcFrame({1, 2, 3}, ppp_test::EscapeSetOf({}));
    ASSERT_TRUE(Wait(Write(Bytes(frame.begin() + 1, frame.end()))));
    RunFor(20);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_FALSE(dev->WritePipe.Enabled) << "device gone disables the send context";
    EXPECT_EQ(dev->WritePipe.Pool->Count, 1u) << "the packet came back";
    EXPECT_TRUE(modem->TakeFrames().empty());
}

} // namespace
