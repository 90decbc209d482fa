// The emulated PnP manager over the simulated bus, with a small function
// driver that attaches to each PDO and passes every PnP request down: eject
// and rebalance vetoes and device interfaces. (Install, start, removal with
// open handles, COM port names, their reuse and a failed start are the
// driver's lifecycle tests and the simulator's demo.)
#include "pnp_bus_test.h"

#include "hostkernel/pnp.h"

#include <string>
#include <vector>

namespace {

const char* const kOrdinary = "USB\\VID_FFF0&PID_0001\\KM0000001";

using PnpManagerTest = PnpBusTest;

struct VetoCase {
    const char* name;
    bool eject; // else rebalance
    UCHAR veto;
    bool done;
    std::vector<UCHAR> after_start;
    hk::PnpState state;
};

VetoCase Veto(const char* name, bool eject, UCHAR veto, bool done, std::vector<UCHAR> after_start,
              hk::PnpState state) {
    return {name, eject, veto, done, after_start, state};
}

class PnpVetoTest : public PnpManagerTest, public ::testing::WithParamInterface<VetoCase> {};

TEST_P(PnpVetoTest, SendsTheQueryThenTheActionOrItsCancel) {
    int port = PlugSettled(sm::OrdinaryModem());
    g_pass_down.veto = GetParam().veto;
    g_pass_down.minors.clear();
    bool done = GetParam().eject ? pnp().Eject(kOrdinary) : pnp().Rebalance(kOrdinary);
    pnp().Settle();
    EXPECT_EQ(done, GetParam().done);
    EXPECT_EQ(g_pass_down.minors, GetParam().after_start);
    EXPECT_EQ(pnp().Device(kOrdinary)->state, GetParam().state);
    EXPECT_TRUE(hk::DeviceExists(bus_->Pdo(port))) << "a PDO still present stays";
}

constexpr UCHAR kNone = 0xFF, kQueryRemove = IRP_MN_QUERY_REMOVE_DEVICE,
                kQueryStop = IRP_MN_QUERY_STOP_DEVICE, kStop = IRP_MN_STOP_DEVICE,
                kStart = IRP_MN_START_DEVICE;

INSTANTIATE_TEST_SUITE_P(
    Actions, PnpVetoTest,
    ::testing::Values(
        Veto("Eject", true, kNone, true, {kQueryRemove, IRP_MN_REMOVE_DEVICE},
             hk::PnpState::kRemoved),
        Veto("EjectVetoed", true, kQueryRemove, false, {kQueryRemove, IRP_MN_CANCEL_REMOVE_DEVICE},
             hk::PnpState::kStarted),
        Veto("Rebalance", false, kNone, true, {kQueryStop, kStop, kStart}, hk::PnpState::kStarted),
        Veto("RebalanceVetoed", false, kQueryStop, false, {kQueryStop, IRP_MN_CANCEL_STOP_DEVICE},
             hk::PnpState::kStarted),
        Veto("FailedRestart", false, kStart, true,
             {kQueryStop, kStop, kStart, IRP_MN_REMOVE_DEVICE}, hk::PnpState::kStartFailed)),
    [](const auto& info) { return std::string(info.param.name); });

const GUID kComPortClass = {
    0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};
const std::u16string kOrdinaryInterface =
    u"\\??\\USB#VID_FFF0&PID_0001#KM0000001#{86e0d1e0-8089-11d0-9ce4-08003e301f73}";

std::u16string Text(const UNICODE_STRING& name) {
    return std::u16string(name.Buffer, name.Length / sizeof(WCHAR));
}

TEST_F(PnpManagerTest, InterfacesAreNamedByInstanceAndLinkedWhileEnabled) {
    int port = PlugSettled(sm::OrdinaryModem());
    PDEVICE_OBJECT pdo = bus_->Pdo(port);
    UNICODE_STRING name;
    ASSERT_EQ(IoRegisterDeviceInterface(pdo, &kComPortClass, nullptr, &name), STATUS_SUCCESS);
    EXPECT_EQ(Text(name), kOrdinaryInterface);
    UNICODE_STRING again;
    ASSERT_EQ(IoRegisterDeviceInterface(pdo, &kComPortClass, nullptr, &again), STATUS_SUCCESS);
    EXPECT_EQ(Text(again), kOrdinaryInterface) << "registered again: the same name";
    RtlFreeUnicodeString(&again);

    struct Step {
        BOOLEAN enable;
        NTSTATUS status;
        bool linked;
    };
    for (Step step : {Step{FALSE, STATUS_OBJECT_NAME_NOT_FOUND, false},
                      Step{TRUE, STATUS_SUCCESS, true}, Step{TRUE, STATUS_OBJECT_NAME_EXISTS, true},
                      Step{FALSE, STATUS_SUCCESS, false}, Step{TRUE, STATUS_SUCCESS, true}}) {
        EXPECT_EQ(IoSetDeviceInterfaceState(&name, step.enable), step.status);
        EXPECT_EQ(hk::FindDevice(kOrdinaryInterface), step.linked ? pdo : nullptr);
    }
    UnplugSettled(port);
    EXPECT_FALSE(hk::SymbolicLinkExists(kOrdinaryInterface)) << "removal disables the interface";
    std::vector<bool> arrivals;
    for (const hk::InterfaceNotification& n : pnp().interfaces().Notifications()) {
        EXPECT_EQ(n.name, kOrdinaryInterface);
        arrivals.push_back(n.arrival);
    }
    EXPECT_EQ(arrivals, (std::vector<bool>{true, false, true, false}));
    RtlFreeUnicodeString(&name);
}

TEST_F(PnpManagerTest, OnlyAPdoTheManagerKnowsGetsAnInterface) {
    int port = PlugSettled(sm::OrdinaryModem());
    UNICODE_STRING name{};
    EXPECT_EQ(
        IoRegisterDeviceInterface(bus_->Pdo(port)->AttachedDevice, &kComPortClass, nullptr, &name),
        STATUS_INVALID_DEVICE_REQUEST);
    UNICODE_STRING unknown;
    RtlInitUnicodeString(&unknown, kOrdinaryInterface.c_str());
    EXPECT_EQ(IoSetDeviceInterfaceState(&unknown, TRUE), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(PnpManagerTest, ADeviceStillInitialisingCannotBeOpened) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\Initialising");
    PDEVICE_OBJECT device;
    ASSERT_EQ(IoCreateDevice(driver_->Object(), 0, &name, FILE_DEVICE_MODEM, 0, FALSE, &device),
              STATUS_SUCCESS);
    hk::File file;
    EXPECT_EQ(file.Open(u"\\Device\\Initialising"), STATUS_NO_SUCH_DEVICE);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    EXPECT_EQ(file.Open(u"\\Device\\Initialising"), STATUS_SUCCESS);
    file.Close();
    IoDeleteDevice(device);
}

// Every unplug frees its port for the next plug, whatever the device
// offered: a device of no function has no device object for the PnP
// manager to remove, and a second association of the same first interface
// gets none (two would be two devices of one instance).
TEST_F(PnpManagerTest, DevicesOfOddFunctionsStillFreeTheirPort) {
    sm::Profile none = sm::OrdinaryModem();
    none.functions = {{}};
    sm::Profile twice = sm::CompositeTwoAcm();
    twice.functions = {{0, 1}, {0, 1}};
    for (const sm::Profile& profile : {none, twice}) {
        SCOPED_TRACE(profile.name);
        int port = PlugSettled(profile);
        EXPECT_EQ(port, 1);
        EXPECT_EQ(bus_->Pdo(port, 1), nullptr);
        UnplugSettled(port);
    }
    EXPECT_EQ(bus_->Diagnostics().back(),
              "a second function of first interface 0: no device object for it");
    EXPECT_EQ(PlugSettled(sm::OrdinaryModem()), 1);
}

} // namespace
