// The counting pool allocator: blocks carry an 8-byte header, the counter
// follows the caller's bytes, freed bytes are poisoned, and bad frees are
// reported without touching the pool.
#include "driver_test.h"

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

namespace {

constexpr ULONG kTag = 0x30747374; // 'tst0'

class MemoryTest : public DriverTest {
  protected:
    // Whether MemFree or MemAlloc printed the assertion of this condition.
    bool Asserted(const std::string& condition) {
        const auto& lines = TraceLines();
        for (size_t i = 1; i + 1 < lines.size(); ++i) {
            if (lines[i - 1].empty() && lines[i] == "ACM:ASSERTION FAILED: (" + condition + ")" &&
                std::regex_match(lines[i + 1], std::regex(R"(  source/cdcacm/wdmkrnl\(\d+\))")))
                return true;
        }
        return false;
    }
    hk::Pool::Usage Usage() { return kernel().pool().ForTag(kTag); }
};

TEST_F(MemoryTest, CounterFollowsTheCallersBytesBehindAnAlignedHeader) {
    KIRQL old_irql;
    KeRaiseIrql(DISPATCH_LEVEL, &old_irql); // callers hold spin locks
    auto* thirteen = static_cast<unsigned char*>(MemAlloc(13, kTag));
    void* hundred = MemAlloc(100, kTag);
    ASSERT_NE(thirteen, nullptr);
    EXPECT_EQ(MemoryCounter, 113u);
    EXPECT_EQ(Usage().bytes, 113u + 2 * sizeof(MEMHD));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(thirteen) % 8, 0u);
    const MEMHD* header = reinterpret_cast<const MEMHD*>(thirteen) - 1;
    EXPECT_EQ(memcmp(&header->Magic, "KMem", 4), 0);
    EXPECT_EQ(header->Size, 13u);
    memset(thirteen, 0x5A, 13); // every requested byte is usable
    MemFree(hundred);
    EXPECT_EQ(MemoryCounter, 13u);
    MemFree(thirteen);
    KeLowerIrql(old_irql);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(ContMemoryCounter, 0u);
    EXPECT_EQ(Usage().blocks, 0u);
    EXPECT_TRUE(TraceLines().empty());
}

TEST_F(MemoryTest, FreePoisonsTheCallersBytesAndLeavesTheHeader) {
    std::vector<unsigned char> seen;
    kernel().pool().SetFreeObserver([&](const void* block, size_t bytes, ULONG) {
        const auto* p = static_cast<const unsigned char*>(block);
        seen.assign(p, p + bytes);
    });
    auto* block = static_cast<unsigned char*>(MemAlloc(40, kTag));
    memset(block, 0x11, 40);
    MemFree(block);
    ASSERT_EQ(seen.size(), 48u);
    MEMHD header;
    memcpy(&header, seen.data(), sizeof(header));
    EXPECT_EQ(header.Magic, ULONG(MEMHD_MAGIC));
    EXPECT_EQ(header.Size, 40u);
    EXPECT_EQ(std::vector<unsigned char>(seen.begin() + 8, seen.end()),
              std::vector<unsigned char>(40, 0xEE));
}

TEST_F(MemoryTest, BadFreesAreReportedAndTouchNothing) {
    MemFree(nullptr);
    EXPECT_TRUE(Asserted("Memory!=NULL"));
    EXPECT_EQ(TraceLines().size(), 3u);

    auto* block = static_cast<unsigned char*>(MemAlloc(16, kTag));
    memset(block, 0x33, 16);
    MEMHD* header = reinterpret_cast<MEMHD*>(block) - 1;
    header->Magic = 0x12345678;
    dbg().Clear();
    MemFree(block);
    EXPECT_TRUE(Asserted("hd->Magic==MEMHD_MAGIC"));
    EXPECT_FALSE(Asserted("Memory!=NULL"));
    EXPECT_EQ(Usage().blocks, 1u);
    EXPECT_EQ(MemoryCounter, 16u);
    EXPECT_EQ(block[15], 0x33) << "not poisoned";
    header->Magic = MEMHD_MAGIC;
    MemFree(block);
}

TEST_F(MemoryTest, ZeroExhaustedAndWrappingSizes) {
    void* empty = MemAlloc(0, kTag);
    EXPECT_TRUE(Asserted("NumberOfBytes!=0"));
    ASSERT_NE(empty, nullptr) << "zero bytes still give a block";
    EXPECT_EQ(Usage().bytes, sizeof(MEMHD));
    MemFree(empty);
    dbg().Clear();

    uint64_t allocations = kernel().pool().Allocations();
    EXPECT_EQ(MemAlloc(0xFFFFFFFFu, kTag), nullptr);
    EXPECT_EQ(MemAlloc(0xFFFFFFF8u, kTag), nullptr);
    EXPECT_EQ(kernel().pool().Allocations(), allocations) << "a wrapping header is refused";

    auto& knob = kernel().pool().Faults().Add("no pool", hk::FaultKnob{.nth = 1, .match = kTag});
    EXPECT_EQ(MemAlloc(20, kTag), nullptr);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_TRUE(TraceLines().empty());
}

} // namespace
