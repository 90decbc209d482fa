// cdcacm-sim demo: install, plug, open, the AT dialogue, a dial, PPP
// through the driver's framing mode, pings, hang-up, surprise removal and
// re-plug with the port open, sleep and resume, close, unplug and unload.
#include "demo.h"

#include "app_port.h"
#include "ppp_client.h"
#include "profiles.h"
#include "summary.h"

#include "hostkernel/iomgr.h"
#include "hostkernel/power.h"

#include <chrono>
#include <cstdio>
#include <vector>

namespace sim {

namespace {

std::string Address(uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xff) + "." +
           std::to_string(address >> 8 & 0xff) + "." + std::to_string(address & 0xff);
}

using hk::detail::Narrow;

constexpr comm::DWORD kWriteTimeoutMs = 5000;
// A read or write that has not returned after this long is aborted by the
// application (a driver that keeps a request forever would otherwise stop
// the demo).
constexpr uint32_t kWatchdogMs = 30000;

class Demo {
  public:
    Demo(const DemoOptions& options, Machine& machine, Transcript& transcript)
        : options_(options), machine_(machine), say_(transcript) {}

    int Run();

  private:
    // A step's outcome: a failed check is printed and kept, with the Win32
    // error of the call that failed (0: an answer that did not come).
    bool Check(bool ok, const std::string& what, comm::DWORD error = 0) {
        if (!ok) {
            say_.Problem(what);
            failures_.push_back({what, error});
        }
        return ok;
    }
    std::optional<sm::Profile> Profile() { return FindProfile(options_.profile, options_.speed); }
    enum class Start { kStarted, kRefused, kFailed };
    Start PlugAndName();
    bool OpenAndConfigure();
    bool Dialogue();
    enum class DialResult { kConnected, kNoConnection, kFailed };
    DialResult Dial();
    bool Negotiate(PppClient& client);
    bool Ping(PppClient& client);
    bool HangUp(PppClient& client);
    bool Carrier(bool on);
    // Sends an AT command and prints the answer. True when the answer came;
    // one of the others is a known outcome, any other a failed step.
    bool Command(const std::string& command, const std::string& answer, uint32_t within_ms,
                 const std::vector<std::string>& other_answers = {});
    bool ReplugWithThePortOpen();
    bool SleepAndResume();
    void CloseUnplugAndUnload();

    const DemoOptions& options_;
    Machine& machine_;
    Transcript& say_;
    AppPort port_;
    int bus_port_ = 0;
    std::string com_;
    std::vector<StepFailure> failures_;
};

Demo::Start Demo::PlugAndName() {
    std::optional<sm::Profile> profile = Profile();
    say_.Step("the driver package is installed: service cdcacm from windows/cdcacm.inf "
              "(the driver loads with its first modem)");
    ArmPlugFaults(options_.profile, machine_.bus());
    bus_port_ = machine_.Plug(*profile, sm::Modem::DataMode::kCommand, options_.speed);
    say_.Step("plugged \"" + profile->product + "\" (profile " + profile->name + ", " +
              SpeedName(options_.speed) + " speed) into bus port " + std::to_string(bus_port_));
    const hk::PnpDevice* device = machine_.pnp().DeviceFor(machine_.bus().Pdo(bus_port_));
    if (!Check(device != nullptr && machine_.pnp().Loads("cdcacm") == 1,
               "the PnP manager did not load the driver for the modem"))
        return Start::kFailed;
    if (device->state != hk::PnpState::kStarted) {
        // A modem the driver refuses by design: say why, from its error lines
        // (a modem's first plug finds no serial number recorded, no error).
        say_.Step("the driver did not start this modem; the PnP manager removed its stack");
        for (const std::string& line : machine_.kernel().Dbg().Lines())
            if (line.find("failed") != std::string::npos &&
                line.find("ReadSernum") == std::string::npos)
                say_.Detail(line);
        return Start::kRefused;
    }
    say_.Detail("the PnP manager loaded cdcacm through its entry, called its add-device "
                "routine and started the device");
    std::string instance = machine_.InstanceOf(bus_port_);
    com_ = machine_.ComNameOf(bus_port_);
    if (!Check(!com_.empty(), "the modem got no COM port name"))
        return Start::kFailed;
    say_.Detail("instance " + instance + ", PortName " + com_);
    std::u16string link = u"\\DosDevices\\" + std::u16string(com_.begin(), com_.end());
    say_.Detail("\\DosDevices\\" + com_ + " -> " + Narrow(hk::SymbolicLinkTarget(link)));
    for (const hk::DeviceInterface& interface : machine_.pnp().interfaces().List())
        if (interface.instance == instance && interface.enabled)
            say_.Detail("COM-port interface enabled: " + Narrow(interface.name));
    return Check(!hk::SymbolicLinkTarget(link).empty(), "no link for " + com_) ? Start::kStarted
                                                                               : Start::kFailed;
}

bool Demo::OpenAndConfigure() {
    port_.SetReception(&machine_.ReceptionOf(com_));
    bool opened = port_.Open(com_);
    if (!Check(opened, "CreateFile(" + com_ + ") failed: " + DescribeError(port_.LastError()),
               port_.LastError()))
        return false;
    say_.Step("CreateFile(\"" + com_ + "\") opened the port");
    // BuildCommDCB changes only the fields its text names, so it starts from
    // the port's own state. The driver starts with XON and XOFF both 0, which
    // SetCommState refuses as every Windows does, so they are set as
    // terminal programs set them.
    comm::DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    bool ok = comm::GetCommState(port_.Handle(), &dcb) &&
              comm::BuildCommDCB("baud=115200 parity=N data=8 stop=1 dtr=on rts=on", &dcb);
    dcb.XonChar = 0x11;
    dcb.XoffChar = 0x13;
    ok = ok && comm::SetCommState(port_.Handle(), &dcb);
    // Writes give up after a while, as a dial-up stack's do, so that a modem
    // that stops taking data fails the step instead of blocking it forever.
    comm::COMMTIMEOUTS timeouts{};
    timeouts.WriteTotalTimeoutConstant = kWriteTimeoutMs;
    ok = ok && port_.SetTimeouts(timeouts);
    comm::DWORD error = comm::GetLastError();
    if (!Check(ok, "the line settings failed: " + DescribeError(error), error))
        return false;
    port_.SetWatchdog(kWatchdogMs);
    const Bytes& coding = machine_.ModemOn(bus_port_)->LineCoding();
    uint32_t rate = coding.size() == 7
                        ? coding[0] | coding[1] << 8 | coding[2] << 16 | uint32_t(coding[3]) << 24
                        : 0;
    say_.Step("SetCommState 115200 8N1, DTR and RTS on");
    say_.Detail("the modem received SET_LINE_CODING " + std::to_string(rate) + " bps, " +
                std::to_string(coding.size() == 7 ? coding[6] : 0) +
                " data bits, and SET_CONTROL_LINE_STATE " +
                std::to_string(machine_.ModemOn(bus_port_)->ControlLineState()));
    return Check(rate == 115200, "the modem's line coding is not 115200 bps");
}

bool Demo::Command(const std::string& command, const std::string& answer, uint32_t within_ms,
                   const std::vector<std::string>& other_answers) {
    say_.Step("> " + command);
    bool written = port_.Write(command + "\r");
    if (!Check(written, "WriteFile failed: " + DescribeError(port_.LastError()), port_.LastError()))
        return false;
    Bytes got;
    std::string text;
    auto answered = [&] {
        if (text.find(answer) != std::string::npos)
            return true;
        for (const std::string& other : other_answers)
            if (text.find(other) != std::string::npos)
                return true;
        return false;
    };
    int64_t deadline = machine_.NowMs() + within_ms;
    while (!answered() && machine_.NowMs() < deadline) {
        Bytes some = port_.ReadSome(uint32_t(deadline - machine_.NowMs()));
        if (port_.WatchdogFired())
            say_.Detail("ReadFile had not returned after " + std::to_string(kWatchdogMs / 1000) +
                        " s: the application aborted it (PurgeComm)");
        got.insert(got.end(), some.begin(), some.end());
        text.assign(got.begin(), got.end());
    }
    // One line per answer line; the modem's echo of the command is left out.
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        while (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty() && line != command)
            say_.Step("< " + line);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    if (text.find(answer) != std::string::npos)
        return true;
    Check(answered(), "\"" + command + "\" got \"" + Printable(got) + "\", not " + answer);
    return false;
}

bool Demo::Dialogue() {
    return Command("AT", "OK", 500) && Command("ATI", "OK", 500) && Command("ATI2", "OK", 500) &&
           Command("ATS7?", "OK", 500);
}

Demo::DialResult Demo::Dial() {
    int64_t dialled = machine_.NowMs();
    if (Command("ATD*99#", "CONNECT", 60000, {"BUSY", "NO ANSWER", "NO CARRIER"})) {
        say_.Detail("connected after " + std::to_string(machine_.NowMs() - dialled) +
                    " ms of dialling");
        return Carrier(true) ? DialResult::kConnected : DialResult::kFailed;
    }
    if (!failures_.empty())
        return DialResult::kFailed;
    say_.Detail("the modem did not connect: nothing to negotiate this time");
    return DialResult::kNoConnection;
}

// The carrier comes and goes as serial-state notifications on the interrupt
// pipe, a moment after the result code on the data pipe.
bool Demo::Carrier(bool on) {
    int64_t since = machine_.NowMs();
    comm::DWORD status = 0;
    while (comm::GetCommModemStatus(port_.Handle(), &status) &&
           bool(status & comm::MS_RLSD_ON) != on && machine_.NowMs() - since < 1000)
        machine_.Advance(1);
    bool now_on = (status & comm::MS_RLSD_ON) != 0;
    say_.Detail("GetCommModemStatus: carrier (RLSD) " + std::string(now_on ? "on" : "off") + " " +
                std::to_string(machine_.NowMs() - since) + " ms after the result code");
    return Check(now_on == on, on ? "no carrier after CONNECT" : "the carrier stayed on");
}

bool Demo::Negotiate(PppClient& client) {
    say_.Step("the host's PPP client sends LCP configure-requests; the modem asks the driver "
              "for PPP framing, which the driver switches on at the next frame boundary");
    client.Open();
    using State = ppp::Engine::State;
    bool up = client.RunUntil([&] { return client.engine().Lcp() == State::kOpened; }, 5000);
    sm::Modem& modem = *machine_.ModemOn(bus_port_);
    if (!Check(up, "LCP did not open"))
        return false;
    say_.Step("LCP opened: the driver carries the frames in modem packets");
    if (client.Restarts() != 0)
        say_.Detail("the first configure-request went out before the driver had switched to "
                    "framing and was lost; the restart timer sent it again");
    char detail[160];
    std::snprintf(detail, sizeof detail, "magic %08x, peer MRU %u, peer ACCM %08x",
                  client.engine().Magic(), client.engine().PeerMru(), client.engine().PeerAccm());
    say_.Detail(detail);
    say_.Detail(std::string("modem framing ") + (modem.Framing() ? "on" : "off") +
                "; frames the modem refused: " +
                std::to_string(modem.BadMagic() + modem.BadSequence() + modem.BadFcs()));
    up = client.RunUntil([&] { return client.engine().Ipcp() == State::kOpened; }, 5000);
    if (!Check(up, "IPCP did not open"))
        return false;
    say_.Step("IPCP opened: the host is " + Address(client.engine().LocalAddress()) +
              ", the modem " + Address(client.engine().PeerAddress()));
    return Check(client.FramingErrors() == 0, "the client received damaged frames");
}

bool Demo::Ping(PppClient& client) {
    for (int sequence = 1; sequence <= options_.pings; ++sequence) {
        Bytes data(56);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = uint8_t(sequence + i);
        int64_t sent = machine_.NowMs();
        size_t before = client.engine().PingReplies().size();
        if (!Check(client.engine().Ping(1, uint16_t(sequence), data), "the ping was not sent"))
            return false;
        bool answered =
            client.RunUntil([&] { return client.engine().PingReplies().size() > before; }, 2000);
        if (!Check(answered, "no reply to ping " + std::to_string(sequence)))
            return false;
        const ppp::Engine::PingReply& reply = client.engine().PingReplies().back();
        say_.Step("ping " + Address(client.engine().PeerAddress()) + ": reply from " +
                  Address(reply.from) + ", seq " + std::to_string(reply.sequence) + ", " +
                  std::to_string(reply.data.size()) + " bytes, " +
                  std::to_string(machine_.NowMs() - sent) + " ms");
        if (!Check(reply.data == data, "the reply's data differ"))
            return false;
    }
    return true;
}

bool Demo::HangUp(PppClient& client) {
    client.Close();
    client.RunUntil([&] { return client.engine().Lcp() != ppp::Engine::State::kClosing; }, 1000);
    say_.Step("the PPP client terminated LCP; EscapeCommFunction(CLRDTR) hangs up");
    bool cleared = comm::EscapeCommFunction(port_.Handle(), comm::CLRDTR);
    Check(cleared, "CLRDTR failed", comm::GetLastError());
    Bytes got = port_.ReadUntil("NO CARRIER", 2000);
    say_.Step("< " + Printable(got));
    sm::Modem& modem = *machine_.ModemOn(bus_port_);
    bool ok = Check(std::string(got.begin(), got.end()).find("NO CARRIER") != std::string::npos,
                    "no NO CARRIER after the hang-up") &&
              Carrier(false) && Check(!modem.Framing(), "the modem is still framing");
    say_.Detail("the modem stopped framing at the driver's request; plain text flows again");
    bool set = ok && comm::EscapeCommFunction(port_.Handle(), comm::SETDTR);
    return ok && Check(set, "SETDTR failed", comm::GetLastError()) && Command("AT", "OK", 500);
}

bool Demo::ReplugWithThePortOpen() {
    say_.Step("the modem is pulled out while " + com_ + " is open");
    machine_.Unplug(bus_port_);
    std::u16string link = u"\\DosDevices\\" + std::u16string(com_.begin(), com_.end());
    bool linked = hk::SymbolicLinkExists(link);
    say_.Detail("surprise removal: the link \\DosDevices\\" + com_ +
                (linked ? " is still there" : " is gone") + ", the handle stays open");
    std::optional<sm::Profile> profile = Profile();
    ArmPlugFaults(options_.profile, machine_.bus());
    bus_port_ = machine_.Plug(*profile, sm::Modem::DataMode::kCommand, options_.speed);
    say_.Step("the same modem is plugged in again (bus port " + std::to_string(bus_port_) + ")");
    if (!Check(!linked, "the link outlived the removal") ||
        !Check(machine_.ComNameOf(bus_port_) == com_, "the modem came back under another name"))
        return false;
    if (profile->serial) {
        say_.Detail("the driver recognised its serial number and joined it to the open port: " +
                    std::string("\\DosDevices\\") + com_ + " -> " +
                    Narrow(hk::SymbolicLinkTarget(link)));
        return Command("AT", "OK", 500);
    }
    // Without a serial number the driver cannot tell the modem from another
    // one: it gets a data port of its own, and the old handle leads nowhere.
    say_.Detail("without a serial number the driver cannot know it is the same modem: "
                "\\DosDevices\\" +
                com_ + " -> " + Narrow(hk::SymbolicLinkTarget(link)) +
                " is a new data port, so the application opens " + com_ + " again");
    bool closed = port_.Close();
    bool opened = closed && port_.Open(com_);
    return Check(opened, "reopening " + com_ + " failed: " + DescribeError(port_.LastError()),
                 port_.LastError()) &&
           Command("AT", "OK", 500);
}

bool Demo::SleepAndResume() {
    hk::PowerManager& power = machine_.kernel().power();
    bool slept = power.Sleep(PowerSystemSleeping3);
    say_.Step("the system sleeps (S3)");
    if (!Check(slept, "a driver refused the sleep"))
        return false;
    for (const hk::PowerRequest& request : power.Requests())
        say_.Detail(std::string(request.minor == IRP_MN_QUERY_POWER ? "query" : "set") + " S" +
                    std::to_string(int(request.state) - 1) + " -> " +
                    (request.status == STATUS_SUCCESS ? "STATUS_SUCCESS" : "refused"));
    machine_.Advance(1000);
    power.ClearRequests();
    power.Wake();
    machine_.Advance(100);
    say_.Step("the system resumes (S0): the driver powers the modem up and re-initialises it");
    return Command("AT", "OK", 500);
}

void Demo::CloseUnplugAndUnload() {
    if (port_.IsOpen()) {
        bool closed = port_.Close();
        Check(closed, "CloseHandle failed: " + DescribeError(port_.LastError()), port_.LastError());
        say_.Step("CloseHandle: the driver drains its send buffer and stops the transfers");
    }
    machine_.Unplug(bus_port_);
    say_.Step("the modem is unplugged");
    bool unloaded = !machine_.DriverLoaded();
    say_.Detail(unloaded ? "the driver unloaded with its last device"
                         : "the driver is still loaded");
    Check(unloaded, "the driver did not unload");
}

int Demo::Run() {
    auto wall_start = std::chrono::steady_clock::now();
    Start start = PlugAndName();
    bool ok = start == Start::kStarted && OpenAndConfigure() && Dialogue();
    DialResult dial = ok ? Dial() : DialResult::kFailed;
    ok = dial != DialResult::kFailed;
    if (dial == DialResult::kConnected) {
        PppClient client(port_);
        ok = Negotiate(client) && Ping(client) && HangUp(client);
    }
    ok = ok && ReplugWithThePortOpen() && SleepAndResume();
    if (ok || start == Start::kRefused)
        CloseUnplugAndUnload();
    else if (port_.IsOpen())
        port_.Close();
    AppTotals totals{port_.BytesWritten(), port_.BytesRead(), port_.Requests()};
    return Conclude(say_, machine_, totals, wall_start, failures_);
}

} // namespace

int RunDemo(const DemoOptions& options, Machine& machine, Transcript& transcript) {
    return Demo(options, machine, transcript).Run();
}

} // namespace sim
