// The data request pool: growth steps and their limit, the free-list order,
// return to the issuing pool, teardown, and allocation failures.
#define TRACE_FILE "tests/cdcacm/dpool"
#include "cdcacm.h"

#include "driver_test.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

// A request-sized payload, as the port creates its pool with.
constexpr ULONG kElementSize = sizeof(SER_REQUEST);

class DPoolTest : public DriverTest {
  protected:
    void TearDown() override {
        for (auto& pool : pools_)
            DPoolExit(pool.get());
        DriverTest::TearDown();
    }

    // A pool that the fixture frees at teardown, set up as the port does:
    // 5 at first, soft maximum 40, steps of 10.
    PDPOOL NewPool(NTSTATUS* status, ULONG elementSize = kElementSize) {
        pools_.push_back(std::make_unique<DPOOL>());
        *status = DPoolInit(pools_.back().get(), 5, 40, 10, elementSize);
        return pools_.back().get();
    }
    PDPOOL NewPool() {
        NTSTATUS status;
        PDPOOL pool = NewPool(&status);
        EXPECT_EQ(status, STATUS_SUCCESS);
        return pool;
    }

    // Takes elements until the pool holds `current` in all, or refuses.
    std::vector<PVOID> TakeUntilGrown(PDPOOL pool, ULONG current) {
        std::vector<PVOID> taken;
        while (pool->Count < current) {
            PVOID payload = DPoolGet(pool);
            if (payload == nullptr)
                break;
            taken.push_back(payload);
        }
        return taken;
    }

    static void PutAll(const std::vector<PVOID>& payloads) {
        for (PVOID payload : payloads)
            DPoolPut(payload);
    }

    hk::Pool::Usage Blocks() { return kernel().pool().ForTag(DPOOL_TAG); }

    bool AssertionPrinted() { return dbg().Contains("ASSERTION FAILED"); }

  private:
    std::vector<std::unique_ptr<DPOOL>> pools_;
};

TEST_F(DPoolTest, GrowsFrom5To15_25_37_55AndRefusesThe56th) {
    PDPOOL pool = NewPool();
    EXPECT_EQ(pool->CurrentCount, 5u);
    EXPECT_EQ(Blocks().blocks, 1u);

    std::vector<PVOID> taken = TakeUntilGrown(pool, 5);
    EXPECT_EQ(pool->CurrentCount, 5u) << "five records come without growing";
    EXPECT_EQ(Blocks().blocks, 1u);

    const ULONG steps[] = {15, 25, 37, 55};
    for (ULONG size : steps) {
        taken.push_back(DPoolGet(pool));
        ASSERT_NE(taken.back(), nullptr);
        EXPECT_EQ(pool->CurrentCount, size);
        std::vector<PVOID> more = TakeUntilGrown(pool, size);
        taken.insert(taken.end(), more.begin(), more.end());
        EXPECT_EQ(pool->CurrentCount, size) << "no growth before the pool runs dry";
    }
    EXPECT_EQ(pool->Count, 55u);
    EXPECT_EQ(Blocks().blocks, 5u);

    dbg().Clear();
    EXPECT_EQ(DPoolGet(pool), nullptr);
    ASSERT_EQ(dbg().Lines().size(), 1u);
    EXPECT_EQ(dbg().Lines()[0], "ACMDPoolGet: alloc failed. CurrentCount 55 MaxCount 40");
    EXPECT_EQ(pool->Count, 55u);
    EXPECT_EQ(Blocks().blocks, 5u) << "a refused growth allocates nothing";

    PutAll(taken);
    EXPECT_EQ(pool->Count, 0u);
}

TEST_F(DPoolTest, GrowsOnceMoreWhenExactlyAtItsMaximum) {
    DPOOL pool;
    ASSERT_EQ(DPoolInit(&pool, 5, 15, 10, kElementSize), STATUS_SUCCESS);
    std::vector<PVOID> taken = TakeUntilGrown(&pool, 25);
    EXPECT_EQ(pool.CurrentCount, 25u) << "15 equals the maximum and may still grow";
    EXPECT_EQ(taken.size(), 25u);
    EXPECT_EQ(DPoolGet(&pool), nullptr);
    EXPECT_TRUE(dbg().Contains("ACMDPoolGet: alloc failed. CurrentCount 25 MaxCount 15"));
    PutAll(taken);
    DPoolExit(&pool);
}

TEST_F(DPoolTest, RefusalTraceIsGatedByTheErrorBit) {
    PDPOOL pool = NewPool();
    std::vector<PVOID> taken = TakeUntilGrown(pool, 55);
    ASSERT_EQ(taken.size(), 55u);
    TraceMask = TL_ASSERT;
    dbg().Clear();
    EXPECT_EQ(DPoolGet(pool), nullptr);
    EXPECT_TRUE(dbg().Lines().empty());
    PutAll(taken);
}

TEST_F(DPoolTest, HandsOutDistinctPayloadsOfElementSizeEachAligned) {
    // 13 is not a multiple of the header word: the elements must still not
    // overlap and every payload must stay aligned.
    for (ULONG size : {kElementSize, 13u, 1u}) {
        DPOOL pool;
        ASSERT_EQ(DPoolInit(&pool, 5, 40, 10, size), STATUS_SUCCESS);
        std::vector<PVOID> taken = TakeUntilGrown(&pool, 55);
        ASSERT_EQ(taken.size(), 55u);
        for (size_t i = 0; i < taken.size(); i++) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(taken[i]) % sizeof(PVOID), 0u);
            memset(taken[i], static_cast<int>(i + 1), size);
        }
        for (size_t i = 0; i < taken.size(); i++) {
            auto bytes = static_cast<const UCHAR*>(taken[i]);
            EXPECT_TRUE(std::all_of(bytes, bytes + size, [&](UCHAR b) { return b == i + 1; }))
                << "payload " << i << " of size " << size << " was overwritten";
        }
        PutAll(taken);
        DPoolExit(&pool);
    }
}

TEST_F(DPoolTest, HandsOutTheLastElementOfABlockFirstAndReusesTheLastReturned) {
    PDPOOL pool = NewPool();
    std::vector<PVOID> taken = TakeUntilGrown(pool, 5);
    ASSERT_EQ(taken.size(), 5u);
    for (size_t i = 1; i < taken.size(); i++)
        EXPECT_LT(taken[i], taken[i - 1]) << "elements leave in reverse block order";

    DPoolPut(taken[2]);
    EXPECT_EQ(pool->Count, 4u);
    EXPECT_EQ(DPoolGet(pool), taken[2]) << "last returned, first handed out";
    EXPECT_EQ(pool->CurrentCount, 5u);
    PutAll(taken);
}

TEST_F(DPoolTest, PutReturnsEachElementToThePoolThatIssuedIt) {
    PDPOOL first = NewPool();
    PDPOOL second = NewPool();

    // Get and put run at raised IRQL, as under the device lock.
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    PVOID fromFirst = DPoolGet(first);
    PVOID fromSecond = DPoolGet(second);
    ASSERT_NE(fromFirst, nullptr);
    ASSERT_NE(fromSecond, nullptr);
    EXPECT_EQ(first->Count, 1u);
    EXPECT_EQ(second->Count, 1u);

    DPoolPut(fromSecond);
    EXPECT_EQ(first->Count, 1u);
    EXPECT_EQ(second->Count, 0u);
    DPoolPut(fromFirst);
    EXPECT_EQ(first->Count, 0u);
    KeLowerIrql(oldIrql);

    EXPECT_EQ(DPoolGet(first), fromFirst);
    EXPECT_EQ(DPoolGet(second), fromSecond);
    DPoolPut(fromFirst);
    DPoolPut(fromSecond);
}

TEST_F(DPoolTest, ExitFreesEveryBlockOnceAllAreReturned) {
    DPOOL pool;
    ASSERT_EQ(DPoolInit(&pool, 5, 40, 10, kElementSize), STATUS_SUCCESS);
    std::vector<PVOID> taken = TakeUntilGrown(&pool, 37);
    ASSERT_EQ(Blocks().blocks, 4u);
    PutAll(taken);
    EXPECT_EQ(pool.Count, 0u);

    DPoolExit(&pool);
    EXPECT_EQ(Blocks().blocks, 0u);
    EXPECT_EQ(MemoryCounter, 0u);
    EXPECT_EQ(pool.CurrentCount, 0u);
    EXPECT_EQ(pool.Head, nullptr);
    EXPECT_FALSE(AssertionPrinted());
}

TEST_F(DPoolTest, ExitWithARecordOutAssertsAndStillFreesTheBlocks) {
    DPOOL pool;
    ASSERT_EQ(DPoolInit(&pool, 5, 40, 10, kElementSize), STATUS_SUCCESS);
    ASSERT_NE(DPoolGet(&pool), nullptr);

    DPoolExit(&pool);
    EXPECT_TRUE(dbg().Contains("ACM:ASSERTION FAILED: (Pool->Count==0)"));
    EXPECT_TRUE(dbg().Contains("  source/cdcacm/dpool("));
    EXPECT_EQ(Blocks().blocks, 0u);
}

TEST_F(DPoolTest, ExitOfAZeroFilledPoolFreesNothing) {
    // A port whose creation failed before its pool was set up deletes the
    // zero-filled pool.
    DPOOL pool;
    RtlZeroMemory(&pool, sizeof(pool));
    DPoolExit(&pool);
    EXPECT_EQ(kernel().pool().Total().blocks, 0u);
    EXPECT_FALSE(AssertionPrinted());
}

TEST_F(DPoolTest, ExitOfNoPoolOnlyAsserts) {
    DPoolExit(nullptr);
    EXPECT_TRUE(dbg().Contains("ACM:ASSERTION FAILED: (Pool!=NULL)"));
}

TEST_F(DPoolTest, FailedFirstBlockFailsInitAndTheNextGetRetries) {
    hk::FaultKnob& knob =
        kernel().pool().Faults().Add("pool", hk::FaultKnob{.nth = 1, .match = DPOOL_TAG});
    NTSTATUS status;
    PDPOOL pool = NewPool(&status);
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_EQ(pool->CurrentCount, 0u);
    EXPECT_EQ(Blocks().blocks, 0u);

    PVOID payload = DPoolGet(pool);
    ASSERT_NE(payload, nullptr) << "the first get allocates the initial block";
    EXPECT_EQ(pool->CurrentCount, 5u);
    DPoolPut(payload);
}

TEST_F(DPoolTest, FailedGrowthRefusesOneGetAndTheNextOneGrows) {
    PDPOOL pool = NewPool();
    std::vector<PVOID> taken = TakeUntilGrown(pool, 5);
    hk::FaultKnob& knob =
        kernel().pool().Faults().Add("pool", hk::FaultKnob{.nth = 1, .match = DPOOL_TAG});

    dbg().Clear();
    EXPECT_EQ(DPoolGet(pool), nullptr);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_TRUE(dbg().Contains("ACMDPoolGet: alloc failed. CurrentCount 5 MaxCount 40"));
    EXPECT_EQ(pool->Count, 5u);
    EXPECT_EQ(pool->CurrentCount, 5u);

    taken.push_back(DPoolGet(pool));
    ASSERT_NE(taken.back(), nullptr);
    EXPECT_EQ(pool->CurrentCount, 15u);
    PutAll(taken);
}

TEST_F(DPoolTest, PoolThatCannotGrowRefusesWithAnAssertion) {
    // Zero initial and growth counts are not used by the driver; the pool
    // refuses instead of handing out nothing.
    DPOOL pool;
    ASSERT_EQ(DPoolInit(&pool, 0, 40, 0, kElementSize), STATUS_SUCCESS);
    EXPECT_EQ(DPoolGet(&pool), nullptr);
    EXPECT_TRUE(dbg().Contains("ACM:ASSERTION FAILED: (Pool->Head!=NULL)"));
    EXPECT_EQ(pool.Count, 0u);
    DPoolExit(&pool);
}

} // namespace
