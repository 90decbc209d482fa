// Device creation, naming and COM port links: the add-device routine, the
// data port's COM link, device-map value and device interface, the search
// for a data port by serial number, the deletion of both device objects,
// the identity values in the hardware key, and the device references.
//
// Environment: PASSIVE_LEVEL, except DeviceAddRef and DeviceRelease (any
// IRQL up to DISPATCH_LEVEL while a reference is held; the last release
// runs at PASSIVE_LEVEL).
// Locks: DeviceListMutex around the search and join of a re-plugged modem,
// the insertion of a new device and the whole of DeleteDevice.
#pragma once

#include "forward.h"

// Base of the data ports' names: "\Device\korvadem0", "\Device\korvadem1", ...
#define DATA_PORT_BASE_NAME WSTR("korvadem")

DRIVER_ADD_DEVICE PnPAddDevice;

NTSTATUS CreateLinks(PDEVICE Dev);
NTSTATUS CreateSymbolikLink(PPORT_OBJ Port);
// Undoes CreateSymbolikLink; harmless when nothing was created.
VOID DeleteLinks(PDEVICE Dev);
// Tries "\Device\" + Base + 0 ... 99 and stops at the first name free;
// Name has a buffer of at least PORT_NAME_BUFFER_BYTES.
NTSTATUS CreateNumberedDeviceObject(PCWSTR Base, ULONG ExtensionSize, PDRIVER_OBJECT DriverObject,
                                    PUNICODE_STRING Name, PDEVICE_OBJECT* DeviceObject);
// The data port that last served a modem with this serial number (Length
// bytes with the terminator), interface and configuration; the caller holds
// DeviceListMutex.
PDEVICE FindDeviceBySernum(const WCHAR* Sernum, ULONG Length, ULONG UsbInterface, ULONG UsbConfig);
// Deletes the data port whose last DEVICE reference was just dropped.
VOID DeleteDevice(PDEVICE_OBJECT DeviceObject);
VOID DetachAndDeleteDevice(PATTACH_OBJ Attach);
// "SerialNumber" of the hardware key: *Length is the capacity in and the
// data length out.
NTSTATUS ReadSernum(PDEVICE_OBJECT Pdo, PVOID Buffer, PULONG Length);
NTSTATUS WriteSernum(PDEVICE Dev);
NTSTATUS WriteInstance(PDEVICE Dev);

// One DEVICE reference more or less, traced with the caller's file and
// line; the release of the last one deletes the data port.
LONG DeviceAddRef(PDEVICE Dev, const char* File, int Line);
LONG DeviceRelease(PDEVICE Dev, const char* File, int Line);
#define DEVICE_ADD_REF(Dev) DeviceAddRef((Dev), TRACE_FILE, __LINE__)
#define DEVICE_RELEASE(Dev) DeviceRelease((Dev), TRACE_FILE, __LINE__)
// The attach object's references; the release of the last one detaches and
// deletes it.
VOID AttachAddRef(PATTACH_OBJ Attach);
VOID AttachRelease(PATTACH_OBJ Attach);
