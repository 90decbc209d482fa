// Power management. The driver owns its device's power policy: a system
// set-power request becomes a device set-power request for the state the
// capabilities map it to, requested from the power manager and waited for;
// that request comes back down through DispatchPower, which stops the
// transfers and timers on the way down and, on the way up once the bus has
// powered the modem, schedules the re-initialisation that brings the port
// back. After every successful re-initialisation a wait-wake request is
// kept pending, so that the modem can wake the system.
//
// Environment: DispatchPower at PASSIVE_LEVEL (the device objects are
// power-pageable); PwrCompRoutDevOn and the power-request completions up to
// DISPATCH_LEVEL, where they only schedule work.
// Locks: the power-down holds DEVICE.DeviceMutex around the state change
// and the stop of the transfers, so that it never runs beside a PnP request
// or an open. References keep the DEVICE alive during each dispatch and
// across a pending wait-wake request.
#define TRACE_FILE "source/cdcacm/wdmpwr"
#include "cdcacm.h"

// The record a synchronous power request completes into.
typedef struct _POWER_REQUEST_CONTEXT {
    KEVENT Event;
    NTSTATUS Status;
    ULONG_PTR Information;
} POWER_REQUEST_CONTEXT, *PPOWER_REQUEST_CONTEXT;

static const char* const SystemStateNames[] = {
    "PowerSystemUnspecified", "PowerSystemWorking",   "PowerSystemSleeping1",
    "PowerSystemSleeping2",   "PowerSystemSleeping3", "PowerSystemHibernate",
    "PowerSystemShutdown",    "PowerSystemMaximum",
};
static const char* const DeviceStateNames[] = {
    "PowerDeviceUnspecified", "PowerDeviceD0", "PowerDeviceD1",
    "PowerDeviceD2",          "PowerDeviceD3", "PowerDeviceMaximum",
};
static const char* const TypeNames[] = {"System", "Device"};
static const char* const ActionNames[] = {
    "PowerActionNone",        "PowerActionReserved", "PowerActionSleep",
    "PowerActionHibernate",   "PowerActionShutdown", "PowerActionShutdownReset",
    "PowerActionShutdownOff",
};

#define NAME_COUNT(Table) (sizeof(Table) / sizeof((Table)[0]))
#define NAME_OF(Table, Value) ((Value) < NAME_COUNT(Table) ? (Table)[Value] : "unknown")

const char* SystemPowerStateName(ULONG State) {
    return NAME_OF(SystemStateNames, State);
}
const char* DevicePowerStateName(ULONG State) {
    return NAME_OF(DeviceStateNames, State);
}
const char* PowerTypeName(ULONG Type) {
    return NAME_OF(TypeNames, Type);
}
const char* PowerActionName(ULONG Action) {
    return NAME_OF(ActionNames, Action);
}

// Where a power IRP of the attach object goes on: the stack below it. That
// is the DEVICE's LowerDevObj while the modem is attached, and still the
// right target after a surprise removal has cleared the DEVICE's.
static PDEVICE_OBJECT PowerTarget(PDEVICE Dev, PIRP Irp) {
    PDEVICE_OBJECT Receiver = IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
    if (Receiver != NULL && *(const ULONG*)Receiver->DeviceExtension == EXTENSION_TYPE_ATTACH)
        return ((PATTACH_OBJ)Receiver->DeviceExtension)->LowerDevObj;
    return Dev->LowerDevObj;
}

NTSTATUS PwrPassDownIrp(PDEVICE_OBJECT LowerDevObj, PIRP Irp, PIO_COMPLETION_ROUTINE Routine,
                        PVOID Context) {
    if (Routine == NULL) {
        PoStartNextPowerIrp(Irp);
        IoSkipCurrentIrpStackLocation(Irp);
        return PoCallDriver(LowerDevObj, Irp);
    }
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, Routine, Context, TRUE, TRUE, TRUE);
    return PoCallDriver(LowerDevObj, Irp);
}

VOID NTAPI RequestPowerIrpCompletionRoutine(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction,
                                            POWER_STATE PowerState, PVOID Context,
                                            PIO_STATUS_BLOCK IoStatus) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    PPOWER_REQUEST_CONTEXT Request = (PPOWER_REQUEST_CONTEXT)Context;
    TRACE(TL_LIFECYCLE, "%P:RequestPowerIrpCompletionRoutine st:%D\n", IoStatus->Status);
    Request->Status = IoStatus->Status;
    Request->Information = IoStatus->Information;
    KeSetEvent(&Request->Event, IO_NO_INCREMENT, FALSE);
}

NTSTATUS RequestPowerIrpAndWait(PDEVICE_OBJECT Target, UCHAR MinorFunction, ULONG DeviceState) {
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    POWER_REQUEST_CONTEXT Request;
    KeInitializeEvent(&Request.Event, NotificationEvent, FALSE);
    Request.Status = STATUS_UNSUCCESSFUL;
    Request.Information = 0;
    TRACE(TL_LIFECYCLE, "%P:Requesting POWER IRP MN:%B, PowerState:%s\n", MinorFunction,
          DevicePowerStateName(DeviceState));
    POWER_STATE State;
    State.DeviceState = (DEVICE_POWER_STATE)DeviceState;
    NTSTATUS Status = PoRequestPowerIrp(Target, MinorFunction, State,
                                        RequestPowerIrpCompletionRoutine, &Request, NULL);
    TRACE(TL_LIFECYCLE, "%P:PoRequestPowerIrp returns %D\n", Status);
    // A request the power manager refused never completes: its result is
    // the context's STATUS_UNSUCCESSFUL, and there is nothing to wait for.
    if (Status == STATUS_PENDING)
        KeWaitForSingleObject(&Request.Event, Executive, KernelMode, FALSE, NULL);
    return Request.Status;
}

NTSTATUS SetDevicePowerState(PDEVICE Dev, ULONG DeviceState) {
    TRACE(TL_IOCTL, "%P:%S:SetDevicePowerState[\n", DEV_PORT_NAME(Dev));
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    NTSTATUS Status;
    if (DeviceState == Dev->DevicePowerState) {
        TRACE(TL_INFO, "%P:%S:SetDevicePowerState: device is already in power state %s\n",
              DEV_PORT_NAME(Dev), DevicePowerStateName(DeviceState));
        Status = STATUS_SUCCESS;
    } else if (Dev->LowerDevObj == NULL) {
        // The modem is gone: there is no stack to ask for a device state.
        Status = STATUS_NO_SUCH_DEVICE;
    } else if (DeviceState == PowerDeviceD0 || Dev->DevicePowerState == PowerDeviceD0) {
        Status = RequestPowerIrpAndWait(Dev->LowerDevObj, IRP_MN_SET_POWER, DeviceState);
        TRACE(TL_LIFECYCLE, "%P:%S:SetDevicePowerState: RequestPowerIrpAndWait returns %D\n",
              DEV_PORT_NAME(Dev), Status);
    } else {
        Status = STATUS_UNSUCCESSFUL;
    }
    TRACE(TL_IOCTL, "%P:%S:]SetDevicePowerState (%D) \n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS PwrSetSystemPowerState(PDEVICE Dev, PIRP Irp, ULONG SystemState) {
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    ULONG DeviceState;
    if (SystemState == PowerSystemWorking) {
        DeviceState = PowerDeviceD0;
    } else if (SystemState <= PowerSystemShutdown) {
        DeviceState = Dev->Capabilities.DeviceState[SystemState];
    } else {
        // clang-format off
        TRACE_ASSERT(0);
        // clang-format on
        DeviceState = PowerDeviceD3;
    }
    NTSTATUS Status = SetDevicePowerState(Dev, DeviceState);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:PwrSetSystemPowerState: SetDevicePowerState failed (%D).\n", Status);
    return PwrPassDownIrp(PowerTarget(Dev, Irp), Irp, NULL, NULL);
}

NTSTATUS NTAPI PwrCompRoutDevOn(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    PDEVICE Dev = (PDEVICE)Context;
    TRACE(TL_LIFECYCLE, "%P:%S:PwrCompRoutDevOn(%D)\n", DEV_PORT_NAME(Dev), Irp->IoStatus.Status);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    if (Irp->PendingReturned)
        IoMarkIrpPending(Irp);
    if (NT_SUCCESS(Irp->IoStatus.Status)) {
        Dev->ReinitCount = 0;
        // The device is awake before the re-initialisation is queued: a
        // worker running it at once must not find it asleep.
        Dev->DevicePowerState = PowerDeviceD0;
        ScheduleReinit(Dev);
        POWER_STATE State;
        State.DeviceState = PowerDeviceD0;
        PoSetPowerState(Dev->Pdo, DevicePowerState, State);
    }
    PoStartNextPowerIrp(Irp);
    return STATUS_SUCCESS;
}

NTSTATUS PwrSetDevicePowerState(PDEVICE Dev, PIRP Irp, ULONG DeviceState) {
    PDEVICE_OBJECT Lower = PowerTarget(Dev, Irp);
    if (DeviceState == PowerDeviceD0)
        return PwrPassDownIrp(Lower, Irp, PwrCompRoutDevOn, Dev);
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    Dev->DevicePowerState = DeviceState;
    if (Dev->PnpState == PNP_STATE_STARTED)
        StopSendAndReceive(Dev, TRUE);
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);
    KeCancelTimer(&Dev->WaitCancelTimer.Timer);
    KeCancelTimer(&Dev->ReinitTimer.Timer);
    StopTimer(Dev);
    if (Dev->LowerDevObj != NULL) {
        POWER_STATE State;
        State.DeviceState = (DEVICE_POWER_STATE)DeviceState;
        PoSetPowerState(Dev->LowerDevObj, DevicePowerState, State);
    }
    return PwrPassDownIrp(Lower, Irp, NULL, NULL);
}

NTSTATUS PwrQuerySystemPowerState(PDEVICE Dev, PIRP Irp, ULONG SystemState) {
    UNREFERENCED_PARAMETER(SystemState);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    return PwrPassDownIrp(PowerTarget(Dev, Irp), Irp, NULL, NULL);
}

NTSTATUS PwrQueryDevicePowerState(PDEVICE Dev, PIRP Irp, ULONG DeviceState) {
    UNREFERENCED_PARAMETER(DeviceState);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    return PwrPassDownIrp(PowerTarget(Dev, Irp), Irp, NULL, NULL);
}

static VOID NTAPI IgnorePowerCompletion(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction,
                                        POWER_STATE PowerState, PVOID Context,
                                        PIO_STATUS_BLOCK IoStatus) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(IoStatus);
}

VOID NTAPI WakeCompletionRoutine(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction,
                                 POWER_STATE PowerState, PVOID Context, PIO_STATUS_BLOCK IoStatus) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    PDEVICE Dev = (PDEVICE)Context;
    TRACE(TL_LIFECYCLE, "%P:%S:[WakeCompletionRoutine st:%08x\n", DEV_PORT_NAME(Dev),
          IoStatus->Status);
    Dev->WakeIrp = NULL;
    if (IoStatus->Status == STATUS_SUCCESS && Dev->DevicePowerState != PowerDeviceD0 &&
        Dev->LowerDevObj != NULL) {
        POWER_STATE State;
        State.DeviceState = PowerDeviceD0;
        NTSTATUS Status = PoRequestPowerIrp(Dev->LowerDevObj, IRP_MN_SET_POWER, State,
                                            IgnorePowerCompletion, NULL, NULL);
        TRACE(TL_LIFECYCLE, "%P:%S:WakeCompletionRoutine: PoRequestPowerIrp returns %D\n",
              DEV_PORT_NAME(Dev), Status);
    }
    DEVICE_RELEASE(Dev);
}

VOID RequestWakeupIrp(PDEVICE Dev) {
    TRACE(TL_LIFECYCLE, "%P:%S:[RequestWakeupIrp\n", DEV_PORT_NAME(Dev));
    if (!Dev->RemoteWakeup) {
        if (Dev->WakeIrp != NULL) {
            IoCancelIrp(Dev->WakeIrp);
            Dev->WakeIrp = NULL;
        }
        return;
    }
    if (Dev->WakeIrp != NULL) {
        TRACE(TL_LIFECYCLE, "%P:%S:RequestWakeupIrp: Dev->WakeIrp = %x\n", DEV_PORT_NAME(Dev),
              (ULONG)(ULONG_PTR)Dev->WakeIrp);
        return;
    }
    NTSTATUS Status;
    if ((LONG)Dev->Capabilities.SystemWake > (LONG)PowerSystemWorking) {
        DEVICE_ADD_REF(Dev);
        POWER_STATE State;
        State.SystemState = Dev->Capabilities.SystemWake;
        Status = PoRequestPowerIrp(Dev->LowerDevObj, IRP_MN_WAIT_WAKE, State, WakeCompletionRoutine,
                                   Dev, NULL);
        // A refused request never completes, so the reference taken for it
        // is given back here.
        if (Status != STATUS_PENDING)
            DEVICE_RELEASE(Dev);
    } else {
        TRACE(TL_ERROR, "%P:%S:RequestWakeupIrp: PC does not support wake up on this USB port\n",
              DEV_PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    }
    TRACE(TL_LIFECYCLE, "%P:%S:RequestWakeupIrp: PoRequestPowerIrp returns %x\n",
          DEV_PORT_NAME(Dev), Status);
}

// Forgets the wait-wake IRP once it completes, whoever sent it: one from
// another driver never passes WakeCompletionRoutine, which would otherwise
// be the only one to clear WakeIrp.
static NTSTATUS NTAPI WaitWakeDone(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    PDEVICE Dev = (PDEVICE)Context;
    if (Irp->PendingReturned)
        IoMarkIrpPending(Irp);
    PVOID Previous = InterlockedCompareExchangePointer((PVOID volatile*)&Dev->WakeIrp, NULL, Irp);
    UNREFERENCED_PARAMETER(Previous);
    return STATUS_SUCCESS;
}

static NTSTATUS WaitWake(PDEVICE Dev, PIRP Irp, const WCHAR* Letter) {
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    TRACE(TL_LIFECYCLE, "%P:%S%S:POWER IRP: IRP_MN_WAIT_WAKE  PowerState:%s\n", DEV_PORT_NAME(Dev),
          Letter, SystemPowerStateName(Stack->Parameters.WaitWake.PowerState));
    if (Dev->WakeIrp != NULL) {
        PoStartNextPowerIrp(Irp);
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
    }
    Dev->WakeIrp = Irp;
    PoStartNextPowerIrp(Irp);
    return PwrPassDownIrp(PowerTarget(Dev, Irp), Irp, WaitWakeDone, Dev);
}

// A request of the attach object's stack, by minor function.
static NTSTATUS HandlePower(PDEVICE Dev, PIRP Irp, const WCHAR* Letter) {
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG Type = Stack->Parameters.Power.Type;
    ULONG State = Type == DevicePowerState ? (ULONG)Stack->Parameters.Power.State.DeviceState
                                           : (ULONG)Stack->Parameters.Power.State.SystemState;
    const char* StateName =
        Type == DevicePowerState ? DevicePowerStateName(State) : SystemPowerStateName(State);
    const char* Action = PowerActionName(Stack->Parameters.Power.ShutdownType);
    switch (Stack->MinorFunction) {
    case IRP_MN_WAIT_WAKE:
        return WaitWake(Dev, Irp, Letter);
    case IRP_MN_SET_POWER:
        TRACE(TL_LIFECYCLE, "%P:%S%S,POWER IRP: IRP_MN_SET_POWER(%s) State:%s Action:%s\n",
              DEV_PORT_NAME(Dev), Letter, PowerTypeName(Type), StateName, Action);
        if (Type == SystemPowerState)
            return PwrSetSystemPowerState(Dev, Irp, State);
        if (Type == DevicePowerState)
            return PwrSetDevicePowerState(Dev, Irp, State);
        TRACE(TL_ERROR, "%P:%S%S:DispatchPower: unknown Power.Type %D\n", DEV_PORT_NAME(Dev),
              Letter, Type);
        break;
    case IRP_MN_QUERY_POWER:
        TRACE(TL_LIFECYCLE, "%P:%S%S:POWER IRP: IRP_MN_QUERY_POWER(%s) State:%s Action:%s\n",
              DEV_PORT_NAME(Dev), Letter, PowerTypeName(Type), StateName, Action);
        if (Type == SystemPowerState)
            return PwrQuerySystemPowerState(Dev, Irp, State);
        if (Type == DevicePowerState)
            return PwrQueryDevicePowerState(Dev, Irp, State);
        TRACE(TL_ERROR, "%P:%S%S:DispatchPower: unknown Power.Type %i\n", DEV_PORT_NAME(Dev),
              Letter, Type);
        break;
    default:
        TRACE(TL_LIFECYCLE, "%P:%S%S:POWER IRP: MN:%B  Type:%s State:%s Action:%s\n",
              DEV_PORT_NAME(Dev), Letter, Stack->MinorFunction, PowerTypeName(Type), StateName,
              Action);
        break;
    }
    return PwrPassDownIrp(PowerTarget(Dev, Irp), Irp, NULL, NULL);
}

NTSTATUS NTAPI DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    PDEVICE Dev = NULL;
    GetDevAndPort(DeviceObject, &Dev, NULL);
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    const WCHAR* Letter = DEVOBJ_LETTER(DeviceObject);
    TRACE(TL_LIFECYCLE, "%P:%S%S:DispatchPower[\n", DEV_PORT_NAME(Dev), Letter);
    DEVICE_ADD_REF(Dev);
    NTSTATUS Status;
    if (*(const ULONG*)DeviceObject->DeviceExtension == EXTENSION_TYPE_ATTACH) {
        Status = HandlePower(Dev, Irp, Letter);
    } else {
        // The data port is on no device stack: a power request sent to it
        // has nowhere to go and is completed with its status untouched.
        Status = Irp->IoStatus.Status;
        PoStartNextPowerIrp(Irp);
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    WCHAR PortName[PORT_NAME_COPY_CHARS];
    CopyPortName(Dev, PortName);
    DEVICE_RELEASE(Dev);
    TRACE(TL_LIFECYCLE, "%P:%S%S:]DispatchPower (%D)\n", PortName, Letter, Status);
    return Status;
}
