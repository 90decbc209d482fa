// The Rtl string helpers the driver uses to build names.
#include "kernel_test.h"

namespace {

using Rtl = KernelTest;

TEST_F(Rtl, BuildsANumberedName) {
    WCHAR buffer[32];
    UNICODE_STRING name{0, sizeof(buffer), buffer};
    UNICODE_STRING number_text;
    WCHAR number_buffer[8];
    number_text = {0, sizeof(number_buffer), number_buffer};
    ASSERT_EQ(RtlAppendUnicodeToString(&name, u"\\Device\\modem"), STATUS_SUCCESS);
    ASSERT_EQ(RtlIntegerToUnicodeString(42, 10, &number_text), STATUS_SUCCESS);
    ASSERT_EQ(RtlAppendUnicodeStringToString(&name, &number_text), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(name.Buffer, name.Length / 2), u"\\Device\\modem42");
    EXPECT_EQ(buffer[name.Length / 2], 0);
}

TEST_F(Rtl, AppendRefusesWhatDoesNotFit) {
    WCHAR buffer[4];
    UNICODE_STRING name{0, sizeof(buffer), buffer};
    EXPECT_EQ(RtlAppendUnicodeToString(&name, u"COM"), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeToString(&name, u"12"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(name.Length, 6);
}

TEST_F(Rtl, IntegerInOtherBasesAndTooSmallBuffers) {
    WCHAR buffer[3];
    UNICODE_STRING s{0, sizeof(buffer), buffer};
    EXPECT_EQ(RtlIntegerToUnicodeString(255, 16, &s), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(s.Buffer, s.Length / 2), u"FF");
    EXPECT_EQ(RtlIntegerToUnicodeString(1000, 10, &s), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(RtlIntegerToUnicodeString(5, 7, &s), STATUS_INVALID_PARAMETER);
}

TEST_F(Rtl, AnsiToUnicodeAllocatesFromPoolAndFrees) {
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "COM7");
    UNICODE_STRING wide{};
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(wide.Buffer, wide.Length / 2), u"COM7");
    EXPECT_EQ(kernel().pool().Total().blocks, 1u);
    RtlFreeUnicodeString(&wide);
    EXPECT_EQ(kernel().pool().Total().blocks, 0u);
    EXPECT_EQ(wide.Buffer, nullptr);
}

TEST_F(Rtl, CompareAndEqual) {
    UNICODE_STRING a, b, c;
    RtlInitUnicodeString(&a, u"COM3");
    RtlInitUnicodeString(&b, u"com3");
    RtlInitUnicodeString(&c, u"COM30");
    EXPECT_EQ(a.Length, 8);
    EXPECT_EQ(a.MaximumLength, 10);
    EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
    EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
    EXPECT_LT(RtlCompareUnicodeString(&a, &c, FALSE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&a, &b, FALSE), 0); // 'C' sorts before 'c'
    UNICODE_STRING copy;
    WCHAR copy_buffer[3];
    copy = {0, sizeof(copy_buffer), copy_buffer};
    RtlCopyUnicodeString(&copy, &a); // truncated to what fits
    EXPECT_EQ(copy.Length, 6);
    EXPECT_EQ(RtlCompareMemory("abcd", "abXd", 4), 2u);
}

} // namespace
