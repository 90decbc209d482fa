// Pool accounting per tag and fault injection that fails exactly what it says.
#include "kernel_test.h"

#include <vector>

namespace {

constexpr ULONG kTagA = 0x41414141; // 'AAAA'
constexpr ULONG kTagB = 0x42424242; // 'BBBB'

using PoolTest = KernelTest;

TEST_F(PoolTest, CountsBytesAndBlocksPerTag) {
    void* a1 = ExAllocatePoolWithTag(NonPagedPool, 100, kTagA);
    void* a2 = ExAllocatePoolWithTag(NonPagedPool, 28, kTagA);
    void* b = ExAllocatePoolWithTag(NonPagedPool, 7, kTagB);
    ASSERT_TRUE(a1 && a2 && b);
    EXPECT_EQ(kernel().pool().ForTag(kTagA).bytes, 128u);
    EXPECT_EQ(kernel().pool().ForTag(kTagA).blocks, 2u);
    EXPECT_EQ(kernel().pool().Total().bytes, 135u);
    EXPECT_NE(kernel().pool().LeakReport().find("'BBBB': 1 block(s), 7 byte(s)"),
              std::string::npos);
    ExFreePool(a1);
    ExFreePoolWithTag(b, kTagB);
    EXPECT_EQ(kernel().pool().ForTag(kTagA).bytes, 28u);
    EXPECT_EQ(kernel().pool().ForTag(kTagB).blocks, 0u);
    ExFreePool(a2);
    EXPECT_EQ(kernel().pool().Total().blocks, 0u);
}

TEST_F(PoolTest, NthAllocationFailsAndOnlyThatOne) {
    hk::FaultKnob& knob = kernel().pool().Faults().Add("third", hk::FaultKnob{.nth = 3});
    std::vector<void*> blocks;
    for (int i = 0; i < 5; ++i)
        blocks.push_back(ExAllocatePoolWithTag(NonPagedPool, 16, kTagA));
    EXPECT_NE(blocks[0], nullptr);
    EXPECT_NE(blocks[1], nullptr);
    EXPECT_EQ(blocks[2], nullptr);
    EXPECT_NE(blocks[3], nullptr);
    EXPECT_NE(blocks[4], nullptr);
    EXPECT_EQ(knob.calls, 5u);
    EXPECT_EQ(knob.fired, 1u);
    for (void* p : blocks)
        if (p)
            ExFreePool(p);
}

TEST_F(PoolTest, TagFilterFailsOnlyThatTagUpToItsMaximum) {
    hk::FaultKnob& knob = kernel().pool().Faults().Add(
        "B", hk::FaultKnob{.every = 1, .max_fires = 2, .match = kTagB});
    void* a = ExAllocatePoolWithTag(NonPagedPool, 8, kTagA);
    void* b1 = ExAllocatePoolWithTag(NonPagedPool, 8, kTagB);
    void* b2 = ExAllocatePoolWithTag(NonPagedPool, 8, kTagB);
    void* b3 = ExAllocatePoolWithTag(NonPagedPool, 8, kTagB);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(b1, nullptr);
    EXPECT_EQ(b2, nullptr);
    EXPECT_NE(b3, nullptr);
    EXPECT_EQ(knob.calls, 3u);
    EXPECT_EQ(knob.fired, 2u);
    ExFreePool(a);
    ExFreePool(b3);
}

TEST_F(PoolTest, ProbabilityIsReproducibleFromTheSeed) {
    auto pattern = [&] {
        kernel().pool().Faults().Add("half", hk::FaultKnob{.probability = 0.5});
        std::vector<bool> failed;
        for (int i = 0; i < 64; ++i) {
            void* p = ExAllocatePoolWithTag(NonPagedPool, 4, kTagA);
            failed.push_back(p == nullptr);
            if (p)
                ExFreePool(p);
        }
        return failed;
    };
    Restart({.seed = 7});
    auto first = pattern();
    Restart({.seed = 7});
    auto second = pattern();
    EXPECT_EQ(first, second);
    size_t failures = std::count(first.begin(), first.end(), true);
    EXPECT_GT(failures, 10u);
    EXPECT_LT(failures, 54u);
    EXPECT_EQ(kernel().pool().Faults().Find("half")->fired, failures);
}

TEST_F(PoolTest, FreeObserverSeesTheBlockBeforeItIsReleased) {
    auto* p = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, 4, kTagA));
    memset(p, 0x5A, 4);
    std::vector<UCHAR> seen;
    kernel().pool().SetFreeObserver([&](const void* block, size_t bytes, ULONG tag) {
        EXPECT_EQ(tag, kTagA);
        auto* bytes_ptr = static_cast<const UCHAR*>(block);
        seen.assign(bytes_ptr, bytes_ptr + bytes);
    });
    ExFreePool(p);
    EXPECT_EQ(seen, (std::vector<UCHAR>{0x5A, 0x5A, 0x5A, 0x5A}));
}

} // namespace
