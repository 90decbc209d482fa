// The bus driver's power side: IRP_MJ_POWER on a function's physical device
// object and on the hub's device object, and remote wake-up.
//
// - Query- and set-power IRPs, system or device, succeed; the bus calls
//   PoStartNextPowerIrp before completing each. A device set-power records
//   the function's device power state and tells the power manager
//   (PoSetPowerState). While a function is in D1 to D3 its device is
//   suspended: a suspended USB device sees no bus traffic, so its bulk and
//   interrupt transfers neither move data nor complete; they wait, as the
//   host controller keeps them scheduled, and go on once the function is
//   back in D0. Control transfers are not held.
// - A wait-wake IRP waits for the device's remote wake-up. It is answered
//   at once when it cannot: with the status it came with
//   (STATUS_NOT_SUPPORTED) when the configuration cannot wake the host,
//   STATUS_NO_SUCH_DEVICE once the function is removed,
//   STATUS_INVALID_DEVICE_STATE for a system state below the one the device
//   may wake from or a device state below the one it signals wake-up in,
//   STATUS_DEVICE_BUSY while another waits on the same PDO. A waiting one
//   completes with STATUS_CANCELLED when cancelled, STATUS_NO_SUCH_DEVICE at
//   surprise removal or removal, and STATUS_SUCCESS when the device signals
//   remote wake-up while its function is not in D0; the system, when
//   sleeping, then returns to the working state.
// - The hub answers query- and set-power IRPs the same way; it cannot wake.
//
// Environment: power IRPs arrive at PASSIVE_LEVEL from the power manager or
// a driver, or up to DISPATCH_LEVEL for a device power-up that a
// non-pageable stack requests there. A wake signal comes from the device's
// side at any IRQL; its wait-wake IRPs complete in a DPC.
// Locks: Bus::Impl::lock guards the power state and the wait-wake IRP of
// every function; it is released before any IRP is completed.
#include "hostusb/bus_impl.h"

#include "hostkernel/power.h"

namespace hu {

namespace {

NTSTATUS Answer(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    hk::CompleteInsideCall(irp);
    return status;
}

} // namespace

NTSTATUS NTAPI Bus::Impl::DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
    auto* ext = static_cast<BusExtension*>(device->DeviceExtension);
    if (ext->kind == BusExtension::kPdo)
        return ext->bus->FunctionPower(ext->function, irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MinorFunction != IRP_MN_SET_POWER && stack->MinorFunction != IRP_MN_QUERY_POWER)
        return Answer(irp, irp->IoStatus.Status);
    if (stack->MinorFunction == IRP_MN_SET_POWER &&
        stack->Parameters.Power.Type == DevicePowerState)
        PoSetPowerState(device, DevicePowerState, stack->Parameters.Power.State);
    PoStartNextPowerIrp(irp);
    return Answer(irp, STATUS_SUCCESS);
}

NTSTATUS Bus::Impl::FunctionPower(Function* function, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_WAIT_WAKE:
        return WaitWake(function, irp);
    case IRP_MN_SET_POWER:
        if (stack->Parameters.Power.Type == DevicePowerState)
            SetDevicePower(function, stack->Parameters.Power.State.DeviceState);
        PoStartNextPowerIrp(irp);
        return Answer(irp, STATUS_SUCCESS);
    case IRP_MN_QUERY_POWER:
        PoStartNextPowerIrp(irp);
        return Answer(irp, STATUS_SUCCESS);
    default:
        return Answer(irp, irp->IoStatus.Status);
    }
}

// The function's transfers parked while it was suspended are scheduled
// again when it returns to D0.
void Bus::Impl::SetDevicePower(Function* function, DEVICE_POWER_STATE state) {
    PortState& port = *function->port;
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    function->power = state;
    if (state == PowerDeviceD0) {
        for (auto& [address, ep] : port.endpoints) {
            if (ep.queue.empty() || !ep.queue.front()->parked ||
                ep.queue.front()->function != function)
                continue;
            ep.queue.front()->parked = false;
            ArmAt(ep.queue.front(), NextBoundary(FrameTime(port)));
        }
    }
    KeReleaseSpinLock(&lock, irql);
    POWER_STATE set;
    set.DeviceState = state;
    PoSetPowerState(function->pdo, DevicePowerState, set);
}

NTSTATUS Bus::Impl::WaitWake(Function* function, PIRP irp) {
    const PortState& port = *function->port;
    SYSTEM_POWER_STATE from = IoGetCurrentIrpStackLocation(irp)->Parameters.WaitWake.PowerState;
    NTSTATUS status = STATUS_PENDING;
    bool cancelled = false;
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    bool can_wake =
        port.config_value != 0 ? port.config_remote_wakeup : port.identity.remote_wakeup;
    if (!can_wake)
        status = irp->IoStatus.Status;
    else if (function->removed)
        status = STATUS_NO_SUCH_DEVICE;
    else if (from > kSystemWake || function->power > kDeviceWake)
        status = STATUS_INVALID_DEVICE_STATE;
    else if (function->wait_wake != nullptr)
        status = STATUS_DEVICE_BUSY;
    if (status == STATUS_PENDING) {
        IoMarkIrpPending(irp);
        function->wait_wake = irp;
        IoSetCancelRoutine(irp, CancelWaitWake);
        // Cancelled before the cancel routine was set: nobody else will.
        if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
            function->wait_wake = nullptr;
            cancelled = true;
        }
    }
    KeReleaseSpinLock(&lock, irql);
    if (status != STATUS_PENDING)
        return Answer(irp, status);
    if (cancelled)
        Answer(irp, STATUS_CANCELLED);
    return STATUS_PENDING;
}

PIRP Bus::Impl::TakeWaitWake(Function* function) {
    PIRP irp = function->wait_wake;
    if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr)
        return nullptr; // its cancel routine runs, and clears it
    function->wait_wake = nullptr;
    return irp;
}

VOID NTAPI Bus::Impl::CancelWaitWake(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto* ext = static_cast<BusExtension*>(device->DeviceExtension);
    KIRQL irql;
    KeAcquireSpinLock(&ext->bus->lock, &irql);
    if (ext->function->wait_wake == irp)
        ext->function->wait_wake = nullptr;
    KeReleaseSpinLock(&ext->bus->lock, irql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

// Resume signalling from a suspended device whose wake-up a wait-wake IRP
// armed; from a device in D0, or one not armed, it changes nothing.
void Bus::Impl::RemoteWake(PortState* port) {
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    bool any = false;
    for (auto& function : port->functions) {
        if (port->gone || function->removed || function->power == PowerDeviceD0)
            continue;
        if (PIRP irp = TakeWaitWake(function.get())) {
            woken.push_back(irp);
            any = true;
        }
    }
    KeReleaseSpinLock(&lock, irql);
    if (any)
        KeInsertQueueDpc(&wake_dpc, nullptr, nullptr);
}

VOID NTAPI Bus::Impl::WakeDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* bus = static_cast<Impl*>(context);
    std::vector<PIRP> irps;
    KIRQL irql;
    KeAcquireSpinLock(&bus->lock, &irql);
    irps.swap(bus->woken);
    KeReleaseSpinLock(&bus->lock, irql);
    for (PIRP irp : irps) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    hk::PowerManager& power = hk::Kernel::Current().power();
    if (!irps.empty() && power.State() != PowerSystemWorking)
        power.RequestWake();
}

} // namespace hu
