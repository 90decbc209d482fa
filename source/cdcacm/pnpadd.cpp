// Device creation, naming and COM port links. The add-device routine builds
// the attach object on the modem's physical device object and either joins
// it to the data port that served the same modem before (same serial
// number, interface and configuration) or creates a new numbered data port
// with its port object, links, control IRP and packet pools. The data port
// outlives its modem while references hold it; the last release deletes it.
//
// Environment: PASSIVE_LEVEL in system threads (add-device, PnP and close
// dispatch, work items); DeviceAddRef at any IRQL up to DISPATCH_LEVEL.
// Locks: DeviceListMutex is held over the search and the whole join of a
// re-plugged modem, over the insertion of a new device and over the whole
// of DeleteDevice, so that a device is never found while it is deleted.
// Callers may hold the device's DeviceMutex, which is taken before it.
// Reference counts change by interlocked operations only.
#define TRACE_FILE "source/cdcacm/pnpadd"
#include "cdcacm.h"

// The COM-port device interface class.
static const GUID ComPortInterfaceClass = {
    0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};

#define PNP_IRP_TAG 0x30504E50 // 'PNP0', the control IRP
#define MAX_DATA_PORT_NUMBERS 100
#define KEY_READ_ACCESS 0x20000 // READ_CONTROL, as the hardware key is opened
#define INT_PIPE_BUFFER 16
#define BULK_IN_PACKETS 5

LONG DeviceAddRef(PDEVICE Dev, const char* File, int Line) {
    LONG Count = InterlockedIncrement(&Dev->RefCount);
    TRACE(TL_REF, "%P:%S:IncRef: %i, %s(%d)\n", DEV_PORT_NAME(Dev), Count, File, Line);
    return Count;
}

LONG DeviceRelease(PDEVICE Dev, const char* File, int Line) {
    LONG Count = InterlockedDecrement(&Dev->RefCount);
    TRACE(TL_REF, "%P:%S:DecRef: %i, %s(%d)\n", DEV_PORT_NAME(Dev), Count, File, Line);
    if (Count == 0)
        DeleteDevice(Dev->Port.DeviceObject);
    return Count;
}

VOID AttachAddRef(PATTACH_OBJ Attach) {
    LONG Count = InterlockedIncrement(&Attach->RefCount);
    TRACE(TL_REF, "%P:%S:IncRefAtt: %i\n", DEV_PORT_NAME(Attach->Device), Count);
}

VOID AttachRelease(PATTACH_OBJ Attach) {
    LONG Count = InterlockedDecrement(&Attach->RefCount);
    TRACE(TL_REF, "%P:%S:DecRefAtt: %i\n", DEV_PORT_NAME(Attach->Device), Count);
    if (Count == 0)
        DetachAndDeleteDevice(Attach);
}

static NTSTATUS OpenHardwareKey(PDEVICE_OBJECT Pdo, PHANDLE Key) {
    return IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, KEY_READ_ACCESS, Key);
}

NTSTATUS ReadSernum(PDEVICE_OBJECT Pdo, PVOID Buffer, PULONG Length) {
    HANDLE Key;
    NTSTATUS Status = OpenHardwareKey(Pdo, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:ReadSernum: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", Status);
        return Status;
    }
    Status = CfgGetValueData(Key, WSTR("SerialNumber"), Length, Buffer);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:ReadSernum: CfgGetValueData failed (%D)\n", Status);
    ZwClose(Key);
    return Status;
}

NTSTATUS WriteSernum(PDEVICE Dev) {
    HANDLE Key;
    NTSTATUS Status = OpenHardwareKey(Dev->Pdo, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:WriteSernum: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    Status = RtlWriteRegistryValue(RTL_REGISTRY_HANDLE, (PCWSTR)Key, WSTR("SerialNumber"), REG_SZ,
                                   Dev->Sernum, Dev->SernumLength + sizeof(WCHAR));
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:WriteSernum: RtlWriteRegistryValue failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
    ZwClose(Key);
    return Status;
}

NTSTATUS WriteInstance(PDEVICE Dev) {
    HANDLE Key;
    NTSTATUS Status = OpenHardwareKey(Dev->Pdo, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:WriteInstance: Open PLUGPLAY_REGKEY_DEVICE failed (%D)",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    Status = RtlWriteRegistryValue(RTL_REGISTRY_HANDLE, (PCWSTR)Key, WSTR("UsbInterface"),
                                   REG_DWORD, &Dev->Cfg.UsbInterface, sizeof(ULONG));
    if (NT_SUCCESS(Status))
        Status = RtlWriteRegistryValue(RTL_REGISTRY_HANDLE, (PCWSTR)Key, WSTR("UsbConfig"),
                                       REG_DWORD, &Dev->Cfg.UsbConfig, sizeof(ULONG));
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:WriteInstance: RtlWriteRegistryValue failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
    ZwClose(Key);
    return Status;
}

// Points Name at Buffer (PORT_NAME_BUFFER_BYTES, zero-filled, so that the
// name stays zero-terminated for the registry calls) and copies Source in.
static VOID SetFixedName(PUNICODE_STRING Name, PWCHAR Buffer, PCUNICODE_STRING Source) {
    RtlZeroMemory(Buffer, PORT_NAME_BUFFER_BYTES);
    Name->Buffer = Buffer;
    Name->Length = 0;
    Name->MaximumLength = PORT_NAME_BUFFER_BYTES - sizeof(WCHAR);
    RtlCopyUnicodeString(Name, Source);
    Name->MaximumLength = PORT_NAME_BUFFER_BYTES;
}

static VOID ReleaseInterfaceName(PPORT_OBJ Port) {
    RtlFreeUnicodeString(&Port->InterfaceName);
    Port->InterfaceName.Buffer = NULL;
    Port->InterfaceName.Length = 0;
    Port->InterfaceName.MaximumLength = 0;
}

// Steps of CreateSymbolikLink once the hardware key is open.
static NTSTATUS CreateLinksFromKey(PPORT_OBJ Port, PDEVICE Dev, HANDLE Key) {
    // A name left from a link that could not be created is read again.
    if (Port->PortName != NULL && !Port->LinkCreated) {
        MemFree(Port->PortName);
        Port->PortName = NULL;
    }
    NTSTATUS Status = CfgAllocValueData(Key, WSTR("PortName"), (PVOID*)&Port->PortName);
    // A "PortName" that is present but empty names no COM port: the link
    // fails as for a name that cannot be used.
    if (NT_SUCCESS(Status) && (Port->PortName == NULL || Port->PortName[0] == 0)) {
        if (Port->PortName != NULL)
            MemFree(Port->PortName);
        Port->PortName = NULL;
        Status = STATUS_OBJECT_NAME_INVALID;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:CreateSymbolikLink: Get PortName failed (%D)\n", Status);
        return Status;
    }

    UNICODE_STRING Name;
    RtlInitUnicodeString(&Name, Port->PortName);
    RtlZeroMemory(Port->DosLinkNameBuffer, sizeof(Port->DosLinkNameBuffer));
    Port->DosLinkName.Buffer = Port->DosLinkNameBuffer;
    Port->DosLinkName.Length = 0;
    Port->DosLinkName.MaximumLength = PORT_NAME_BUFFER_BYTES;
    RtlAppendUnicodeToString(&Port->DosLinkName, WSTR("\\DosDevices\\"));
    RtlAppendUnicodeStringToString(&Port->DosLinkName, &Name);
    Status = IoCreateSymbolicLink(&Port->DosLinkName, &Port->DeviceName);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:CreateSymbolikLink: IoCreateSymbolicLink failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        LogError(Dev->Pdo, (ULONG)Status,
                 "Cannot create symbolic link. Use Device Manager to select a free COM port for "
                 "this driver.");
        return Status;
    }
    Port->LinkCreated = TRUE;

    if (Port->InterfaceName.Buffer == NULL) {
        Status =
            IoRegisterDeviceInterface(Dev->Pdo, &ComPortInterfaceClass, NULL, &Port->InterfaceName);
        if (!NT_SUCCESS(Status)) {
            Port->InterfaceName.Buffer = NULL;
            Port->InterfaceName.Length = 0;
            TRACE(TL_ERROR, "%P:%S:CreateSymbolikLink: IoRegisterDeviceInterface failed (%D)\n",
                  DEV_PORT_NAME(Dev), Status);
            return Status;
        }
    }

    Status =
        RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, WSTR("SERIALCOMM"), Port->DeviceName.Buffer,
                              REG_SZ, Port->PortName, Name.Length + sizeof(WCHAR));
    SetFixedName(&Port->SerialCommValueName, Port->SerialCommValueNameBuffer, &Port->DeviceName);
    if (!NT_SUCCESS(Status)) {
        ReleaseInterfaceName(Port);
        TRACE(TL_ERROR, "%P:%S:CreateSymbolikLink: Get RtlWriteRegistryValue failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }

    Status = IoSetDeviceInterfaceState(&Port->InterfaceName, TRUE);
    if (!NT_SUCCESS(Status)) {
        ReleaseInterfaceName(Port);
        TRACE(TL_ERROR, "%P:%S:CreateSymbolikLink: IoSetDeviceInterfaceState failed (%D)\n",
              DEV_PORT_NAME(Dev), Status);
    }
    return Status;
}

NTSTATUS CreateSymbolikLink(PPORT_OBJ Port) {
    TRACE(TL_LIFECYCLE, "%P:[CreateSymbolikLink \n");
    // clang-format off
    TRACE_ASSERT(PTRVALID(Port,PORT_OBJ));
    // clang-format on
    PDEVICE Dev = Port->Device;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    HANDLE Key;
    NTSTATUS Status = OpenHardwareKey(Dev->Pdo, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:CreateSymbolikLink: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", Status);
        return Status;
    }
    // The key is closed on every way out, not only after success.
    Status = CreateLinksFromKey(Port, Dev, Key);
    ZwClose(Key);
    TRACE(TL_LIFECYCLE, "%P:%S:]CreateSymbolikLink (%D) \n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS CreateLinks(PDEVICE Dev) {
    NTSTATUS Status = CreateSymbolikLink(&Dev->Port);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:Pnpadd: CreateSymbolikLink failed (%D)\n", DEV_PORT_NAME(Dev),
              Status);
    return Status;
}

VOID DeleteLinks(PDEVICE Dev) {
    PPORT_OBJ Port = &Dev->Port;
    if (Port->LinkCreated) {
        NTSTATUS Status = IoDeleteSymbolicLink(&Port->DosLinkName);
        Port->LinkCreated = FALSE;
        if (!NT_SUCCESS(Status))
            TRACE(TL_ERROR, "%P:%S:DeleteLinks IoDeleteSymbolicLink_1 failed (%D)\n",
                  DEV_PORT_NAME(Dev), Status);
        MemFree(Port->PortName);
        Port->PortName = NULL;
    }
    if (Port->SerialCommValueName.Buffer != NULL) {
        RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, WSTR("SERIALCOMM"),
                               Port->SerialCommValueName.Buffer);
        Port->SerialCommValueName.Buffer = NULL;
        Port->SerialCommValueName.Length = 0;
    }
    if (Port->InterfaceName.Buffer != NULL)
        IoSetDeviceInterfaceState(&Port->InterfaceName, FALSE);
}

NTSTATUS CreateNumberedDeviceObject(PCWSTR Base, ULONG ExtensionSize, PDRIVER_OBJECT DriverObject,
                                    PUNICODE_STRING Name, PDEVICE_OBJECT* DeviceObject) {
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    for (ULONG Number = 0; Number < MAX_DATA_PORT_NUMBERS; Number++) {
        BuildNumberedName(Name, WSTR("\\Device\\"), Base, Number);
        Status = IoCreateDevice(DriverObject, ExtensionSize, Name, FILE_DEVICE_SERIAL_PORT,
                                FILE_DEVICE_SECURE_OPEN, TRUE, DeviceObject);
        if (NT_SUCCESS(Status))
            break;
    }
    return Status;
}

PDEVICE FindDeviceBySernum(const WCHAR* Sernum, ULONG Length, ULONG UsbInterface, ULONG UsbConfig) {
    for (PLIST_ENTRY Entry = DeviceList.Flink; Entry != &DeviceList; Entry = Entry->Flink) {
        PDEVICE Dev = CONTAINING_RECORD(Entry, DEVICE, ListEntry);
        // clang-format off
        TRACE_ASSERT(PTRVALID(Dev,DEVICE));
        // clang-format on
        if (Dev->SernumLength == 0)
            continue;
        // The length read counts the terminator, SernumLength does not.
        if (Length == Dev->SernumLength + sizeof(WCHAR) &&
            RtlCompareMemory(Dev->Sernum, Sernum, Length) == Length &&
            Dev->Cfg.UsbInterface == UsbInterface && Dev->Cfg.UsbConfig == UsbConfig)
            return Dev;
    }
    return NULL;
}

VOID DetachAndDeleteDevice(PATTACH_OBJ Attach) {
    if (Attach->LowerDevObj != NULL) {
        IoDetachDevice(Attach->LowerDevObj);
        Attach->LowerDevObj = NULL;
    }
    IoDeleteDevice(Attach->DeviceObject);
}

VOID DeleteDevice(PDEVICE_OBJECT DevObj) {
    // clang-format off
    TRACE_ASSERT(DevObj != NULL);
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    KeWaitForSingleObject(&DeviceListMutex, Executive, KernelMode, FALSE, NULL);
    PDEVICE Dev = (PDEVICE)DevObj->DeviceExtension;
    // clang-format off
    TRACE_ASSERT(PTRVALID(Dev,DEVICE));
    // clang-format on
    TRACE(TL_LIFECYCLE, "%P:%S:[DeleteDevice \n", DEV_PORT_NAME(Dev));
    KeCancelTimer(&Dev->WaitCancelTimer.Timer);
    KeCancelTimer(&Dev->ReinitTimer.Timer);
    StopTimer(Dev);
    RemoveEntryList(&Dev->ListEntry);
    InitializeListHead(&Dev->ListEntry);
    if (Dev->Port.SerPort != NULL)
        DeletePort(&Dev->Port);
    DeleteLinks(Dev);
    // A name read for a link that could not be created is still held.
    if (Dev->Port.PortName != NULL) {
        MemFree(Dev->Port.PortName);
        Dev->Port.PortName = NULL;
    }
    if (Dev->ControlIrp != NULL)
        MemFree(Dev->ControlIrp);
    RcvFree(&Dev->ReceivePipe);
    RcvFree(&Dev->IntPipe);
    SndFree(&Dev->WritePipe);
    IoDeleteDevice(DevObj);
    KeReleaseMutex(&DeviceListMutex, FALSE);
    TRACE(TL_LIFECYCLE, "%P:]DeleteDevice \n");
}

// Joins a re-plugged modem's attach object to the data port that served it
// (caller holds DeviceListMutex). A failed link creation undoes the join
// and the links made so far, so that the data port stays detached and a
// later plug of the same modem can join it again.
static NTSTATUS JoinDevice(PDEVICE Dev, PATTACH_OBJ Attach, PDEVICE_OBJECT Pdo,
                           const WCHAR* Sernum) {
    if (Dev->LowerDevObj != NULL) {
        TRACE(TL_ERROR, "%P:%S:PnPAddDevice LowerDevObj != NULL! serial number %S! Exit!!!\n",
              DEV_PORT_NAME(Dev), Sernum);
        return STATUS_UNSUCCESSFUL;
    }
    Attach->Device = Dev;
    Dev->LowerDevObj = Attach->LowerDevObj;
    Dev->Pdo = Pdo;
    NTSTATUS Status = CreateLinks(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:PnPAddDevice CreateLinks_1 failed (%D)\n", Status);
        DeleteLinks(Dev);
        Dev->LowerDevObj = NULL;
        Dev->Pdo = NULL;
        return Status;
    }
    Dev->ReinitCount = 1;
    DEVICE_ADD_REF(Dev);
    AttachAddRef(Attach);
    if (Dev->OpenCount > 0)
        NotifyLowerAttach(Dev);
    return STATUS_SUCCESS;
}

// The device context of a new data port, from its zero-filled extension.
static VOID InitDeviceContext(PDEVICE Dev, PDEVICE_OBJECT DataPort, PCUNICODE_STRING Name,
                              PATTACH_OBJ Attach, PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo,
                              PDEVICE_CFG Cfg) {
    DataPort->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    DataPort->Flags &= ~DO_DEVICE_INITIALIZING;
    RtlZeroMemory(Dev, sizeof(*Dev));
    SetFixedName(&Dev->Port.DeviceName, Dev->Port.DeviceNameBuffer, Name);
    Dev->Type = EXTENSION_TYPE_DEVICE;
    Dev->Port.DeviceObject = DataPort;
    Attach->Device = Dev;
    Dev->LowerDevObj = Attach->LowerDevObj;
    InitializeListHead(&Dev->ListEntry);
    Dev->DriverObject = DriverObject;
    Dev->Pdo = Pdo;

    InitTimerObj(&Dev->QueueTimer, TimerDpcRoutine, Dev, Cfg->TimerInterval);
    KeInitializeEvent(&Dev->TimerIdle, NotificationEvent, FALSE);
    InitTimerObj(&Dev->ReinitTimer, ReinitTimerFnc, Dev, 500);
    InitTimerObj(&Dev->WaitCancelTimer, DelayWaitCancelFnc, Dev, 100);
    KeInitializeEvent(&Dev->FlagSentEvent, NotificationEvent, FALSE);
    InitTimerObj(&Dev->FlowTestTimer, RcvTimerRoutine, Dev, Cfg->FlowTest);
    KeInitializeMutex(&Dev->DeviceMutex, 0);
    KeInitializeSpinLock(&Dev->Lock);
    CompleteQueueInit(&Dev->CompleteQueue);

    Dev->DevicePowerState = PowerDeviceD0;
    Dev->PnpState = PNP_STATE_ADDED;
    Dev->PcStatus = 0;
    DEVICE_ADD_REF(Dev);
    Dev->Magic = DEVICE_MAGIC;

    Dev->StackSize = Attach->LowerDevObj->StackSize;
    // StackSize * 36 + 112 bytes on x86; IoSizeOfIrp is that on every target.
    Dev->IrpSize = IoSizeOfIrp(Dev->StackSize);
    UsbDeviceInit(Dev, &Dev->UsbDevice);
    Dev->Cfg = *Cfg;
}

// The port object, links, control IRP and packet pools of a new data port.
static NTSTATUS BuildDataPort(PDEVICE Dev, PDRIVER_OBJECT DriverObject) {
    NTSTATUS Status = CreatePort(Dev, &Dev->Port);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:Pnpadd: CreateDataPort failed (%D)\n", Status);
        return Status;
    }
    Status = CreateLinks(Dev);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:Pnpadd: CreateLinks failed (%D)\n", DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    Dev->ControlIrp = (PIRP)MemAlloc(Dev->IrpSize, PNP_IRP_TAG);
    if (Dev->ControlIrp == NULL) {
        TRACE(TL_ASSERT, "%P:%S:Pnpadd: alloc IRP failed, size %d\n", DEV_PORT_NAME(Dev),
              Dev->StackSize);
        LogNoMemory(DriverObject, LOG_ERROR_CODE);
        return STATUS_UNSUCCESSFUL;
    }
    IoInitializeIrp(Dev->ControlIrp, Dev->IrpSize, Dev->StackSize);

    Status = RcvInit(&Dev->ReceivePipe, Dev, SndRcvIndicateData, NULL, Dev->Cfg.ReadBufferSize,
                     BULK_IN_PACKETS, FALSE);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ASSERT, "%P:%S:Pnpadd: RcvInit failed, size ~%d\n", DEV_PORT_NAME(Dev),
              Dev->Cfg.ReadBufferSize);
        return Status;
    }
    Status = RcvInit(&Dev->IntPipe, Dev, RcvIntIn, NULL, INT_PIPE_BUFFER, 1, TRUE);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ASSERT, "%P:%S:Pnpadd: RcvInit failed, size ~%d\n", DEV_PORT_NAME(Dev),
              INT_PIPE_BUFFER);
        return Status;
    }
    Status = SndInit(&Dev->WritePipe, Dev, SndOutComplete, NULL, Dev->Cfg.WriteBufferSize, 1);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ASSERT, "%P:%S:Pnpadd: SndInit failed, size ~%d\n", DEV_PORT_NAME(Dev),
              Dev->Cfg.WriteBufferSize);
    return Status;
}

// Creates the attach object on the physical device object.
static NTSTATUS CreateAttachObject(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo,
                                   PATTACH_OBJ* Attach) {
    PDEVICE_OBJECT AttachDevObj;
    NTSTATUS Status =
        IoCreateDevice(DriverObject, sizeof(ATTACH_OBJ), NULL, FILE_DEVICE_SERIAL_PORT,
                       FILE_DEVICE_SECURE_OPEN, TRUE, &AttachDevObj);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:PnPAddDevice IoCreateDevice failed (%D)\n", Status);
        return Status;
    }
    PATTACH_OBJ Att = (PATTACH_OBJ)AttachDevObj->DeviceExtension;
    Att->Type = EXTENSION_TYPE_ATTACH;
    Att->DeviceObject = AttachDevObj;
    Att->LowerDevObj = IoAttachDeviceToDeviceStack(AttachDevObj, Pdo);
    if (Att->LowerDevObj == NULL) {
        TRACE(TL_ASSERT, "%P:IoAttachDeviceToDeviceStack failed\n");
        IoDeleteDevice(AttachDevObj);
        return STATUS_UNSUCCESSFUL;
    }
    AttachDevObj->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    AttachDevObj->Flags &= ~DO_DEVICE_INITIALIZING;
    *Attach = Att;
    return STATUS_SUCCESS;
}

// Joins the modem to the data port that served it before; *Joined stays FALSE
// when there is none.
static NTSTATUS TryJoinExisting(PATTACH_OBJ Attach, PDEVICE_OBJECT Pdo, PDEVICE_CFG Cfg,
                                BOOLEAN* Joined) {
    WCHAR Sernum[SERNUM_BUFFER_BYTES / sizeof(WCHAR)];
    ULONG Length = sizeof(Sernum);
    *Joined = FALSE;
    RtlZeroMemory(Sernum, sizeof(Sernum));
    if (!NT_SUCCESS(ReadSernum(Pdo, Sernum, &Length))) {
        TRACE(TL_ERROR, "%P:PnPAddDevice ReadSernum failed\n");
        return STATUS_SUCCESS;
    }
    KeWaitForSingleObject(&DeviceListMutex, Executive, KernelMode, FALSE, NULL);
    PDEVICE Dev = FindDeviceBySernum(Sernum, Length, Cfg->UsbInterface, Cfg->UsbConfig);
    NTSTATUS Status = STATUS_SUCCESS;
    if (Dev != NULL) {
        TRACE(TL_INFO, "%P:%S:PnPAddDevice use existing Device Object %S, %S, %d\n",
              DEV_PORT_NAME(Dev), Dev->Sernum, Sernum, Dev->SernumLength);
        *Joined = TRUE;
        Status = JoinDevice(Dev, Attach, Pdo, Sernum);
    }
    KeReleaseMutex(&DeviceListMutex, FALSE);
    return Status;
}

NTSTATUS NTAPI PnPAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo) {
    TRACE(TL_LIFECYCLE, "%P:[PnPAddDevice\n");
    // clang-format off
    TRACE_ASSERT(IRQL_EQ_PASSIVE());
    // clang-format on
    PATTACH_OBJ Attach;
    NTSTATUS Status = CreateAttachObject(DriverObject, Pdo, &Attach);
    if (!NT_SUCCESS(Status))
        return Status;

    DEVICE_CFG Cfg;
    Status = LoadCfg(Pdo, &Cfg);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ASSERT, "%P:Pnpadd: LoadCfg failed (%D)\n", Status);
        DetachAndDeleteDevice(Attach);
        return STATUS_UNSUCCESSFUL;
    }

    BOOLEAN Joined;
    Status = TryJoinExisting(Attach, Pdo, &Cfg, &Joined);
    if (Joined) {
        if (!NT_SUCCESS(Status))
            DetachAndDeleteDevice(Attach);
        return Status;
    }

    WCHAR NameBuffer[PORT_NAME_BUFFER_BYTES / sizeof(WCHAR)];
    UNICODE_STRING Name;
    Name.Buffer = NameBuffer;
    Name.Length = 0;
    Name.MaximumLength = sizeof(NameBuffer);
    PDEVICE_OBJECT DataPort;
    Status = CreateNumberedDeviceObject(DATA_PORT_BASE_NAME, sizeof(DEVICE), DriverObject, &Name,
                                        &DataPort);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:Pnpadd: CreateNumberedDeviceObject failed (%D)\n", Status);
        DetachAndDeleteDevice(Attach);
        return Status;
    }
    PDEVICE Dev = (PDEVICE)DataPort->DeviceExtension;
    InitDeviceContext(Dev, DataPort, &Name, Attach, DriverObject, Pdo, &Cfg);
    Status = BuildDataPort(Dev, DriverObject);
    if (!NT_SUCCESS(Status)) {
        DeleteDevice(DataPort);
        DetachAndDeleteDevice(Attach);
        TRACE(TL_ASSERT, "%P:]PnPAddDevice (%D)\n", Status);
        return Status;
    }

    AttachAddRef(Attach);
    KeWaitForSingleObject(&DeviceListMutex, Executive, KernelMode, FALSE, NULL);
    InsertHeadList(&DeviceList, &Dev->ListEntry);
    KeReleaseMutex(&DeviceListMutex, FALSE);
    TRACE(TL_LIFECYCLE, "%P:%S:]PnPAddDevice (%D)\n", DEV_PORT_NAME(Dev), STATUS_SUCCESS);
    return STATUS_SUCCESS;
}
