// The system error log: what a driver writes is kept field by field and
// listed as an event viewer shows it; entries outside the documented sizes,
// or that the pool cannot give, are refused; misuse is a verifier report.
#include "kernel_test.h"

#include "hostkernel/errorlog.h"

#include <cstring>

namespace {

using ErrorLogTest = KernelTest;

constexpr NTSTATUS kInitFailed = NTSTATUS(0xE0070003);

// An entry as a driver fills it: the packet zeroed, one string at offset 40.
PVOID Fill(PVOID entry, const std::u16string& text) {
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(entry);
    std::memset(entry, 0, 40);
    packet->NumberOfStrings = 1;
    packet->StringOffset = 40;
    packet->ErrorCode = kInitFailed;
    packet->UniqueErrorValue = 0xEBEBEBEB;
    packet->FinalStatus = kInitFailed;
    std::memcpy(static_cast<char*>(entry) + 40, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    return entry;
}

TEST_F(ErrorLogTest, AWrittenEntryIsKeptAndListedWithItsSourceAndString) {
    hk::Driver driver(u"\\Driver\\cdcacm");
    const std::u16string text = u"Unable to init physical port.";
    PVOID entry = IoAllocateErrorLogEntry(driver.Object(), UCHAR(text.size() * 2 + 50));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(*static_cast<uint8_t*>(entry), hk::Pool::kNewFill) << "entries are not zeroed";
    kernel().Sleep(1234);
    IoWriteErrorLogEntry(Fill(entry, text));

    ASSERT_EQ(kernel().errorlog().Entries().size(), 1u);
    const hk::ErrorLogEntry& logged = kernel().errorlog().Entries()[0];
    EXPECT_EQ(logged.size, 108u);
    EXPECT_EQ(logged.error_code, kInitFailed);
    EXPECT_EQ(logged.unique_error_value, 0xEBEBEBEBu);
    EXPECT_EQ(logged.final_status, kInitFailed);
    EXPECT_EQ(logged.strings, std::vector<std::u16string>{text});
    EXPECT_EQ(logged.Format(),
              "Error          1.234  cdcacm  Event ID 3  \"Unable to init physical port.\"");
    EXPECT_EQ(kernel().pool().ForTag(hk::ErrorLog::kTag).blocks, 0u) << "the log freed it";
}

TEST_F(ErrorLogTest, SizesOutsideThePacketAndTheLimitAndAFailingPoolGiveNoEntry) {
    hk::Driver driver;
    EXPECT_EQ(IoAllocateErrorLogEntry(driver.Object(), ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(driver.Object(), sizeof(IO_ERROR_LOG_PACKET) - 1), nullptr);
    PVOID largest = IoAllocateErrorLogEntry(driver.Object(), ERROR_LOG_MAXIMUM_SIZE);
    ASSERT_NE(largest, nullptr);
    IoFreeErrorLogEntry(largest);

    kernel().pool().Faults().Add("error log",
                                 hk::FaultKnob{.every = 1, .match = hk::ErrorLog::kTag});
    EXPECT_EQ(IoAllocateErrorLogEntry(driver.Object(), 60), nullptr);
    EXPECT_TRUE(kernel().errorlog().Entries().empty());
}

TEST_F(ErrorLogTest, AnUnknownEntryOrAStringPastTheEndIsReported) {
    hk::Driver driver;
    {
        hk::ExpectViolation unknown(hk::rule::kErrorLogEntryUnknown);
        PVOID entry = IoAllocateErrorLogEntry(driver.Object(), 60);
        IoFreeErrorLogEntry(entry);
        IoFreeErrorLogEntry(entry);
        char own[64] = {};
        IoWriteErrorLogEntry(own);
        EXPECT_EQ(unknown.Count(), 2u);
    }
    hk::ExpectViolation overrun(hk::rule::kErrorLogEntryOverrun);
    PVOID entry = IoAllocateErrorLogEntry(driver.Object(), 60);
    Fill(entry, u"abcde");                                // 40 + 12 bytes: fits
    std::memset(static_cast<char*>(entry) + 50, 'x', 10); // the terminator overwritten
    IoWriteErrorLogEntry(entry);
    EXPECT_EQ(overrun.Count(), 1u);
    EXPECT_TRUE(kernel().errorlog().Entries().empty());
}

} // namespace
