// Trace lines reach the kernel debugger: the mask gates them, assertions
// print and continue, and the hex dump lays out its fixed columns. (Every
// test that reads trace lines shows the line format and its prefix.)
#define TRACE_FILE "tests/cdcacm/trace"
#include "driver_test.h"

#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

class TraceOutputTest : public DriverTest {};

// Until the driver reads its service key, it traces assertions and errors.
TEST(TraceDefault, TheMaskBeforeDriverEntryKeepsAssertionsAndErrors) {
    EXPECT_EQ(TraceMask, ULONG(TL_ASSERT | TL_ERROR));
}

TEST_F(TraceOutputTest, PrintKeepsAtMost2047CharactersOfALine) {
    std::string text(5000, 'q');
    TracePrint("%s", text.c_str());
    EXPECT_EQ(dbg().Text(), std::string(2047, 'q'));
}

// The bit values are what administrators put in the registry: other tests
// name bits by these constants, so only this table catches two swapped.
TEST_F(TraceOutputTest, MaskBitsHaveTheirRegistryValues) {
    const std::pair<ULONG, ULONG> Bits[] = {
        {TL_ASSERT, 0x1},       {TL_ERROR, 0x2},       {TL_INFO, 0x4},     {TL_PNP, 0x8},
        {TL_LIFECYCLE, 0x10},   {TL_HUB, 0x20},        {TL_OPEN, 0x40},    {TL_IOCTL, 0x80},
        {TL_RW, 0x100},         {TL_PNP_DOWN, 0x200},  {TL_USBCFG, 0x400}, {TL_WAIT, 0x800},
        {TL_BULK_DUMP, 0x1000}, {TL_REF, 0x2000},      {TL_RCV, 0x4000},   {TL_SND, 0x8000},
        {TL_MODEM, 0x20000},    {TL_SERPORT, 0x40000}, {TL_PPP, 0x80000},  {TL_CTS, 0x100000},
        {TL_DETAIL, 0x80000000}};
    for (const auto& [Bit, Value] : Bits)
        EXPECT_EQ(Bit, Value);
}

TEST_F(TraceOutputTest, MaskSelectsWhichMessagesAreProduced) {
    EXPECT_EQ(TraceMask, ULONG(TL_ASSERT | TL_ERROR));
    TRACE(TL_INFO, "%P:info %d\n", 1);
    TRACE(TL_ERROR, "%P:error %d\n", 2);
    TraceSetMask(TL_INFO | TL_DETAIL);
    EXPECT_EQ(TraceMask, ULONG(TL_INFO | TL_DETAIL));
    TRACE(TL_INFO, "%P:info %d\n", 3);
    TRACE(TL_ERROR, "%P:error %d\n", 4);
    TRACE(TL_DETAIL, "%P:detail %d\n", 5);
    EXPECT_EQ(TraceLines(), (Lines{"ACM:error 2", "ACM:info 3", "ACM:detail 5"}));
}

TEST_F(TraceOutputTest, FailedAssertionPrintsConditionFileAndLineAndContinues) {
    int value = 1;
    bool continued = false;
    // clang-format off
    const int line = __LINE__; TRACE_ASSERT(value==2);
    // clang-format on
    continued = true;
    EXPECT_TRUE(continued);
    EXPECT_EQ(TraceLines(), (Lines{"", "ACM:ASSERTION FAILED: (value==2)",
                                   "  tests/cdcacm/trace(" + std::to_string(line) + ")"}));
}

TEST_F(TraceOutputTest, AssertionsAreSilentWhenTheyHoldOrTheirBitIsOff) {
    int value = 1;
    TRACE_ASSERT(value == 1);
    TraceSetMask(~ULONG(TL_ASSERT));
    TRACE_ASSERT(value == 2);
    TraceSetMask(TL_ASSERT);
    TRACE_ASSERT(value == 3);
    EXPECT_EQ(dbg().Count("ASSERTION FAILED"), 1u);
    EXPECT_TRUE(dbg().Contains("(value == 3)"));
}

// Offset at 0, hex from column 6 with an extra space after every fourth
// byte, characters from column 59; bytes below blank and above DEL print
// as dots.
TEST_F(TraceOutputTest, DumpLaysOutFixedColumnsAndDotsUnprintableBytes) {
    unsigned char data[24] = {0, 0, 0, 0, 0,    0,    0,    0,    0,    0,    0,    0,
                              0, 0, 0, 0, 0x00, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 0x0A};
    for (int i = 0; i < 16; ++i)
        data[i] = static_cast<unsigned char>(0x41 + i);
    TraceDump(data, sizeof(data));
    std::string second = "0010: 00 1F 20 7E  7F 80 FF 0A";
    second.resize(59, ' ');
    EXPECT_EQ(TraceLines(),
              (Lines{"0000: 41 42 43 44  45 46 47 48  49 4A 4B 4C  4D 4E 4F 50   ABCDEFGHIJKLMNOP",
                     second + ".. ~\x7F..."}));
}

TEST_F(TraceOutputTest, DumpOfNothingPrintsNullMarkerWithoutNewline) {
    TraceDump(nullptr, 0);
    EXPECT_TRUE(TraceLines().empty());
    EXPECT_EQ(dbg().Text(), "<<NULL>>");
}

TEST_F(TraceOutputTest, DumpOffsetsKeepTheirLow16Bits) {
    std::vector<unsigned char> data(0x10000 + 17, 'z');
    TraceDump(data.data(), static_cast<ULONG>(data.size()));
    ASSERT_EQ(TraceLines().size(), 0x1000u + 2);
    EXPECT_EQ(TraceLines()[0xFFF].substr(0, 6), "FFF0: ");
    EXPECT_EQ(TraceLines()[0x1000].substr(0, 6), "0000: ");
    EXPECT_EQ(TraceLines()[0x1001], "0010: 7A" + std::string(51, ' ') + "z");
}

} // namespace
