// The modem's command mode: a Hayes-style AT interpreter on the data pipe,
// with the command-line syntax and result codes of ITU-T V.250 (V.250 5.2
// for the command line, 5.7 for result codes, 6.2 and 6.3 for the commands).
// Commands: E, V, Q (echo and result format), I (identification lines of the
// profile), Z and &F (the profile's defaults), D (dial; what follows is the
// dial string), H (hang up), O (back on-line), S0 S2 S3 S4 S5 S7 S12 (=v,
// ?), and L, M, X accepted and ignored. Dialling, connection and the "+++"
// escape with its guard time run in virtual time on one timer per function.
//
// Environment: like the rest of the modem, called by the bus's completion
// context and the test thread, and here by the timer's DPC as well, all on
// the one emulated processor; no lock.
#include "simmodem/simmodem.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace sm {

namespace {

constexpr uint16_t kCarrier = 0x0003; // SERIAL_STATE: DCD (bRxCarrier) and DSR (bTxCarrier)
constexpr size_t kMaxLine = 255;      // characters after "AT"
constexpr int kEscapeLength = 3;
constexpr int64_t kMsPerFiftieth = 20;

// The S-registers the modem has, with their ranges (V.250 6.2).
struct Register {
    uint8_t number, low, high;
};
constexpr Register kRegisters[] = {{0, 0, 255}, {2, 0, 255}, {3, 0, 127}, {4, 0, 127},
                                   {5, 0, 127}, {7, 1, 255}, {12, 0, 255}};

const Register* FindRegister(int number) {
    for (const Register& r : kRegisters)
        if (r.number == number)
            return &r;
    return nullptr;
}

// Result codes with their numeric (V0) values.
enum class Result {
    kNone = -1,
    kOk = 0,
    kConnect = 1,
    kNoCarrier = 3,
    kError = 4,
    kBusy = 7,
    kNoAnswer = 8
};

const char* Words(Result result) {
    switch (result) {
    case Result::kOk:
        return "OK";
    case Result::kConnect:
        return "CONNECT";
    case Result::kNoCarrier:
        return "NO CARRIER";
    case Result::kError:
        return "ERROR";
    case Result::kBusy:
        return "BUSY";
    case Result::kNoAnswer:
        return "NO ANSWER";
    case Result::kNone:
        break;
    }
    return "";
}

} // namespace

struct Modem::AtState {
    enum class Phase { kCommand, kDialling, kOnline, kOnlineCommand };
    enum class Pending { kNone, kDial, kEscape };

    Modem* modem = nullptr;
    FunctionData* function = nullptr;
    Phase phase = Phase::kCommand;
    bool echo = true, verbose = true, quiet = false;
    std::map<uint8_t, uint8_t> s;
    // The command line: "A" seen, then the characters after "AT".
    bool after_a = false, collecting = false, overflow = false;
    std::string line, last_line;
    // On-line: the escape sequence counted so far.
    int escapes = 0;
    int64_t last_data_ms = 0, last_escape_ms = 0;
    Pending pending = Pending::kNone;
    KTIMER timer{};
    KDPC dpc{};

    void Defaults(const CommandSet& commands) {
        echo = verbose = true;
        quiet = false;
        s = {{0, commands.s0_answer_rings},
             {2, '+'},
             {3, '\r'},
             {4, '\n'},
             {5, 8},
             {7, commands.s7_carrier_wait_s},
             {12, commands.s12_guard_fiftieths}};
    }
    bool Connected() const { return phase == Phase::kOnline || phase == Phase::kOnlineCommand; }
    int64_t GuardMs() const { return s.at(12) * kMsPerFiftieth; }
    void Arm(Pending what, int64_t delay_ms) {
        pending = what;
        LARGE_INTEGER due;
        due.QuadPart = -delay_ms * 10000;
        KeSetTimer(&timer, due, &dpc);
    }
    void Disarm() {
        if (pending == Pending::kNone)
            return;
        pending = Pending::kNone;
        KeCancelTimer(&timer);
        KeRemoveQueueDpc(&dpc);
    }
    // Information text and result codes as V.250 5.7.1 frames them.
    void Info(const std::string& text, std::string& out) const {
        std::string end = {char(s.at(3)), char(s.at(4))};
        out += (verbose ? end : "") + text + end;
    }
    void Emit(Result result, std::string& out, const std::string& extra = "") const {
        if (quiet || result == Result::kNone)
            return;
        std::string end = {char(s.at(3)), char(s.at(4))};
        if (verbose)
            out += end + Words(result) + extra + end;
        else
            out += std::to_string(int(result)) + char(s.at(3));
    }
};

void Modem::AtStateDelete::operator()(AtState* state) const {
    delete state;
}

VOID NTAPI Modem::AtTimerDpc(KDPC*, PVOID context, PVOID, PVOID) {
    auto* at = static_cast<AtState*>(context);
    at->modem->AtTimer(*at->function);
}

void Modem::CreateCommandState() {
    for (FunctionData& f : functions_) {
        f.at.reset(new AtState);
        f.at->modem = this;
        f.at->function = &f;
        f.at->Defaults(profile_.commands);
        KeInitializeTimer(&f.at->timer);
        KeInitializeDpc(&f.at->dpc, AtTimerDpc, f.at.get());
    }
}

Modem::~Modem() {
    for (FunctionData& f : functions_)
        if (f.at && hk::Kernel::Exists())
            f.at->Disarm();
}

bool Modem::Connected(size_t function) const {
    const FunctionData& f = functions_.at(function);
    return f.at && f.at->Connected();
}

uint8_t Modem::SRegister(uint8_t n, size_t function) const {
    return functions_.at(function).at->s.at(n);
}

// The host's bytes in command mode: on-line they go to the far end (kept for
// Pull) while the escape is watched for; during a dial any byte aborts it;
// otherwise they build command lines, echoed as they come.
void Modem::AtReceive(FunctionData& f, const std::vector<uint8_t>& data) {
    AtState& at = *f.at;
    using Phase = AtState::Phase;
    std::string out;
    int64_t now = hk::Kernel::Current().NowMs();
    for (uint8_t byte : data) {
        char c = char(byte);
        if (at.phase == Phase::kOnline) {
            // S2 above 127 disables the escape.
            bool escape = at.s.at(2) <= 127 && byte == at.s.at(2);
            if (escape && at.escapes > 0 && now - at.last_escape_ms <= at.GuardMs())
                ++at.escapes;
            else if (escape && now - at.last_data_ms >= at.GuardMs())
                at.escapes = 1;
            else
                at.escapes = 0;
            if (at.escapes > 0)
                at.last_escape_ms = now;
            at.last_data_ms = now;
            f.written.push_back(byte);
            continue;
        }
        if (at.phase == Phase::kDialling) {
            at.Disarm();
            at.phase = Phase::kCommand;
            at.Emit(Result::kNoCarrier, out);
            continue;
        }
        if (at.echo)
            out += c;
        if (!at.collecting) {
            if (at.after_a && (c == 't' || c == 'T')) {
                at.collecting = true;
                at.overflow = false;
                at.line.clear();
            } else if (at.after_a && c == '/') {
                if (at.echo)
                    out += char(at.s.at(3));
                AtLine(f, at.last_line, out);
            }
            at.after_a = c == 'a' || c == 'A';
            continue;
        }
        if (byte == at.s.at(3)) {
            at.collecting = false;
            at.last_line = at.line;
            if (at.overflow)
                at.Emit(Result::kError, out);
            else
                AtLine(f, at.line, out);
            if (at.phase == Phase::kDialling)
                at.after_a = false;
        } else if (byte == at.s.at(5)) {
            if (!at.line.empty())
                at.line.pop_back();
        } else if (at.line.size() < kMaxLine) {
            at.line += c;
        } else {
            at.overflow = true;
        }
    }
    if (at.phase == Phase::kOnline && at.escapes == kEscapeLength)
        at.Arm(AtState::Pending::kEscape, at.GuardMs());
    if (!out.empty())
        Push(std::vector<uint8_t>(out.begin(), out.end()), size_t(&f - functions_.data()));
}

// Executes one command line (the characters after "AT"). Spaces are
// ignored and letters may be of either case; an error stops the line with
// ERROR, leaving what the commands before it did (V.250 5.2.1, 5.4).
void Modem::AtLine(FunctionData& f, const std::string& raw, std::string& out) {
    AtState& at = *f.at;
    using Phase = AtState::Phase;
    std::string line;
    for (char c : raw)
        if (c != ' ')
            line += char(std::toupper(static_cast<unsigned char>(c)));
    size_t i = 0;
    // A numeric argument (V.250 5.3.1): decimal, missing means 0.
    auto number = [&](int& value) {
        value = 0;
        for (; i < line.size() && std::isdigit(static_cast<unsigned char>(line[i])); ++i) {
            value = value * 10 + (line[i] - '0');
            if (value > 255)
                return false;
        }
        return true;
    };
    auto flag = [&](bool& setting) {
        int value;
        if (!number(value) || value > 1)
            return false;
        setting = value == 1;
        return true;
    };
    Result result = Result::kOk;
    std::string extra;
    while (i < line.size() && result == Result::kOk) {
        char command = line[i++];
        int value = 0;
        bool good = true;
        switch (command) {
        case 'E':
            good = flag(at.echo);
            break;
        case 'V':
            good = flag(at.verbose);
            break;
        case 'Q':
            good = flag(at.quiet);
            break;
        case 'L':
            good = number(value) && value <= 3;
            break;
        case 'M':
            good = number(value) && value <= 2;
            break;
        case 'X':
            good = number(value) && value <= 4;
            break;
        case 'I':
            good = number(value) && size_t(value) < profile_.commands.identification.size();
            if (good)
                at.Info(profile_.commands.identification[size_t(value)], out);
            break;
        case 'Z':
            good = number(value) && value == 0;
            if (good)
                at.Defaults(profile_.commands);
            i = line.size(); // the rest of the line is ignored
            break;
        case '&':
            good = i < line.size() && line[i++] == 'F' && number(value) && value == 0;
            if (good)
                at.Defaults(profile_.commands);
            break;
        case 'S': {
            good = number(value) && FindRegister(value) != nullptr;
            if (!good || i >= line.size())
                good = false;
            else if (line[i] == '?') {
                ++i;
                char text[4];
                std::snprintf(text, sizeof text, "%03u", unsigned(at.s.at(uint8_t(value))));
                at.Info(text, out);
            } else if (line[i] == '=') {
                ++i;
                const Register* r = FindRegister(value);
                int v;
                good = number(v) && v >= r->low && v <= r->high;
                if (good)
                    at.s[uint8_t(value)] = uint8_t(v);
            } else {
                good = false;
            }
            break;
        }
        case 'H':
            good = number(value) && value == 0;
            if (good && at.Connected()) {
                AtHangUp(f);
                result = Result::kNoCarrier;
            }
            break;
        case 'O':
            good = number(value) && value == 0;
            if (good && at.phase == Phase::kOnlineCommand) {
                at.phase = Phase::kOnline;
                at.escapes = 0;
                at.last_data_ms = hk::Kernel::Current().NowMs();
                result = Result::kConnect;
                extra = " " + std::to_string(profile_.commands.connect_speed);
            } else if (good) {
                result = Result::kNoCarrier;
            }
            break;
        case 'D': {
            // The dial string is the rest of the line; the result comes later.
            good = !at.Connected();
            i = line.size();
            if (!good)
                break;
            const CommandSet& commands = profile_.commands;
            int64_t wait_ms = int64_t(at.s.at(7)) * 1000;
            int64_t delay_ms = commands.dial_outcome == DialOutcome::kNoAnswer
                                   ? wait_ms
                                   : std::min(commands.dial_ms, wait_ms);
            at.phase = Phase::kDialling;
            at.Arm(AtState::Pending::kDial, delay_ms);
            result = Result::kNone;
            break;
        }
        default:
            good = false;
            break;
        }
        if (!good)
            result = Result::kError;
    }
    at.Emit(result, out, at.verbose ? extra : "");
}

// Goes on-hook: the carrier drops and PPP framing, when on, is asked to stop.
void Modem::AtHangUp(FunctionData& f) {
    AtState& at = *f.at;
    size_t function = size_t(&f - functions_.data());
    at.Disarm();
    at.phase = AtState::Phase::kCommand;
    at.escapes = 0;
    f.peer.reset();
    if (f.framing)
        RequestFraming(false, function);
    SendSerialState(0, function);
}

// DTR dropped while connected or dialling hangs up (V.250 &D2, the usual
// default).
void Modem::AtDtr(FunctionData& f, bool was_on, bool on) {
    AtState& at = *f.at;
    if (!was_on || on || at.phase == AtState::Phase::kCommand)
        return;
    std::string out;
    if (at.Connected())
        AtHangUp(f);
    at.Disarm();
    at.phase = AtState::Phase::kCommand;
    at.Emit(Result::kNoCarrier, out);
    if (f.framing)
        f.after_framing.insert(f.after_framing.end(), out.begin(), out.end());
    else if (!out.empty())
        Push(std::vector<uint8_t>(out.begin(), out.end()), size_t(&f - functions_.data()));
}

// The timer: a dial's outcome, or the guard time after an escape.
void Modem::AtTimer(FunctionData& f) {
    AtState& at = *f.at;
    using Phase = AtState::Phase;
    size_t function = size_t(&f - functions_.data());
    AtState::Pending what = at.pending;
    at.pending = AtState::Pending::kNone;
    std::string out;
    int64_t now = hk::Kernel::Current().NowMs();
    const CommandSet& commands = profile_.commands;
    if (what == AtState::Pending::kDial && at.phase == Phase::kDialling) {
        bool in_time = commands.dial_ms <= int64_t(at.s.at(7)) * 1000;
        if (commands.dial_outcome == DialOutcome::kConnect && in_time) {
            at.phase = Phase::kOnline;
            at.escapes = 0;
            at.last_data_ms = now;
            at.Emit(Result::kConnect, out,
                    at.verbose ? " " + std::to_string(commands.connect_speed) : "");
            Push(std::vector<uint8_t>(out.begin(), out.end()), function);
            SendSerialState(kCarrier, function);
            if (commands.ppp)
                RequestFraming(true, function);
            return;
        }
        at.phase = Phase::kCommand;
        at.Emit(commands.dial_outcome == DialOutcome::kBusy && in_time ? Result::kBusy
                : commands.dial_outcome == DialOutcome::kNoAnswer      ? Result::kNoAnswer
                                                                       : Result::kNoCarrier,
                out);
    } else if (what == AtState::Pending::kEscape && at.phase == Phase::kOnline &&
               at.escapes == kEscapeLength && now - at.last_data_ms >= at.GuardMs()) {
        at.phase = Phase::kOnlineCommand;
        at.escapes = 0;
        at.after_a = at.collecting = false;
        at.Emit(Result::kOk, out);
    }
    if (!out.empty())
        Push(std::vector<uint8_t>(out.begin(), out.end()), function);
}

} // namespace sm
