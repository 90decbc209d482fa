// The scenario runner: each command of a parsed file on the machine.
#include "script_run.h"

#include "app_port.h"
#include "ppp_client.h"
#include "descriptors.h"
#include "profiles.h"
#include "summary.h"

#include "hostkernel/power.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>

namespace sim {

namespace {

using script::Command;
using script::Op;

// How much of the bytes seen a failed expectation shows.
constexpr size_t kShownBytes = 256;
// Each ping waits this long for its reply.
constexpr uint32_t kPingReplyMs = 2000;
// The longest a call that may block the application (ReadFile, WriteFile,
// the PPP client's exchanges) is let wait beyond its own time.
constexpr uint32_t kMaxBlockedMs = 600000;

std::string Ms(int64_t ms) {
    return std::to_string(ms) + " ms";
}

std::string Shown(const Bytes& bytes) {
    if (bytes.size() <= kShownBytes)
        return script::Quote(bytes);
    Bytes tail(bytes.end() - kShownBytes, bytes.end());
    return "..." + script::Quote(tail) + " (" + std::to_string(bytes.size()) + " bytes)";
}

std::string Address(uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xff) + "." +
           std::to_string(address >> 8 & 0xff) + "." + std::to_string(address & 0xff);
}

std::string Hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

// Where needle begins in haystack, or npos.
size_t Find(const Bytes& haystack, const Bytes& needle) {
    auto it = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end());
    return it == haystack.end() ? std::string::npos : size_t(it - haystack.begin());
}

// The signals of a modem status, each on or off; only those named in
// either mask when one is given.
std::string Signals(comm::DWORD on, comm::DWORD off = ~comm::DWORD(0)) {
    std::string text;
    const std::pair<comm::DWORD, const char*> names[] = {{comm::MS_CTS_ON, "CTS"},
                                                         {comm::MS_DSR_ON, "DSR"},
                                                         {comm::MS_RING_ON, "RING"},
                                                         {comm::MS_RLSD_ON, "RLSD"}};
    for (const auto& [bit, name] : names)
        if ((on | off) & bit)
            text += std::string(text.empty() ? "" : " ") + name + ((on & bit) ? " on" : " off");
    return text;
}

class Runner {
  public:
    Runner(const std::string& file, Machine& machine, Transcript& transcript)
        : file_(file), machine_(machine), say_(transcript),
          printed_mask_(machine.PrintsTrace() ? machine.TraceMask() : 0) {}
    int Run(const std::vector<Command>& commands);

  private:
    struct ModemSlot {
        int port = 0;
        std::string com;
        Bytes received;             // what the modem took from the host, not yet expected
        size_t requests_before = 0; // requests an expectation has passed over
    };
    struct HandleSlot {
        std::unique_ptr<AppPort> port = std::make_unique<AppPort>();
        Bytes inbox; // read but not yet expected
        std::optional<uint32_t> last_read;
    };

    bool Execute(const Command& c, const Command* next);
    bool Expectation(const Command& c);
    // error: the Win32 error of a call that failed; 0 for an expectation.
    bool Fail(const Command& c, const std::string& what, comm::DWORD error = 0) {
        std::string where = file_ + ":" + std::to_string(c.line);
        say_.Plain(where + ": expectation failed: " + what);
        failures_.push_back({where + ": " + what, error});
        return false;
    }
    // A Win32 call's outcome: kept for expect error; a failure the next
    // line does not expect fails the run.
    bool Called(const Command& c, const Command* next, bool ok, comm::DWORD error,
                const std::string& call);
    sm::Modem& ModemOf(const std::string& name) { return *machine_.ModemOn(modems_[name].port); }
    AppPort& PortOf(const std::string& name) { return *handles_[name].port; }
    int64_t Deadline(const Command& c) const { return machine_.NowMs() + c.within_ms; }
    // Lets the clock run a millisecond at a time until holds() or the
    // command's time is up; true when it held.
    bool Poll(const Command& c, const std::function<bool()>& holds) {
        int64_t deadline = Deadline(c);
        for (;;) {
            if (holds())
                return true;
            if (machine_.NowMs() >= deadline)
                return false;
            machine_.Advance(1);
        }
    }
    void CloseSlot(const std::string& name);

    bool ExpectRead(const Command& c);
    bool ExpectModem(const Command& c);
    bool ExpectTrace(const Command& c);
    bool Ping(const Command& c);
    bool ExpectPppOpened(const Command& c);
    // A PPP client's step, guarded for kMaxBlockedMs beyond its own time.
    bool PppStep(const Command& c, uint32_t own_ms, const std::function<bool()>& step);

    const std::string& file_;
    Machine& machine_;
    Transcript& say_;
    std::map<std::string, ModemSlot> modems_;
    std::map<std::string, HandleSlot> handles_;
    std::string last_com_;
    std::unique_ptr<PppClient> ppp_;
    comm::HANDLE ppp_port_ = comm::INVALID_HANDLE_VALUE;
    comm::DWORD last_error_ = comm::ERROR_SUCCESS;
    size_t trace_before_ = 0; // debugger lines an expect trace has passed over
    hk::FaultKnob* last_knob_ = nullptr;
    bool asleep_ = false;
    AppTotals totals_;
    std::vector<StepFailure> failures_;
    uint32_t printed_mask_; // what --trace asked for, kept under a script's mask
    // Calls with nothing to show but that they were done.
    const std::set<Op> quiet_calls_{Op::kTimeouts, Op::kMask, Op::kEscape, Op::kPurge};
};

bool Runner::Called(const Command& c, const Command* next, bool ok, comm::DWORD error,
                    const std::string& call) {
    last_error_ = ok ? comm::ERROR_SUCCESS : error;
    if (ok && quiet_calls_.count(c.op) != 0)
        say_.Detail(call + ": done");
    if (ok)
        return true;
    say_.Detail(call + " failed: " + DescribeError(error));
    if (next && next->op == Op::kExpectError)
        return true;
    return Fail(c,
                call + " failed with " + DescribeError(error) +
                    " (an \"expect error\" on the next line makes a failure expected)",
                error);
}

void Runner::CloseSlot(const std::string& name) {
    HandleSlot& slot = handles_[name];
    if (slot.port->IsOpen())
        slot.port->Close();
    totals_.bytes_written += slot.port->BytesWritten();
    totals_.bytes_read += slot.port->BytesRead();
    totals_.requests += slot.port->Requests();
    handles_.erase(name);
}

bool Runner::Execute(const Command& c, const Command* next) {
    switch (c.op) {
    case Op::kTrace: {
        // Assertion lines are always produced, so the verdict sees them,
        // and so are the lines --trace asked to see.
        uint32_t mask = c.number | 0x1 | printed_mask_;
        machine_.SetTrace(mask, machine_.PrintsTrace());
        say_.Detail("TraceMask " + Hex(mask) +
                    " in the service key: read at the driver's load and at every open");
        return true;
    }
    case Op::kPlug: {
        hu::Speed speed = c.speed == script::Speed::kFull ? hu::Speed::kFull : hu::Speed::kHigh;
        using DataMode = sm::Modem::DataMode;
        DataMode mode = c.mode == script::Mode::kTest      ? DataMode::kTest
                        : c.mode == script::Mode::kCommand ? DataMode::kCommand
                                                           : DataMode::kLoopback;
        std::optional<sm::Profile> profile = FindProfile(c.profile, speed);
        if (!profile)
            return Fail(c, "a profile " + c.profile + " with " + SpeedName(speed) +
                               "-speed descriptors, but it has none");
        for (const std::string& oddity : Oddities(*profile))
            say_.Detail("odd in its descriptors: " + oddity);
        ArmPlugFaults(c.profile, machine_.bus());
        ModemSlot slot;
        slot.port = machine_.Plug(*profile, mode, speed);
        slot.com = machine_.ComNameOf(slot.port);
        const hk::PnpDevice* device = machine_.pnp().DeviceFor(machine_.bus().Pdo(slot.port));
        bool started = device && device->state == hk::PnpState::kStarted;
        say_.Detail("\"" + profile->product + "\" in bus port " + std::to_string(slot.port) +
                    (started ? ", started as " + (slot.com.empty() ? "(no COM name)" : slot.com)
                             : ", not started by the driver"));
        if (started && !slot.com.empty())
            last_com_ = slot.com;
        modems_[c.name] = slot;
        return true;
    }
    case Op::kUnplug:
        machine_.Unplug(modems_[c.name].port);
        modems_.erase(c.name);
        say_.Detail(std::string("surprise removal, then removal; the driver is ") +
                    (machine_.DriverLoaded() ? "still loaded" : "unloaded"));
        return true;
    case Op::kGone:
        machine_.bus().DeviceGone(modems_[c.name].port);
        say_.Detail("the modem stops answering; it stays plugged");
        return true;
    case Op::kOpen: {
        std::string com = !c.port.empty()    ? c.port
                          : !c.modem.empty() ? modems_[c.modem].com
                                             : last_com_;
        if (com.empty())
            return Fail(c, "a COM port to open, but " +
                               (c.modem.empty() ? std::string("no modem got one")
                                                : "the modem " + c.modem + " has none"));
        HandleSlot& slot = handles_[c.name];
        slot.port->SetReception(&machine_.ReceptionOf(com));
        bool ok = slot.port->Open(com, c.overlapped);
        if (ok)
            say_.Detail("CreateFile(\"" + com + "\"" + (c.overlapped ? ", overlapped" : "") +
                        ") opened handle " + c.name);
        return Called(c, next, ok, slot.port->LastError(), "CreateFile(\"" + com + "\")");
    }
    case Op::kClose: {
        AppPort& port = PortOf(c.name);
        bool was_open = port.IsOpen();
        bool ok = port.Close();
        comm::DWORD error = port.LastError();
        CloseSlot(c.name);
        if (ok)
            say_.Detail("CloseHandle: closed");
        return Called(c, next, ok || !was_open, error, "CloseHandle");
    }
    case Op::kWrite: {
        AppPort& port = PortOf(c.name);
        uint64_t before = port.BytesWritten();
        bool ok = false;
        if (!RunGuarded(port.Handle(), kMaxBlockedMs, [&] { ok = port.Write(c.bytes); }))
            return Fail(c, "WriteFile returns within " + Ms(kMaxBlockedMs) +
                               ", but it was still waiting (aborted)");
        uint64_t written = port.BytesWritten() - before;
        if (port.LastError() == comm::ERROR_SUCCESS)
            say_.Detail("WriteFile: " + std::to_string(written) + " of " +
                        std::to_string(c.bytes.size()) + " bytes written");
        if (port.LastError() == comm::ERROR_SUCCESS && !ok)
            return Fail(c, std::to_string(c.bytes.size()) + " bytes written, but only " +
                               std::to_string(written) + " were");
        return Called(c, next, ok, port.LastError(), "WriteFile");
    }
    case Op::kRead: {
        HandleSlot& slot = handles_[c.name];
        if (c.pending) {
            bool ok = slot.port->StartRead(c.number);
            if (ok)
                say_.Detail("ReadFile(" + std::to_string(c.number) + ", overlapped) started");
            return Called(c, next, ok, slot.port->LastError(), "ReadFile");
        }
        Bytes bytes;
        int64_t start = machine_.NowMs();
        std::optional<uint32_t> total;
        if (c.within_ms >= 0)
            total = uint32_t(c.within_ms);
        bool ok = false;
        if (!RunGuarded(slot.port->Handle(), kMaxBlockedMs,
                        [&] { ok = slot.port->Read(c.number, total, &bytes); }))
            return Fail(c, "ReadFile returns within " + Ms(kMaxBlockedMs) +
                               ", but it was still waiting (aborted; the port's time-outs let it "
                               "wait without end)");
        slot.inbox.insert(slot.inbox.end(), bytes.begin(), bytes.end());
        slot.last_read = uint32_t(bytes.size());
        say_.Detail("ReadFile(" + std::to_string(c.number) + "): " + std::to_string(bytes.size()) +
                    " bytes " + Shown(bytes) + " after " + Ms(machine_.NowMs() - start));
        return Called(c, next, ok, slot.port->LastError(), "ReadFile");
    }
    case Op::kPush:
        ModemOf(c.name).Push(c.bytes);
        say_.Detail("the modem sends " + std::to_string(c.bytes.size()) + " bytes");
        return true;
    case Op::kWait:
        machine_.Advance(c.within_ms);
        return true;
    case Op::kDcb: {
        AppPort& port = PortOf(c.name);
        comm::DCB dcb{};
        dcb.DCBlength = sizeof dcb;
        bool ok = port.Record(comm::GetCommState(port.Handle(), &dcb));
        if (ok && !port.Record(comm::BuildCommDCB(c.text.c_str(), &dcb)))
            return Called(c, next, false, port.LastError(), "BuildCommDCB");
        // The driver starts with XON and XOFF both 0, which SetCommState
        // refuses; they are set as terminal programs set them.
        if (dcb.XonChar == dcb.XoffChar) {
            dcb.XonChar = 0x11;
            dcb.XoffChar = 0x13;
        }
        ok = ok && port.Record(comm::SetCommState(port.Handle(), &dcb));
        if (ok)
            say_.Detail("SetCommState: " + std::to_string(dcb.BaudRate) + " " +
                        std::to_string(dcb.ByteSize) + " " +
                        (dcb.Parity < 5 ? std::string(1, "NOEMS"[dcb.Parity]) : "?") + " " +
                        (dcb.StopBits == 0   ? "1"
                         : dcb.StopBits == 1 ? "1.5"
                                             : "2"));
        return Called(c, next, ok, port.LastError(), "SetCommState");
    }
    case Op::kTimeouts: {
        AppPort& port = PortOf(c.name);
        comm::COMMTIMEOUTS timeouts{c.values[0], c.values[1], c.values[2], c.values[3],
                                    c.values[4]};
        return Called(c, next, port.SetTimeouts(timeouts), port.LastError(), "SetCommTimeouts");
    }
    case Op::kMask: {
        AppPort& port = PortOf(c.name);
        bool ok = port.Record(comm::SetCommMask(port.Handle(), c.number));
        return Called(c, next, ok, port.LastError(), "SetCommMask");
    }
    case Op::kEscape: {
        AppPort& port = PortOf(c.name);
        bool ok = port.Record(comm::EscapeCommFunction(port.Handle(), c.number));
        return Called(c, next, ok, port.LastError(), "EscapeCommFunction");
    }
    case Op::kPurge: {
        AppPort& port = PortOf(c.name);
        bool ok = port.Record(comm::PurgeComm(port.Handle(), c.number));
        return Called(c, next, ok, port.LastError(), "PurgeComm");
    }
    case Op::kSerialState:
        ModemOf(c.name).SendSerialState(uint16_t(c.number));
        say_.Detail("SERIAL_STATE " + Hex(c.number) + " on the interrupt pipe");
        return true;
    case Op::kFault: {
        const script::FaultSpec& f = c.fault;
        if (f.kind == script::FaultKind::kPool) {
            hk::FaultKnob knob;
            knob.nth = f.nth;
            knob.every = f.every;
            knob.match = f.match;
            last_knob_ = &machine_.kernel().pool().Faults().Add(
                "script line " + std::to_string(c.line), knob);
            return true;
        }
        static const hu::Fault kKinds[] = {
            hu::Fault::kStall,         hu::Fault::kError,        hu::Fault::kNoAnswer,
            hu::Fault::kDelay,         hu::Fault::kDeviceGone,   hu::Fault::kResetPipeFail,
            hu::Fault::kResetPortFail, hu::Fault::kHubQueryFail, hu::Fault::kInline,
        };
        hu::UsbFaultKnob knob;
        knob.nth = f.nth;
        knob.every = f.every;
        knob.match = f.match;
        if (f.status)
            knob.status = USBD_STATUS(*f.status);
        knob.delay_ms = f.delay_ms;
        last_knob_ = &machine_.bus().AddFault(kKinds[size_t(f.kind)], knob);
        return true;
    }
    case Op::kFaultClear:
        machine_.ClearFaults();
        last_knob_ = nullptr;
        return true;
    case Op::kSleep: {
        static const SYSTEM_POWER_STATE kStates[] = {PowerSystemSleeping1, PowerSystemSleeping2,
                                                     PowerSystemSleeping3, PowerSystemHibernate};
        hk::PowerManager& power = machine_.kernel().power();
        power.ClearRequests();
        bool slept = power.Sleep(kStates[c.number - 1]);
        for (const hk::PowerRequest& request : power.Requests())
            say_.Detail(std::string(request.minor == IRP_MN_QUERY_POWER ? "query" : "set") + " S" +
                        std::to_string(int(request.state) - 1) + " to " + request.instance + ": " +
                        (NT_SUCCESS(request.status) ? "granted" : "refused"));
        if (!slept)
            return Fail(c, "the system sleeps, but a driver refused the query");
        asleep_ = true;
        return true;
    }
    case Op::kWake:
        machine_.kernel().power().Wake();
        asleep_ = false;
        say_.Detail("the system is in the working state again");
        return true;
    case Op::kPppOpen:
        ppp_port_ = PortOf(c.name).Handle();
        ppp_ = std::make_unique<PppClient>(PortOf(c.name));
        ppp_->Open();
        say_.Detail("the host's PPP client sends its first LCP configure-request");
        return true;
    case Op::kPing:
        return PppStep(c, c.number * kPingReplyMs, [&] { return Ping(c); });
    case Op::kPppClose:
        return PppStep(c, 1000, [&] {
            ppp_->Close();
            ppp_->RunUntil([&] { return ppp_->engine().Lcp() != ppp::Engine::State::kClosing; },
                           1000);
            say_.Detail("LCP terminated");
            ppp_.reset();
            return true;
        });
    default:
        return Expectation(c);
    }
}

bool Runner::ExpectRead(const Command& c) {
    HandleSlot& slot = handles_[c.name];
    int64_t deadline = Deadline(c);
    for (;;) {
        size_t at = Find(slot.inbox, c.bytes);
        if (at != std::string::npos) {
            Bytes before(slot.inbox.begin(), slot.inbox.begin() + at);
            slot.inbox.erase(slot.inbox.begin(), slot.inbox.begin() + at + c.bytes.size());
            say_.Detail("read " + Shown(c.bytes) +
                        (before.empty() ? "" : " after " + Shown(before)));
            return true;
        }
        int64_t left = deadline - machine_.NowMs();
        if (left <= 0)
            break;
        Bytes some = slot.port->ReadSome(uint32_t(left));
        if (some.empty() && slot.port->LastError() != comm::ERROR_SUCCESS)
            return Fail(c, Shown(c.bytes) + ", but ReadFile failed with " +
                               DescribeError(slot.port->LastError()) + " after " +
                               Shown(slot.inbox));
        slot.inbox.insert(slot.inbox.end(), some.begin(), some.end());
    }
    return Fail(c, Shown(c.bytes) + " within " + Ms(c.within_ms) + ", but read " +
                       (slot.inbox.empty() ? "nothing" : Shown(slot.inbox)));
}

bool Runner::ExpectModem(const Command& c) {
    ModemSlot& slot = modems_[c.name];
    int64_t deadline = Deadline(c);
    for (;;) {
        sm::Modem* modem = machine_.ModemOn(slot.port);
        Bytes more = modem->Pull();
        slot.received.insert(slot.received.end(), more.begin(), more.end());
        size_t at = Find(slot.received, c.bytes);
        if (at != std::string::npos) {
            slot.received.erase(slot.received.begin(), slot.received.begin() + at + c.bytes.size());
            say_.Detail("the modem received " + Shown(c.bytes));
            return true;
        }
        if (machine_.NowMs() >= deadline)
            break;
        machine_.Advance(1);
    }
    return Fail(c, "the modem receives " + Shown(c.bytes) + " within " + Ms(c.within_ms) +
                       ", but it received " +
                       (slot.received.empty() ? "nothing" : Shown(slot.received)));
}

bool Runner::ExpectTrace(const Command& c) {
    const hk::Debugger& debugger = machine_.kernel().Dbg();
    int64_t deadline = Deadline(c);
    for (;;) {
        const std::vector<std::string>& lines = debugger.Lines();
        for (size_t i = trace_before_; i < lines.size(); ++i) {
            if (lines[i].find(c.text) != std::string::npos) {
                trace_before_ = i + 1;
                say_.Detail("trace: " + lines[i]);
                return true;
            }
        }
        if (machine_.NowMs() >= deadline)
            break;
        machine_.Advance(1);
    }
    return Fail(c, "a trace line containing \"" + c.text + "\" within " + Ms(c.within_ms) +
                       ", but none came (" +
                       std::to_string(debugger.Lines().size() - trace_before_) +
                       " lines since the last match; is the trace bit in the mask?)");
}

bool Runner::Ping(const Command& c) {
    ppp::Engine& engine = ppp_->engine();
    int64_t slowest = 0;
    for (uint32_t sequence = 1; sequence <= c.number; ++sequence) {
        Bytes data(c.values[0]);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = uint8_t(sequence + i);
        size_t before = engine.PingReplies().size();
        int64_t sent = machine_.NowMs();
        if (!engine.Ping(1, uint16_t(sequence), data))
            return Fail(c, "ping " + std::to_string(sequence) +
                               " is sent, but the PPP client cannot send it (IPCP not opened?)");
        bool answered =
            ppp_->RunUntil([&] { return engine.PingReplies().size() > before; }, kPingReplyMs);
        if (!answered)
            return Fail(c, "a reply to ping " + std::to_string(sequence) + " within " +
                               Ms(kPingReplyMs) + ", but none came");
        if (engine.PingReplies().back().data != data)
            return Fail(c, "the reply to ping " + std::to_string(sequence) +
                               " carries its data, but they differ");
        slowest = std::max(slowest, machine_.NowMs() - sent);
    }
    say_.Detail(std::to_string(c.number) + " replies from " + Address(engine.PeerAddress()) + ", " +
                std::to_string(c.values[0]) + " bytes each, the slowest after " + Ms(slowest));
    return true;
}

bool Runner::Expectation(const Command& c) {
    switch (c.op) {
    case Op::kExpectRead:
        return ExpectRead(c);
    case Op::kExpectModem:
        return ExpectModem(c);
    case Op::kExpectTrace:
        return ExpectTrace(c);
    case Op::kExpectReadCount: {
        std::optional<uint32_t> got = handles_[c.name].last_read;
        if (got == c.number)
            return true;
        return Fail(c, "the last read returned " + std::to_string(c.number) + " bytes, but " +
                           (got ? "it returned " + std::to_string(*got) : "there was none"));
    }
    case Op::kExpectCompletion: {
        HandleSlot& slot = handles_[c.name];
        Bytes bytes;
        if (!slot.port->FinishRead(uint32_t(c.within_ms), &bytes))
            return Fail(c, "the pending read completes within " + Ms(c.within_ms) +
                               ", but it is still pending");
        comm::DWORD error = slot.port->LastError();
        last_error_ = error;
        slot.inbox.insert(slot.inbox.end(), bytes.begin(), bytes.end());
        slot.last_read = uint32_t(bytes.size());
        say_.Detail("the read completed: " + DescribeError(error) + ", " +
                    std::to_string(bytes.size()) + " bytes " + Shown(bytes));
        if (error != c.error)
            return Fail(c, "the read completes with " + DescribeError(c.error) +
                               ", but it "
                               "completed with " +
                               DescribeError(error));
        return true;
    }
    case Op::kExpectPending: {
        Bytes bytes;
        if (!handles_[c.name].port->FinishRead(0, &bytes))
            return true;
        return Fail(c, "the read is still pending, but it completed with " +
                           DescribeError(handles_[c.name].port->LastError()) + " and " +
                           Shown(bytes));
    }
    case Op::kExpectError:
        if (last_error_ == c.error)
            return true;
        return Fail(c, "the last call's error is " + DescribeError(c.error) + ", but it is " +
                           DescribeError(last_error_));
    case Op::kExpectEvent: {
        AppPort& port = PortOf(c.name);
        std::optional<comm::DWORD> events = port.WaitEvent(uint32_t(c.within_ms));
        if (!events)
            return Fail(c, "an event " + Hex(c.number) + " within " + Ms(c.within_ms) +
                               ", but WaitCommEvent returned none (" +
                               DescribeError(port.LastError()) + ")");
        say_.Detail("WaitCommEvent: events " + Hex(*events));
        if ((*events & c.number) == 0)
            return Fail(c, "the events " + Hex(c.number) + ", but WaitCommEvent returned " +
                               Hex(*events));
        return true;
    }
    case Op::kExpectStatus: {
        AppPort& port = PortOf(c.name);
        int64_t deadline = Deadline(c);
        comm::DWORD status = 0;
        for (;;) {
            if (!port.Record(comm::GetCommModemStatus(port.Handle(), &status)))
                return Fail(c, "GetCommModemStatus answers, but it failed with " +
                                   DescribeError(port.LastError()));
            if ((status & c.number) == c.number && (status & c.values[0]) == 0) {
                say_.Detail("GetCommModemStatus: " + Signals(status));
                return true;
            }
            if (machine_.NowMs() >= deadline)
                break;
            machine_.Advance(1);
        }
        return Fail(c, "modem status " + Signals(c.number, c.values[0]) + " within " +
                           Ms(c.within_ms) + ", but it is " + Signals(status));
    }
    case Op::kExpectLines: {
        auto text = [](uint32_t state) {
            return std::string("dtr ") + ((state & 1) ? "on" : "off") + " rts " +
                   ((state & 2) ? "on" : "off");
        };
        uint16_t lines = 0;
        bool held = Poll(c, [&] {
            lines = ModemOf(c.name).ControlLineState();
            return (lines & c.number) == c.number && (lines & c.values[0]) == 0;
        });
        say_.Detail("SET_CONTROL_LINE_STATE " + Hex(lines) + ": " + text(lines));
        if (held)
            return true;
        return Fail(c, "the modem's lines to be " + text(c.number) + " where named, but they are " +
                           text(lines));
    }
    case Op::kExpectCoding: {
        static const char kParity[] = "NOEMS";
        static const char* const kStop[] = {"1", "1.5", "2"};
        auto text = [&](uint32_t rate, uint32_t data, uint32_t parity, uint32_t stop) {
            return std::to_string(rate) + " " + std::to_string(data) + " " +
                   (parity < 5 ? std::string(1, kParity[parity]) : "?") + " " +
                   (stop < 3 ? kStop[stop] : "?");
        };
        std::string want = text(c.values[0], c.values[1], c.values[2], c.values[3]);
        std::string got;
        bool held = Poll(c, [&] {
            const Bytes& coding = ModemOf(c.name).LineCoding();
            if (coding.size() != 7) {
                got = std::to_string(coding.size()) + " bytes";
                return false;
            }
            uint32_t rate =
                coding[0] | coding[1] << 8 | coding[2] << 16 | uint32_t(coding[3]) << 24;
            got = text(rate, coding[6], coding[5], coding[4]);
            return got == want;
        });
        say_.Detail("line coding " + got);
        if (held)
            return true;
        return Fail(c, "the line coding " + want + " within " + Ms(c.within_ms) +
                           ", but the modem holds " + got);
    }
    case Op::kExpectRequest: {
        ModemSlot& slot = modems_[c.name];
        std::string seen;
        bool held = Poll(c, [&] {
            const std::vector<sm::RecordedRequest>& requests = ModemOf(c.name).Requests();
            seen.clear();
            for (size_t i = slot.requests_before; i < requests.size(); ++i) {
                const hu::SetupPacket& setup = requests[i].setup;
                if (setup.request == c.number) {
                    slot.requests_before = i + 1;
                    say_.Detail(
                        "request " + Hex(setup.request) + " value " + Hex(setup.value) + " at " +
                        Ms(requests[i].time_ms) +
                        (requests[i].data.empty() ? "" : ", data " + Shown(requests[i].data)));
                    return true;
                }
                seen += " " + Hex(setup.request);
            }
            return false;
        });
        if (held)
            return true;
        return Fail(c, "the request " + Hex(c.number) + " within " + Ms(c.within_ms) +
                           ", but the modem received " +
                           (seen.empty() ? "none since the last match" : seen.substr(1)));
    }
    case Op::kExpectFired: {
        if (!last_knob_)
            return Fail(c, "the fault fired, but the fault was cleared");
        uint64_t fired = last_knob_->fired;
        say_.Detail("the fault saw " + std::to_string(last_knob_->calls) +
                    " matching calls and fired " + std::to_string(fired) + " time(s)");
        if (c.values[0] != 0 ? fired != 0 : fired == c.number)
            return true;
        return Fail(c, "the fault fired " +
                           (c.values[0] != 0 ? std::string("at least once")
                                             : std::to_string(c.number) + " time(s)") +
                           ", but it fired " + std::to_string(fired));
    }
    case Op::kExpectPppOpened:
        return PppStep(c, uint32_t(c.within_ms), [&] { return ExpectPppOpened(c); });
    default:
        return Fail(c, "a command this runner knows");
    }
}

bool Runner::PppStep(const Command& c, uint32_t own_ms, const std::function<bool()>& step) {
    bool ok = false;
    bool in_time = RunGuarded(ppp_port_, own_ms + kMaxBlockedMs, [&] { ok = step(); });
    // A step that failed said why; one that needed the watchdog failed too.
    if (ok && !in_time)
        return Fail(c, "the PPP client's exchange ends within " + Ms(own_ms + kMaxBlockedMs) +
                           ", but its port was still waiting (aborted)");
    return ok;
}

bool Runner::ExpectPppOpened(const Command& c) {
    using State = ppp::Engine::State;
    ppp::Engine& engine = ppp_->engine();
    bool up = ppp_->RunUntil(
        [&] { return engine.Lcp() == State::kOpened && engine.Ipcp() == State::kOpened; },
        uint32_t(c.within_ms));
    if (!up)
        return Fail(c, "LCP and IPCP opened within " + Ms(c.within_ms) + ", but LCP is " +
                           (engine.Lcp() == State::kOpened ? "opened" : "not opened") +
                           " and IPCP " +
                           (engine.Ipcp() == State::kOpened ? "opened" : "not opened"));
    say_.Detail("LCP and IPCP opened: the host is " + Address(engine.LocalAddress()) +
                ", the modem " + Address(engine.PeerAddress()) +
                (ppp_->Restarts() ? ", after " + std::to_string(ppp_->Restarts()) +
                                        " restart(s) of a lost request"
                                  : ""));
    return true;
}

int Runner::Run(const std::vector<Command>& commands) {
    auto wall_start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < commands.size(); ++i) {
        const Command& c = commands[i];
        say_.Step(std::to_string(c.line) + ": " + c.source);
        const Command* next = i + 1 < commands.size() ? &commands[i + 1] : nullptr;
        if (!Execute(c, next)) {
            if (failures_.empty()) // a step that failed without saying why
                failures_.push_back({file_ + ":" + std::to_string(c.line) + ": " + c.source});
            break;
        }
    }
    // What the scenario left behind is put away before the machine shuts
    // down: the system wakes, the faults go, and the application ends as a
    // program does, its PPP client first, then its handles.
    if (asleep_)
        machine_.kernel().power().Wake();
    machine_.ClearFaults();
    ppp_.reset();
    std::vector<std::string> open;
    for (const auto& [name, slot] : handles_)
        open.push_back(name);
    for (const std::string& name : open) {
        if (handles_[name].port->IsOpen())
            say_.Step("the scenario ends with handle " + name + " open: it is closed");
        CloseSlot(name);
    }
    return Conclude(say_, machine_, totals_, wall_start, failures_);
}

} // namespace

script::Vocabulary ScriptVocabulary() {
    script::Vocabulary vocabulary;
    for (const ProfileInfo& info : ProfileNames())
        vocabulary.profiles.push_back(info.name);
    for (comm::DWORD code = 0; code < 4000; ++code)
        if (const char* name = comm::ErrorName(code); name && code != 0)
            vocabulary.errors.emplace_back(name, code);
    return vocabulary;
}

int RunScript(const std::string& file, const std::vector<script::Command>& commands,
              Machine& machine, Transcript& transcript) {
    return Runner(file, machine, transcript).Run(commands);
}

} // namespace sim
