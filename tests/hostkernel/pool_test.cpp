// Pool accounting per tag and fault injection that fails exactly what it says.
#include "kernel_test.h"

#include <vector>

namespace {

constexpr ULONG kTagA = 0x41414141; // 'AAAA'
constexpr ULONG kTagB = 0x42424242; // 'BBBB'

using PoolTest = KernelTest;

// A paged block is paged to its last byte and no further, and not once
// freed; a free takes its bytes off its tag. (The blocks per tag and the
// bytes of new blocks are the driver's memory and pool tests'; the leak
// report and the garbage a new block holds, the I/O manager's.)
TEST_F(PoolTest, KnowsPagedBlocksToTheirLastByteAndTakesFreedBytesOff) {
    auto* paged = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, 100, kTagA));
    void* other = ExAllocatePoolWithTag(NonPagedPool, 28, kTagA);
    EXPECT_TRUE(kernel().pool().IsPaged(paged + 99));
    EXPECT_FALSE(kernel().pool().IsPaged(paged + 100));
    EXPECT_FALSE(kernel().pool().IsPaged(other));
    ExFreePool(paged);
    EXPECT_FALSE(kernel().pool().IsPaged(paged));
    EXPECT_EQ(kernel().pool().ForTag(kTagA).bytes, 28u);
    ExFreePool(other);
}

// Allocates and frees one block per tag; true where the allocation failed.
std::vector<bool> Allocate(const std::vector<ULONG>& tags) {
    std::vector<bool> failed;
    for (ULONG tag : tags) {
        void* p = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
        failed.push_back(p == nullptr);
        if (p)
            ExFreePool(p);
    }
    return failed;
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
        EXPECT_EQ(Allocate(c.tags), c.failed);
        EXPECT_EQ(knob.calls, c.calls);
        EXPECT_EQ(knob.fired, c.fired);
    }
}

TEST_F(PoolTest, ProbabilityIsReproducibleFromTheSeed) {
    auto pattern = [&] {
        Restart({.seed = 7});
        kernel().pool().Faults().Add("half", hk::FaultKnob{.probability = 0.5});
        return Allocate(std::vector<ULONG>(64, kTagA));
    };
    auto first = pattern();
    EXPECT_EQ(pattern(), first);
    size_t failures = std::count(first.begin(), first.end(), true);
    EXPECT_GT(failures, 10u);
    EXPECT_LT(failures, 54u);
    EXPECT_EQ(kernel().pool().Faults().Find("half")->fired, failures);
}

} // namespace
