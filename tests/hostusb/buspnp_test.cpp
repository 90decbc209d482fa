// The bus driver's PnP side as the PnP manager meets it: the IDs and
// capabilities of a function's PDO, and transfers failing at a surprise
// removal. (Texts, bus relations and the state requests reach the bus through
// the whole stack in the driver's lifecycle tests.)
#include "bus_client.h"

#include "hostkernel/pnp.h"

#include <string>
#include <vector>

namespace {

constexpr uint8_t kBulkIn = 0x81;

// The strings of an answer from paged pool, which the caller frees.
std::vector<std::string> TakeStrings(const hk::PnpAnswer& answer, bool multi) {
    std::vector<std::string> strings;
    auto* text = reinterpret_cast<const WCHAR*>(answer.information);
    if (text == nullptr)
        return strings;
    EXPECT_TRUE(hk::Kernel::Current().pool().IsPaged(text)) << "answers come from paged pool";
    for (const WCHAR* at = text; *at != 0 || strings.empty(); ++at) {
        std::string one;
        for (; *at != 0; ++at)
            one += char(*at);
        strings.push_back(one);
        if (!multi)
            break;
    }
    ExFreePool(const_cast<WCHAR*>(text));
    return strings;
}

class BusPnpTest : public BusTest {
  protected:
    hk::PnpAnswer Query(UCHAR minor, PDEVICE_OBJECT to = nullptr,
                        const std::function<void(IO_STACK_LOCATION&)>& fill = {}) {
        return hk::PnpManager::Send(to ? to : pdo_, minor, fill);
    }
    std::vector<std::string> Ids(BUS_QUERY_ID_TYPE type, size_t function, NTSTATUS* status) {
        hk::PnpAnswer answer =
            Query(IRP_MN_QUERY_ID, bus_->Pdo(port_, function),
                  [&](IO_STACK_LOCATION& s) { s.Parameters.QueryId.IdType = type; });
        *status = answer.status;
        return TakeStrings(answer, type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs);
    }
};

struct IdCase {
    const char* name;
    sm::Profile (*profile)(hu::Speed);
    size_t function;
    BUS_QUERY_ID_TYPE type;
    std::vector<std::string> strings;
    NTSTATUS status;
};

IdCase Id(const char* name, sm::Profile (*profile)(hu::Speed), size_t function,
          BUS_QUERY_ID_TYPE type, std::vector<std::string> strings,
          NTSTATUS status = STATUS_SUCCESS) {
    return {name, profile, function, type, strings, status};
}

class BusIdTest : public BusPnpTest, public ::testing::WithParamInterface<IdCase> {};

TEST_P(BusIdTest, AnswersAsAUsbBusDriver) {
    Plug(GetParam().profile(hu::Speed::kFull));
    NTSTATUS status;
    EXPECT_EQ(Ids(GetParam().type, GetParam().function, &status), GetParam().strings);
    EXPECT_EQ(status, GetParam().status);
}

const std::vector<std::string> kCompatible = {"USB\\Class_02&SubClass_02&Prot_01",
                                              "USB\\Class_02&SubClass_02", "USB\\Class_02"};
const auto kOrdinary = sm::OrdinaryModem, kNoSerial = sm::NoSerialNumber,
           kComposite = sm::CompositeTwoAcm;

INSTANTIATE_TEST_SUITE_P(
    Ids, BusIdTest,
    ::testing::Values(
        Id("Device", kOrdinary, 0, BusQueryDeviceID, {"USB\\VID_FFF0&PID_0001"}),
        Id("Hardware", kOrdinary, 0, BusQueryHardwareIDs,
           {"USB\\VID_FFF0&PID_0001&REV_0100", "USB\\VID_FFF0&PID_0001"}),
        Id("Compatible", kOrdinary, 0, BusQueryCompatibleIDs, kCompatible),
        Id("InstanceIsTheSerial", kOrdinary, 0, BusQueryInstanceID, {"KM0000001"}),
        Id("InstanceWithoutSerialIsThePorts", kNoSerial, 0, BusQueryInstanceID, {"1&0&1"}),
        Id("NoSerialKeepsTheStatus", kNoSerial, 0, BusQueryDeviceSerialNumber, {},
           STATUS_NOT_SUPPORTED),
        Id("CompositeDevice", kComposite, 1, BusQueryDeviceID, {"USB\\VID_FFF0&PID_0001&MI_02"}),
        Id("CompositeHardware", kComposite, 1, BusQueryHardwareIDs,
           {"USB\\VID_FFF0&PID_0001&REV_0100&MI_02", "USB\\VID_FFF0&PID_0001&MI_02"}),
        Id("CompositeCompatible", kComposite, 1, BusQueryCompatibleIDs, kCompatible)),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BusPnpTest, CapabilitiesAreAUsbDevicesWithAUniqueIdOnlyWithASerialNumber) {
    for (auto* profile : {sm::OrdinaryModem, sm::NoSerialNumber}) {
        Plug(profile(hu::Speed::kFull));
        bool wake = (modem_->profile().configurations[0].attributes & 0x20) != 0;
        DEVICE_CAPABILITIES caps{};
        caps.Size = sizeof caps;
        caps.Version = 1;
        hk::PnpAnswer answer = Query(IRP_MN_QUERY_CAPABILITIES, nullptr, [&](IO_STACK_LOCATION& s) {
            s.Parameters.DeviceCapabilities.Capabilities = &caps;
        });
        SCOPED_TRACE(modem_->profile().name);
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(caps.UniqueID, profile == sm::OrdinaryModem ? 1u : 0u);
        EXPECT_EQ(caps.Removable, 1u);
        EXPECT_EQ(caps.SurpriseRemovalOK, 0u);
        EXPECT_EQ(caps.Address, ULONG(port_));
        EXPECT_EQ(caps.DeviceState[PowerSystemWorking], PowerDeviceD0);
        EXPECT_EQ(caps.DeviceState[PowerSystemSleeping3], wake ? PowerDeviceD2 : PowerDeviceD3);
        EXPECT_EQ(caps.DeviceState[PowerSystemHibernate], PowerDeviceD3);
        EXPECT_EQ(caps.DeviceState[PowerSystemShutdown], PowerDeviceD3);
        bus_->Unplug(port_);
        port_ = 0;
    }
}

// A surprise removal fails the function's pending and later transfers, even
// with the modem still in its port.
TEST_F(BusPnpTest, SurpriseRemovalFailsPendingAndLaterTransfers) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    EXPECT_EQ(Query(IRP_MN_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    for (BusRequest* request : {pending, Transfer(kBulkIn, true, {}, 64)}) {
        ASSERT_TRUE(Wait(request));
        EXPECT_EQ(request->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    }
}

} // namespace
