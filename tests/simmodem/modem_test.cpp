// The simulated modems: descriptor bytes of the profiles, the requests a
// modem answers, records or stalls.
#include "kernel_test.h"

#include "simmodem/simmodem.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct ProfileCase {
    const char* name;
    sm::Profile (*make)(hu::Speed);
    uint16_t total_length; // of configuration index 0, as reported
    size_t actual_length;
    uint8_t configurations;
    uint8_t serial_index;
};

class ProfileTest : public KernelTest, public ::testing::WithParamInterface<ProfileCase> {};

TEST_P(ProfileTest, DescriptorBytesFollowTheTables) {
    const ProfileCase& row = GetParam();
    sm::Profile profile = row.make(hu::Speed::kFull);
    Bytes device = sm::DeviceDescriptorBytes(profile);
    ASSERT_EQ(device.size(), 18u);
    EXPECT_EQ(device[16], row.serial_index);
    EXPECT_EQ(device[17], row.configurations);
    Bytes config = sm::ConfigurationBytes(profile.configurations[0]);
    EXPECT_EQ(config.size(), row.actual_length);
    EXPECT_EQ(config[2] | config[3] << 8, row.total_length);
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, ProfileTest,
    ::testing::Values(ProfileCase{"Ordinary", sm::OrdinaryModem, 67, 67, 2, 3},
                      ProfileCase{"SingleConfiguration", sm::SingleConfiguration, 67, 67, 1, 3},
                      ProfileCase{"NoSerialNumber", sm::NoSerialNumber, 67, 67, 2, 0},
                      ProfileCase{"Composite", sm::CompositeTwoAcm, 141, 141, 2, 3},
                      ProfileCase{"NoInterruptEndpoint", sm::NoInterruptEndpoint, 60, 60, 2, 3},
                      ProfileCase{"SingleInterface", sm::SingleInterface, 58, 58, 2, 3},
                      ProfileCase{"GrowingTotalLength", sm::GrowingTotalLength, 200, 67, 2, 3},
                      ProfileCase{"ZeroLengthDescriptor", sm::ZeroLengthDescriptor, 69, 69, 2, 3}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ProfileBytes, HighSpeedBulkPacketsAre512Bytes) {
    Bytes config = sm::ConfigurationBytes(sm::OrdinaryModem(hu::Speed::kHigh).configurations[1]);
    // The data interface's bulk-in endpoint descriptor closes the table.
    EXPECT_EQ(config[config.size() - 14 + 2], 0x81);
    EXPECT_EQ(config[config.size() - 14 + 4] | config[config.size() - 14 + 5] << 8, 512);
    EXPECT_EQ(config[7], USB_CONFIG_BUS_POWERED | USB_CONFIG_REMOTE_WAKEUP);
    EXPECT_EQ(config[8], 250);
}

class ModemTest : public KernelTest {
  protected:
    hu::ControlAnswer Request(uint8_t type, uint8_t request, uint16_t value, uint16_t length,
                              Bytes data = {}) {
        return modem_.Control({type, request, value, 0, length}, data);
    }
    void Configure() { ASSERT_FALSE(Request(0x00, USB_REQUEST_SET_CONFIGURATION, 1, 0).stall); }
    sm::Modem modem_{sm::OrdinaryModem()};
};

// (Break and the special characters are the driver's transport and PPP
// switch tests.)
TEST_F(ModemTest, ClassAndVendorRequestsAreRecordedWithTheirTime) {
    Configure();
    kernel().Sleep(12);
    const Bytes coding = {0x00, 0xc2, 0x01, 0x00, 0, 0, 8};
    EXPECT_FALSE(Request(0x21, sm::kSetLineCoding, 0, 7, coding).stall);
    EXPECT_FALSE(Request(0x21, sm::kSetControlLineState, 3, 0).stall);
    EXPECT_EQ(Request(0xa1, sm::kGetLineCoding, 0, 7).data, coding);
    ASSERT_EQ(modem_.Requests().size(), 3u);
    EXPECT_EQ(modem_.Requests()[0].time_ms, 12);
    EXPECT_EQ(modem_.Requests()[0].data, coding);
    EXPECT_EQ(modem_.ControlLineState(), 3);
}

struct StallCase {
    const char* name;
    bool configured;
    uint8_t type, request;
    uint16_t value, length;
};

class ModemStallTest : public ModemTest, public ::testing::WithParamInterface<StallCase> {};

TEST_P(ModemStallTest, StallsWhatARealModemRefuses) {
    if (GetParam().configured)
        Configure();
    const StallCase& row = GetParam();
    EXPECT_TRUE(Request(row.type, row.request, row.value, row.length).stall);
    EXPECT_TRUE(modem_.Requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, ModemStallTest,
    ::testing::Values(
        StallCase{"ClassBeforeConfiguration", false, 0x21, sm::kSetControlLineState, 0, 0},
        StallCase{"UnknownClassRequest", true, 0x21, 0x42, 0, 0},
        StallCase{"UnknownVendorRequest", true, 0x41, 0x63, 0, 0},
        StallCase{"LineCodingOfWrongLength", true, 0x21, sm::kSetLineCoding, 0, 3},
        StallCase{"UnknownConfiguration", false, 0x00, USB_REQUEST_SET_CONFIGURATION, 7, 0}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
