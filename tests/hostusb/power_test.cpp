// Power over the simulated bus: a refused sleep and misrouted power IRPs,
// with a small power policy owner attached to each modem's PDO (a whole
// sleep and wake is the driver's power tests and the simulator's demo);
// PoRequestPowerIrp and the power IRP rules of the verifier; the bus's
// wait-wake answers, remote wake-up and suspended data.
#include "pnp_bus_test.h"

#include "hostkernel/pnp.h"
#include "hostkernel/power.h"

#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr ULONG kIrpTag = 0x20707249; // 'Irp ', the I/O manager's IRPs

enum class Misstep { kNone, kVetoQuery, kAnswerQuery, kNoStartNext, kIoCallDriver };

// How the policy owner misbehaves.
Misstep g_misstep = Misstep::kNone;

// A requested power IRP's completion function, and what it was told.
struct Requested {
    KEVENT done;
    bool called = false;
    NTSTATUS status = STATUS_PENDING;
    PDEVICE_OBJECT device = nullptr;
    UCHAR minor = 0xFF;
    POWER_STATE state{};
    Requested() { KeInitializeEvent(&done, NotificationEvent, FALSE); }
};

VOID NTAPI Record(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state, PVOID context,
                  PIO_STATUS_BLOCK io) {
    auto* r = static_cast<Requested*>(context);
    r->called = true;
    r->status = io->Status;
    r->device = device;
    r->minor = minor;
    r->state = state;
    KeSetEvent(&r->done, IO_NO_INCREMENT, FALSE);
}

NTSTATUS Request(PDEVICE_OBJECT target, UCHAR minor, ULONG state, Requested* r,
                 PIRP* irp = nullptr) {
    POWER_STATE power;
    if (minor == IRP_MN_WAIT_WAKE)
        power.SystemState = SYSTEM_POWER_STATE(state);
    else
        power.DeviceState = DEVICE_POWER_STATE(state);
    return PoRequestPowerIrp(target, minor, power, Record, r, irp);
}

// The device's power policy owner: a system set-power becomes a device
// set-power (D2 to sleep, D3 below, D0 to work), requested and waited for
// before the system IRP goes on.
NTSTATUS NTAPI OwnerPower(PDEVICE_OBJECT fdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    bool system = stack->MinorFunction != IRP_MN_WAIT_WAKE &&
                  stack->Parameters.Power.Type == SystemPowerState;
    // Refused, or answered here without PoStartNextPowerIrp.
    bool veto = g_misstep == Misstep::kVetoQuery;
    if (system && stack->MinorFunction == IRP_MN_QUERY_POWER &&
        (veto || g_misstep == Misstep::kAnswerQuery)) {
        if (veto)
            PoStartNextPowerIrp(irp);
        irp->IoStatus.Status = veto ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return veto ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
    }
    if (system && stack->MinorFunction == IRP_MN_SET_POWER) {
        SYSTEM_POWER_STATE to = stack->Parameters.Power.State.SystemState;
        Requested device;
        Request(fdo, IRP_MN_SET_POWER,
                to == PowerSystemWorking     ? PowerDeviceD0
                : to <= PowerSystemSleeping3 ? PowerDeviceD2
                                             : PowerDeviceD3,
                &device);
        KeWaitForSingleObject(&device.done, Executive, KernelMode, FALSE, nullptr);
    }
    if (g_misstep != Misstep::kNoStartNext)
        PoStartNextPowerIrp(irp);
    PDEVICE_OBJECT lower = LowerOf(fdo);
    IoSkipCurrentIrpStackLocation(irp);
    return g_misstep == Misstep::kIoCallDriver ? IoCallDriver(lower, irp)
                                               : PoCallDriver(lower, irp);
}

// A modem whose only configuration may wake the host.
sm::Profile WakingModem() {
    sm::Profile profile = sm::OrdinaryModem();
    profile.configurations.erase(profile.configurations.begin());
    return profile;
}

class PowerManagerTest : public PnpBusTest {
  protected:
    void Install(PDRIVER_OBJECT driver) override {
        g_misstep = Misstep::kNone;
        driver->MajorFunction[IRP_MJ_POWER] = OwnerPower;
    }
    hk::PowerManager& power() { return kernel().power(); }
};

TEST_F(PowerManagerTest, ARefusedQueryReaffirmsTheWorkingStateToTheStacksAsked) {
    int port = PlugSettled(sm::CompositeTwoAcm());
    g_misstep = Misstep::kVetoQuery;
    EXPECT_FALSE(power().Sleep(PowerSystemSleeping3));
    EXPECT_EQ(power().State(), PowerSystemWorking);
    std::vector<std::pair<UCHAR, SYSTEM_POWER_STATE>> sent;
    for (const hk::PowerRequest& r : power().Requests())
        sent.emplace_back(r.minor, r.state);
    EXPECT_EQ(sent, (std::vector<std::pair<UCHAR, SYSTEM_POWER_STATE>>{
                        {IRP_MN_QUERY_POWER, PowerSystemSleeping3},
                        {IRP_MN_SET_POWER, PowerSystemWorking}}))
        << "the second stack is never asked";
    power().Wake();
    EXPECT_EQ(power().Requests().size(), 2u) << "a working system is not woken";
    EXPECT_EQ(power().SendSystemIrp(bus_->Pdo(port, 1), IRP_MN_QUERY_POWER, PowerSystemSleeping1,
                                    PowerActionSleep),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(power().Requests().back().instance, pnp().Instances()[1]);
}

// The query, the system set-power and the device set-power inside it are
// each passed on wrongly once, or the query is completed wrongly; a
// wait-wake IRP needs no PoStartNextPowerIrp.
TEST_F(PowerManagerTest, EachPowerIrpPassedOnWronglyIsReported) {
    int port = PlugSettled(WakingModem());
    g_misstep = Misstep::kNoStartNext;
    Requested wake;
    PIRP irp = nullptr;
    ASSERT_EQ(Request(bus_->Pdo(port), IRP_MN_WAIT_WAKE, PowerSystemSleeping3, &wake, &irp),
              STATUS_PENDING);
    struct {
        Misstep misstep;
        const char* rule;
        uint64_t count;
    } cases[] = {{Misstep::kNoStartNext, hk::rule::kPowerIrpNotStarted, 3},
                 {Misstep::kAnswerQuery, hk::rule::kPowerIrpNotStarted, 1},
                 {Misstep::kIoCallDriver, hk::rule::kPowerIrpIoCallDriver, 3}};
    for (const auto& c : cases) {
        g_misstep = c.misstep;
        hk::ExpectViolation expect(c.rule);
        power().Sleep(PowerSystemSleeping3);
        EXPECT_EQ(expect.Count(), c.count) << c.rule;
        g_misstep = Misstep::kNone;
        power().Wake();
    }
    IoCancelIrp(irp);
    kernel().Sleep(1);
    EXPECT_EQ(wake.status, STATUS_CANCELLED);
}

// The bus alone: power IRPs sent straight to a modem's PDO.
class BusPowerTest : public BusTest {
  protected:
    void SetUp() override {
        BusTest::SetUp();
        Plug(sm::OrdinaryModem());
    }
    NTSTATUS SetDevice(DEVICE_POWER_STATE state) {
        Requested r;
        EXPECT_EQ(Request(pdo_, IRP_MN_SET_POWER, state, &r), STATUS_PENDING);
        return r.called ? r.status : STATUS_PENDING;
    }
};

TEST_F(BusPowerTest, PoRequestPowerIrpRefusesWithoutCallingBackAndCallsBackOnce) {
    Requested r;
    PIRP irp = nullptr;
    EXPECT_EQ(Request(pdo_, IRP_MN_POWER_SEQUENCE, PowerDeviceD0, &r, &irp),
              STATUS_INVALID_PARAMETER_2);
    hk::FaultKnob& knob =
        kernel().pool().Faults().Add("irp", hk::FaultKnob{.nth = 1, .match = kIrpTag});
    EXPECT_EQ(Request(pdo_, IRP_MN_SET_POWER, PowerDeviceD2, &r, &irp),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_FALSE(r.called);
    EXPECT_EQ(irp, nullptr);
    EXPECT_EQ(Request(pdo_, IRP_MN_SET_POWER, PowerDeviceD2, &r, &irp), STATUS_PENDING);
    EXPECT_NE(irp, nullptr);
    EXPECT_EQ(std::make_tuple(r.called, r.status, r.device, r.minor, r.state.DeviceState),
              std::make_tuple(true, STATUS_SUCCESS, pdo_, UCHAR(IRP_MN_SET_POWER), PowerDeviceD2));
    EXPECT_EQ(hk::LiveIrps(), 0u) << "freed after the completion function";
    Requested hub;
    EXPECT_EQ(Request(bus_->HubDevice(), IRP_MN_QUERY_POWER, PowerDeviceD2, &hub), STATUS_PENDING);
    EXPECT_EQ(hub.status, STATUS_SUCCESS) << "the hub answers as a PDO does";
}

enum class Then { kNothing, kSecond, kCancel, kSurprise, kRemoval, kSignal, kSignalFirst };

struct WaitWakeCase {
    const char* name;
    size_t configuration; // index 1 may wake the host
    SYSTEM_POWER_STATE from;
    DEVICE_POWER_STATE device;
    Then then;
    NTSTATUS status; // of the wait-wake IRP (the second for kSecond); pending: still waiting
};

class WaitWakeTest : public BusPowerTest, public ::testing::WithParamInterface<WaitWakeCase> {};

TEST_P(WaitWakeTest, AnswersAsABusDriver) {
    const WaitWakeCase& c = GetParam();
    ASSERT_EQ(Select(c.configuration), STATUS_SUCCESS);
    ASSERT_EQ(SetDevice(c.device), STATUS_SUCCESS);
    if (c.then == Then::kSignalFirst)
        modem_->SignalRemoteWakeup();
    Requested r, second;
    PIRP irp = nullptr;
    ASSERT_EQ(Request(pdo_, IRP_MN_WAIT_WAKE, c.from, &r, &irp), STATUS_PENDING);
    if (c.then == Then::kSecond)
        Request(pdo_, IRP_MN_WAIT_WAKE, c.from, &second);
    else if (c.then == Then::kCancel)
        EXPECT_TRUE(IoCancelIrp(irp));
    else if (c.then == Then::kSurprise || c.then == Then::kRemoval)
        hk::PnpManager::Send(pdo_, c.then == Then::kRemoval ? IRP_MN_REMOVE_DEVICE
                                                            : IRP_MN_SURPRISE_REMOVAL);
    else if (c.then == Then::kSignal)
        modem_->SignalRemoteWakeup();
    kernel().Sleep(1);
    const Requested& checked = c.then == Then::kSecond ? second : r;
    EXPECT_EQ(checked.called ? checked.status : STATUS_PENDING, c.status);
    if (!r.called) {
        IoCancelIrp(irp);
        kernel().Sleep(1);
        EXPECT_EQ(r.status, STATUS_CANCELLED);
    }
}

constexpr SYSTEM_POWER_STATE kS3 = PowerSystemSleeping3, kS4 = PowerSystemHibernate;
constexpr DEVICE_POWER_STATE kD0 = PowerDeviceD0, kD2 = PowerDeviceD2, kD3 = PowerDeviceD3;

INSTANTIATE_TEST_SUITE_P(
    Cases, WaitWakeTest,
    ::testing::Values(
        WaitWakeCase{"Pending", 1, kS3, kD2, Then::kNothing, STATUS_PENDING},
        WaitWakeCase{"Busy", 1, kS3, kD0, Then::kSecond, STATUS_DEVICE_BUSY},
        WaitWakeCase{"NoRemoteWakeup", 0, kS3, kD0, Then::kNothing, STATUS_NOT_SUPPORTED},
        WaitWakeCase{"BelowSystemWake", 1, kS4, kD0, Then::kNothing, STATUS_INVALID_DEVICE_STATE},
        WaitWakeCase{"BelowDeviceWake", 1, kS3, kD3, Then::kNothing, STATUS_INVALID_DEVICE_STATE},
        WaitWakeCase{"Cancelled", 1, kS3, kD0, Then::kCancel, STATUS_CANCELLED},
        WaitWakeCase{"SurpriseRemoval", 1, kS3, kD0, Then::kSurprise, STATUS_NO_SUCH_DEVICE},
        WaitWakeCase{"Removal", 1, kS3, kD0, Then::kRemoval, STATUS_NO_SUCH_DEVICE},
        WaitWakeCase{"SignalInD0", 1, kS3, kD0, Then::kSignal, STATUS_PENDING},
        WaitWakeCase{"SignalBeforeArmed", 1, kS3, kD2, Then::kSignalFirst, STATUS_PENDING},
        WaitWakeCase{"SignalInD2", 1, kS3, kD2, Then::kSignal, STATUS_SUCCESS}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
