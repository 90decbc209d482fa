// The scenario parser alone: what it makes of the forms a scenario file
// uses, and its bounds. Whole scenarios run as tests of their own
// (scenarios/), and so does each error with its line and message (bad/).
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
