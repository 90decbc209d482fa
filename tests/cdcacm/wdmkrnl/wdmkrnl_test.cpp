// The kernel helpers and records. The counting pool allocator: blocks carry
// an 8-byte header, the counter follows the caller's bytes, and freed bytes
// are poisoned. (That an exhausted pool gives nothing and counts nothing the
// callers' allocation failure tests show. Its assertions on bad frees and
// sizes guard against driver faults that no input reaches.) Timer objects:
// initialisation stores the relative due time and arms nothing; their firing
// is exercised by the driver's timers. The device context records: pointer
// validation by magic.
#define TRACE_FILE "tests/cdcacm/wdmkrnl"
#include "driver_test.h"

#include "cdcacm.h"

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr ULONG kTag = 0x30747374; // 'tst0'

class MemoryTest : public DriverTest {
  protected:
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

VOID CountCallback(PTIMER_OBJ, PVOID Context) {
    ++*static_cast<int*>(Context);
}

using TimerObjTest = DriverTest;

TEST_F(TimerObjTest, InitStoresA64BitRelativeDueTimeAndDoesNotArm) {
    TIMER_OBJ timer;
    int calls = 0;
    for (auto [ms, due] :
         {std::pair<ULONG, LONGLONG>{500, -5000000}, {0xFFFFFFFFu, -42949672950000LL}, {0, 0}}) {
        InitTimerObj(&timer, CountCallback, &calls, ms);
        EXPECT_EQ(timer.DueTime.QuadPart, due);
    }
    EXPECT_EQ(timer.Context, &calls);
    EXPECT_FALSE(KeCancelTimer(&timer.Timer));
    kernel().Sleep(1000);
    EXPECT_EQ(calls, 0);
}

using RecordsTest = DriverTest;

TEST_F(RecordsTest, PtrValidNeedsAPointerAndItsOwnMagic) {
    PDEVICE none = nullptr;
    EXPECT_FALSE(PTRVALID(none, DEVICE));
    auto device = std::make_unique<DEVICE>();
    device->Magic = DEVICE_MAGIC;
    EXPECT_TRUE(PTRVALID(device.get(), DEVICE));
    device->Magic = PORT_OBJ_MAGIC;
    EXPECT_FALSE(PTRVALID(device.get(), DEVICE)) << "another record's magic";
    SER_PORT serPort{};
    serPort.Magic = SER_PORT_MAGIC;
    EXPECT_TRUE(PTRVALID(&serPort, SER_PORT));
}

} // namespace
