// The scenario language of cdcacm-sim script: the text of a scenario file
// turned into commands, or the first error with its line number. Parsing
// needs no machine, so that the whole file is checked before anything
// runs and a fuzzer can drive the parser alone. Names are checked as the
// file goes: a modem is known from its plug to its unplug, a handle from
// its open to its close, a PPP client from ppp open to ppp close.
//
// Bounds: everything the file controls is limited (its size, lines, line
// length, strings, counts, times), so no input makes the parser or the run
// unbounded.
//
// Environment: host code, no kernel; pure function of its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim::script {

constexpr size_t kMaxFileBytes = 1 << 20;
constexpr size_t kMaxLines = 10000;
constexpr size_t kMaxLineChars = 4096;
constexpr size_t kMaxTokens = 32;
constexpr size_t kMaxStringBytes = 2048;
constexpr size_t kMaxNameChars = 32;
constexpr int64_t kMaxTimeMs = 600000; // any one time: ten minutes
constexpr uint32_t kMaxReadBytes = 65536;
constexpr uint32_t kMaxPings = 1000;
constexpr uint32_t kMaxPingBytes = 1400;
constexpr size_t kMaxModems = 4;   // the simulated bus's ports
constexpr size_t kMaxHandles = 16; // open at once
// The handle "open", "close" and the others use when the script names none.
constexpr std::string_view kDefaultHandle = "port";

enum class Op {
    kTrace,            // number: the mask
    kPlug,             // name, profile, speed, mode
    kUnplug,           // name
    kGone,             // name
    kOpen,             // handle, port (COMn) or modem, overlapped
    kClose,            // handle
    kWrite,            // handle, bytes
    kRead,             // handle, number: count, within_ms (-1: the port's time-outs), pending
    kExpectRead,       // handle, bytes, within_ms
    kExpectReadCount,  // handle, number: bytes the last read returned
    kExpectCompletion, // handle, error, within_ms: the pending read
    kExpectPending,    // handle: the pending read has not completed
    kPush,             // name, bytes
    kExpectModem,      // name, bytes, within_ms
    kWait,             // within_ms: the time
    kDcb,              // handle, text
    kTimeouts,         // handle, values[5]
    kMask,             // handle, number: the events
    kEscape,           // handle, number: the function
    kPurge,            // handle, number: the flags
    kExpectError,      // error (0: none)
    kExpectEvent,      // handle, number: the events, within_ms
    kExpectStatus,     // handle, number: signals that must be on, values[0]: those off, within_ms
    kExpectLines,      // name, number: lines on, values[0]: lines off, within_ms
    kExpectCoding,     // name, values[0..3]: rate, data bits, parity, stop bits, within_ms
    kExpectRequest,    // name, number: bRequest, within_ms
    kExpectTrace,      // text, within_ms
    kSerialState,      // name, number: the state
    kFault,            // fault
    kFaultClear,       //
    kExpectFired,      // number: times (-1 in values[0]: at least once)
    kSleep,            // number: the system state (1 to 4)
    kWake,             //
    kPppOpen,          // handle
    kExpectPppOpened,  // within_ms
    kPing,             // number: count, values[0]: size
    kPppClose,         //
};

enum class Speed { kFull, kHigh };
enum class Mode { kTest, kCommand, kLoopback };
enum class FaultKind {
    kStall,
    kError,
    kNoAnswer,
    kDelay,
    kGone,
    kResetPipeFail,
    kResetPortFail,
    kHubQueryFail,
    kInline,
    kPool,
};

struct FaultSpec {
    FaultKind kind = FaultKind::kStall;
    uint32_t match = 0; // endpoint 0x1NN, request 0x2NN, or a pool tag; 0: all
    uint64_t nth = 0;
    uint64_t every = 0;
    std::optional<uint32_t> status; // the USBD status
    int64_t delay_ms = 0;
};

struct Command {
    Op op = Op::kWait;
    int line = 0;
    std::string source; // the line as written, comment and outer blanks removed
    std::string name;   // modem or handle
    std::string port;   // open: "COMn", or empty for a modem's port
    std::string modem;  // open: the modem whose port, or empty
    std::string profile = "ordinary";
    Speed speed = Speed::kFull;
    Mode mode = Mode::kTest;
    std::vector<uint8_t> bytes;
    std::string text;
    uint32_t number = 0;
    uint32_t error = 0; // a Win32 error code
    uint32_t values[5] = {};
    int64_t within_ms = 0;
    bool overlapped = false;
    bool pending = false;
    FaultSpec fault;
};

struct ParseError {
    int line = 0; // 0: the file as a whole
    std::string message;
};

struct Parsed {
    std::vector<Command> commands;
    std::optional<ParseError> error; // set: commands are to be ignored
};

// What the parser must know of the world: the profile names it accepts and
// the Win32 error names with their codes.
struct Vocabulary {
    std::vector<std::string> profiles;
    std::vector<std::pair<std::string, uint32_t>> errors;
};

Parsed Parse(std::string_view text, const Vocabulary& vocabulary);

// Bytes as a quoted string of the language (the inverse of its escapes).
std::string Quote(const std::vector<uint8_t>& bytes);

} // namespace sim::script
