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
    // The assertion lines MemFree or MemAlloc printed for a condition.
    bool Asserted(const std::string& condition) {
        const auto& lines = TraceLines();
        for (size_t i = 1; i + 1 < lines.size(); ++i) {
            if (lines[i - 1].empty() && lines[i] == "ACM:ASSERTION FAILED: (" + condition + ")" &&
                std::regex_match(lines[i + 1], std::regex(R"(  source/cdcacm/wdmkrnl\(\d+\))")))
                return true;
        }
        return false;
    }
};

TEST_F(MemoryTest, CounterFollowsTheCallersBytesNotTheHeaders) {
    void* hundred = MemAlloc(100, kTag);
    void* twenty_eight = MemAlloc(28, kTag);
    ASSERT_NE(hundred, nullptr);
    ASSERT_NE(twenty_eight, nullptr);
    EXPECT_EQ(MemoryCounter, 128u);
    EXPECT_EQ(kernel().pool().ForTag(kTag).bytes, 128u + 2 * sizeof(MEMHD));

    MemFree(hundred);
    EXPECT_EQ(MemoryCounter, 28u);
    EXPECT_EQ(ContMemoryCounter, 0u);
    EXPECT_EQ(kernel().pool().ForTag(kTag).blocks, 1u);

    MemFree(twenty_eight);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(kernel().pool().ForTag(kTag).bytes, 0u);
    EXPECT_TRUE(TraceLines().empty());
}

TEST_F(MemoryTest, BlockStartsWithTheHeaderAndStaysAligned) {
    auto* block = static_cast<unsigned char*>(MemAlloc(13, kTag));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0u);
    const MEMHD* header = reinterpret_cast<const MEMHD*>(block) - 1;
    EXPECT_EQ(header->Magic, 0x6D654D4Bu);
    EXPECT_EQ(memcmp(&header->Magic, "KMem", 4), 0);
    EXPECT_EQ(header->Size, 13u);
    memset(block, 0x5A, 13); // every requested byte is usable
    MemFree(block);
}

TEST_F(MemoryTest, FreePoisonsTheCallersBytesAndLeavesTheHeader) {
    std::vector<unsigned char> seen;
    kernel().pool().SetFreeObserver([&](const void* block, size_t bytes, ULONG tag) {
        EXPECT_EQ(tag, kTag);
        const auto* p = static_cast<const unsigned char*>(block);
        seen.assign(p, p + bytes);
    });
    auto* block = static_cast<unsigned char*>(MemAlloc(40, kTag));
    ASSERT_NE(block, nullptr);
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

TEST_F(MemoryTest, NullFreeIsReportedAndIgnored) {
    uint64_t allocations = kernel().pool().Allocations();
    MemFree(nullptr);
    EXPECT_TRUE(Asserted("Memory!=NULL"));
    EXPECT_FALSE(Asserted("hd->Magic==MEMHD_MAGIC"));
    EXPECT_EQ(TraceLines().size(), 3u);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(kernel().pool().Allocations(), allocations);
}

TEST_F(MemoryTest, BlockWithoutTheMagicIsReportedAndNotFreed) {
    auto* block = static_cast<unsigned char*>(MemAlloc(16, kTag));
    ASSERT_NE(block, nullptr);
    memset(block, 0x33, 16);
    MEMHD* header = reinterpret_cast<MEMHD*>(block) - 1;
    header->Magic = 0x12345678;

    MemFree(block);
    EXPECT_TRUE(Asserted("hd->Magic==MEMHD_MAGIC"));
    EXPECT_FALSE(Asserted("Memory!=NULL"));
    // The block is left alone: still allocated, still counted, not poisoned.
    EXPECT_EQ(kernel().pool().ForTag(kTag).blocks, 1u);
    EXPECT_EQ(MemoryCounter, 16u);
    EXPECT_EQ(block[15], 0x33);

    header->Magic = MEMHD_MAGIC;
    MemFree(block);
    EXPECT_EQ(kernel().pool().ForTag(kTag).blocks, 0u);
    EXPECT_EQ(MemoryCounter, 0u);
}

TEST_F(MemoryTest, ZeroBytesIsReportedButStillGivesABlock) {
    void* block = MemAlloc(0, kTag);
    EXPECT_TRUE(Asserted("NumberOfBytes!=0"));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(kernel().pool().ForTag(kTag).bytes, sizeof(MEMHD));
    MemFree(block);
    EXPECT_EQ(kernel().pool().ForTag(kTag).blocks, 0u);
}

TEST_F(MemoryTest, ExhaustedPoolGivesNullWithoutCountingOrTracing) {
    hk::FaultKnob& knob =
        kernel().pool().Faults().Add("no pool", hk::FaultKnob{.nth = 2, .match = kTag});
    void* first = MemAlloc(10, kTag);
    void* second = MemAlloc(20, kTag);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(MemoryCounter, 10u);
    EXPECT_TRUE(TraceLines().empty());
    MemFree(first);
}

TEST_F(MemoryTest, SizeWhoseHeaderWouldWrapIsRefused) {
    uint64_t allocations = kernel().pool().Allocations();
    EXPECT_EQ(MemAlloc(0xFFFFFFFFu, kTag), nullptr);
    EXPECT_EQ(MemAlloc(0xFFFFFFF8u, kTag), nullptr);
    EXPECT_EQ(kernel().pool().Allocations(), allocations);
    EXPECT_EQ(MemoryCounter, 0u);
}

TEST_F(MemoryTest, AllocatesAndFreesAtDispatchLevel) {
    KIRQL old_irql;
    KeRaiseIrql(DISPATCH_LEVEL, &old_irql);
    void* block = MemAlloc(64, kTag);
    EXPECT_EQ(MemoryCounter, 64u);
    MemFree(block);
    KeLowerIrql(old_irql);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(MemoryCounter, 0u);
}

} // namespace
