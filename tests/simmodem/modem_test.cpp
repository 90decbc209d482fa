// The simulated modems: the requests a modem answers, records or stalls.
// (The descriptor bytes of the profiles are what the driver's configuration
// tests, the profile files' twins and the simulator's captures read.)
#include "kernel_test.h"

#include "simmodem/simmodem.h"

namespace {

using Bytes = std::vector<uint8_t>;

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
