// Fuzzes the notification decoder through the driver's interrupt-in path:
// the modem sends arbitrary packets on its interrupt endpoint, the bus
// delivers them (cut to the endpoint's 16-byte packets) to the driver's
// receive engine, and RcvIntIn decodes them while an application waits on
// the port's events. One ordinary modem stays plugged with its port open
// across inputs; at the end of each, the modem's lines go back to off,
// framing is stopped and the wait mask emptied.
//
// Input: an options byte (bit 0: trace errors, modem lines, PPP and wait
// events too); a wait mask (two bytes); then records of an operation byte
// and its arguments: a packet of a length byte's bytes; the same split into
// two packets at a given byte; a well-formed notification (serial state,
// network connection, start or stop framing) with a value; or time passing.
// After each record the driver's modem lines must be those the packets
// delivered so far say, and a completed wait must report only events of
// the mask.
#define TRACE_FILE "tests/fuzz/notification_fuzzer"
#include "fuzz_machine.h"
#include "worker.h"

#include <algorithm>
#include <cstring>

using Bytes = std::vector<uint8_t>;

namespace {

constexpr size_t kPacket = 16;  // the interrupt endpoint's packet size
constexpr int64_t kPollMs = 40; // two polls of the interrupt endpoint
constexpr ULONG kLines = SERIAL_MSR_CTS | SERIAL_MSR_DSR | SERIAL_MSR_RI | SERIAL_MSR_DCD;
constexpr ULONG kAllEvents = 0x1FFF;

// The modem lines a notification packet leaves, as the CDC class says:
// a serial state (0x20) of at least 10 bytes sets DCD, DSR and ring from
// its bits 0, 1 and 3; a network connection (0x00) sets CTS from bit 0.
ULONG ExpectedLines(ULONG lines, const Bytes& sent) {
    Bytes packet(sent.begin(), sent.begin() + std::min(sent.size(), kPacket));
    if (packet.size() < 8 || (packet[0] & 0x60) != 0x20)
        return lines;
    if (packet[1] == 0x00)
        return (lines & ~SERIAL_MSR_CTS) | ((packet[2] & 1) ? SERIAL_MSR_CTS : 0);
    if (packet[1] != 0x20 || packet.size() < 10)
        return lines;
    uint8_t state = packet[8];
    return (lines & SERIAL_MSR_CTS) | ((state & 0x01) ? SERIAL_MSR_DCD : 0) |
           ((state & 0x02) ? SERIAL_MSR_DSR : 0) | ((state & 0x08) ? SERIAL_MSR_RI : 0);
}

std::shared_ptr<hk::PendingIo> WaitOnMask(hk::File& file) {
    return file.DeviceIoControlAsync(IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, sizeof(ULONG));
}

// A new mask completes a pending wait with no event.
void CheckWait(const hk::PendingIo& wait, ULONG mask, bool mask_changed = false) {
    FUZZ_CHECK(wait.Result().status == STATUS_SUCCESS);
    FUZZ_CHECK(wait.Result().information == sizeof(ULONG));
    ULONG events = 0;
    std::memcpy(&events, wait.Output().data(), sizeof(events));
    FUZZ_CHECK((events != 0 || mask_changed) && (events & ~mask) == 0);
}

// Each framing request queued a switch that waits up to 300 ms for the
// host's flag; they run one after the other.
void WaitForWorker(hk::Kernel& kernel) {
    for (int64_t waited = 0; kernel.pool().ForTag(WORKER_REC_TAG).blocks != 0; waited += 50) {
        FUZZ_CHECK(waited < 600000);
        kernel.Sleep(50);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Machine& machine = fuzz::Machine::Get();
    static std::u16string name;
    static const int port = machine.PlugKept(name);
    sm::Modem& modem = machine.ModemOn(port);
    hk::Kernel& kernel = *fuzz::kernel;

    fuzz::Input scope;
    fuzz::Reader input(data, size);
    machine.SetTraceMask(fuzz::TraceMaskFor(input.Byte(), TL_ERROR | TL_MODEM | TL_PPP | TL_WAIT));
    PDEVICE dev = machine.DataPort(name);
    FUZZ_CHECK(dev != nullptr && (dev->ModemStatus & kLines) == 0);
    hk::File& file = machine.KeptFile();
    ULONG mask = (input.Byte() | (input.Byte() << 8)) & kAllEvents;
    FUZZ_CHECK(
        file.DeviceIoControl(IOCTL_SERIAL_SET_WAIT_MASK, &mask, sizeof(mask), nullptr, 0).status ==
        STATUS_SUCCESS);
    std::shared_ptr<hk::PendingIo> wait = mask ? WaitOnMask(file) : nullptr;

    ULONG lines = 0;
    auto send = [&](const Bytes& packet) {
        modem.SendRawNotification(packet);
        lines = ExpectedLines(lines, packet);
        kernel.Sleep(kPollMs);
    };
    while (!input.Empty()) {
        uint8_t operation = input.Byte();
        switch (operation & 3) {
        case 0:
            send(input.Take(input.Byte() % 24));
            break;
        case 1: {
            Bytes whole = input.Take(input.Byte() % 24);
            size_t cut = input.Byte() % (whole.size() + 1);
            send(Bytes(whole.begin(), whole.begin() + cut));
            send(Bytes(whole.begin() + cut, whole.end()));
            break;
        }
        case 2: {
            uint8_t low = input.Byte(), high = input.Byte();
            static const uint8_t kKinds[][2] = {
                {0xa1, 0x20}, {0xa1, 0x00}, {0xc1, 0x10}, {0xc1, 0x11}};
            const uint8_t* kind = kKinds[(operation >> 2) & 3];
            if (kind[1] == 0x20)
                send({kind[0], kind[1], 0, 0, 0, 0, 2, 0, low, high});
            else
                send({kind[0], kind[1], low, high, 0, 0, 0, 0});
            break;
        }
        case 3:
            kernel.Sleep(input.Byte());
            break;
        }
        FUZZ_CHECK((dev->ModemStatus & kLines) == lines);
        if (wait && wait->Done()) {
            CheckWait(*wait, mask);
            wait = WaitOnMask(file);
        }
        fuzz::CheckTrace();
    }

    // The next input finds the lines off, framing off, no switch under way
    // and no event pending.
    modem.SendSerialState(0);
    modem.SendNetworkConnection(false);
    kernel.Sleep(kPollMs);
    WaitForWorker(kernel);
    if (dev->PppState != PPP_STATE_OFF) {
        modem.RequestFraming(false);
        kernel.Sleep(kPollMs);
        WaitForWorker(kernel);
    }
    FUZZ_CHECK(dev->PppState == PPP_STATE_OFF);
    FUZZ_CHECK((dev->ModemStatus & kLines) == 0);
    // Events not yet delivered outlive a mask: a last wait takes them, or
    // stays pending until the empty mask completes it with none.
    if (wait && wait->Done()) {
        CheckWait(*wait, mask);
        wait = WaitOnMask(file);
    }
    ULONG none = 0;
    FUZZ_CHECK(
        file.DeviceIoControl(IOCTL_SERIAL_SET_WAIT_MASK, &none, sizeof(none), nullptr, 0).status ==
        STATUS_SUCCESS);
    kernel.Sleep(1);
    if (wait) {
        FUZZ_CHECK(wait->Done());
        CheckWait(*wait, mask, true);
    }
    FUZZ_CHECK(dev->Port.RequestPool.Count == 0);
    modem.ForgetRequests();
    return 0;
}
