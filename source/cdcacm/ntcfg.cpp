// Registry configuration: the parameter table, the readers of registry
// values, and LoadCfg, which fills a device's configuration block from its
// hardware key when the device is added.
//
// Environment: PASSIVE_LEVEL only (driver entry, add-device, start, open),
// in the caller's thread.
// Locks: none; the table is constant and every call works on its own key
// handle.
#define TRACE_FILE "source/cdcacm/ntcfg"
#include "cdcacm.h"

#define CFG_OPEN_ACCESS (KEY_READ | KEY_WRITE) // 0x2001f
#define CFG_HARDWARE_KEY_ACCESS STANDARD_RIGHTS_READ
#define CFG_PARTIAL_HEADER ((ULONG)FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data))
#define CFG_STAGING_SPARE 16

// Every row writes its default back when the value is missing.
const CFG_PARAM_REC CfgParamTable[CFG_PARAM_COUNT] = {
    {WSTR("RequestTimeout"), 400, 1, CfgRequestTimeout},
    {WSTR("TimerInterval"), 10, 1, CfgTimerInterval},
    {WSTR("HighPowerCfg"), 1, 1, CfgHighPowerCfg},
    {WSTR("LowPowerCfg"), 0, 1, CfgLowPowerCfg},
    {WSTR("UsbInterface"), 0, 1, CfgUsbInterface},
    {WSTR("UsbConfig"), 0, 1, CfgUsbConfig},
    {WSTR("ReadBufferSize"), 64000, 1, CfgReadBufferSize},
    {WSTR("WriteBufferSize"), 4096, 1, CfgWriteBufferSize},
    {WSTR("ReadCircBufferSize"), 64000, 1, CfgReadCircBufferSize},
    {WSTR("WriteCircBufferSize"), 2048, 1, CfgWriteCircBufferSize},
    {WSTR("useCtsFlowControl"), 0, 1, CfgUseCtsFlowControl},
    {WSTR("FlowTest"), 0, 1, CfgFlowTest},
    {WSTR("TraceMask"), 3, 1, CfgTraceMask},
};

NTSTATUS CfgOpenKey(PHANDLE Key, PCWSTR Path) {
    PAGED_CODE();
    UNICODE_STRING Name;
    OBJECT_ATTRIBUTES Attributes;
    HANDLE Opened;
    RtlInitUnicodeString(&Name, Path);
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL,
                               NULL);
    NTSTATUS Status = ZwOpenKey(&Opened, CFG_OPEN_ACCESS, &Attributes);
    if (NT_SUCCESS(Status))
        *Key = Opened;
    return Status;
}

ULONG CfgGetParameter(HANDLE Key, ULONG CfgParam) {
    PAGED_CODE();
    if (CfgParam >= CFG_PARAM_COUNT) {
        TRACE(TL_ASSERT, "%P: Invalid Config Parameter: %i", CfgParam);
        return 0;
    }
    const CFG_PARAM_REC* Rec = &CfgParamTable[CfgParam];
    // clang-format off
    TRACE_ASSERT(CfgParam==Rec->Idx);
    // clang-format on
    return CfgReadDword(Key, Rec->Name, Rec->Default, Rec->WriteDefault);
}

ULONG CfgReadDword(HANDLE Key, PCWSTR Name, ULONG Default, UCHAR WriteDefault) {
    PAGED_CODE();
    ULONG Buffer[8];
    static_assert((sizeof(KEY_VALUE_PARTIAL_INFORMATION) + sizeof(ULONG)) <= (sizeof(ULONG) * 8),
                  "(sizeof(KEY_VALUE_PARTIAL_INFORMATION)+sizeof(ULONG))<=(sizeof(ULONG)*8)");
    PKEY_VALUE_PARTIAL_INFORMATION Info = (PKEY_VALUE_PARTIAL_INFORMATION)Buffer;
    UNICODE_STRING ValueName;
    ULONG ResultLength = 0;
    RtlInitUnicodeString(&ValueName, Name);
    NTSTATUS Status = ZwQueryValueKey(Key, &ValueName, KeyValuePartialInformation, Buffer,
                                      sizeof(Buffer), &ResultLength);
    if (NT_SUCCESS(Status)) {
        ULONG Value = Default;
        // A value of another type or size is left as it is.
        if (Info->Type == REG_DWORD && Info->DataLength == sizeof(ULONG))
            RtlCopyMemory(&Value, Info->Data, sizeof(ULONG));
        return Value;
    }
    // Only a missing value is created: one that exists but does not fit the
    // buffer (a long string) is the user's and stays as it is. The write's
    // own failure is not reported: the default is used anyway.
    if (WriteDefault && Status == STATUS_OBJECT_NAME_NOT_FOUND)
        ZwSetValueKey(Key, &ValueName, 0, REG_DWORD, &Default, sizeof(ULONG));
    return Default;
}

NTSTATUS CfgGetValueData(HANDLE Key, PCWSTR Name, PULONG Length, PVOID Buffer) {
    PAGED_CODE();
    // The spare bytes beyond the header let a value up to 4 bytes longer than
    // the capacity be read with success and cut to the capacity.
    ULONG StagingSize = *Length + CFG_STAGING_SPARE;
    PKEY_VALUE_PARTIAL_INFORMATION Staging = (PKEY_VALUE_PARTIAL_INFORMATION)ExAllocatePoolWithTag(
        PagedPool, StagingSize, CFG_STAGING_TAG);
    if (Staging == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Staging, StagingSize);

    UNICODE_STRING ValueName;
    ULONG ResultLength = 0;
    RtlInitUnicodeString(&ValueName, Name);
    NTSTATUS Status = ZwQueryValueKey(Key, &ValueName, KeyValuePartialInformation, Staging,
                                      StagingSize, &ResultLength);
    if (Status == STATUS_SUCCESS && Buffer != NULL)
        RtlCopyMemory(Buffer, Staging->Data,
                      Staging->DataLength < *Length ? Staging->DataLength : *Length);
    // Also after a too-small buffer: that is how a probe learns the size.
    if (ResultLength > 0)
        *Length = ResultLength - CFG_PARTIAL_HEADER;
    ExFreePoolWithTag(Staging, CFG_STAGING_TAG);
    return Status;
}

// A value with an empty data part returns success and no block; callers
// treat a missing block as "no value" and never as a string.
NTSTATUS CfgAllocValueData(HANDLE Key, PCWSTR Name, PVOID* Block) {
    PAGED_CODE();
    ULONG Length = 0;
    *Block = NULL;
    NTSTATUS Status = CfgGetValueData(Key, Name, &Length, NULL);
    if (Length == 0)
        return Status;
    PVOID Data = MemAlloc(Length + sizeof(WCHAR), CFG_VALUE_TAG);
    if (Data == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Data, Length + sizeof(WCHAR));
    Status = CfgGetValueData(Key, Name, &Length, Data);
    if (Status != STATUS_SUCCESS) {
        MemFree(Data);
        return Status;
    }
    *Block = Data;
    return Status;
}

static ULONG CfgClamp(ULONG Value, ULONG Low, ULONG High) {
    if (Value > High)
        return High;
    if (Value < Low)
        return Low;
    return Value;
}

NTSTATUS LoadCfg(PDEVICE_OBJECT Pdo, PDEVICE_CFG Cfg) {
    PAGED_CODE();
    HANDLE Key;
    TRACE(TL_LIFECYCLE, "%P:[LoadCfg \n");
    NTSTATUS Status =
        IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, CFG_HARDWARE_KEY_ACCESS, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:LoadCfg: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", Status);
    } else {
        // The endpoint addresses are the device start's, not the registry's.
        Cfg->RequestTimeout = CfgGetParameter(Key, CfgRequestTimeout);
        Cfg->TimerInterval = CfgClamp(CfgGetParameter(Key, CfgTimerInterval), 1, 100);
        Cfg->HighPowerCfg = CfgGetParameter(Key, CfgHighPowerCfg);
        Cfg->LowPowerCfg = CfgGetParameter(Key, CfgLowPowerCfg);
        Cfg->UsbInterface = CfgGetParameter(Key, CfgUsbInterface);
        Cfg->UsbConfig = CfgGetParameter(Key, CfgUsbConfig);
        Cfg->ReadBufferSize = CfgClamp(CfgGetParameter(Key, CfgReadBufferSize), 64, 128000);
        Cfg->WriteBufferSize = CfgClamp(CfgGetParameter(Key, CfgWriteBufferSize), 64, 128000);
        Cfg->ReadCircBufferSize =
            CfgClamp(CfgGetParameter(Key, CfgReadCircBufferSize), 256, 128000);
        Cfg->WriteCircBufferSize =
            CfgClamp(CfgGetParameter(Key, CfgWriteCircBufferSize), 256, 128000);
        Cfg->useCtsFlowControl = CfgGetParameter(Key, CfgUseCtsFlowControl);
        Cfg->FlowTest = CfgGetParameter(Key, CfgFlowTest);
        Status = STATUS_SUCCESS;
        ZwClose(Key);
    }
    TRACE(TL_LIFECYCLE, "%P:]LoadCfg (%D)\n", Status);
    return Status;
}
