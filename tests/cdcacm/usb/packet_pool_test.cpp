// The USB packet pool: last in, first out, page-aligned buffers inside
// their slots, fresh IRPs, and a creation that fails half-way.
#include "driver_test.h"

#include "cdcacm.h"

namespace {

class PacketPoolTest : public DriverTest {};

TEST_F(PacketPoolTest, LastReturnedIsFirstTakenAndAnEmptyPoolGivesNone) {
    PUSB_PACKET_POOL pool = UsbPacketPoolCreate(2, 64, 2);
    ASSERT_NE(pool, nullptr);
    PUSB_PACKET first = UsbPacketGet(pool);
    PUSB_PACKET second = UsbPacketGet(pool);
    ASSERT_NE(second, nullptr);
    EXPECT_LT(first, second) << "packets are taken in address order at first";
    EXPECT_EQ(UsbPacketGet(pool), nullptr);
    EXPECT_EQ(pool->Count, 0u);
    UsbPacketPut(first);
    EXPECT_EQ(UsbPacketGet(pool), first);
    UsbPacketPut(second);
    UsbPacketPut(first);
    EXPECT_EQ(UsbPacketGet(pool), first);
    UsbPacketPut(first);
    EXPECT_EQ(pool->Count, pool->PacketCount);
    UsbPacketPoolDelete(pool);
}

TEST_F(PacketPoolTest, EveryGetHandsOutAFreshIrp) {
    PUSB_PACKET_POOL pool = UsbPacketPoolCreate(1, 64, 3);
    PUSB_PACKET packet = UsbPacketGet(pool);
    IoSetNextIrpStackLocation(packet->Irp);
    packet->Irp->IoStatus.Status = STATUS_CANCELLED;
    UsbPacketPut(packet);
    packet = UsbPacketGet(pool);
    EXPECT_EQ(packet->Irp->StackCount, 3);
    EXPECT_EQ(packet->Irp->CurrentLocation, 4);
    EXPECT_EQ(packet->Irp->IoStatus.Status, STATUS_SUCCESS);
    UsbPacketPut(packet);
    UsbPacketPoolDelete(pool);
}

class PacketLayoutTest : public DriverTest, public ::testing::WithParamInterface<ULONG> {};

TEST_P(PacketLayoutTest, BuffersArePageAlignedInsideTheirSlots) {
    const ULONG size = GetParam();
    PUSB_PACKET_POOL pool = UsbPacketPoolCreate(5, size, 2);
    ASSERT_NE(pool, nullptr);
    std::vector<PUSB_PACKET> packets;
    while (PUSB_PACKET packet = UsbPacketGet(pool))
        packets.push_back(packet);
    ASSERT_EQ(packets.size(), 5u);
    for (PUSB_PACKET packet : packets) {
        EXPECT_EQ(uintptr_t(packet->Buffer) % PAGE_SIZE, 0u);
        EXPECT_EQ(packet->BufferSize, size);
        EXPECT_GE(packet->Buffer, reinterpret_cast<PUCHAR>(packet + 1));
        EXPECT_LE(packet->Buffer + size, reinterpret_cast<PUCHAR>(packet) + pool->PacketSize);
        EXPECT_EQ(MmGetMdlVirtualAddress(packet->Mdl), packet->Buffer);
        EXPECT_EQ(MmGetMdlByteCount(packet->Mdl), size);
        EXPECT_EQ(packet->Pool, pool);
    }
    for (PUSB_PACKET packet : packets)
        UsbPacketPut(packet);
    UsbPacketPoolDelete(pool);
}

INSTANTIATE_TEST_SUITE_P(BufferSizes, PacketLayoutTest,
                         ::testing::Values(16u, 4095u, 4097u, 64000u));

TEST_F(PacketPoolTest, ThirdIrpFailingFreesWhatTheFirstTwoHeld) {
    hk::FaultKnob& irp = kernel().pool().Faults().Add(
        "packet irp", hk::FaultKnob{.nth = 3, .match = USB_PACKET_IRP_TAG});
    EXPECT_EQ(UsbPacketPoolCreate(5, 64, 2), nullptr);
    EXPECT_EQ(irp.fired, 1u);
    EXPECT_EQ(kernel().pool().ForTag(USB_PACKET_IRP_TAG).blocks, 0u);
    EXPECT_EQ(kernel().pool().ForTag(USB_PACKET_POOL_TAG).blocks, 0u);
    EXPECT_EQ(kernel().pool().ForTag(0x206c644d /* 'Mdl ' */).blocks, 0u);
}

} // namespace
