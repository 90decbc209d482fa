// The configured USB side of a device: the USB_DEVICE embedded in every
// DEVICE, and one record per opened interface and per opened endpoint.
//
// Records: USB_DEVICE lives inside its DEVICE. USB_INTERFACE and USB_PIPE
// are allocated when a configuration is selected and freed when it is
// dropped (stop, removal, device deletion); the USB_DEVICE's lists own them.
//
// Environment: PASSIVE_LEVEL for creation, deletion, abort and reset.
// Locks: none of its own; configuration changes are serialised by the
// device's DeviceMutex. PendingRequests changes only by interlocked
// operations.
#pragma once

#include "forward.h"

struct _USB_DEVICE {
    PDEVICE Dev;
    LIST_ENTRY PipeList;      // USB_PIPE records, in creation order
    LIST_ENTRY InterfaceList; // USB_INTERFACE records, in creation order
    BOOLEAN Configured;
    CCHAR StackSize; // for the IRPs of configuration and pipe requests
    UCHAR ConfigIndex;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigDescriptor; // kept while configured
    UCHAR DataInterface;                            // number of the data interface
    USBD_CONFIGURATION_HANDLE ConfigHandle;
};

// Allocated with tag 'usc0'.
struct _USB_INTERFACE {
    LIST_ENTRY Link; // in InterfaceList
    USHORT Length;
    UCHAR InterfaceNumber;
    UCHAR AlternateSetting;
    UCHAR Class;
    UCHAR SubClass;
    UCHAR Protocol;
    USBD_INTERFACE_HANDLE InterfaceHandle;
    ULONG NumberOfPipes;
};

// Allocated with tag 'pip0'.
struct _USB_PIPE {
    LIST_ENTRY Link; // in PipeList
    PUSB_INTERFACE Interface;
    USHORT MaximumPacketSize;
    UCHAR EndpointAddress; // direction bit 0x80 included
    UCHAR Interval;
    USBD_PIPE_TYPE PipeType;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG MaximumTransferSize;
    ULONG PipeFlags;
    volatile LONG PendingRequests; // transfers submitted and not yet completed
};

#define USB_INTERFACE_TAG 0x30637375      // 'usc0'
#define USB_CONFIG_DESC_TAG 0x31637375    // 'usc1'
#define USB_INTERFACE_LIST_TAG 0x32637375 // 'usc2'
#define USB_PIPE_TAG 0x30706970           // 'pip0'

// The driver configures the first two interfaces of a configuration: the
// communication interface and the data interface.
#define USB_CFG_INTERFACES 2
#define USB_CFG_MAX_TRANSFER_SIZE 128000

typedef struct _USB_INTERFACE_SELECTION {
    USHORT InterfaceNumber;
    USHORT AlternateSetting;
    ULONG MaxTransferSize;
} USB_INTERFACE_SELECTION;

// What InitUsbDevice asks SetConfiguration to select.
typedef struct _USB_INTERFACE_REQUEST {
    USHORT ConfigIndex;
    USHORT NbOfInterfaces;
    USB_INTERFACE_SELECTION Interfaces[USB_CFG_INTERFACES];
} USB_INTERFACE_REQUEST, *PUSB_INTERFACE_REQUEST;

// Descriptors and configuration selection.
VOID UsbDeviceInit(PDEVICE Dev, PUSB_DEVICE UsbDevice);
NTSTATUS InitUsbDevice(PUSB_DEVICE UsbDevice);
NTSTATUS GetHubInfo(PDEVICE Dev, PUSB_NODE_INFORMATION NodeInformation);
NTSTATUS GetDeviceDescriptor(PUSB_DEVICE UsbDevice, PUSB_DEVICE_DESCRIPTOR Descriptor);
NTSTATUS GetConfigurationDescriptor(PUSB_DEVICE UsbDevice, UCHAR Index, PULONG Length,
                                    PVOID Buffer);
// The whole configuration descriptor in a driver allocation (tag 'usc1')
// that the caller frees with MemFree.
NTSTATUS GetConfigDescAndAlloc(PUSB_DEVICE UsbDevice, UCHAR Index, PULONG Length,
                               PUSB_CONFIGURATION_DESCRIPTOR* Descriptor);
NTSTATUS GetStringDescriptor(PUSB_DEVICE UsbDevice, UCHAR Index, USHORT LanguageId, PVOID Buffer,
                             PULONG Length);
NTSTATUS SetConfiguration(PUSB_DEVICE UsbDevice, PUSB_INTERFACE_REQUEST Request,
                          PUSB_CONFIGURATION_DESCRIPTOR ConfigDescriptor);
NTSTATUS UnconfigureDevice(PUSB_DEVICE UsbDevice, BOOLEAN Deselect);
NTSTATUS ResetDevice(PDEVICE Dev);

// Interfaces and pipes.
NTSTATUS CreateInterfacePipes(PUSB_DEVICE UsbDevice, PUSBD_INTERFACE_INFORMATION Interface,
                              USBD_CONFIGURATION_HANDLE ConfigurationHandle);
VOID DeleteInterfacePipes(PUSB_DEVICE UsbDevice, PUSB_INTERFACE Interface);
PUSB_PIPE FindPipe(PUSB_DEVICE UsbDevice, UCHAR EndpointAddress);
NTSTATUS AbortPipe(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe);
NTSTATUS ResetPipe(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe);
VOID AbortAllPipes(PUSB_DEVICE UsbDevice);
VOID DeleteAllPipes(PUSB_DEVICE UsbDevice);
