// The port object: resolving a request's device object to the device
// context and its embedded port object.
//
// Environment: any IRQL.
// Locks: none; GetDevAndPort reads only the extension's fixed fields.
#define TRACE_FILE "source/cdcacm/port"
#include "cdcacm.h"

VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port) {
    // Both kinds of extension start with their Type; the attach object's
    // extension points at the data port's DEVICE.
    PVOID Extension = DeviceObject->DeviceExtension;
    PDEVICE Device;

    switch (*(PULONG)Extension) {
    case EXTENSION_TYPE_DEVICE:
        Device = (PDEVICE)Extension;
        break;
    case EXTENSION_TYPE_ATTACH:
        Device = ((PATTACH_OBJ)Extension)->Device;
        break;
    default:
        return;
    }
    if (Dev != NULL)
        *Dev = Device;
    if (Port != NULL)
        *Port = &Device->Port;
}
