// The scenario language's parser: lines into tokens, tokens into commands.
#include "script_parse.h"

#include <cctype>
#include <cstdio>
#include <map>
#include <set>

namespace sim::script {

namespace {

constexpr int64_t kDefaultWithinMs = 1000;
constexpr int64_t kDefaultPppWithinMs = 10000;

struct Token {
    std::string word; // a bare word as written, or the string as written for messages
    bool quoted = false;
    std::vector<uint8_t> bytes; // a quoted string's bytes
};

// Thrown inside the parser, caught by Parse: every error ends the parse.
struct Failure {
    std::string message;
};

[[noreturn]] void Fail(std::string message) {
    throw Failure{std::move(message)};
}

std::string Shown(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// One line into tokens: blanks separate them, '#' outside a string ends
// the line, strings are in double quotes with their escapes.
std::vector<Token> Tokenize(std::string_view line) {
    std::vector<Token> tokens;
    size_t i = 0;
    while (i < line.size()) {
        char c = line[i];
        if (c == ' ' || c == '\t') {
            ++i;
            continue;
        }
        if (c == '#')
            break;
        if (tokens.size() == kMaxTokens)
            Fail("more than " + std::to_string(kMaxTokens) + " words on one line");
        Token token;
        if (c == '"') {
            token.quoted = true;
            size_t start = i++;
            for (;;) {
                if (i >= line.size())
                    Fail("the string has no closing quote");
                char s = line[i];
                if (s == '"') {
                    ++i;
                    break;
                }
                if (static_cast<unsigned char>(s) < 0x20 && s != '\t')
                    Fail("a control character inside a string (write it as \\xNN)");
                if (token.bytes.size() == kMaxStringBytes)
                    Fail("a string longer than " + std::to_string(kMaxStringBytes) + " bytes");
                if (s != '\\') {
                    token.bytes.push_back(static_cast<uint8_t>(s));
                    ++i;
                    continue;
                }
                if (i + 1 >= line.size())
                    Fail("the string ends inside an escape");
                char e = line[i + 1];
                i += 2;
                switch (e) {
                case 'r':
                    token.bytes.push_back('\r');
                    break;
                case 'n':
                    token.bytes.push_back('\n');
                    break;
                case 't':
                    token.bytes.push_back('\t');
                    break;
                case '\\':
                    token.bytes.push_back('\\');
                    break;
                case '"':
                    token.bytes.push_back('"');
                    break;
                case 'x': {
                    int high = i < line.size() ? HexDigit(line[i]) : -1;
                    int low = i + 1 < line.size() ? HexDigit(line[i + 1]) : -1;
                    if (high < 0 || low < 0)
                        Fail("bad escape in string: \\x needs two hex digits");
                    token.bytes.push_back(static_cast<uint8_t>(high << 4 | low));
                    i += 2;
                    break;
                }
                default:
                    if (static_cast<unsigned char>(e) >= 0x20 &&
                        static_cast<unsigned char>(e) < 0x7f)
                        Fail(std::string("bad escape in string: \\") + e +
                             " (the escapes are \\r \\n \\t \\\\ \\\" \\xNN)");
                    Fail("bad escape in string (the escapes are \\r \\n \\t \\\\ \\\" \\xNN)");
                }
            }
            token.word = std::string(line.substr(start, i - start));
        } else {
            size_t start = i;
            while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '#') {
                unsigned char b = static_cast<unsigned char>(line[i]);
                if (b == '"')
                    Fail("a quote inside a word (leave a blank before the string)");
                if (b < 0x21 || b > 0x7e) {
                    char hex[8];
                    std::snprintf(hex, sizeof hex, "0x%02x", b);
                    Fail(std::string("unexpected character ") + hex + " outside a string");
                }
                ++i;
            }
            token.word = std::string(line.substr(start, i - start));
        }
        tokens.push_back(std::move(token));
    }
    return tokens;
}

std::optional<uint64_t> Number(std::string_view text, uint64_t max) {
    if (text.empty() || text.size() > 20)
        return std::nullopt;
    uint64_t value = 0;
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    size_t i = hex ? 2 : 0;
    for (; i < text.size(); ++i) {
        int digit =
            hex ? HexDigit(text[i]) : (text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1);
        if (digit < 0)
            return std::nullopt;
        value = value * (hex ? 16 : 10) + uint64_t(digit);
        if (value > max)
            return std::nullopt;
    }
    return value;
}

bool IsName(std::string_view text) {
    if (text.empty() || text.size() > kMaxNameChars)
        return false;
    if (!std::isalpha(static_cast<unsigned char>(text[0])) && text[0] != '_')
        return false;
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
            return false;
    return true;
}

bool IsComName(std::string_view text) {
    return text.size() > 3 && text.size() <= 6 && text.substr(0, 3) == "COM" &&
           Number(text.substr(3), 256).value_or(0) != 0;
}

// Flag words joined by '|' from one table.
struct FlagName {
    const char* name;
    uint32_t value;
};

const FlagName kEvents[] = {
    {"EV_RXCHAR", 0x0001}, {"EV_RXFLAG", 0x0002}, {"EV_TXEMPTY", 0x0004},  {"EV_CTS", 0x0008},
    {"EV_DSR", 0x0010},    {"EV_RLSD", 0x0020},   {"EV_BREAK", 0x0040},    {"EV_ERR", 0x0080},
    {"EV_RING", 0x0100},   {"EV_PERR", 0x0200},   {"EV_RX80FULL", 0x0400}, {"EV_EVENT1", 0x0800},
    {"EV_EVENT2", 0x1000},
};
const FlagName kEscapes[] = {
    {"SETXOFF", 1}, {"SETXON", 2},   {"SETRTS", 3},   {"CLRRTS", 4},   {"SETDTR", 5},
    {"CLRDTR", 6},  {"RESETDEV", 7}, {"SETBREAK", 8}, {"CLRBREAK", 9},
};
const FlagName kPurges[] = {{"TXABORT", 0x1}, {"RXABORT", 0x2}, {"TXCLEAR", 0x4}, {"RXCLEAR", 0x8}};
const FlagName kSignals[] = {{"CTS", 0x10}, {"DSR", 0x20}, {"RING", 0x40}, {"RLSD", 0x80}};
const FlagName kLines[] = {{"dtr", 0x1}, {"rts", 0x2}};
const FlagName kRequests[] = {
    {"SET_LINE_CODING", 0x20}, {"GET_LINE_CODING", 0x21},   {"SET_CONTROL_LINE_STATE", 0x22},
    {"SEND_BREAK", 0x23},      {"GET_SPECIAL_CHARS", 0x60}, {"START_FRAMING", 0x61},
    {"STOP_FRAMING", 0x62},
};
const FlagName kFaultKinds[] = {
    {"stall", uint32_t(FaultKind::kStall)},
    {"error", uint32_t(FaultKind::kError)},
    {"no-answer", uint32_t(FaultKind::kNoAnswer)},
    {"delay", uint32_t(FaultKind::kDelay)},
    {"gone", uint32_t(FaultKind::kGone)},
    {"reset-pipe-fail", uint32_t(FaultKind::kResetPipeFail)},
    {"reset-port-fail", uint32_t(FaultKind::kResetPortFail)},
    {"hub-query-fail", uint32_t(FaultKind::kHubQueryFail)},
    {"inline", uint32_t(FaultKind::kInline)},
    {"pool", uint32_t(FaultKind::kPool)},
};

template <size_t N>
std::optional<uint32_t> Lookup(const FlagName (&table)[N], std::string_view word) {
    for (const FlagName& entry : table)
        if (word == entry.name)
            return entry.value;
    return std::nullopt;
}

template <size_t N> std::string Names(const FlagName (&table)[N]) {
    std::string names;
    for (const FlagName& entry : table)
        names += (names.empty() ? "" : " ") + std::string(entry.name);
    return names;
}

template <size_t N>
uint32_t Flags(const FlagName (&table)[N], std::string_view text, const char* what) {
    uint32_t value = 0;
    size_t start = 0;
    for (;;) {
        size_t bar = text.find('|', start);
        std::string_view word = text.substr(
            start, bar == std::string_view::npos ? std::string_view::npos : bar - start);
        std::optional<uint32_t> flag = Lookup(table, word);
        if (!flag)
            Fail("unknown " + std::string(what) + " " + Shown(word) + " (known: " + Names(table) +
                 ")");
        value |= *flag;
        if (bar == std::string_view::npos)
            return value;
        start = bar + 1;
    }
}

// The parser's state: the names the file has brought into being so far.
class Parser {
  public:
    explicit Parser(const Vocabulary& vocabulary) : vocabulary_(vocabulary) {}
    Command Line(const std::vector<Token>& tokens);

  private:
    // Token access for the command being parsed.
    bool More() const { return next_ < tokens_->size(); }
    const Token* Peek() const { return More() ? &(*tokens_)[next_] : nullptr; }
    bool PeekWord(std::string_view word) const {
        return More() && !Peek()->quoted && Peek()->word == word;
    }
    const Token& Take(const char* what) {
        if (!More())
            Fail(command_ + ": missing " + what);
        return (*tokens_)[next_++];
    }
    std::string Word(const char* what) {
        const Token& token = Take(what);
        if (token.quoted)
            Fail(command_ + ": expected " + what + ", found the string " + token.word);
        return token.word;
    }
    uint64_t TakeNumber(const char* what, uint64_t max) {
        std::string word = Word(what);
        std::optional<uint64_t> value = Number(word, max);
        if (!value)
            Fail(command_ + ": " + Shown(word) + " is not a number for " + what + " (0 to " +
                 std::to_string(max) + ", decimal or 0x hex)");
        return *value;
    }
    int64_t TakeTime(const char* what) {
        std::string word = Word(what);
        int64_t scale = 0;
        std::string digits;
        if (word.size() > 2 && word.compare(word.size() - 2, 2, "ms") == 0) {
            scale = 1;
            digits = word.substr(0, word.size() - 2);
        } else if (word.size() > 1 && word.back() == 's') {
            scale = 1000;
            digits = word.substr(0, word.size() - 1);
        }
        std::optional<uint64_t> value;
        if (scale != 0 && !digits.empty() &&
            digits.find_first_not_of("0123456789") == std::string::npos)
            value = Number(digits, uint64_t(kMaxTimeMs / scale));
        if (!value)
            Fail(command_ + ": " + Shown(word) + " is not a time for " + what +
                 " (like 100ms or 2s, at most " + std::to_string(kMaxTimeMs / 1000) + "s)");
        return int64_t(*value) * scale;
    }
    std::vector<uint8_t> Bytes(const char* what);
    std::string String(const char* what) {
        const Token& token = Take(what);
        if (!token.quoted)
            Fail(command_ + ": expected " + what + " in double quotes, found " + Shown(token.word));
        return std::string(token.bytes.begin(), token.bytes.end());
    }
    int64_t Within(int64_t default_ms) {
        if (!PeekWord("within"))
            return default_ms;
        ++next_;
        return TakeTime("the time after within");
    }
    void End() {
        if (More())
            Fail(command_ + ": unexpected " + Shown(Peek()->word) + " at the end");
    }
    std::string NewName(const char* what) {
        std::string name = Word(what);
        if (!IsName(name))
            Fail(command_ + ": " + Shown(name) +
                 " is not a name (a letter, then letters, digits, "
                 "'_', '-' or '.'; at most " +
                 std::to_string(kMaxNameChars) + ")");
        return name;
    }
    std::string Modem() {
        std::string name = Word("the modem's name");
        if (modems_.count(name) == 0)
            Fail(command_ + ": no modem named " + Shown(name) + " is plugged");
        return name;
    }
    // The optional handle in front of a command's arguments: a bare word
    // that begins like a name and is not one of them (is_argument says
    // which words are).
    template <typename IsArgument> std::string Handle(IsArgument is_argument) {
        std::string name(kDefaultHandle);
        if (More() && !Peek()->quoted && !is_argument(Peek()->word) &&
            (std::isalpha(static_cast<unsigned char>(Peek()->word[0])) || Peek()->word[0] == '_'))
            name = Word("the handle");
        if (handles_.count(name) == 0)
            Fail(command_ + ": no handle named " + Shown(name) + " is open");
        return name;
    }
    std::string Handle() {
        return Handle([](std::string_view) { return false; });
    }
    uint32_t Error() {
        std::string word = Word("an error name (ERROR_... or none)");
        if (word == "none")
            return 0;
        for (const auto& [name, code] : vocabulary_.errors)
            if (word == name)
                return code;
        Fail(command_ + ": unknown error " + Shown(word));
    }
    bool OnOff() {
        std::string word = Word("on or off");
        if (word != "on" && word != "off")
            Fail(command_ + ": expected on or off, found " + Shown(word));
        return word == "on";
    }

    void Plug(Command& c);
    void Open(Command& c);
    void Read(Command& c);
    void Expect(Command& c);
    void FaultLine(Command& c);
    void Ppp(Command& c);

    const Vocabulary& vocabulary_;
    const std::vector<Token>* tokens_ = nullptr;
    size_t next_ = 0;
    std::string command_;
    std::set<std::string> modems_;
    bool plugged_any_ = false;
    std::map<std::string, bool> handles_; // open handles: overlapped or not
    std::set<std::string> pending_;       // handles with a pending read
    std::string ppp_handle_;              // the PPP client's, empty: none
    bool fault_added_ = false;
    bool asleep_ = false;
};

std::vector<uint8_t> Parser::Bytes(const char* what) {
    if (!PeekWord("hex")) {
        const Token& token = Take(what);
        if (!token.quoted)
            Fail(command_ + ": expected " + what + " in double quotes (or hex ...), found " +
                 Shown(token.word));
        return token.bytes;
    }
    ++next_;
    std::vector<uint8_t> bytes;
    while (More() && !PeekWord("within")) {
        std::string word = Word("a hex byte");
        int high = word.size() == 2 ? HexDigit(word[0]) : -1;
        int low = word.size() == 2 ? HexDigit(word[1]) : -1;
        if (high < 0 || low < 0)
            Fail(command_ + ": " + Shown(word) + " is not a hex byte (two hex digits)");
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    if (bytes.empty())
        Fail(command_ + ": missing the bytes after hex");
    return bytes;
}

void Parser::Plug(Command& c) {
    c.name = NewName("the modem's name");
    if (modems_.count(c.name) != 0)
        Fail("plug: a modem named " + Shown(c.name) + " is already plugged");
    if (modems_.size() == kMaxModems)
        Fail("plug: the bus has " + std::to_string(kMaxModems) + " ports, all taken");
    while (More()) {
        std::string key = Word("an option");
        if (key == "profile") {
            c.profile = Word("the profile");
            bool known = false;
            for (const std::string& profile : vocabulary_.profiles)
                known = known || profile == c.profile;
            if (!known)
                Fail("plug: no profile named " + Shown(c.profile));
        } else if (key == "speed") {
            std::string speed = Word("the speed");
            if (speed != "full" && speed != "high")
                Fail("plug: the speed is full or high, not " + Shown(speed));
            c.speed = speed == "full" ? Speed::kFull : Speed::kHigh;
        } else if (key == "mode") {
            std::string mode = Word("the mode");
            if (mode == "test")
                c.mode = Mode::kTest;
            else if (mode == "command")
                c.mode = Mode::kCommand;
            else if (mode == "loopback")
                c.mode = Mode::kLoopback;
            else
                Fail("plug: the mode is command, test or loopback, not " + Shown(mode));
        } else {
            Fail("plug: unknown option " + Shown(key) + " (profile, speed, mode)");
        }
    }
    modems_.insert(c.name);
    plugged_any_ = true;
}

void Parser::Open(Command& c) {
    c.name = std::string(kDefaultHandle);
    bool named = false;
    while (More()) {
        std::string word = Word("an option");
        if (word == "overlapped") {
            c.overlapped = true;
        } else if (word == "on") {
            c.modem = Modem();
        } else if (IsComName(word)) {
            c.port = word;
        } else if (!named && c.port.empty() && c.modem.empty() && !c.overlapped) {
            if (!IsName(word))
                Fail("open: " + Shown(word) + " is neither a handle name nor COMn");
            c.name = word;
            named = true;
        } else {
            Fail("open: unexpected " + Shown(word) +
                 " (open [HANDLE] [COMn | on MODEM] "
                 "[overlapped])");
        }
    }
    if (!c.port.empty() && !c.modem.empty())
        Fail("open: name either a COM port or a modem, not both");
    if (c.port.empty() && c.modem.empty() && !plugged_any_)
        Fail("open: no modem was plugged whose port to open");
    if (handles_.count(c.name) != 0)
        Fail("open: the handle " + Shown(c.name) + " is already open");
    if (handles_.size() == kMaxHandles)
        Fail("open: more than " + std::to_string(kMaxHandles) + " handles open at once");
    handles_[c.name] = c.overlapped;
}

void Parser::Read(Command& c) {
    c.name = Handle([](std::string_view word) { return Number(word, UINT64_MAX).has_value(); });
    c.number = uint32_t(TakeNumber("the byte count", kMaxReadBytes));
    c.within_ms = -1;
    if (PeekWord("pending")) {
        ++next_;
        if (!handles_[c.name])
            Fail("read: a pending read needs a handle opened overlapped");
        if (pending_.count(c.name) != 0)
            Fail("read: the handle " + Shown(c.name) + " already has a pending read");
        c.pending = true;
        pending_.insert(c.name);
    } else {
        c.within_ms = Within(-1);
    }
}

void Parser::Expect(Command& c) {
    std::string what = Word("what to expect");
    command_ = "expect " + what;
    if (what == "read") {
        c.op = Op::kExpectRead;
        c.name = Handle([](std::string_view word) { return word == "hex"; });
        c.bytes = Bytes("the bytes to read");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "read-count") {
        c.op = Op::kExpectReadCount;
        c.name = Handle([](std::string_view word) { return Number(word, UINT64_MAX).has_value(); });
        c.number = uint32_t(TakeNumber("the byte count", kMaxReadBytes));
    } else if (what == "completion") {
        c.op = Op::kExpectCompletion;
        c.name = Handle(
            [](std::string_view word) { return word == "none" || word.substr(0, 6) == "ERROR_"; });
        if (pending_.erase(c.name) == 0)
            Fail("expect completion: the handle " + Shown(c.name) + " has no pending read");
        c.error = Error();
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "pending") {
        c.op = Op::kExpectPending;
        c.name = Handle();
        if (pending_.count(c.name) == 0)
            Fail("expect pending: the handle " + Shown(c.name) + " has no pending read");
    } else if (what == "modem") {
        c.op = Op::kExpectModem;
        c.name = Modem();
        c.bytes = Bytes("the bytes the modem receives");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "error") {
        c.op = Op::kExpectError;
        c.error = Error();
    } else if (what == "event") {
        c.op = Op::kExpectEvent;
        c.name = Handle([](std::string_view word) { return word.substr(0, 3) == "EV_"; });
        if (!handles_[c.name])
            Fail("expect event: waiting for an event needs a handle opened overlapped");
        c.number = Flags(kEvents, Word("the events"), "event");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "modem-status") {
        c.op = Op::kExpectStatus;
        c.name = Handle([](std::string_view word) {
            return Lookup(kSignals, word.substr(0, word.find('|'))).has_value();
        });
        while (More() && !PeekWord("within")) {
            uint32_t signal = Flags(kSignals, Word("a signal"), "signal");
            (OnOff() ? c.number : c.values[0]) |= signal;
        }
        if ((c.number | c.values[0]) == 0)
            Fail("expect modem-status: missing a signal (CTS, DSR, RING, RLSD) and on or off");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "lines") {
        c.op = Op::kExpectLines;
        c.name = Modem();
        while (More() && !PeekWord("within")) {
            uint32_t line = Flags(kLines, Word("a line"), "line");
            (OnOff() ? c.number : c.values[0]) |= line;
        }
        if ((c.number | c.values[0]) == 0)
            Fail("expect lines: missing a line (dtr, rts) and on or off");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "line-coding") {
        c.op = Op::kExpectCoding;
        c.name = Modem();
        c.values[0] = uint32_t(TakeNumber("the bit rate", UINT32_MAX));
        c.values[1] = uint32_t(TakeNumber("the data bits", 16));
        std::string parity = Word("the parity (N, O, E, M, S)");
        static const char kParities[] = "NOEMS";
        size_t index =
            parity.size() == 1 ? std::string_view(kParities).find(parity[0]) : std::string::npos;
        if (index == std::string::npos)
            Fail("expect line-coding: the parity is N, O, E, M or S, not " + Shown(parity));
        c.values[2] = uint32_t(index);
        std::string stop = Word("the stop bits (1, 1.5, 2)");
        if (stop != "1" && stop != "1.5" && stop != "2")
            Fail("expect line-coding: the stop bits are 1, 1.5 or 2, not " + Shown(stop));
        c.values[3] = stop == "1" ? 0 : stop == "1.5" ? 1 : 2;
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "request") {
        c.op = Op::kExpectRequest;
        c.name = Modem();
        std::string request = Word("the request");
        std::optional<uint32_t> code = Lookup(kRequests, request);
        if (!code)
            code = Number(request, 0xff);
        if (!code)
            Fail("expect request: unknown request " + Shown(request) +
                 " (known: " + Names(kRequests) + ", or a number)");
        c.number = *code;
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "trace") {
        c.op = Op::kExpectTrace;
        c.text = String("the text of the trace line");
        if (c.text.empty())
            Fail("expect trace: the text is empty");
        c.within_ms = Within(kDefaultWithinMs);
    } else if (what == "fired") {
        c.op = Op::kExpectFired;
        if (!fault_added_)
            Fail("expect fired: no fault was added (since the last fault clear)");
        c.values[0] = 1; // at least once
        if (More()) {
            c.number = uint32_t(TakeNumber("how many times", UINT32_MAX));
            c.values[0] = 0;
        }
    } else if (what == "ppp") {
        c.op = Op::kExpectPppOpened;
        std::string state = Word("opened");
        if (state != "opened")
            Fail("expect ppp: only \"opened\" can be expected, not " + Shown(state));
        if (ppp_handle_.empty())
            Fail("expect ppp opened: no PPP client is open (ppp open first)");
        c.within_ms = Within(kDefaultPppWithinMs);
    } else {
        Fail("unknown expectation " + Shown(what) +
             " (read, read-count, completion, pending, modem, error, event, modem-status, lines, "
             "line-coding, request, trace, fired, ppp)");
    }
    End();
}

void Parser::FaultLine(Command& c) {
    std::string kind = Word("the fault kind");
    if (kind == "clear") {
        c.op = Op::kFaultClear;
        fault_added_ = false;
        End();
        return;
    }
    std::optional<uint32_t> found = Lookup(kFaultKinds, kind);
    if (!found)
        Fail("fault: unknown kind " + Shown(kind) + " (" + Names(kFaultKinds) + ", clear)");
    FaultSpec& f = c.fault;
    f.kind = FaultKind(*found);
    bool pool = f.kind == FaultKind::kPool;
    while (More()) {
        std::string key = Word("an option");
        if (!pool && key == "endpoint" && f.match == 0) {
            f.match = 0x100 | uint32_t(TakeNumber("the endpoint address", 0xff));
        } else if (!pool && key == "request" && f.match == 0) {
            f.match = 0x200 | uint32_t(TakeNumber("the request code", 0xff));
        } else if (pool && key == "tag" && f.match == 0) {
            std::string tag = Word("the four-character tag");
            if (tag.size() != 4)
                Fail("fault pool: the tag has four characters, not " + Shown(tag));
            for (size_t i = 0; i < 4; ++i)
                f.match |= uint32_t(static_cast<uint8_t>(tag[i])) << (8 * i);
        } else if (key == "nth" && f.nth == 0 && f.every == 0) {
            f.nth = TakeNumber("n", 1000000);
            if (f.nth == 0)
                Fail("fault: nth counts from 1");
        } else if (key == "every" && f.nth == 0 && f.every == 0) {
            f.every = TakeNumber("n", 1000000);
            if (f.every == 0)
                Fail("fault: every counts from 1");
        } else if (!pool && key == "status" && !f.status) {
            f.status = uint32_t(TakeNumber("the USBD status", UINT32_MAX));
        } else if (f.kind == FaultKind::kDelay && key == "by" && f.delay_ms == 0) {
            f.delay_ms = TakeTime("the delay");
        } else {
            Fail("fault: unexpected " + Shown(key) +
                 (pool ? " (tag, nth, every)"
                       : " (endpoint or request, nth or every, status" +
                             std::string(f.kind == FaultKind::kDelay ? ", by" : "") + ")"));
        }
    }
    if (f.nth == 0 && f.every == 0)
        f.nth = 1;
    if (f.kind == FaultKind::kDelay && f.delay_ms == 0)
        Fail("fault delay: missing by TIME (how much later the completion comes)");
    fault_added_ = true;
}

void Parser::Ppp(Command& c) {
    std::string what = Word("open or close");
    command_ = "ppp " + what;
    if (what == "open") {
        c.op = Op::kPppOpen;
        if (!ppp_handle_.empty())
            Fail("ppp open: a PPP client is already open");
        c.name = Handle();
        ppp_handle_ = c.name;
    } else if (what == "close") {
        c.op = Op::kPppClose;
        if (ppp_handle_.empty())
            Fail("ppp close: no PPP client is open");
        ppp_handle_.clear();
    } else {
        Fail("ppp: expected open or close, not " + Shown(what));
    }
    End();
}

Command Parser::Line(const std::vector<Token>& tokens) {
    tokens_ = &tokens;
    next_ = 0;
    Command c;
    command_ = Word("a command");
    const std::string& verb = command_;
    if (verb == "trace") {
        c.op = Op::kTrace;
        c.number = uint32_t(TakeNumber("the trace mask", UINT32_MAX));
    } else if (verb == "plug") {
        c.op = Op::kPlug;
        Plug(c);
    } else if (verb == "unplug" || verb == "gone") {
        c.op = verb == "unplug" ? Op::kUnplug : Op::kGone;
        c.name = Modem();
        if (c.op == Op::kUnplug)
            modems_.erase(c.name);
    } else if (verb == "open") {
        c.op = Op::kOpen;
        Open(c);
    } else if (verb == "close") {
        c.op = Op::kClose;
        c.name = Handle();
        if (ppp_handle_ == c.name)
            Fail("close: the PPP client still runs on " + Shown(c.name) + " (ppp close first)");
        handles_.erase(c.name);
        pending_.erase(c.name);
    } else if (verb == "write") {
        c.op = Op::kWrite;
        c.name = Handle([](std::string_view word) { return word == "hex"; });
        c.bytes = Bytes("the bytes to write");
    } else if (verb == "read") {
        c.op = Op::kRead;
        Read(c);
    } else if (verb == "push") {
        c.op = Op::kPush;
        c.name = Modem();
        c.bytes = Bytes("the bytes the modem sends");
    } else if (verb == "wait") {
        c.op = Op::kWait;
        c.within_ms = TakeTime("the time to wait");
    } else if (verb == "dcb") {
        c.op = Op::kDcb;
        c.name = Handle();
        c.text = String("the BuildCommDCB text");
    } else if (verb == "timeouts") {
        c.op = Op::kTimeouts;
        c.name = Handle([this](std::string_view) { return tokens_->size() - next_ <= 5; });
        for (uint32_t& value : c.values) {
            if (PeekWord("max")) {
                ++next_;
                value = UINT32_MAX;
            } else {
                value = uint32_t(TakeNumber("a time-out in ms (or max)", UINT32_MAX));
            }
        }
    } else if (verb == "mask") {
        c.op = Op::kMask;
        c.name = Handle(
            [](std::string_view word) { return word.substr(0, 3) == "EV_" || word == "none"; });
        std::string events = Word("the events (EV_...|EV_... or none)");
        c.number = events == "none" ? 0 : Flags(kEvents, events, "event");
    } else if (verb == "escape") {
        c.op = Op::kEscape;
        c.name = Handle([](std::string_view word) { return Lookup(kEscapes, word).has_value(); });
        std::string function = Word("the function");
        std::optional<uint32_t> code = Lookup(kEscapes, function);
        if (!code)
            Fail("escape: unknown function " + Shown(function) + " (known: " + Names(kEscapes) +
                 ")");
        c.number = *code;
    } else if (verb == "purge") {
        c.op = Op::kPurge;
        c.name = Handle([](std::string_view word) {
            return word.find("ABORT") != std::string_view::npos ||
                   word.find("CLEAR") != std::string_view::npos;
        });
        c.number = Flags(kPurges, Word("what to purge"), "purge flag");
    } else if (verb == "serial-state") {
        c.op = Op::kSerialState;
        c.name = Modem();
        c.number = uint32_t(TakeNumber("the serial state", 0xffff));
    } else if (verb == "fault") {
        c.op = Op::kFault;
        FaultLine(c);
    } else if (verb == "sleep") {
        c.op = Op::kSleep;
        std::string state = Word("the sleeping state (S1 to S4)");
        if (state.size() != 2 || state[0] != 'S' || state[1] < '1' || state[1] > '4')
            Fail("sleep: the state is S1, S2, S3 or S4, not " + Shown(state));
        c.number = uint32_t(state[1] - '0');
        if (asleep_)
            Fail("sleep: the system is asleep already (wake first)");
        asleep_ = true;
    } else if (verb == "wake") {
        c.op = Op::kWake;
        if (!asleep_)
            Fail("wake: the system is not asleep");
        asleep_ = false;
    } else if (verb == "ppp") {
        Ppp(c);
    } else if (verb == "ping") {
        c.op = Op::kPing;
        if (ppp_handle_.empty())
            Fail("ping: no PPP client is open (ppp open first)");
        c.number = uint32_t(TakeNumber("the number of pings", kMaxPings));
        c.values[0] = 56;
        if (PeekWord("size")) {
            ++next_;
            c.values[0] = uint32_t(TakeNumber("the size", kMaxPingBytes));
        }
    } else if (verb == "expect") {
        Expect(c);
    } else {
        Fail("unknown command " + Shown(verb));
    }
    End();
    return c;
}

std::string Trim(std::string_view line) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return "";
    size_t end = line.find_last_not_of(" \t");
    return std::string(line.substr(start, end - start + 1));
}

} // namespace

Parsed Parse(std::string_view text, const Vocabulary& vocabulary) {
    Parsed parsed;
    if (text.size() > kMaxFileBytes) {
        parsed.error =
            ParseError{0, "the file is longer than " + std::to_string(kMaxFileBytes) + " bytes"};
        return parsed;
    }
    Parser parser(vocabulary);
    size_t start = 0;
    int line_number = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string_view line =
            text.substr(start, end == std::string_view::npos ? end : end - start);
        start = end == std::string_view::npos ? text.size() : end + 1;
        ++line_number;
        try {
            if (size_t(line_number) > kMaxLines)
                Fail("more than " + std::to_string(kMaxLines) + " lines");
            if (!line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            if (line.size() > kMaxLineChars)
                Fail("a line longer than " + std::to_string(kMaxLineChars) + " characters");
            std::vector<Token> tokens = Tokenize(line);
            if (tokens.empty())
                continue;
            Command command = parser.Line(tokens);
            command.line = line_number;
            // The source as written, without its comment: up to where the
            // last token ends.
            command.source = Trim(line);
            size_t hash = std::string::npos;
            bool quoted = false;
            for (size_t i = 0; i < command.source.size() && hash == std::string::npos; ++i) {
                char c = command.source[i];
                if (quoted && c == '\\')
                    ++i;
                else if (c == '"')
                    quoted = !quoted;
                else if (c == '#' && !quoted)
                    hash = i;
            }
            if (hash != std::string::npos)
                command.source = Trim(std::string_view(command.source).substr(0, hash));
            parsed.commands.push_back(std::move(command));
        } catch (const Failure& failure) {
            parsed.commands.clear();
            parsed.error = ParseError{line_number, failure.message};
            return parsed;
        }
    }
    return parsed;
}

std::string Quote(const std::vector<uint8_t>& bytes) {
    std::string text = "\"";
    for (uint8_t byte : bytes) {
        if (byte == '\r')
            text += "\\r";
        else if (byte == '\n')
            text += "\\n";
        else if (byte == '\t')
            text += "\\t";
        else if (byte == '\\')
            text += "\\\\";
        else if (byte == '"')
            text += "\\\"";
        else if (byte >= 0x20 && byte < 0x7f)
            text += char(byte);
        else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            text += escaped;
        }
    }
    return text + "\"";
}

} // namespace sim::script
