// Driver entry and unload: the trace mask from the service key, the
// driver-wide state, the dispatch routines, and the memory report at unload.
//
// Environment: DriverEntry and DriverUnload run alone at PASSIVE_LEVEL.
// Locks: none; nothing else of the driver runs beside them.
#define TRACE_FILE "source/cdcacm/entry"
#include "cdcacm.h"

// The trace mask when the service key cannot be read: everything.
#define TRACE_MASK_ALL 255

// A service-key path longer than the copy can hold with its terminator is
// not cut short (a shortened path could name another key): the copy stays
// empty, the key cannot be opened, and every trace line is printed.
static VOID CopyRegistryPath(PCUNICODE_STRING RegistryPath) {
    RtlZeroMemory(RegistryPathBuffer, sizeof(RegistryPathBuffer));
    DriverRegistryPath.Buffer = RegistryPathBuffer;
    DriverRegistryPath.Length = 0;
    DriverRegistryPath.MaximumLength = REGISTRY_PATH_BYTES;
    if (RegistryPath->Length < REGISTRY_PATH_BYTES)
        RtlCopyUnicodeString(&DriverRegistryPath, RegistryPath);
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    MemInit();
    TraceInit();
    CopyRegistryPath(RegistryPath);
    HANDLE Key;
    NTSTATUS OpenStatus = CfgOpenKey(&Key, RegistryPathBuffer);
    if (NT_SUCCESS(OpenStatus)) {
        TraceSetMask(CfgGetParameter(Key, CfgTraceMask));
        ZwClose(Key);
    } else {
        TRACE(TL_ERROR, "%P:Open of Software key failed\n");
        TraceSetMask(TRACE_MASK_ALL);
    }
    TRACE(TL_MODEM, "%P:DriverEntry[\n");
    TRACE(TL_INFO, "%P:%S\n", RegistryPathBuffer);
    if (!NT_SUCCESS(OpenStatus))
        TRACE(TL_ERROR, "%P:DriverEntry: read configuration failed. %D\n", OpenStatus);

    InitializeListHead(&DeviceList);
    KeInitializeMutex(&DeviceListMutex, 0);

    DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
    DriverObject->MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
    DriverObject->MajorFunction[IRP_MJ_READ] = DispatchRead;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchSystemControl;
    DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    DriverObject->DriverExtension->AddDevice = PnPAddDevice;
    DriverObject->DriverUnload = DriverUnload;
    TRACE(TL_MODEM, "%P:]DriverEntry\n");
    return STATUS_SUCCESS;
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT DriverObject) {
    UNREFERENCED_PARAMETER(DriverObject);
    TRACE(TL_INFO, "%P:[DriverUnload\n");
    if (MemoryCounter != 0 || ContMemoryCounter != 0)
        TRACE(TL_ERROR, "%P:Memory Log:\n  MemoryCounter:      %i\n  ContMemoryCounter:  %i\n",
              MemoryCounter, ContMemoryCounter);
    TRACE(TL_INFO, "%P.]DriverUnload\n");
}
