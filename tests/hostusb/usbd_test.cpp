// The USBD library functions on the modems' configuration descriptors.
#include "kernel_test.h"

#include "hostusb/usb.h"
#include "simmodem/simmodem.h"

namespace {

struct Parse {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    bool start_after_first; // start the search behind the first interface descriptor
    LONG number, alternate, cls, subclass, protocol;
    int found; // bInterfaceNumber, -1: none
};

class ParseTest : public KernelTest, public ::testing::WithParamInterface<Parse> {};

TEST_P(ParseTest, FindsTheFirstMatchingInterface) {
    const Parse& row = GetParam();
    std::vector<uint8_t> bytes =
        sm::ConfigurationBytes(row.profile(hu::Speed::kFull).configurations[0]);
    auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    PVOID start = config;
    if (row.start_after_first)
        start = USBD_ParseConfigurationDescriptorEx(config, config, -1, -1, -1, -1, -1) + 1;
    PUSB_INTERFACE_DESCRIPTOR found = USBD_ParseConfigurationDescriptorEx(
        config, start, row.number, row.alternate, row.cls, row.subclass, row.protocol);
    if (row.found < 0) {
        EXPECT_EQ(found, nullptr);
    } else {
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->bInterfaceNumber, row.found);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Descriptors, ParseTest,
    ::testing::Values(Parse{"ByNumber", sm::OrdinaryModem, false, 1, 0, -1, -1, -1, 1},
                      Parse{"ByClass", sm::OrdinaryModem, false, -1, -1, 0x0a, -1, -1, 1},
                      Parse{"ByClassTriple", sm::OrdinaryModem, false, -1, -1, 2, 2, 1, 0},
                      Parse{"FromAStartPosition", sm::OrdinaryModem, true, -1, -1, -1, -1, -1, 1},
                      Parse{"Absent", sm::OrdinaryModem, false, 2, -1, -1, -1, -1, -1},
                      Parse{"OtherAlternateSetting", sm::OrdinaryModem, false, 0, 1, -1, -1, -1,
                            -1},
                      Parse{"BehindAZeroLengthDescriptor", sm::ZeroLengthDescriptor, false, 1, 0,
                            -1, -1, -1, -1}),
    [](const auto& info) { return std::string(info.param.name); });

struct Request {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    std::vector<ULONG> pipes; // per interface
};

class CreateRequestTest : public KernelTest, public ::testing::WithParamInterface<Request> {};

TEST_P(CreateRequestTest, LaysOutOneInterfaceInformationPerEntry) {
    std::vector<uint8_t> bytes =
        sm::ConfigurationBytes(GetParam().profile(hu::Speed::kFull).configurations[0]);
    auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    USBD_INTERFACE_LIST_ENTRY list[3] = {};
    for (LONG i = 0; i < 2; ++i)
        list[i].InterfaceDescriptor =
            USBD_ParseConfigurationDescriptorEx(config, config, i, 0, -1, -1, -1);
    PURB urb = USBD_CreateConfigurationRequestEx(config, list);
    ASSERT_NE(urb, nullptr);
    EXPECT_EQ(urb->UrbHeader.Function, URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(urb->UrbSelectConfiguration.ConfigurationDescriptor, config);
    ULONG size = sizeof(struct _URB_SELECT_CONFIGURATION) - sizeof(USBD_INTERFACE_INFORMATION);
    PUCHAR at = reinterpret_cast<PUCHAR>(&urb->UrbSelectConfiguration.Interface);
    for (size_t i = 0; i < 2; ++i) {
        PUSBD_INTERFACE_INFORMATION info = list[i].Interface;
        EXPECT_EQ(reinterpret_cast<PUCHAR>(info), at) << "entries follow each other";
        EXPECT_EQ(info->InterfaceNumber, i);
        EXPECT_EQ(info->NumberOfPipes, GetParam().pipes[i]);
        // An interface without endpoints still gets room for one pipe.
        EXPECT_EQ(info->Length, GET_USBD_INTERFACE_SIZE(std::max<ULONG>(1, GetParam().pipes[i])));
        for (ULONG p = 0; p < info->NumberOfPipes; ++p)
            EXPECT_EQ(info->Pipes[p].MaximumTransferSize,
                      ULONG(USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE));
        at += info->Length;
        size += info->Length;
    }
    EXPECT_EQ(urb->UrbHeader.Length, size);
    ExFreePool(urb);
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, CreateRequestTest,
    ::testing::Values(Request{"Ordinary", sm::OrdinaryModem, {1, 2}},
                      Request{"NoInterruptEndpoint", sm::NoInterruptEndpoint, {0, 2}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
