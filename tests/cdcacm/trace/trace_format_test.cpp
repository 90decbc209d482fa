// The trace formatter's own conversions and the rules where it differs from
// the C library's printf.
#include "format.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

TEST(TraceFormat, FixedWidthHexIgnoresWidthPrecisionAndFlags) {
    EXPECT_EQ(Format("%D %W %B", 0xC000009Au, 1, 0xAB), "C000009A 0001 AB");
    EXPECT_EQ(Format("%Q %Q", 0x0123456789ABCDEFull, 0xFull), "0123456789ABCDEF 000000000000000F");
    EXPECT_EQ(Format("[%-10B][%08W][%+#12.3D]", 5, 0x1f, 0x1a), "[05][001F][0000001A]");
    // Only the conversion's own digits: %B and %W show the low bits.
    EXPECT_EQ(Format("%B %W", 0x1234, 0xABCDE), "34 BCDE");
    // %Q takes a 64-bit argument: the next conversion still finds its own.
    EXPECT_EQ(Format("%Q %d", 1ull << 40, 7), "0000010000000000 7");
}

TEST(TraceFormat, ByteStrings) {
    EXPECT_EQ(Format("%s", static_cast<const char*>(nullptr)), "<NULL>");
    EXPECT_EQ(Format("%8s", static_cast<const char*>(nullptr)), "  <NULL>");
    // '0' pads strings with spaces.
    EXPECT_EQ(Format("%05s", "ab"), "   ab");
}

TEST(TraceFormat, WideStringsPrintTheLowByteOfEachCharacter) {
    EXPECT_EQ(Format("%S", u"COM12"), "COM12");
    EXPECT_EQ(Format("%S", static_cast<const WCHAR*>(nullptr)), "<NULL>");
    EXPECT_EQ(Format("%-7S|%.2S", u"COM3", u"COM3"), "COM3   |CO");
    EXPECT_EQ(Format("%S", u"\u0141\u00e9z"), "A\xe9z");
}

TEST(TraceFormat, CountedStringsUseTheirLengthAndIgnoreWidthAndPrecision) {
    WCHAR text[] = u"COM5garbage";
    UNICODE_STRING name = {8, sizeof(text), text};
    EXPECT_EQ(Format("[%U]", &name), "[COM5]");
    EXPECT_EQ(Format("[%10.2U]", &name), "[COM5]");
    name.Length = 0;
    EXPECT_EQ(Format("[%U]", &name), "[]");
    EXPECT_EQ(Format("[%U]", static_cast<PUNICODE_STRING>(nullptr)), "[<NULL>]");
    UNICODE_STRING no_buffer = {0, 0, nullptr};
    EXPECT_EQ(Format("[%U]", &no_buffer), "[<NULL>]");
}

TEST(TraceFormat, CharactersPrintTheirLowByte) {
    EXPECT_EQ(Format("%c%C%c", 'O', 'K', 0x141), "OKA");
}

TEST(TraceFormat, PointersAreZeroPaddedToEightDigitsWithoutWidth) {
    void* p = reinterpret_cast<void*>(0x1a2b);
    EXPECT_EQ(Format("%p %p", p, nullptr), "00001a2b 00000000");
    EXPECT_EQ(Format("[%6p][%-6p][%06p]", p, p, p), "[  1a2b][1a2b  ][001a2b]");
    EXPECT_EQ(Format("%p", reinterpret_cast<void*>(0xdeadbeef)), "deadbeef");
}

// Where the driver's rules and the C library's printf part ways.
TEST(TraceFormat, DiffersFromPrintfWhereItsOwnRulesSaySo) {
    // Precision 0 still shows the digit of a 0.
    EXPECT_EQ(Format("[%.0d][%.d][%.0x]", 0, 0, 0), "[0][0][0]");
    // The alternate form always carries its prefix.
    EXPECT_EQ(Format("[%#x][%#o][%#.3o]", 0, 0, 8), "[0x0][00][0010]");
    // '0' fills the width even when a precision is given.
    EXPECT_EQ(Format("[%08.3d][%06.2x]", 5, 0xa), "[00000005][00000a]");
    // Signs are only for signed conversions.
    EXPECT_EQ(Format("[%+u][% x]", 5, 5), "[5][5]");
    // A negative '*' precision counts as 0, which still shows one digit.
    EXPECT_EQ(Format("[%.*d][%.*s]", -3, 7, -1, "abc"), "[7][]");
}

TEST(TraceFormat, UnknownConversionsPrintThemselvesAndConsumeNothing) {
    EXPECT_EQ(Format("100%%"), "100%");
    EXPECT_EQ(Format("%n%y%d", 9), "%n%y9");
    EXPECT_EQ(Format("[%-5n]%d", 9), "[%n]9");
    EXPECT_EQ(Format("ends with %"), "ends with %");
    EXPECT_EQ(Format("ends with %-08."), "ends with %");
    EXPECT_EQ(Format("%hz"), "%z");
}

TEST(TraceFormat, OutputIsCutTo2047Characters) {
    std::string long_text(3000, 'x');
    for (size_t i = 0; i < long_text.size(); ++i)
        long_text[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(Format("%s", long_text.c_str()), long_text.substr(0, 2047));
    EXPECT_EQ(Format(long_text.c_str()), long_text.substr(0, 2047));

    std::string exactly(2047, 'y');
    EXPECT_EQ(Format("%s", exactly.c_str()), exactly);
    // The last position is overwritten by the excess, then holds the NUL.
    EXPECT_EQ(Format("%sZ", exactly.substr(1).c_str()), exactly.substr(1) + "Z");
    EXPECT_EQ(Format("%s!", exactly.c_str()), exactly);
}

TEST(TraceFormat, HugeWidthsAreBoundedByTheOutput) {
    std::string spaces = Format("%2000000000d", 1);
    EXPECT_EQ(spaces, std::string(2047, ' '));
    EXPECT_EQ(Format("%*d", INT_MIN, 1), "1" + std::string(2046, ' '));
    EXPECT_EQ(Format("%.99999999999d", 3), std::string(2047, '0'));
}

void FormatInto(char* buffer, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceFormat(buffer, buffer + size, format, arguments);
    va_end(arguments);
}

TEST(TraceFormat, NeverWritesPastTheEndOfASmallBuffer) {
    char buffer[8];
    memset(buffer, '#', sizeof(buffer));
    FormatInto(buffer, 5, "abcdefg%d", 12345);
    EXPECT_EQ(std::string(buffer), "abcd");
    EXPECT_EQ(std::string(buffer + 5, 3), "###");
    FormatInto(buffer, 1, "%s", "abc");
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'b'); // left from the earlier call
}

} // namespace
