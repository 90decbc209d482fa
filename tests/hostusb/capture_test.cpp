// The bus capture as a driver engineer reads it: tshark decodes a
// configuration sequence and CDC class requests without a malformed packet.
#include "bus_client.h"

#include "hostusb/capture.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string RunCommand(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return output;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        output.append(chunk, n);
    pclose(pipe);
    return output;
}

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

TEST_F(BusTest, TsharkDecodesAConfigurationSequenceAndLineCoding) {
    if (std::system("command -v tshark >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed here (scripts/install-deps.sh installs it), so "
                        "the capture cannot be decoded";
    std::string file = ::testing::TempDir() + "cdcacm_bus_capture.pcap";
    hu::BusOptions options;
    options.capture_file = file;
    Plug(sm::OrdinaryModem(), hu::Speed::kFull, options);

    ASSERT_TRUE(Wait(GetDescriptor(USB_DEVICE_DESCRIPTOR_TYPE, 0, 18)));
    ASSERT_TRUE(Wait(GetDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 64)));
    ASSERT_TRUE(Wait(GetDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 67)));
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    const std::vector<uint8_t> coding = {0x00, 0xc2, 0x01, 0x00, 0, 0, 8}; // 115200 8N1
    ASSERT_TRUE(
        Wait(ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetLineCoding, 0, 0, coding)));
    ASSERT_TRUE(Wait(
        ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, false, sm::kSetControlLineState, 3, 0, {})));
    ASSERT_TRUE(
        Wait(ClassOrVendor(URB_FUNCTION_CLASS_INTERFACE, true, sm::kGetLineCoding, 0, 0, {}, 7)));
    ASSERT_TRUE(Wait(Transfer(0x01, false, {'A', 'T', '\r'})));
    modem_->Push({'O', 'K'});
    ASSERT_TRUE(Wait(Transfer(0x81, true, {}, 64)));
    Transfer(0x81, true, {}, 64);
    ASSERT_TRUE(Wait(PipeRequest(URB_FUNCTION_ABORT_PIPE, 0x81)));
    pipes_[0x7f] = nullptr;
    Transfer(0x7f, false, {1}); // refused: no such pipe
    bus_->CloseCapture();

    std::string decoded = RunCommand("tshark -r '" + file + "' -V 2>&1");
    std::remove(file.c_str());
    EXPECT_EQ(decoded.find("Malformed"), std::string::npos) << decoded;
    // The CDC dissector names the request and shows its line coding, whose
    // first four bytes are the rate: 115200 little-endian.
    size_t set_line_coding = decoded.find("SET LINE CODING");
    ASSERT_NE(set_line_coding, std::string::npos) << decoded;
    EXPECT_NE(decoded.find("Payload: 00c20100000008", set_line_coding), std::string::npos)
        << decoded;
    EXPECT_NE(decoded.find("GET DESCRIPTOR"), std::string::npos) << decoded;
}

} // namespace
