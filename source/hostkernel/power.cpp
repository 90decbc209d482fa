// The power manager: the record of device power states (PoSetPowerState),
// the power IRPs drivers request (PoRequestPowerIrp), pass on (PoCallDriver)
// and release (PoStartNextPowerIrp), and the system power transitions (see
// power.h).
//
// The stand-in follows Windows XP, which the driver targets: a power IRP
// goes down only through PoCallDriver, every driver calls
// PoStartNextPowerIrp for each query- and set-power IRP while its own stack
// location is current, and power IRPs come only from the power manager
// (irp.cpp checks each as it goes down and comes back). Power IRPs are not
// held back until the previous one of the device is started; the record of
// PoStartNextPowerIrp serves the verifier only.
//
// Environment: PoSetPowerState at IRQL up to APC_LEVEL, or DISPATCH_LEVEL
// when the state set is D0; PoRequestPowerIrp, PoCallDriver and
// PoStartNextPowerIrp up to DISPATCH_LEVEL, a wait-wake request at
// PASSIVE_LEVEL only. Sleep and Wake from an application thread.
// Locks: none of its own; the scheduler runs one emulated thread at a
// time, and the system transitions hold the PnP manager's engine lock.
#include "hostkernel/power.h"

#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace hk::detail;

namespace {

constexpr int64_t kPowerWatchdog100ns = 10LL * 60 * 1000 * 1000 * 10; // ten minutes

struct PowerWatchdog {
    KTIMER timer;
    KDPC dpc;
    std::string what;
};

VOID NTAPI PowerWatchdogDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* watchdog = static_cast<PowerWatchdog*>(context);
    hk::Kernel::Current().verifier().Violation(hk::rule::kPowerIrpBlocked, watchdog->what);
    hk::StopMachine("the power watchdog stopped the machine");
}

void Violation(const char* rule_name, const std::string& detail) {
    hk::Kernel::Current().verifier().Violation(rule_name, detail);
}

PDEVICE_OBJECT KnownDevice(const char* call, PDEVICE_OBJECT device) {
    if (!Io().FindDevice(device)) {
        std::fprintf(stderr, "hostkernel: %s on %p, which is not a device object\n", call,
                     static_cast<void*>(device));
        std::abort();
    }
    return device;
}

// A power IRP for the top of the device's stack, its status
// STATUS_NOT_SUPPORTED until a driver answers, as the power manager sends
// them. Null when the pool fails.
PIRP NewPowerIrp(PDEVICE_OBJECT top, UCHAR minor) {
    PIRP irp = NewIrp(top->StackSize, hk::detail::IrpOrigin::kPower);
    if (irp == nullptr)
        return nullptr;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_POWER;
    next->MinorFunction = minor;
    return irp;
}

} // namespace

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
    POWER_STATE previous{};
    bool to_d0 = Type == DevicePowerState && State.DeviceState == PowerDeviceD0;
    CheckIoIrql("PoSetPowerState", to_d0 ? DISPATCH_LEVEL : APC_LEVEL);
    DeviceInfo* info = Io().FindDevice(KnownDevice("PoSetPowerState", DeviceObject));
    previous.DeviceState = info->power;
    if (Type != DevicePowerState) {
        Violation(hk::rule::kPowerStateType, "PoSetPowerState type " + std::to_string(Type));
        return previous;
    }
    info->power = State.DeviceState;
    return previous;
}

// The request goes to the top of the stack at once, or, when the caller is
// above PASSIVE_LEVEL and the top device object is power-pageable, from a
// system worker thread at PASSIVE_LEVEL, where Windows sends power IRPs to
// such stacks.
NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                           PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp) {
    bool wait_wake = MinorFunction == IRP_MN_WAIT_WAKE;
    CheckIoIrql(wait_wake ? "PoRequestPowerIrp for IRP_MN_WAIT_WAKE" : "PoRequestPowerIrp",
                wait_wake ? PASSIVE_LEVEL : DISPATCH_LEVEL);
    KnownDevice("PoRequestPowerIrp", DeviceObject);
    if (!wait_wake && MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER)
        return STATUS_INVALID_PARAMETER_2;
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    PIRP irp = NewPowerIrp(top, MinorFunction);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    if (wait_wake) {
        next->Parameters.WaitWake.PowerState = PowerState.SystemState;
    } else {
        next->Parameters.Power.Type = DevicePowerState;
        next->Parameters.Power.State = PowerState;
        next->Parameters.Power.ShutdownType = hk::Kernel::Current().power().ActiveAction();
    }
    Io().FindIrp(irp)->finish = [=](PIRP done) {
        if (CompletionFunction)
            CompletionFunction(DeviceObject, MinorFunction, PowerState, Context, &done->IoStatus);
        Io().Release(done);
    };
    if (Irp)
        *Irp = irp;
    if (KeGetCurrentIrql() > PASSIVE_LEVEL && (top->Flags & DO_POWER_PAGABLE))
        hk::Kernel::Current().QueueSystemWork([top, irp] { CallDriver(top, irp, true); });
    else
        CallDriver(top, irp, true);
    return STATUS_PENDING;
}

// As IoCallDriver, whose IRQL check covers this call too. Windows XP would
// defer an IRP sent at DISPATCH_LEVEL to a power-pageable device to
// PASSIVE_LEVEL; here it goes at once, as drivers pass power IRPs on from
// their dispatch routines.
NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return CallDriver(DeviceObject, Irp, true);
}

void PoStartNextPowerIrp(PIRP Irp) {
    CheckIoIrql("PoStartNextPowerIrp", DISPATCH_LEVEL);
    auto info = Io().FindIrp(Irp);
    if (!info) {
        Violation(hk::rule::kIrpUnknown,
                  "PoStartNextPowerIrp on IRP " + Hex(uintptr_t(Irp)) + ", which is not allocated");
        return;
    }
    if (Irp->CurrentLocation < 1 || Irp->CurrentLocation > Irp->StackCount ||
        IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_POWER) {
        Violation(hk::rule::kPowerIrpStartMisuse,
                  "PoStartNextPowerIrp on IRP " + Hex(uintptr_t(Irp)) +
                      (Irp->CurrentLocation > Irp->StackCount
                           ? ", which no driver holds (before it was sent, or after it came back)"
                           : ", whose current stack location is not IRP_MJ_POWER"));
        return;
    }
    size_t index = size_t(Irp->CurrentLocation - 1);
    info->at[index].power_started = info->at[index].sends;
}

namespace hk {

bool PowerManager::Sleep(SYSTEM_POWER_STATE state, bool reset) {
    if (state < PowerSystemSleeping1 || state > PowerSystemShutdown) {
        std::fprintf(stderr, "hostkernel: PowerManager::Sleep to system state %d\n", int(state));
        std::abort();
    }
    POWER_ACTION action = state == PowerSystemHibernate ? PowerActionHibernate
                          : state == PowerSystemShutdown
                              ? (reset ? PowerActionShutdownReset : PowerActionShutdownOff)
                              : PowerActionSleep;
    bool done = false;
    pnp_.RunAndWait([&] { done = SleepNow(state, action); });
    return done;
}

void PowerManager::Wake() {
    pnp_.RunAndWait([this] { WakeNow(); });
}

NTSTATUS PowerManager::SendSystemIrp(PDEVICE_OBJECT pdo, UCHAR minor, SYSTEM_POWER_STATE state,
                                     POWER_ACTION action) {
    NTSTATUS status = STATUS_PENDING;
    pnp_.RunAndWait([&] {
        const PnpDevice* device = pnp_.DeviceFor(pdo);
        status = Send(device ? device->instance : std::string(), pdo, minor, state, action);
    });
    return status;
}

void PowerManager::RequestWake() {
    Kernel::Current().QueueSystemWork([this] { pnp_.Serialized([this] { WakeNow(); }); });
}

bool PowerManager::SleepNow(SYSTEM_POWER_STATE state, POWER_ACTION action) {
    if (state_ != PowerSystemWorking)
        return false;
    std::vector<std::pair<std::string, PDEVICE_OBJECT>> stacks;
    for (auto& [instance, device] : pnp_.devices_)
        if (device.state == PnpState::kStarted && device.pdo != nullptr)
            stacks.emplace_back(instance, device.pdo);
    size_t asked = 0;
    bool refused = false;
    while (asked < stacks.size() && !refused) {
        auto& [instance, pdo] = stacks[asked++];
        refused = !NT_SUCCESS(Send(instance, pdo, IRP_MN_QUERY_POWER, state, action));
    }
    for (size_t i = 0; i < (refused ? asked : stacks.size()); ++i)
        Send(stacks[i].first, stacks[i].second, IRP_MN_SET_POWER,
             refused ? PowerSystemWorking : state, refused ? PowerActionNone : action);
    if (!refused)
        state_ = state;
    return !refused;
}

// Every transition back to the working state carries PowerActionSleep,
// the action Windows gives the set-power IRP of a wake, whatever state the
// system slept in.
void PowerManager::WakeNow() {
    if (state_ == PowerSystemWorking)
        return;
    for (auto& [instance, device] : pnp_.devices_)
        if (device.state == PnpState::kStarted && device.pdo != nullptr)
            Send(instance, device.pdo, IRP_MN_SET_POWER, PowerSystemWorking, PowerActionSleep);
    state_ = PowerSystemWorking;
}

// One system request down the stack, waited for at PASSIVE_LEVEL.
NTSTATUS PowerManager::Send(const std::string& instance, PDEVICE_OBJECT pdo, UCHAR minor,
                            SYSTEM_POWER_STATE state, POWER_ACTION action) {
    CheckIoIrql("a system power request", PASSIVE_LEVEL);
    PowerRequest request{instance, minor, state, action, STATUS_INSUFFICIENT_RESOURCES};
    PDEVICE_OBJECT top = IoGetAttachedDevice(pdo);
    if (PIRP irp = NewPowerIrp(top, minor)) {
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->Parameters.Power.Type = SystemPowerState;
        next->Parameters.Power.State.SystemState = state;
        next->Parameters.Power.ShutdownType = action;
        struct {
            KEVENT event;
            NTSTATUS status;
        } done;
        KeInitializeEvent(&done.event, NotificationEvent, FALSE);
        Io().FindIrp(irp)->finish = [&done](PIRP irp_done) {
            done.status = irp_done->IoStatus.Status;
            Io().Release(irp_done);
            KeSetEvent(&done.event, IO_NO_INCREMENT, FALSE);
        };
        active_action_ = action;
        // Windows' power watchdog stops the machine when a stack holds a
        // system power IRP for ten minutes; the driver may hold it inside
        // its dispatch routine, so the watchdog is a timer of its own.
        PowerWatchdog watchdog;
        watchdog.what = instance + " held its " + (minor == IRP_MN_QUERY_POWER ? "query" : "set") +
                        "-power IRP for S" + std::to_string(int(state) - 1) + " for ten minutes";
        KeInitializeTimer(&watchdog.timer);
        KeInitializeDpc(&watchdog.dpc, PowerWatchdogDpc, &watchdog);
        LARGE_INTEGER limit;
        limit.QuadPart = -kPowerWatchdog100ns;
        KeSetTimer(&watchdog.timer, limit, &watchdog.dpc);
        CallDriver(top, irp, true);
        KeWaitForSingleObject(&done.event, Executive, KernelMode, FALSE, nullptr);
        KeCancelTimer(&watchdog.timer);
        active_action_ = PowerActionNone;
        request.status = done.status;
    }
    requests_.push_back(request);
    return request.status;
}

} // namespace hk
