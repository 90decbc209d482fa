// The Rtl string helpers the driver uses to build names.
#include "kernel_test.h"

namespace {

using Rtl = KernelTest;

std::u16string Text(const UNICODE_STRING& s) {
    return std::u16string(s.Buffer, s.Length / sizeof(WCHAR));
}

// Appends fill the buffer to the last byte, terminated while there is room,
// and refuse what does not fit; numbers need room for their terminator.
TEST_F(Rtl, BuildsANumberedNameInTheRoomItHas) {
    WCHAR buffer[16], digits[3];
    UNICODE_STRING name{0, sizeof(buffer), buffer}, number{0, sizeof(digits), digits};
    ASSERT_EQ(RtlAppendUnicodeToString(&name, u"\\Device\\modem"), STATUS_SUCCESS);
    ASSERT_EQ(RtlIntegerToUnicodeString(42, 10, &number), STATUS_SUCCESS);
    ASSERT_EQ(RtlAppendUnicodeStringToString(&name, &number), STATUS_SUCCESS);
    EXPECT_EQ(Text(name), u"\\Device\\modem42");
    EXPECT_EQ(buffer[15], 0);
    EXPECT_EQ(RtlAppendUnicodeToString(&name, u"7"), STATUS_SUCCESS); // exactly full
    EXPECT_EQ(RtlAppendUnicodeToString(&name, u"8"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Text(name), u"\\Device\\modem427");

    EXPECT_EQ(RtlIntegerToUnicodeString(255, 16, &number), STATUS_SUCCESS);
    EXPECT_EQ(Text(number), u"FF");
    EXPECT_EQ(RtlIntegerToUnicodeString(1000, 10, &number), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(RtlIntegerToUnicodeString(5, 7, &number), STATUS_INVALID_PARAMETER);
}

TEST_F(Rtl, CompareEqualAndCopy) {
    UNICODE_STRING a, b, c;
    RtlInitUnicodeString(&a, u"COM3");
    RtlInitUnicodeString(&b, u"com3");
    RtlInitUnicodeString(&c, u"COM30");
    EXPECT_EQ(a.Length, 8);
    EXPECT_EQ(a.MaximumLength, 10);
    EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
    EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
    UNICODE_STRING lower, upper; // the ends of the alphabet fold too
    RtlInitUnicodeString(&lower, u"az");
    RtlInitUnicodeString(&upper, u"AZ");
    EXPECT_TRUE(RtlEqualUnicodeString(&lower, &upper, TRUE));
    EXPECT_LT(RtlCompareUnicodeString(&a, &c, FALSE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&a, &b, FALSE), 0); // 'C' sorts before 'c'
    WCHAR copy_buffer[3];
    UNICODE_STRING copy{0, sizeof(copy_buffer), copy_buffer};
    RtlCopyUnicodeString(&copy, &a); // truncated to what fits
    EXPECT_EQ(Text(copy), u"COM");
    EXPECT_EQ(RtlCompareMemory("abcd", "abXd", 4), 2u);
}

} // namespace
