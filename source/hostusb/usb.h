// The USB driver interface of the emulated platform as the driver sees it:
// standard descriptors, USBD status codes, handles, pipe and interface
// information, and the URB layouts the driver builds. Names, field order and
// values are those of the platform's USB headers, so driver code compiles
// unchanged against either. Descriptors are byte-packed as on the wire.
#pragma once

#include "hostkernel/ktypes.h"
#include "hostkernel/io.h"

// Standard descriptors.
#define USB_DEVICE_DESCRIPTOR_TYPE 0x01
#define USB_CONFIGURATION_DESCRIPTOR_TYPE 0x02
#define USB_STRING_DESCRIPTOR_TYPE 0x03
#define USB_INTERFACE_DESCRIPTOR_TYPE 0x04
#define USB_ENDPOINT_DESCRIPTOR_TYPE 0x05

#define USB_DEVICE_CLASS_COMMUNICATIONS 0x02

#define USB_CONFIG_POWERED_MASK 0xc0
#define USB_CONFIG_BUS_POWERED 0x80
#define USB_CONFIG_SELF_POWERED 0x40
#define USB_CONFIG_REMOTE_WAKEUP 0x20

#define USB_ENDPOINT_DIRECTION_MASK 0x80
#define USB_ENDPOINT_DIRECTION_OUT(addr) (!((addr)&USB_ENDPOINT_DIRECTION_MASK))
#define USB_ENDPOINT_DIRECTION_IN(addr) ((addr)&USB_ENDPOINT_DIRECTION_MASK)
#define USB_ENDPOINT_TYPE_MASK 0x03
#define USB_ENDPOINT_TYPE_CONTROL 0x00
#define USB_ENDPOINT_TYPE_ISOCHRONOUS 0x01
#define USB_ENDPOINT_TYPE_BULK 0x02
#define USB_ENDPOINT_TYPE_INTERRUPT 0x03

#define USB_REQUEST_GET_STATUS 0x00
#define USB_REQUEST_CLEAR_FEATURE 0x01
#define USB_REQUEST_SET_FEATURE 0x03
#define USB_REQUEST_SET_ADDRESS 0x05
#define USB_REQUEST_GET_DESCRIPTOR 0x06
#define USB_REQUEST_SET_DESCRIPTOR 0x07
#define USB_REQUEST_GET_CONFIGURATION 0x08
#define USB_REQUEST_SET_CONFIGURATION 0x09
#define USB_REQUEST_GET_INTERFACE 0x0a
#define USB_REQUEST_SET_INTERFACE 0x0b

#define BMREQUEST_HOST_TO_DEVICE 0
#define BMREQUEST_DEVICE_TO_HOST 1
#define BMREQUEST_STANDARD 0
#define BMREQUEST_CLASS 1
#define BMREQUEST_VENDOR 2
#define BMREQUEST_TO_DEVICE 0
#define BMREQUEST_TO_INTERFACE 1
#define BMREQUEST_TO_ENDPOINT 2
#define BMREQUEST_TO_OTHER 3

#define MAXIMUM_USB_STRING_LENGTH 255

#pragma pack(push, 1)

typedef struct _USB_COMMON_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
} USB_COMMON_DESCRIPTOR, *PUSB_COMMON_DESCRIPTOR;

typedef struct _USB_DEVICE_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    USHORT bcdUSB;
    UCHAR bDeviceClass;
    UCHAR bDeviceSubClass;
    UCHAR bDeviceProtocol;
    UCHAR bMaxPacketSize0;
    USHORT idVendor;
    USHORT idProduct;
    USHORT bcdDevice;
    UCHAR iManufacturer;
    UCHAR iProduct;
    UCHAR iSerialNumber;
    UCHAR bNumConfigurations;
} USB_DEVICE_DESCRIPTOR, *PUSB_DEVICE_DESCRIPTOR;

typedef struct _USB_CONFIGURATION_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    USHORT wTotalLength;
    UCHAR bNumInterfaces;
    UCHAR bConfigurationValue;
    UCHAR iConfiguration;
    UCHAR bmAttributes;
    UCHAR MaxPower; // units of 2 mA
} USB_CONFIGURATION_DESCRIPTOR, *PUSB_CONFIGURATION_DESCRIPTOR;

typedef struct _USB_INTERFACE_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bInterfaceNumber;
    UCHAR bAlternateSetting;
    UCHAR bNumEndpoints;
    UCHAR bInterfaceClass;
    UCHAR bInterfaceSubClass;
    UCHAR bInterfaceProtocol;
    UCHAR iInterface;
} USB_INTERFACE_DESCRIPTOR, *PUSB_INTERFACE_DESCRIPTOR;

typedef struct _USB_ENDPOINT_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bEndpointAddress;
    UCHAR bmAttributes;
    USHORT wMaxPacketSize;
    UCHAR bInterval;
} USB_ENDPOINT_DESCRIPTOR, *PUSB_ENDPOINT_DESCRIPTOR;

typedef struct _USB_STRING_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    WCHAR bString[1];
} USB_STRING_DESCRIPTOR, *PUSB_STRING_DESCRIPTOR;

#pragma pack(pop)

static_assert(sizeof(USB_DEVICE_DESCRIPTOR) == 18, "device descriptor is 18 bytes on the wire");
static_assert(sizeof(USB_CONFIGURATION_DESCRIPTOR) == 9, "configuration descriptor is 9 bytes");
static_assert(sizeof(USB_INTERFACE_DESCRIPTOR) == 9, "interface descriptor is 9 bytes");
static_assert(sizeof(USB_ENDPOINT_DESCRIPTOR) == 7, "endpoint descriptor is 7 bytes");

// USBD status: bits 31..30 state (00 success, 01 pending, 10/11 error), the
// rest the reason.
typedef LONG USBD_STATUS;

#define USBD_SUCCESS(Status) ((USBD_STATUS)(Status) >= 0)
#define USBD_PENDING(Status) ((ULONG)(Status) >> 30 == 1)
#define USBD_ERROR(Status) ((USBD_STATUS)(Status) < 0)

#define USBD_STATUS_SUCCESS ((USBD_STATUS)0x00000000)
#define USBD_STATUS_PENDING ((USBD_STATUS)0x40000000)
#define USBD_STATUS_CRC ((USBD_STATUS)0xc0000001)
#define USBD_STATUS_BTSTUFF ((USBD_STATUS)0xc0000002)
#define USBD_STATUS_DATA_TOGGLE_MISMATCH ((USBD_STATUS)0xc0000003)
#define USBD_STATUS_STALL_PID ((USBD_STATUS)0xc0000004)
#define USBD_STATUS_DEV_NOT_RESPONDING ((USBD_STATUS)0xc0000005)
#define USBD_STATUS_DATA_OVERRUN ((USBD_STATUS)0xc0000008)
#define USBD_STATUS_DATA_UNDERRUN ((USBD_STATUS)0xc0000009)
#define USBD_STATUS_BUFFER_OVERRUN ((USBD_STATUS)0xc000000c)
#define USBD_STATUS_BUFFER_UNDERRUN ((USBD_STATUS)0xc000000d)
#define USBD_STATUS_ENDPOINT_HALTED ((USBD_STATUS)0xc0000030)
#define USBD_STATUS_INVALID_URB_FUNCTION ((USBD_STATUS)0x80000200)
#define USBD_STATUS_INVALID_PARAMETER ((USBD_STATUS)0x80000300)
#define USBD_STATUS_ERROR_BUSY ((USBD_STATUS)0x80000400)
#define USBD_STATUS_INVALID_PIPE_HANDLE ((USBD_STATUS)0x80000600)
#define USBD_STATUS_NO_BANDWIDTH ((USBD_STATUS)0x80000700)
#define USBD_STATUS_INTERNAL_HC_ERROR ((USBD_STATUS)0x80000800)
#define USBD_STATUS_ERROR_SHORT_TRANSFER ((USBD_STATUS)0x80000900)
#define USBD_STATUS_NOT_SUPPORTED ((USBD_STATUS)0xc0000e00)
#define USBD_STATUS_INSUFFICIENT_RESOURCES ((USBD_STATUS)0xc0001000)
#define USBD_STATUS_SET_CONFIG_FAILED ((USBD_STATUS)0xc0002000)
#define USBD_STATUS_BUFFER_TOO_SMALL ((USBD_STATUS)0xc0003000)
#define USBD_STATUS_INTERFACE_NOT_FOUND ((USBD_STATUS)0xc0004000)
#define USBD_STATUS_TIMEOUT ((USBD_STATUS)0xc0006000)
#define USBD_STATUS_DEVICE_GONE ((USBD_STATUS)0xc0007000)
#define USBD_STATUS_CANCELED ((USBD_STATUS)0xc0010000)
#define USBD_STATUS_INVALID_CONFIGURATION_DESCRIPTOR ((USBD_STATUS)0xc0000f00)

// Opaque handles the bus driver hands out at select-configuration.
typedef PVOID USBD_PIPE_HANDLE;
typedef PVOID USBD_CONFIGURATION_HANDLE;
typedef PVOID USBD_INTERFACE_HANDLE;

#define USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE 0xffffffff

typedef enum _USBD_PIPE_TYPE {
    UsbdPipeTypeControl,
    UsbdPipeTypeIsochronous,
    UsbdPipeTypeBulk,
    UsbdPipeTypeInterrupt
} USBD_PIPE_TYPE;

typedef struct _USBD_PIPE_INFORMATION {
    USHORT MaximumPacketSize;
    UCHAR EndpointAddress;
    UCHAR Interval;
    USBD_PIPE_TYPE PipeType;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG MaximumTransferSize;
    ULONG PipeFlags;
} USBD_PIPE_INFORMATION, *PUSBD_PIPE_INFORMATION;

// Variable length: Length covers the header and NumberOfPipes entries.
typedef struct _USBD_INTERFACE_INFORMATION {
    USHORT Length;
    UCHAR InterfaceNumber;
    UCHAR AlternateSetting;
    UCHAR Class;
    UCHAR SubClass;
    UCHAR Protocol;
    UCHAR Reserved;
    USBD_INTERFACE_HANDLE InterfaceHandle;
    ULONG NumberOfPipes;
    USBD_PIPE_INFORMATION Pipes[1];
} USBD_INTERFACE_INFORMATION, *PUSBD_INTERFACE_INFORMATION;

// One entry of the null-terminated list handed to
// USBD_CreateConfigurationRequestEx.
typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

// URB function codes the driver uses.
#define URB_FUNCTION_SELECT_CONFIGURATION 0x0000
#define URB_FUNCTION_ABORT_PIPE 0x0002
#define URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER 0x0009
#define URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE 0x000b
#define URB_FUNCTION_VENDOR_DEVICE 0x0017
#define URB_FUNCTION_VENDOR_INTERFACE 0x0018
#define URB_FUNCTION_VENDOR_ENDPOINT 0x0019
#define URB_FUNCTION_CLASS_DEVICE 0x001a
#define URB_FUNCTION_CLASS_INTERFACE 0x001b
#define URB_FUNCTION_CLASS_ENDPOINT 0x001c
#define URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL 0x001e
#define URB_FUNCTION_CLASS_OTHER 0x001f
#define URB_FUNCTION_VENDOR_OTHER 0x0020
#define URB_FUNCTION_RESET_PIPE URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL

// Transfer flags.
#define USBD_TRANSFER_DIRECTION 0x00000001
#define USBD_SHORT_TRANSFER_OK 0x00000002
#define USBD_TRANSFER_DIRECTION_OUT 0
#define USBD_TRANSFER_DIRECTION_IN 1

// URB layouts. Every URB starts with the header; Hdr.Length is the size of
// the specific layout.
struct _URB_HCD_AREA {
    PVOID Reserved8[8];
};

struct _URB_HEADER {
    USHORT Length;
    USHORT Function;
    USBD_STATUS Status;
    PVOID UsbdDeviceHandle;
    ULONG UsbdFlags;
};

struct _URB_SELECT_CONFIGURATION {
    struct _URB_HEADER Hdr;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor; // null: unconfigure
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    USBD_INTERFACE_INFORMATION Interface; // first of bNumInterfaces entries
};

struct _URB_PIPE_REQUEST {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG Reserved;
};

struct _URB_CONTROL_DESCRIPTOR_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG Reserved0;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    USHORT Reserved1;
    UCHAR Index;
    UCHAR DescriptorType;
    USHORT LanguageId;
    USHORT Reserved2;
};

struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR RequestTypeReservedBits;
    UCHAR Request;
    USHORT Value;
    USHORT Index;
    USHORT Reserved1;
};

struct _URB_BULK_OR_INTERRUPT_TRANSFER {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
};

typedef struct _URB {
    union {
        struct _URB_HEADER UrbHeader;
        struct _URB_SELECT_CONFIGURATION UrbSelectConfiguration;
        struct _URB_PIPE_REQUEST UrbPipeRequest;
        struct _URB_CONTROL_DESCRIPTOR_REQUEST UrbControlDescriptorRequest;
        struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST UrbControlVendorClassRequest;
        struct _URB_BULK_OR_INTERRUPT_TRANSFER UrbBulkOrInterruptTransfer;
    };
} URB, *PURB;

// Sizes of a select-configuration URB for the given interfaces and pipes.
#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                         \
    (sizeof(struct _URB_SELECT_CONFIGURATION) +                                                    \
     ((totalInterfaces)-1) * sizeof(USBD_INTERFACE_INFORMATION) +                                  \
     ((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION))
#define GET_USBD_INTERFACE_SIZE(numEndpoints)                                                      \
    (sizeof(USBD_INTERFACE_INFORMATION) + sizeof(USBD_PIPE_INFORMATION) * (numEndpoints) -         \
     sizeof(USBD_PIPE_INFORMATION))

// Internal I/O controls of the USB stack, and the hub's public one.
#define FILE_DEVICE_USB FILE_DEVICE_UNKNOWN
#define USB_SUBMIT_URB 0
#define USB_RESET_PORT 1
#define USB_GET_PARENT_HUB_INFO 267
#define USB_GET_NODE_INFORMATION 258
#define IOCTL_INTERNAL_USB_SUBMIT_URB                                                              \
    CTL_CODE(FILE_DEVICE_USB, USB_SUBMIT_URB, METHOD_NEITHER, FILE_ANY_ACCESS)
#define IOCTL_INTERNAL_USB_RESET_PORT                                                              \
    CTL_CODE(FILE_DEVICE_USB, USB_RESET_PORT, METHOD_NEITHER, FILE_ANY_ACCESS)
#define IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO                                                     \
    CTL_CODE(FILE_DEVICE_USB, USB_GET_PARENT_HUB_INFO, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_USB_GET_NODE_INFORMATION                                                             \
    CTL_CODE(FILE_DEVICE_USB, USB_GET_NODE_INFORMATION, METHOD_BUFFERED, FILE_ANY_ACCESS)

#pragma pack(push, 1)

typedef struct _USB_HUB_DESCRIPTOR {
    UCHAR bDescriptorLength;
    UCHAR bDescriptorType;
    UCHAR bNumberOfPorts;
    USHORT wHubCharacteristics;
    UCHAR bPowerOnToPowerGood;
    UCHAR bHubControlCurrent;
    UCHAR bRemoveAndPowerMask[64];
} USB_HUB_DESCRIPTOR, *PUSB_HUB_DESCRIPTOR;

typedef enum _USB_HUB_NODE { UsbHub, UsbMIParent } USB_HUB_NODE;

typedef struct _USB_HUB_INFORMATION {
    USB_HUB_DESCRIPTOR HubDescriptor;
    BOOLEAN HubIsBusPowered;
} USB_HUB_INFORMATION, *PUSB_HUB_INFORMATION;

typedef struct _USB_MI_PARENT_INFORMATION {
    ULONG NumberOfInterfaces;
} USB_MI_PARENT_INFORMATION, *PUSB_MI_PARENT_INFORMATION;

typedef struct _USB_NODE_INFORMATION {
    USB_HUB_NODE NodeType;
    union {
        USB_HUB_INFORMATION HubInformation;
        USB_MI_PARENT_INFORMATION MiParentInformation;
    } u;
} USB_NODE_INFORMATION, *PUSB_NODE_INFORMATION;

#pragma pack(pop)

// The USBD library. The configuration request comes from non-paged pool;
// the caller frees it with ExFreePool.
PUSB_INTERFACE_DESCRIPTOR
USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                    PVOID StartPosition, LONG InterfaceNumber,
                                    LONG AlternateSetting, LONG InterfaceClass,
                                    LONG InterfaceSubClass, LONG InterfaceProtocol);
PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
