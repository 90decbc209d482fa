// The scenario parser alone: what it makes of the forms a scenario file
// uses, each refusal with its line and message, and its bounds. Whole
// scenarios run as tests of their own (scenarios/), and so do the files
// cdcacm-sim refuses or fails with their exit status (bad/).
#include "script_parse.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using sim::script::Command;
using sim::script::Op;
using sim::script::Parse;
using sim::script::Parsed;

const sim::script::Vocabulary kWords{{"ordinary", "busy"},
                                     {{"ERROR_FILE_NOT_FOUND", 2}, {"ERROR_ACCESS_DENIED", 5}}};

Command Last(const std::string& text) {
    Parsed parsed = Parse(text, kWords);
    EXPECT_FALSE(parsed.error) << parsed.error->message;
    return parsed.commands.empty() ? Command{} : parsed.commands.back();
}

TEST(ScriptParse, StringEscapesAndHexGiveTheirBytes) {
    Command c = Last("plug m\nopen\nwrite \"a\\r\\n\\t\\\\\\\"\\x7E\\xff\"");
    EXPECT_EQ(c.bytes, (std::vector<uint8_t>{'a', '\r', '\n', '\t', '\\', '"', 0x7e, 0xff}));
    c = Last("plug m\npush m hex 7e FF 03");
    EXPECT_EQ(c.bytes, (std::vector<uint8_t>{0x7e, 0xff, 0x03}));
    EXPECT_EQ(sim::script::Quote(Last("plug m\npush m \"A\\x00\\r\\\"\"").bytes),
              "\"A\\x00\\r\\\"\"");
}

TEST(ScriptParse, OptionalHandlesTimesAndNumbers) {
    struct Row {
        const char* text;
        std::string name;
        int64_t within_ms;
        uint32_t number;
    };
    const Row rows[] = {
        {"plug m\nopen\nread 5", "port", -1, 5},
        {"plug m\nopen h\nread h 0x10 within 2s", "h", 2000, 16},
        {"plug m\nopen h overlapped\nexpect event h EV_RLSD|EV_RXCHAR", "h", 1000, 0x21},
        {"plug m\nopen\nexpect read \"OK\" within 250ms", "port", 250, 0},
        {"plug m\nopen x on m\nmask x none", "x", 0, 0},
        {"plug m\nopen\nexpect modem-status RLSD|DSR on within 5ms", "port", 5, 0xa0},
        {"plug m # comment \"x\nwait 600s # the longest", "", 600000, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        Command c = Last(row.text);
        EXPECT_EQ(c.name, row.name);
        EXPECT_EQ(c.within_ms, row.within_ms);
        EXPECT_EQ(c.number, row.number);
    }
    Command t = Last("plug m\nopen h\ntimeouts h max 0 300 1 2");
    EXPECT_EQ(t.name, "h");
    EXPECT_EQ(t.values[0], UINT32_MAX);
    EXPECT_EQ(t.values[2], 300u);
    EXPECT_EQ(t.values[4], 2u);
    Command f = Last("fault pool tag spr0 every 3");
    EXPECT_EQ(f.fault.match, 0x30727073u);
    EXPECT_EQ(f.fault.every, 3u);
    EXPECT_EQ(Last("fault stall endpoint 0x81").fault.nth, 1u) << "once, by default";
}

// Each refusal names its line and starts its message as given; the words
// of the world (modems plugged, handles open, the PPP client, the system's
// sleep) are checked before anything runs.
TEST(ScriptParse, RefusalsNameTheirLineAndProblem) {
    struct Row {
        const char* text;
        int line;
        const char* message;
    };
    const Row rows[] = {
        {"plug m\nopen\nread 12x", 3, "read: \"12x\" is not a number"},
        {"plug m\nopen\nread 65537", 3,
         "read: \"65537\" is not a number for the byte count (0 to 65536, decimal or 0x hex)"},
        {"plug m\nopen\nread", 3, "read: missing the byte count"},
        {"trace 0x1ffffffff", 1,
         "trace: \"0x1ffffffff\" is not a number for the trace mask (0 to 4294967295, decimal or "
         "0x hex)"},
        {"wait 11min", 1, "wait: \"11min\" is not a time"},
        {"wait 10", 1,
         "wait: \"10\" is not a time for the time to wait (like 100ms or 2s, at most 600s)"},
        {"wait 601s", 1, "wait: \"601s\" is not a time"},
        {"plug m\nopen\nwrite \"\\x4\"", 3, "bad escape in string: \\x needs two hex digits"},
        {"plug m\nopen\nwrite \"a\x01\"", 3,
         "a control character inside a string (write it as \\xNN)"},
        {"plug m\npush m \"AT", 2, "the string has no closing quote"},
        {"plug m\npush m", 2, "push: missing the bytes the modem sends"},
        {"plug m\nopen\nescape SETDTR extra", 3, "escape: unexpected \"extra\" at the end"},
        {"plug m\nopen\nfrobnicate 3", 3, "unknown command \"frobnicate\""},
        {"plug m\nopen\nexpect error ERROR_NOPE", 3, "expect error: unknown error \"ERROR_NOPE\""},
        {"plug m profile odd", 1, "plug: no profile named \"odd\""},
        {"fault delay", 1, "fault delay: missing by TIME (how much later the completion comes)"},
        {"fault stall nth 0", 1, "fault: nth counts from 1"},
        {"fault pool tag abc", 1, "fault pool: the tag has four characters, not \"abc\""},
        {"expect fired", 1, "expect fired: no fault was added (since the last fault clear)"},
        {"sleep S5", 1, "sleep: the state is S1, S2, S3 or S4, not \"S5\""},
        {"sleep S3\nsleep S1", 2, "sleep: the system is asleep already (wake first)"},
        {"wake", 1, "wake: the system is not asleep"},
        {"plug m\nplug m", 2, "plug: a modem named \"m\" is already plugged"},
        {"plug a\nplug b\nplug c\nplug d\nplug e", 5, "plug: the bus has 4 ports, all taken"},
        {"plug m\nunplug m\npush m \"x\"", 3, "push: no modem named \"m\" is plugged"},
        {"open", 1, "open: no modem was plugged whose port to open"},
        {"plug m\nopen h1\nwrite h2 \"AT\\r\"", 3, "write: no handle named \"h2\" is open"},
        {"plug m\nopen\nclose\nclose", 4, "close: no handle named \"port\" is open"},
        {"plug m\nopen\nppp open\nclose", 4,
         "close: the PPP client still runs on \"port\" (ppp close first)"},
        {"plug m\nopen\nping 1", 3, "ping: no PPP client is open (ppp open first)"},
        {"plug m\nopen\nexpect completion none", 3,
         "expect completion: the handle \"port\" has no pending read"},
        {"plug m\nopen\nexpect event EV_RXCHAR", 3,
         "expect event: waiting for an event needs a handle opened overlapped"},
    };
    for (const Row& row : rows) {
        Parsed parsed = Parse(row.text, kWords);
        ASSERT_TRUE(parsed.error) << row.text;
        EXPECT_EQ(parsed.error->line, row.line) << row.text;
        EXPECT_EQ(parsed.error->message.rfind(row.message, 0), 0u) << parsed.error->message;
    }
}

TEST(ScriptParse, BoundsAreErrorsNotWork) {
    std::string long_line = "wait 1s #" + std::string(sim::script::kMaxLineChars, 'x');
    EXPECT_EQ(Parse(long_line, kWords).error->line, 1);

    std::string many_lines(sim::script::kMaxLines + 1, '\n');
    Parsed parsed = Parse(many_lines, kWords);
    ASSERT_TRUE(parsed.error);
    EXPECT_EQ(parsed.error->line, int(sim::script::kMaxLines) + 1);

    std::string long_string =
        "plug m\npush m \"" + std::string(sim::script::kMaxStringBytes + 1, 'a') + "\"";
    EXPECT_NE(Parse(long_string, kWords).error->message.find("longer than"), std::string::npos);

    std::string huge(sim::script::kMaxFileBytes + 1, ' ');
    EXPECT_EQ(Parse(huge, kWords).error->line, 0);

    std::string many_words = "plug m\npush m hex" + std::string(40, ' ') + "";
    for (int i = 0; i < 40; ++i)
        many_words += " 00";
    EXPECT_NE(Parse(many_words, kWords).error->message.find("words on one line"),
              std::string::npos);
}

TEST(ScriptParse, CrLfLinesAndTheSourceWithoutItsComment) {
    Parsed parsed = Parse("plug m\r\nopen   # the port\r\nwrite \"#1\"  # not this\r\n", kWords);
    ASSERT_FALSE(parsed.error);
    ASSERT_EQ(parsed.commands.size(), 3u);
    EXPECT_EQ(parsed.commands[1].source, "open");
    EXPECT_EQ(parsed.commands[2].source, "write \"#1\"");
    EXPECT_EQ(parsed.commands[2].line, 3);
    EXPECT_EQ(parsed.commands[2].bytes, (std::vector<uint8_t>{'#', '1'}));
}

} // namespace
