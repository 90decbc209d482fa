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
