// The bus capture read back record by record. (That tshark decodes a whole
// session's capture is the simulator's capture check.)
#include "bus_client.h"

#include "hostusb/capture.h"

#include <cstdio>
#include <string>

namespace {

// Control records carry the stage byte after a 28-byte header; the setup
// packet follows it.
TEST_F(BusTest, TheCaptureReadsBackRecordByRecord) {
    std::string file = ::testing::TempDir() + "cdcacm_bus_readback.pcap";
    hu::BusOptions options;
    options.capture_file = file;
    Plug(sm::OrdinaryModem(), hu::Speed::kFull, options);
    ASSERT_TRUE(Wait(GetDescriptor(USB_DEVICE_DESCRIPTOR_TYPE, 0, 18)));
    bus_->CloseCapture();
    std::vector<hu::CaptureRecord> records = hu::ReadCapture(file);
    std::remove(file.c_str());
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0].transfer, hu::CaptureTransfer::kControl);
    EXPECT_EQ(records[0].stage, hu::CaptureStage::kSetup);
    EXPECT_FALSE(records[0].completion);
    EXPECT_EQ(records[0].data, (std::vector<uint8_t>{0x80, 0x06, 0x00, 0x01, 0x00, 0x00, 18, 0}));
    EXPECT_TRUE(records.back().completion);
}

} // namespace
