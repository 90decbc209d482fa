// The system error log: what a driver writes is kept field by field and
// listed as an event viewer shows it; entries outside the documented sizes,
// or that the pool cannot give, are refused; misuse is a verifier report.
#include "kernel_test.h"

#include "hostkernel/errorlog.h"

#include <cstring>

namespace {

using ErrorLogTest = KernelTest;

// Entries outside the packet's size and the limit are refused. (The largest
// one, and an entry the pool cannot give, are the driver's re-initialisation
// tests' error log entries.)
TEST_F(ErrorLogTest, SizesOutsideThePacketAndTheLimitGiveNoEntry) {
    hk::Driver driver;
    EXPECT_EQ(IoAllocateErrorLogEntry(driver.Object(), ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(driver.Object(), sizeof(IO_ERROR_LOG_PACKET) - 1), nullptr);
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
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(entry);
    std::memset(entry, 0, 40);
    packet->NumberOfStrings = 1;
    packet->StringOffset = 40;
    std::memset(static_cast<char*>(entry) + 40, 'x', 20); // no terminator before the end
    IoWriteErrorLogEntry(entry);
    EXPECT_EQ(overrun.Count(), 1u);
    EXPECT_TRUE(kernel().errorlog().Entries().empty());
}

} // namespace
