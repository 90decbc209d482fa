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

// A knob fails exactly the calls it names, counts the calls it saw and
// the faults it caused, and stops at its maximum.
TEST_F(PoolTest, KnobsFailExactlyTheirCalls) {
    struct Case {
        hk::FaultKnob knob;
        std::vector<ULONG> tags;  // one allocation each
        std::vector<bool> failed; // expected
        uint64_t calls, fired;
    } cases[] = {
        {{.nth = 3}, {kTagA, kTagA, kTagA, kTagA, kTagA}, {0, 0, 1, 0, 0}, 5, 1},
        {{.every = 1, .max_fires = 2, .match = kTagB},
         {kTagA, kTagB, kTagB, kTagB},
         {0, 1, 1, 0},
         3,
         2},
    };
    for (auto& c : cases) {
        kernel().pool().Faults().Clear();
        hk::FaultKnob& knob = kernel().pool().Faults().Add("knob", c.knob);
        std::vector<bool> failed;
        for (ULONG tag : c.tags) {
            void* p = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
            failed.push_back(p == nullptr);
            if (p)
                ExFreePool(p);
        }
        EXPECT_EQ(failed, c.failed);
        EXPECT_EQ(knob.calls, c.calls);
        EXPECT_EQ(knob.fired, c.fired);
    }
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

// New blocks hold garbage, not zeros, and each block knows its pool type.
TEST_F(PoolTest, NewBlocksAreNotZeroedAndKnowTheirPoolType) {
    auto* paged = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, 16, kTagA));
    auto* fixed = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, 16, kTagA));
    EXPECT_EQ(std::count(fixed, fixed + 16, hk::Pool::kNewFill), 16);
    EXPECT_TRUE(kernel().pool().IsPaged(paged));
    EXPECT_TRUE(kernel().pool().IsPaged(paged + 15));
    EXPECT_FALSE(kernel().pool().IsPaged(paged + 16));
    EXPECT_FALSE(kernel().pool().IsPaged(fixed + 8));
    ExFreePool(paged);
    EXPECT_FALSE(kernel().pool().IsPaged(paged));
    ExFreePool(fixed);
}

} // namespace
