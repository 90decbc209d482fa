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
