// Descriptors and configuration selection against the simulated modems:
// the configuration chosen by hub power, descriptors longer than the first
// read, the endpoints found, and the failures that leave the device
// unconfigured.
#include "usb_fixture.h"

namespace {

struct Choice {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    bool hub_self_powered;
    bool hub_query_fails;
    ULONG high_power_cfg;
    uint8_t configuration_value; // what the bus selected: 2 is the high-power one
};

class ConfigChoiceTest : public UsbDeviceTest, public ::testing::WithParamInterface<Choice> {};

TEST_P(ConfigChoiceTest, ChoosesByHubPowerAndFindsTheEndpoints) {
    const Choice& row = GetParam();
    hu::BusOptions options;
    options.hub_self_powered = row.hub_self_powered;
    Start(row.profile(hu::Speed::kFull), options);
    dev_->Cfg.HighPowerCfg = row.high_power_cfg;
    hu::UsbFaultKnob hub_knob;
    hub_knob.nth = row.hub_query_fails ? 1 : 0;
    hu::UsbFaultKnob& hub = bus_->AddFault(hu::Fault::kHubQueryFail, hub_knob);

    ASSERT_EQ(Configure(), STATUS_SUCCESS);
    EXPECT_EQ(bus_->ConfigurationValue(port_), row.configuration_value);
    EXPECT_EQ(hub.calls != 0, row.profile != sm::SingleConfiguration) << "one choice asks no hub";
    EXPECT_EQ(dev_->Cfg.UsbConfig, row.configuration_value);
    EXPECT_EQ(usb_->ConfigIndex, row.configuration_value - 1);
    EXPECT_EQ(dev_->RemoteWakeup, row.configuration_value == 2);
    EXPECT_TRUE(dbg().Contains(std::string("ACM:COM7:Hub supports cuurrent up to ") +
                               (row.configuration_value == 2 ? "500 mA" : "100 mA")));
    EXPECT_EQ(dbg().Contains("ACM:COM7:InitUsbDevice:GetHubInfo failed c0000001"),
              row.hub_query_fails);
    EXPECT_EQ(dev_->Cfg.DataInPipe, 0x81u);
    EXPECT_EQ(dev_->Cfg.DataOutPipe, 0x01u);
    EXPECT_EQ(dev_->Cfg.IntInPipe, 0x82u);
    EXPECT_EQ(dev_->Cfg.UsbInterface, 0u);
    EXPECT_EQ(usb_->DataInterface, 1);
    ASSERT_NE(dev_->ReceivePipe.Pipe, nullptr);
    EXPECT_EQ(dev_->ReceivePipe.Pipe->PipeType, UsbdPipeTypeBulk);
    EXPECT_EQ(dev_->ReceivePipe.Pipe->MaximumTransferSize, ULONG(USB_CFG_MAX_TRANSFER_SIZE));
    ASSERT_NE(dev_->IntPipe.Pipe, nullptr);
    EXPECT_EQ(dev_->IntPipe.Pipe->MaximumPacketSize, 16);
}

INSTANTIATE_TEST_SUITE_P(
    HubPower, ConfigChoiceTest,
    ::testing::Values(Choice{"OneConfiguration", sm::SingleConfiguration, true, false, 1, 1},
                      Choice{"SelfPoweredHub", sm::OrdinaryModem, true, false, 1, 2},
                      Choice{"HighPowerIndexBeyondTheLast", sm::OrdinaryModem, true, false, 5, 2},
                      Choice{"BusPoweredHub", sm::OrdinaryModem, false, false, 1, 1},
                      Choice{"HubQueryFails", sm::OrdinaryModem, true, true, 1, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(UsbDeviceTest, SecondFunctionOfACompositeModemUsesItsOwnInterfaces) {
    Start(sm::CompositeTwoAcm(), {}, 1);
    ASSERT_EQ(Configure(), STATUS_SUCCESS);
    EXPECT_EQ(dev_->Cfg.UsbInterface, 2u);
    EXPECT_EQ(usb_->DataInterface, 3);
    EXPECT_EQ(dev_->Cfg.DataInPipe, 0x83u);
    EXPECT_EQ(dev_->Cfg.DataOutPipe, 0x03u);
    EXPECT_EQ(dev_->Cfg.IntInPipe, 0x84u);
}

TEST_F(UsbDeviceTest, LongConfigurationIsReadInTwoRequests) {
    Start(sm::OrdinaryModem());
    uint64_t before = Urbs();
    ULONG length = 0;
    PUSB_CONFIGURATION_DESCRIPTOR config = nullptr;
    ASSERT_EQ(GetConfigDescAndAlloc(usb_, 0, &length, &config), STATUS_SUCCESS);
    EXPECT_EQ(Urbs() - before, 2u);
    EXPECT_EQ(length, 67u);
    EXPECT_EQ(config->wTotalLength, 67);
    EXPECT_TRUE(dbg().Contains(
        "ACM:COM7:GetConfigDescAndAlloc: Default buffer size is to small, retry with 00000043"));
    MemFree(config);
}

TEST_F(UsbDeviceTest, LengthThatKeepsGrowingFailsAfterTheSecondRead) {
    Start(sm::GrowingTotalLength());
    uint64_t before = Urbs();
    ULONG length = 1;
    PUSB_CONFIGURATION_DESCRIPTOR config = nullptr;
    EXPECT_EQ(GetConfigDescAndAlloc(usb_, 0, &length, &config), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Urbs() - before, 2u);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(config, nullptr);
}

struct Refused {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    const char* trace;
};

class ConfigRefusedTest : public UsbDeviceTest, public ::testing::WithParamInterface<Refused> {};

TEST_P(ConfigRefusedTest, LeavesTheDeviceUnconfigured) {
    Start(GetParam().profile(hu::Speed::kFull));
    EXPECT_EQ(Configure(), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(dbg().Contains(GetParam().trace)) << GetParam().trace;
    EXPECT_FALSE(usb_->Configured);
    EXPECT_EQ(usb_->ConfigDescriptor, nullptr);
    EXPECT_TRUE(IsListEmpty(&usb_->PipeList));
    EXPECT_TRUE(IsListEmpty(&usb_->InterfaceList));
    EXPECT_EQ(dev_->ReceivePipe.Pipe, nullptr);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, ConfigRefusedTest,
    ::testing::Values(Refused{"SingleInterface", sm::SingleInterface,
                              "ACM:COM7:Interface (ff,0) not found in config descriptor"},
                      Refused{"NoInterruptEndpoint", sm::NoInterruptEndpoint,
                              "ACM:COM7:Cannot find interrupt USB pipe"},
                      // The scan stops at the descriptor of bLength 0, before the data
                      // interface.
                      Refused{"ZeroLengthDescriptorEndsTheScan", sm::ZeroLengthDescriptor,
                              "ACM:COM7:Interface (ff,0) not found in config descriptor"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(UsbDeviceTest, DeselectReturnsTheDeviceToUnconfigured) {
    Start(sm::OrdinaryModem());
    ASSERT_EQ(Configure(), STATUS_SUCCESS);
    EXPECT_EQ(UnconfigureDevice(usb_, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(bus_->ConfigurationValue(port_), 0);
    EXPECT_FALSE(usb_->Configured);
    EXPECT_TRUE(IsListEmpty(&usb_->PipeList));
    EXPECT_TRUE(dbg().Contains("ACM:Delete Pipe EP:82"));
    EXPECT_TRUE(dbg().Contains("ACM:Delete Interface 01"));
}

TEST_F(UsbDeviceTest, StringDescriptorsAndTheMissingSerialNumber) {
    Start(sm::NoSerialNumber());
    ASSERT_EQ(GetDeviceDescriptor(usb_, &dev_->DeviceDescriptor), STATUS_SUCCESS);
    EXPECT_EQ(dev_->DeviceDescriptor.iSerialNumber, 0);
    EXPECT_EQ(dev_->DeviceDescriptor.bNumConfigurations, 2);
    UCHAR buffer[MAXIMUM_USB_STRING_LENGTH];
    ULONG length = sizeof buffer;
    ASSERT_EQ(GetStringDescriptor(usb_, 2, 0x0409, buffer, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 2u + 2 * 15) << "\"Korva USB Modem\" in UTF-16";
    length = sizeof buffer;
    EXPECT_EQ(ULONG(GetStringDescriptor(usb_, 3, 0x0409, buffer, &length)), 0xE0000004u);
    EXPECT_TRUE(
        dbg().Contains("ACM:COM7:GetStringDescriptor: SubmitUrbAndWait failed (E0000004)."));
}

TEST_F(UsbDeviceTest, PortResetAndItsFailure) {
    Start(sm::OrdinaryModem());
    EXPECT_EQ(ResetDevice(dev_), STATUS_SUCCESS);
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    bus_->AddFault(hu::Fault::kResetPortFail, knob);
    EXPECT_EQ(ResetDevice(dev_), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(dbg().Contains("ACM:COM7:]ResetDevice (-1073741823)"));
}

} // namespace
