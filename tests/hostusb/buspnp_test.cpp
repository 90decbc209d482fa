// The bus driver's PnP side as the PnP manager meets it: the IDs, texts and
// capabilities of a function's PDO, the hub's bus relations, and transfers
// failing at a surprise removal. (The state requests reach the bus through
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
    NTSTATUS status;
    std::vector<std::string> strings;
};

class BusIdTest : public BusPnpTest, public ::testing::WithParamInterface<IdCase> {};

TEST_P(BusIdTest, AnswersAsAUsbBusDriver) {
    Plug(GetParam().profile(hu::Speed::kFull));
    NTSTATUS status;
    EXPECT_EQ(Ids(GetParam().type, GetParam().function, &status), GetParam().strings);
    EXPECT_EQ(status, GetParam().status);
}

const std::vector<std::string> kCompatible = {"USB\\Class_02&SubClass_02&Prot_01",
                                              "USB\\Class_02&SubClass_02", "USB\\Class_02"};

INSTANTIATE_TEST_SUITE_P(
    Ids, BusIdTest,
    ::testing::Values(IdCase{"Device",
                             sm::OrdinaryModem,
                             0,
                             BusQueryDeviceID,
                             STATUS_SUCCESS,
                             {"USB\\VID_FFF0&PID_0001"}},
                      IdCase{"Hardware",
                             sm::OrdinaryModem,
                             0,
                             BusQueryHardwareIDs,
                             STATUS_SUCCESS,
                             {"USB\\VID_FFF0&PID_0001&REV_0100", "USB\\VID_FFF0&PID_0001"}},
                      IdCase{"Compatible", sm::OrdinaryModem, 0, BusQueryCompatibleIDs,
                             STATUS_SUCCESS, kCompatible},
                      IdCase{"InstanceIsTheSerial",
                             sm::OrdinaryModem,
                             0,
                             BusQueryInstanceID,
                             STATUS_SUCCESS,
                             {"KM0000001"}},
                      IdCase{"InstanceWithoutSerialIsThePorts",
                             sm::NoSerialNumber,
                             0,
                             BusQueryInstanceID,
                             STATUS_SUCCESS,
                             {"1&0&1"}},
                      IdCase{"NoSerialKeepsTheStatus",
                             sm::NoSerialNumber,
                             0,
                             BusQueryDeviceSerialNumber,
                             STATUS_NOT_SUPPORTED,
                             {}},
                      IdCase{"CompositeDevice",
                             sm::CompositeTwoAcm,
                             1,
                             BusQueryDeviceID,
                             STATUS_SUCCESS,
                             {"USB\\VID_FFF0&PID_0001&MI_02"}},
                      IdCase{"CompositeHardware",
                             sm::CompositeTwoAcm,
                             1,
                             BusQueryHardwareIDs,
                             STATUS_SUCCESS,
                             {"USB\\VID_FFF0&PID_0001&REV_0100&MI_02",
                              "USB\\VID_FFF0&PID_0001&MI_02"}},
                      IdCase{"CompositeCompatible", sm::CompositeTwoAcm, 1, BusQueryCompatibleIDs,
                             STATUS_SUCCESS, kCompatible}),
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

TEST_F(BusPnpTest, TextsNameTheProductAndThePort) {
    Plug(sm::OrdinaryModem());
    for (auto [type_, text] : {std::pair{DeviceTextDescription, "Korva USB Modem"},
                               std::pair{DeviceTextLocationInformation, "Port_#0001.Hub_#0001"}}) {
        // Lambdas capture variables, not structured bindings (C++17).
        DEVICE_TEXT_TYPE type = type_;
        hk::PnpAnswer answer = Query(IRP_MN_QUERY_DEVICE_TEXT, nullptr, [&](IO_STACK_LOCATION& s) {
            s.Parameters.QueryDeviceText.DeviceTextType = type;
        });
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(TakeStrings(answer, false), std::vector<std::string>{text});
    }
}

TEST_F(BusPnpTest, HubReportsEveryFunctionReferencedAndKeepsOtherQueriesStatus) {
    Plug(sm::CompositeTwoAcm());
    LONG before = bus_->Pdo(port_, 1)->ReferenceCount;
    hk::PnpAnswer answer =
        Query(IRP_MN_QUERY_DEVICE_RELATIONS, bus_->HubDevice(),
              [](IO_STACK_LOCATION& s) { s.Parameters.QueryDeviceRelations.Type = BusRelations; });
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(answer.information);
    ASSERT_EQ(relations->Count, 2u);
    EXPECT_EQ(relations->Objects[0], bus_->Pdo(port_, 0));
    EXPECT_EQ(relations->Objects[1], bus_->Pdo(port_, 1));
    EXPECT_EQ(bus_->Pdo(port_, 1)->ReferenceCount, before + 1);
    for (ULONG i = 0; i < relations->Count; ++i)
        ObDereferenceObject(relations->Objects[i]);
    ExFreePool(relations);
    answer = Query(IRP_MN_QUERY_DEVICE_RELATIONS, bus_->HubDevice(), [](IO_STACK_LOCATION& s) {
        s.Parameters.QueryDeviceRelations.Type = RemovalRelations;
    });
    EXPECT_EQ(answer.status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(answer.information, 0u);
}

// A surprise removal fails the function's pending and later transfers; a
// removal of a device still in its port keeps its PDO for the next start,
// after which transfers run again.
TEST_F(BusPnpTest, RemovalFailsTransfersAndAPresentDeviceStartsAgain) {
    Plug(sm::OrdinaryModem());
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    BusRequest* pending = Transfer(kBulkIn, true, {}, 64);
    EXPECT_EQ(Query(IRP_MN_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    ASSERT_TRUE(Wait(pending));
    EXPECT_EQ(pending->UsbStatus(), USBD_STATUS_DEVICE_GONE);
    BusRequest* later = Transfer(kBulkIn, true, {}, 64);
    ASSERT_TRUE(Wait(later));
    EXPECT_EQ(later->UsbStatus(), USBD_STATUS_DEVICE_GONE);

    EXPECT_EQ(Query(IRP_MN_REMOVE_DEVICE).status, STATUS_SUCCESS);
    kernel().Sleep(1);
    ASSERT_TRUE(hk::DeviceExists(pdo_));
    EXPECT_EQ(Query(IRP_MN_START_DEVICE).status, STATUS_SUCCESS);
    modem_->Push({1, 2, 3});
    BusRequest* again = Transfer(kBulkIn, true, {}, 64);
    ASSERT_TRUE(Wait(again));
    EXPECT_EQ(again->UsbStatus(), USBD_STATUS_SUCCESS);
}

} // namespace
