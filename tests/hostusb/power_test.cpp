// Power over the simulated bus: system sleep and wake through the power
// manager, with a small power policy owner attached to each modem's PDO;
// PoRequestPowerIrp and the power IRP rules of the verifier; the bus's
// wait-wake answers, remote wake-up and suspended data.
#include "bus_client.h"

#include "hostkernel/pnp.h"
#include "hostkernel/power.h"

#include <string>
#include <vector>

namespace {

constexpr ULONG kIrpTag = 0x20707249; // 'Irp ', the I/O manager's IRPs

enum class Misstep { kNone, kVetoQuery, kNoStartNext, kIoCallDriver };

struct Seen {
    UCHAR minor;
    POWER_STATE_TYPE type;
    ULONG state;
    POWER_ACTION action;
    KIRQL irql;
};

// What the policy owner saw, and how it misbehaves.
struct OwnerState {
    std::vector<Seen> seen;
    Misstep misstep = Misstep::kNone;
};
OwnerState* g_owner = nullptr;

struct OwnerExtension {
    PDEVICE_OBJECT lower;
};

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

// A wait-wake requester: on the wake signal it asks for D0, from the
// completion context.
VOID NTAPI RecordAndPowerUp(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state, PVOID context,
                            PIO_STATUS_BLOCK io) {
    Record(device, minor, state, context, io);
    POWER_STATE d0;
    d0.DeviceState = PowerDeviceD0;
    if (NT_SUCCESS(io->Status))
        PoRequestPowerIrp(device, IRP_MN_SET_POWER, d0, nullptr, nullptr, nullptr);
}

NTSTATUS Request(PDEVICE_OBJECT target, UCHAR minor, ULONG state, Requested* r, PIRP* irp = nullptr,
                 PREQUEST_POWER_COMPLETE done = Record) {
    POWER_STATE power;
    if (minor == IRP_MN_WAIT_WAKE)
        power.SystemState = SYSTEM_POWER_STATE(state);
    else
        power.DeviceState = DEVICE_POWER_STATE(state);
    return PoRequestPowerIrp(target, minor, power, done, r, irp);
}

NTSTATUS NTAPI OwnerAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT fdo;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(OwnerExtension), nullptr, FILE_DEVICE_MODEM, 0, FALSE, &fdo);
    if (!NT_SUCCESS(status))
        return status;
    static_cast<OwnerExtension*>(fdo->DeviceExtension)->lower =
        IoAttachDeviceToDeviceStack(fdo, pdo);
    fdo->Flags |= DO_POWER_PAGABLE;
    fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OwnerPnp(PDEVICE_OBJECT fdo, PIRP irp) {
    UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    PDEVICE_OBJECT lower = static_cast<OwnerExtension*>(fdo->DeviceExtension)->lower;
    IoSkipCurrentIrpStackLocation(irp);
    NTSTATUS status = IoCallDriver(lower, irp);
    if (minor == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(lower);
        IoDeleteDevice(fdo);
    }
    return status;
}

// The device's power policy owner: a system set-power becomes a device
// set-power (D2 to sleep, D3 below, D0 to work), requested and waited for
// before the system IRP goes on.
NTSTATUS NTAPI OwnerPower(PDEVICE_OBJECT fdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    bool system = stack->MinorFunction != IRP_MN_WAIT_WAKE &&
                  stack->Parameters.Power.Type == SystemPowerState;
    g_owner->seen.push_back({stack->MinorFunction, stack->Parameters.Power.Type,
                             ULONG(stack->Parameters.Power.State.SystemState),
                             stack->Parameters.Power.ShutdownType, KeGetCurrentIrql()});
    if (system && stack->MinorFunction == IRP_MN_QUERY_POWER &&
        g_owner->misstep == Misstep::kVetoQuery) {
        PoStartNextPowerIrp(irp);
        irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
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
    if (g_owner->misstep != Misstep::kNoStartNext)
        PoStartNextPowerIrp(irp);
    PDEVICE_OBJECT lower = static_cast<OwnerExtension*>(fdo->DeviceExtension)->lower;
    IoSkipCurrentIrpStackLocation(irp);
    return g_owner->misstep == Misstep::kIoCallDriver ? IoCallDriver(lower, irp)
                                                      : PoCallDriver(lower, irp);
}

// A modem whose only configuration may wake the host.
sm::Profile WakingModem() {
    sm::Profile profile = sm::OrdinaryModem();
    profile.configurations.erase(profile.configurations.begin());
    return profile;
}

class PowerManagerTest : public BusTest {
  protected:
    void SetUp() override {
        BusTest::SetUp();
        g_owner = &owner_;
        driver_ = std::make_unique<hk::Driver>(u"\\Driver\\cdcacm");
        PDRIVER_OBJECT object = driver_->Object();
        object->DriverExtension->AddDevice = OwnerAddDevice;
        object->MajorFunction[IRP_MJ_PNP] = OwnerPnp;
        object->MajorFunction[IRP_MJ_POWER] = OwnerPower;
        std::string error;
        ASSERT_TRUE(kernel().pnp().LoadInf(CDCACM_INF, &error)) << error;
        kernel().pnp().RegisterDriver("cdcacm", object);
        bus_ = std::make_unique<hu::Bus>();
    }
    void TearDown() override {
        for (int port : ports_)
            bus_->Unplug(port);
        kernel().pnp().Settle();
        driver_.reset();
        BusTest::TearDown();
        g_owner = nullptr;
    }
    int PlugSettled(const sm::Profile& profile) {
        modems_.push_back(std::make_shared<sm::Modem>(profile));
        ports_.push_back(bus_->Plug(modems_.back()));
        kernel().pnp().Settle();
        return ports_.back();
    }
    hk::PowerManager& power() { return kernel().power(); }

    OwnerState owner_;
    std::unique_ptr<hk::Driver> driver_;
    std::vector<std::shared_ptr<sm::Modem>> modems_;
    std::vector<int> ports_;
};

struct SleepCase {
    const char* name;
    SYSTEM_POWER_STATE state;
    bool reset;
    POWER_ACTION action;
    DEVICE_POWER_STATE device;
};

class SleepTest : public PowerManagerTest, public ::testing::WithParamInterface<SleepCase> {};

// Every started stack is asked, then told; the policy owner's device IRP
// carries the system action and comes at PASSIVE_LEVEL; the return to work
// is told without a query.
TEST_P(SleepTest, QueriesEveryStackThenSetsThemAndWakesWithoutQuery) {
    PlugSettled(sm::OrdinaryModem());
    PlugSettled(sm::CompositeTwoAcm());
    const SleepCase& c = GetParam();
    ASSERT_TRUE(power().Sleep(c.state, c.reset));
    EXPECT_EQ(power().State(), c.state);
    power().Wake();
    EXPECT_EQ(power().State(), PowerSystemWorking);

    std::vector<std::string> expected;
    auto line = [](const std::string& instance, UCHAR minor, ULONG state, ULONG action) {
        return instance + " " + std::to_string(minor) + " " + std::to_string(state) + " " +
               std::to_string(action);
    };
    std::vector<std::string> instances = kernel().pnp().Instances();
    ASSERT_EQ(instances.size(), 3u);
    for (UCHAR minor : {IRP_MN_QUERY_POWER, IRP_MN_SET_POWER})
        for (const std::string& instance : instances)
            expected.push_back(line(instance, minor, c.state, c.action));
    for (const std::string& instance : instances)
        expected.push_back(line(instance, IRP_MN_SET_POWER, PowerSystemWorking, PowerActionSleep));
    std::vector<std::string> sent;
    for (const hk::PowerRequest& r : power().Requests()) {
        sent.push_back(line(r.instance, r.minor, r.state, r.action));
        EXPECT_EQ(r.status, STATUS_SUCCESS);
    }
    EXPECT_EQ(sent, expected);

    std::vector<ULONG> device_states;
    for (const Seen& seen : owner_.seen) {
        EXPECT_EQ(seen.irql, PASSIVE_LEVEL);
        if (seen.type != DevicePowerState)
            continue;
        device_states.push_back(seen.state);
        EXPECT_EQ(seen.action, seen.state == PowerDeviceD0 ? PowerActionSleep : c.action);
    }
    EXPECT_EQ(device_states, (std::vector<ULONG>{c.device, c.device, c.device, PowerDeviceD0,
                                                 PowerDeviceD0, PowerDeviceD0}));
}

INSTANTIATE_TEST_SUITE_P(
    States, SleepTest,
    ::testing::Values(
        SleepCase{"S1", PowerSystemSleeping1, false, PowerActionSleep, PowerDeviceD2},
        SleepCase{"S3", PowerSystemSleeping3, false, PowerActionSleep, PowerDeviceD2},
        SleepCase{"Hibernate", PowerSystemHibernate, false, PowerActionHibernate, PowerDeviceD3},
        SleepCase{"ShutdownOff", PowerSystemShutdown, false, PowerActionShutdownOff, PowerDeviceD3},
        SleepCase{"ShutdownReset", PowerSystemShutdown, true, PowerActionShutdownReset,
                  PowerDeviceD3}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PowerManagerTest, ARefusedQueryReaffirmsTheWorkingStateToTheStacksAsked) {
    PlugSettled(sm::CompositeTwoAcm());
    owner_.misstep = Misstep::kVetoQuery;
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
}

struct MisstepCase {
    const char* name;
    Misstep misstep;
    const char* rule;
};

class PowerRuleTest : public PowerManagerTest, public ::testing::WithParamInterface<MisstepCase> {};

// Each of the query, the system set-power and the device set-power inside it
// is passed on wrongly once.
TEST_P(PowerRuleTest, EachPowerIrpPassedOnWronglyIsReported) {
    PlugSettled(sm::OrdinaryModem());
    owner_.misstep = GetParam().misstep;
    hk::ExpectViolation expect(GetParam().rule);
    power().Sleep(PowerSystemSleeping3);
    EXPECT_EQ(expect.Count(), 3u);
    owner_.misstep = Misstep::kNone;
}

INSTANTIATE_TEST_SUITE_P(Missteps, PowerRuleTest,
                         ::testing::Values(MisstepCase{"NoStartNext", Misstep::kNoStartNext,
                                                       hk::rule::kPowerIrpNotStarted},
                                           MisstepCase{"IoCallDriver", Misstep::kIoCallDriver,
                                                       hk::rule::kPowerIrpIoCallDriver}),
                         [](const auto& info) { return std::string(info.param.name); });

// A wake signal from the sleeping modem completes the wait-wake IRP, whose
// requester asks for D0 from the completion (at DISPATCH_LEVEL; it reaches
// the pageable stack at PASSIVE_LEVEL), and wakes the system.
TEST_F(PowerManagerTest, RemoteWakeWakesTheSleepingSystem) {
    int port = PlugSettled(WakingModem());
    owner_.misstep = Misstep::kNoStartNext; // not needed for a wait-wake IRP
    Requested wake;
    PIRP irp = nullptr;
    ASSERT_EQ(Request(bus_->Pdo(port), IRP_MN_WAIT_WAKE, PowerSystemSleeping3, &wake, &irp,
                      RecordAndPowerUp),
              STATUS_PENDING);
    owner_.misstep = Misstep::kNone;
    ASSERT_NE(irp, nullptr);
    ASSERT_TRUE(power().Sleep(PowerSystemSleeping3));
    EXPECT_FALSE(wake.called);
    owner_.seen.clear();
    modems_.back()->SignalRemoteWakeup();
    kernel().pnp().Settle();
    EXPECT_TRUE(wake.called);
    EXPECT_EQ(wake.status, STATUS_SUCCESS);
    EXPECT_EQ(power().State(), PowerSystemWorking);
    EXPECT_EQ(power().Requests().back().state, PowerSystemWorking);
    size_t d0 = 0;
    for (const Seen& seen : owner_.seen) {
        EXPECT_EQ(seen.irql, PASSIVE_LEVEL);
        d0 += seen.type == DevicePowerState && seen.state == PowerDeviceD0;
    }
    EXPECT_EQ(d0, 2u) << "the requester's power-up and the policy owner's for the wake";
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
        kernel().Sleep(1);
        return r.called ? r.status : STATUS_PENDING;
    }
};

TEST_F(BusPowerTest, PoRequestPowerIrpRefusesWithoutCallingBackAndCallsBackOnce) {
    Requested r;
    PIRP irp = nullptr;
    EXPECT_EQ(Request(pdo_, IRP_MN_POWER_SEQUENCE, PowerDeviceD0, &r, &irp),
              STATUS_INVALID_PARAMETER_2);
    hk::FaultKnob first_irp;
    first_irp.nth = 1;
    first_irp.match = kIrpTag;
    hk::FaultKnob& knob = kernel().pool().Faults().Add("irp", first_irp);
    EXPECT_EQ(Request(pdo_, IRP_MN_SET_POWER, PowerDeviceD2, &r, &irp),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(knob.fired, 1u);
    EXPECT_FALSE(r.called);
    EXPECT_EQ(irp, nullptr);
    EXPECT_EQ(Request(pdo_, IRP_MN_SET_POWER, PowerDeviceD2, &r, &irp), STATUS_PENDING);
    EXPECT_NE(irp, nullptr);
    EXPECT_TRUE(r.called);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.device, pdo_);
    EXPECT_EQ(r.minor, IRP_MN_SET_POWER);
    EXPECT_EQ(r.state.DeviceState, PowerDeviceD2);
    EXPECT_EQ(hk::LiveIrps(), 0u) << "freed after the completion function";
}

enum class Then { kNothing, kCancel, kSurpriseRemoval, kRemoval, kSignal };

struct WaitWakeCase {
    const char* name;
    size_t configuration; // index 1 may wake the host
    SYSTEM_POWER_STATE from;
    DEVICE_POWER_STATE device;
    Then then;
    NTSTATUS status; // STATUS_PENDING: still waiting
};

class WaitWakeTest : public BusPowerTest, public ::testing::WithParamInterface<WaitWakeCase> {};

TEST_P(WaitWakeTest, AnswersAsABusDriver) {
    const WaitWakeCase& c = GetParam();
    ASSERT_EQ(Select(c.configuration), STATUS_SUCCESS);
    ASSERT_EQ(SetDevice(c.device), STATUS_SUCCESS);
    Requested r;
    PIRP irp = nullptr;
    ASSERT_EQ(Request(pdo_, IRP_MN_WAIT_WAKE, c.from, &r, &irp), STATUS_PENDING);
    switch (c.then) {
    case Then::kCancel:
        EXPECT_TRUE(IoCancelIrp(irp));
        break;
    case Then::kSurpriseRemoval:
    case Then::kRemoval:
        hk::PnpManager::Send(pdo_, c.then == Then::kRemoval ? IRP_MN_REMOVE_DEVICE
                                                            : IRP_MN_SURPRISE_REMOVAL);
        break;
    case Then::kSignal:
        modem_->SignalRemoteWakeup();
        break;
    case Then::kNothing:
        break;
    }
    kernel().Sleep(1);
    EXPECT_EQ(r.called ? r.status : STATUS_PENDING, c.status);
    if (!r.called) {
        IoCancelIrp(irp);
        kernel().Sleep(1);
        EXPECT_EQ(r.status, STATUS_CANCELLED);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WaitWakeTest,
    ::testing::Values(WaitWakeCase{"Pending", 1, PowerSystemSleeping3, PowerDeviceD2,
                                   Then::kNothing, STATUS_PENDING},
                      WaitWakeCase{"NoRemoteWakeup", 0, PowerSystemSleeping3, PowerDeviceD0,
                                   Then::kNothing, STATUS_NOT_SUPPORTED},
                      WaitWakeCase{"BelowSystemWake", 1, PowerSystemHibernate, PowerDeviceD0,
                                   Then::kNothing, STATUS_INVALID_DEVICE_STATE},
                      WaitWakeCase{"BelowDeviceWake", 1, PowerSystemSleeping3, PowerDeviceD3,
                                   Then::kNothing, STATUS_INVALID_DEVICE_STATE},
                      WaitWakeCase{"Cancelled", 1, PowerSystemSleeping3, PowerDeviceD0,
                                   Then::kCancel, STATUS_CANCELLED},
                      WaitWakeCase{"SurpriseRemoval", 1, PowerSystemSleeping3, PowerDeviceD0,
                                   Then::kSurpriseRemoval, STATUS_NO_SUCH_DEVICE},
                      WaitWakeCase{"Removal", 1, PowerSystemSleeping3, PowerDeviceD0,
                                   Then::kRemoval, STATUS_NO_SUCH_DEVICE},
                      WaitWakeCase{"SignalInD0", 1, PowerSystemSleeping3, PowerDeviceD0,
                                   Then::kSignal, STATUS_PENDING},
                      WaitWakeCase{"SignalInD2", 1, PowerSystemSleeping3, PowerDeviceD2,
                                   Then::kSignal, STATUS_SUCCESS}),
    [](const auto& info) { return std::string(info.param.name); });

// One wait-wake IRP per PDO; a signal that finds none armed is not kept.
TEST_F(BusPowerTest, ASecondWaitWakeIsBusyAndAnUnarmedSignalIsLost) {
    ASSERT_EQ(Select(1), STATUS_SUCCESS);
    ASSERT_EQ(SetDevice(PowerDeviceD2), STATUS_SUCCESS);
    Requested first, second, third;
    PIRP irp = nullptr;
    Request(pdo_, IRP_MN_WAIT_WAKE, PowerSystemSleeping3, &first, &irp);
    Request(pdo_, IRP_MN_WAIT_WAKE, PowerSystemSleeping3, &second);
    EXPECT_EQ(second.status, STATUS_DEVICE_BUSY);
    IoCancelIrp(irp);
    kernel().Sleep(1);
    EXPECT_EQ(first.status, STATUS_CANCELLED);
    modem_->SignalRemoteWakeup();
    kernel().Sleep(1);
    Request(pdo_, IRP_MN_WAIT_WAKE, PowerSystemSleeping3, &third);
    kernel().Sleep(1);
    EXPECT_FALSE(third.called);
    modem_->SignalRemoteWakeup();
    kernel().Sleep(1);
    EXPECT_EQ(third.status, STATUS_SUCCESS);
}

// A suspended modem neither sends nor receives; its transfers wait and go
// on in D0.
TEST_F(BusPowerTest, SuspendedDataWaitsForD0) {
    ASSERT_EQ(Select(0), STATUS_SUCCESS);
    ASSERT_EQ(SetDevice(PowerDeviceD2), STATUS_SUCCESS);
    modem_->Push({1, 2, 3});
    BusRequest* in = Transfer(0x81, true, {}, 64);
    BusRequest* out = Transfer(0x01, false, {7, 8});
    kernel().Sleep(50);
    EXPECT_FALSE(in->completed);
    EXPECT_FALSE(out->completed);
    EXPECT_TRUE(modem_->Pull().empty());
    ASSERT_EQ(SetDevice(PowerDeviceD0), STATUS_SUCCESS);
    ASSERT_TRUE(Wait(in));
    ASSERT_TRUE(Wait(out));
    EXPECT_EQ(std::vector<uint8_t>(in->buffer.begin(), in->buffer.begin() + 3),
              (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(modem_->Pull(), (std::vector<uint8_t>{7, 8}));
}

} // namespace
