// For the conversions it shares with the C library (%d %i %u %o %x %X %c %s
// with flags, width, precision, '*' and the length letters), the trace
// formatter prints what snprintf prints, on every combination of a grid of
// those parts. Combinations where the driver's own rules differ from C, or
// where C leaves the result undefined, are left out here; trace_format_test.cpp
// pins the driver's rule for each of them.
#include "format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int Digits(unsigned value, unsigned base) {
    int count = 1;
    while (value >= base) {
        value /= base;
        ++count;
    }
    return count;
}

// True where C and the driver's table are meant to agree (precision -1:
// none given; value as the conversion sees it).
bool Comparable(const std::string& flags, int precision, char conversion, unsigned value) {
    auto has = [&](char flag) { return flags.find(flag) != std::string::npos; };
    // For %c and %s, C leaves '0', '#', '+' and ' ' undefined; the driver
    // pads with spaces. C ignores a precision on %c.
    if (conversion == 'c' || conversion == 's')
        return !has('0') && !has('#') && !has('+') && !has(' ') &&
               !(conversion == 'c' && precision >= 0);
    // C drops '0' when a precision is given; the driver still zero-fills.
    if (has('0') && !has('-') && precision >= 0)
        return false;
    // C prints no digit for 0 with precision 0; the driver prints "0".
    if (precision == 0 && value == 0)
        return false;
    if (!has('#'))
        return true;
    // '#' is undefined in C for decimal conversions.
    if (std::strchr("diu", conversion))
        return false;
    // C omits "0x" for 0; the driver always writes its prefix.
    if (conversion != 'o')
        return value != 0;
    // C's "#o" only makes the first digit a 0; the driver always adds one.
    return value != 0 && precision <= Digits(value, 8);
}

// Calls print with the '*' arguments and then the value.
template <typename Print, typename Value>
std::string WithStars(const std::vector<int>& stars, Print print, Value value) {
    switch (stars.size()) {
    case 0:
        return print(value);
    case 1:
        return print(stars[0], value);
    default:
        return print(stars[0], stars[1], value);
    }
}

// The reference formats are built at run time from the same pieces.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename Value>
void Compare(const std::string& ours, const std::string& reference, const std::vector<int>& stars,
             Value value, int& mismatches) {
    std::string got = WithStars(
        stars, [&](auto... arguments) { return Format(ours.c_str(), arguments...); }, value);
    std::string want = WithStars(
        stars,
        [&](auto... arguments) {
            char buffer[256];
            std::snprintf(buffer, sizeof(buffer), reference.c_str(), arguments...);
            return std::string(buffer);
        },
        value);
    if (got != want && ++mismatches <= 20)
        ADD_FAILURE() << "format " << ours << " value " << value << ": got \"" << got
                      << "\", snprintf gives \"" << want << "\"";
}
#pragma GCC diagnostic pop

// A width or precision as written, with its '*' argument where it has one.
struct Part {
    const char* text;
    int star;
};

TEST(TraceFormatAgreesWithPrintf, OnEveryCombinationOfTheSharedParts) {
    const char* const kFlags[] = {"", "-", "0", "+", " ", "#", "-0", "+0", "- ", "#0", "-#"};
    const Part kWidths[] = {{"", 0}, {"1", 0}, {"6", 0}, {"13", 0}, {"*", -7}, {"*", 0}, {"*", 9}};
    const Part kPrecisions[] = {{"", 0},    {".", 0},  {".0", 0}, {".3", 0},
                                {".11", 0}, {".*", 0}, {".*", 4}};
    const int kNumbers[] = {0,     1,     -1,      8,       255,    -255,    65535,
                            65536, 12345, INT_MAX, INT_MIN, 0x1234, -0x10000};
    const char* const kTexts[] = {"", "a", "hello", "a longer text here"};
    int compared = 0, skipped = 0, mismatches = 0;
    for (const char* flags : kFlags)
        for (const Part& width : kWidths)
            for (const Part& precision : kPrecisions)
                for (char conversion : std::string("diuoxXcs"))
                    for (char length : std::string("\0hlL", 4)) {
                        if (length && (conversion == 'c' || conversion == 's'))
                            continue;
                        std::vector<int> stars;
                        if (width.text[0] == '*')
                            stars.push_back(width.star);
                        int p = precision.text[0] ? std::atoi(precision.text + 1) : -1;
                        if (precision.text[0] && precision.text[1] == '*') {
                            stars.push_back(precision.star);
                            p = precision.star;
                        }
                        // 'l' and 'L' are dropped for snprintf: numbers are 32-bit.
                        std::string head = std::string("<%") + flags + width.text + precision.text;
                        std::string tail = std::string(1, conversion) + ">";
                        std::string ours = head + (length ? std::string(1, length) : "") + tail;
                        std::string reference = head + (length == 'h' ? "h" : "") + tail;
                        auto compare = [&](auto value, unsigned seen) {
                            if (!Comparable(flags, p, conversion, seen)) {
                                ++skipped;
                                return;
                            }
                            ++compared;
                            Compare(ours, reference, stars, value, mismatches);
                        };
                        if (conversion == 's') {
                            for (const char* text : kTexts)
                                compare(text, 1);
                        } else if (conversion == 'c') {
                            for (int c : {int('A'), 0x7f, 0xff}) // a NUL would end both strings
                                compare(c, unsigned(c));
                        } else {
                            for (int n : kNumbers)
                                compare(n, length == 'h' ? unsigned(n) & 0xFFFF : unsigned(n));
                        }
                    }
    EXPECT_EQ(mismatches, 0);
    // The exclusions must leave most formats to compare.
    EXPECT_GT(compared, skipped);
}

} // namespace
