// The data request pool: growth steps and their limit, the free-list order,
// return to the issuing pool, teardown, and allocation failures.
#define TRACE_FILE "tests/cdcacm/dpool"
#include "cdcacm.h"

#include "driver_test.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

constexpr ULONG kElementSize = sizeof(SER_REQUEST);

class DPoolTest : public DriverTest {
  protected:
    void TearDown() override {
        PutAll();
        DPoolExit(&pool_);
        EXPECT_EQ(Blocks().blocks, 0u);
        DriverTest::TearDown();
    }
    // As the port sets it up: 5 at first, soft maximum 40, steps of 10.
    NTSTATUS Init(ULONG max = 40, ULONG size = kElementSize) {
        return DPoolInit(&pool_, 5, max, 10, size);
    }
    // Takes elements until the pool has grown to `current` or refuses.
    void TakeUntil(ULONG current) {
        while (pool_.Count < current) {
            PVOID payload = DPoolGet(&pool_);
            if (payload == nullptr)
                return;
            taken_.push_back(payload);
        }
    }
    void PutAll() {
        for (PVOID payload : taken_)
            DPoolPut(payload);
        taken_.clear();
    }
    hk::Pool::Usage Blocks() { return kernel().pool().ForTag(DPOOL_TAG); }

    DPOOL pool_{};
    std::vector<PVOID> taken_;
};

// Each growth adds half the current count, at least the step, until the
// count is above the maximum; a count equal to it may still grow once.
TEST_F(DPoolTest, GrowsByHalfOrTheStepUntilAboveTheMaximum) {
    const struct {
        ULONG max;
        std::vector<ULONG> sizes;
    } cases[] = {{40, {5, 15, 25, 37, 55}}, {15, {5, 15, 25}}};
    for (const auto& c : cases) {
        ASSERT_EQ(Init(c.max), STATUS_SUCCESS);
        for (ULONG size : c.sizes) {
            TakeUntil(size);
            EXPECT_EQ(pool_.CurrentCount, size) << "no growth before the pool runs dry";
            EXPECT_EQ(taken_.size(), size);
        }
        EXPECT_EQ(Blocks().blocks, c.sizes.size());
        TraceMask = TL_ASSERT;
        EXPECT_EQ(DPoolGet(&pool_), nullptr);
        EXPECT_TRUE(dbg().Lines().empty()) << "the refusal is an error line";
        TraceMask = TL_ASSERT | TL_ERROR;
        EXPECT_EQ(DPoolGet(&pool_), nullptr);
        EXPECT_EQ(dbg().Lines(),
                  std::vector<std::string>{"ACMDPoolGet: alloc failed. CurrentCount " +
                                           std::to_string(c.sizes.back()) + " MaxCount " +
                                           std::to_string(c.max)});
        EXPECT_EQ(Blocks().blocks, c.sizes.size()) << "a refused growth allocates nothing";
        PutAll();
        DPoolExit(&pool_);
        dbg().Clear();
    }
}

TEST_F(DPoolTest, HandsOutDistinctAlignedPayloadsOfTheElementSize) {
    // 13 is not a multiple of the header word: elements must still not overlap.
    for (ULONG size : {kElementSize, 13u, 1u}) {
        ASSERT_EQ(Init(40, size), STATUS_SUCCESS);
        TakeUntil(55);
        ASSERT_EQ(taken_.size(), 55u);
        for (size_t i = 0; i < taken_.size(); i++) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(taken_[i]) % sizeof(PVOID), 0u);
            memset(taken_[i], static_cast<int>(i + 1), size);
        }
        for (size_t i = 0; i < taken_.size(); i++) {
            auto bytes = static_cast<const UCHAR*>(taken_[i]);
            EXPECT_TRUE(std::all_of(bytes, bytes + size, [&](UCHAR b) { return b == i + 1; }))
                << "payload " << i << " of size " << size << " was overwritten";
        }
        PutAll();
        DPoolExit(&pool_);
    }
}

TEST_F(DPoolTest, LastOfABlockGoesFirstAndTheLastReturnedIsReused) {
    ASSERT_EQ(Init(), STATUS_SUCCESS);
    TakeUntil(5);
    for (size_t i = 1; i < taken_.size(); i++)
        EXPECT_LT(taken_[i], taken_[i - 1]);
    DPoolPut(taken_[2]);
    EXPECT_EQ(pool_.Count, 4u);
    EXPECT_EQ(DPoolGet(&pool_), taken_[2]);
    EXPECT_EQ(pool_.CurrentCount, 5u);
}

TEST_F(DPoolTest, PutReturnsEachElementToThePoolThatIssuedIt) {
    DPOOL second;
    ASSERT_EQ(Init(), STATUS_SUCCESS);
    ASSERT_EQ(DPoolInit(&second, 5, 40, 10, kElementSize), STATUS_SUCCESS);
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql); // as under the device lock
    PVOID fromSecond = DPoolGet(&second);
    TakeUntil(1);
    DPoolPut(fromSecond);
    KeLowerIrql(oldIrql);
    EXPECT_EQ(pool_.Count, 1u);
    EXPECT_EQ(second.Count, 0u);
    EXPECT_EQ(DPoolGet(&second), fromSecond);
    DPoolPut(fromSecond);
    DPoolExit(&second);
}

// (That exit frees every block the teardown checks after each test.)
TEST_F(DPoolTest, ExitOfAPoolNeverSetUpDoesNothing) {
    // A port whose creation failed before its pool was set up.
    DPoolExit(&pool_);
    EXPECT_FALSE(dbg().Contains("ASSERTION FAILED"));
}

TEST_F(DPoolTest, FailedAllocationsRefuseOnceAndTheNextGetGrows) {
    auto& knob = kernel().pool().Faults().Add("pool", hk::FaultKnob{.nth = 1, .match = DPOOL_TAG});
    EXPECT_EQ(Init(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(pool_.CurrentCount, 0u);
    TakeUntil(5);
    EXPECT_EQ(pool_.CurrentCount, 5u) << "the first get allocates the initial block";

    kernel().pool().Faults().Add("again", hk::FaultKnob{.nth = 1, .match = DPOOL_TAG});
    EXPECT_EQ(DPoolGet(&pool_), nullptr);
    EXPECT_TRUE(dbg().Contains("ACMDPoolGet: alloc failed. CurrentCount 5 MaxCount 40"));
    EXPECT_EQ(pool_.Count, 5u);
    TakeUntil(6);
    EXPECT_EQ(pool_.CurrentCount, 15u);
}

} // namespace
