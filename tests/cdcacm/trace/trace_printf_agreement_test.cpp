// For the conversions it shares with the C library (%d %i %u %o %x %X %c %s
// with flags, width, precision, '*' and the length letters), the trace
// formatter prints what snprintf prints, over thousands of generated formats.
// Combinations where the driver's own rules differ from C, or where C leaves
// the result undefined, are left out here; trace_format_test.cpp pins the
// driver's rule for each of them.
#include "format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct GeneratedCase {
    std::string ours;      // the format for the trace formatter
    std::string reference; // the same format for snprintf ('l' and 'L' dropped: numbers are 32-bit)
    std::vector<int> stars;
    char conversion = 0;
    int number = 0;
    const char* text = nullptr;
};

bool IsInteger(char conversion) {
    return std::strchr("diuoxX", conversion) != nullptr;
}

int Digits(unsigned value, unsigned base) {
    int count = 1;
    while (value >= base) {
        value /= base;
        ++count;
    }
    return count;
}

// True where C and the driver's table are meant to agree.
bool Comparable(const std::string& flags, bool has_precision, int precision, char length,
                const GeneratedCase& c) {
    bool zero = flags.find('0') != std::string::npos;
    bool left = flags.find('-') != std::string::npos;
    bool alternate = flags.find('#') != std::string::npos;
    bool sign = flags.find_first_of("+ ") != std::string::npos;
    if (IsInteger(c.conversion)) {
        unsigned value = static_cast<unsigned>(c.number);
        if (length == 'h')
            value &= 0xFFFF;
        // C drops '0' when a precision is given; the driver still zero-fills.
        if (zero && !left && has_precision)
            return false;
        // C prints no digit for 0 with precision 0; the driver prints "0".
        if (has_precision && precision == 0 && value == 0)
            return false;
        if (alternate) {
            // '#' is undefined in C for decimal conversions.
            if (c.conversion == 'd' || c.conversion == 'i' || c.conversion == 'u')
                return false;
            // C omits "0x" for 0; the driver always writes its prefix.
            if ((c.conversion == 'x' || c.conversion == 'X') && value == 0)
                return false;
            // C's "#o" only makes the first digit a 0; the driver always adds one.
            if (c.conversion == 'o' &&
                (value == 0 || (has_precision && precision > Digits(value, 8))))
                return false;
        }
        return true;
    }
    // For %c and %s, C leaves '0', '#', '+' and ' ' undefined; the driver pads
    // with spaces. C ignores a precision on %c.
    if (zero || alternate || sign)
        return false;
    return !(c.conversion == 'c' && has_precision);
}

GeneratedCase Generate(std::mt19937& rng, bool& comparable) {
    static const char kConversions[] = "diuoxXcs";
    static const int kNumbers[] = {0,     1,     -1,    7,       8,       15,     16,
                                   255,   256,   -255,  32767,   -32768,  65535,  65536,
                                   99999, -1000, 12345, INT_MAX, INT_MIN, 0x1234, -0x10000};
    static const char* const kTexts[] = {"", "a", "ok", "hello", "COM12", "a longer text here"};

    GeneratedCase c;
    c.conversion = kConversions[rng() % 8];

    std::string flags;
    for (unsigned n = rng() % 4; n > 0; --n)
        flags += "-0+ #"[rng() % 5];

    std::string width;
    switch (rng() % 3) {
    case 1:
        width = std::to_string(rng() % 25); // "0" becomes a flag, in both
        break;
    case 2:
        width = "*";
        c.stars.push_back(static_cast<int>(rng() % 41) - 20);
        break;
    }

    std::string precision_text;
    bool has_precision = false;
    int precision = 0;
    switch (rng() % 4) {
    case 1:
        precision_text = ".";
        has_precision = true;
        break;
    case 2:
        precision = static_cast<int>(rng() % 16);
        precision_text = "." + std::to_string(precision);
        has_precision = true;
        break;
    case 3:
        // A negative '*' precision means 0 to the driver but "none" to C.
        precision = static_cast<int>(rng() % 16);
        precision_text = ".*";
        c.stars.push_back(precision);
        has_precision = true;
        break;
    }

    char length = 0;
    if (IsInteger(c.conversion))
        length = "\0hlL"[rng() % 4];

    if (c.conversion == 's')
        c.text = kTexts[rng() % (sizeof(kTexts) / sizeof(kTexts[0]))];
    else if (c.conversion == 'c')
        c.number = static_cast<int>(rng() % 255) + 1; // a NUL would end both strings
    else if (rng() % 4 == 0)
        c.number = static_cast<int>(rng());
    else
        c.number = kNumbers[rng() % (sizeof(kNumbers) / sizeof(kNumbers[0]))];

    std::string head = "<%" + flags + width + precision_text;
    std::string tail = std::string(1, c.conversion) + ">";
    c.ours = head + (length ? std::string(1, length) : "") + tail;
    c.reference = head + (length == 'h' ? "h" : "") + tail;
    comparable = Comparable(flags, has_precision, precision, length, c);
    return c;
}

// Calls print with the case's '*' arguments and then the value.
template <typename Print, typename Value>
std::string WithStars(const GeneratedCase& c, Print print, Value value) {
    switch (c.stars.size()) {
    case 0:
        return print(value);
    case 1:
        return print(c.stars[0], value);
    default:
        return print(c.stars[0], c.stars[1], value);
    }
}

// The reference formats are built at run time from the same pieces.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename Value> void Compare(const GeneratedCase& c, Value value, int& mismatches) {
    std::string ours = WithStars(
        c, [&](auto... arguments) { return Format(c.ours.c_str(), arguments...); }, value);
    std::string reference = WithStars(
        c,
        [&](auto... arguments) {
            char buffer[256];
            std::snprintf(buffer, sizeof(buffer), c.reference.c_str(), arguments...);
            return std::string(buffer);
        },
        value);
    if (ours != reference && ++mismatches <= 20)
        ADD_FAILURE() << "format " << c.ours << " value " << value << " stars "
                      << (c.stars.empty() ? 0 : c.stars[0]) << ": got \"" << ours
                      << "\", snprintf gives \"" << reference << "\"";
}
#pragma GCC diagnostic pop

TEST(TraceFormatAgreesWithPrintf, OnGeneratedFormats) {
    std::mt19937 rng(20261122);
    const int kCases = 6000;
    int compared = 0;
    int mismatches = 0;
    for (int i = 0; i < kCases; ++i) {
        bool comparable = false;
        GeneratedCase c = Generate(rng, comparable);
        if (!comparable)
            continue;
        ++compared;
        if (c.text)
            Compare(c, c.text, mismatches);
        else
            Compare(c, c.number, mismatches);
    }
    EXPECT_EQ(mismatches, 0);
    // The exclusions must leave most generated formats to compare.
    EXPECT_GT(compared, kCases / 2);
}

} // namespace
