// The USBD library functions the driver calls: finding an interface
// descriptor in a configuration descriptor, and building a select-
// configuration request for a list of interfaces. Written from their
// documented behaviour; they run at any IRQL up to DISPATCH_LEVEL and take
// no lock.
#include "hostusb/usb.h"

#include "hostkernel/ke.h"

#include <cstring>

namespace {

constexpr ULONG kUsbdTag = 0x44425355; // 'USBD'

// The descriptors from Start to the end of the configuration, walked by
// bLength. A descriptor of bLength 0, or one running past the end, ends the
// walk: nothing after it can be found.
template <typename Visit>
void WalkDescriptors(PUSB_CONFIGURATION_DESCRIPTOR Config, PUCHAR Start, Visit visit) {
    PUCHAR End = reinterpret_cast<PUCHAR>(Config) + Config->wTotalLength;
    for (PUCHAR p = Start; p + sizeof(USB_COMMON_DESCRIPTOR) <= End;) {
        auto* Common = reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(p);
        if (Common->bLength == 0 || p + Common->bLength > End)
            return;
        if (visit(Common))
            return;
        p += Common->bLength;
    }
}

bool Matches(LONG Wanted, UCHAR Value) {
    return Wanted == -1 || Wanted == LONG(Value);
}

} // namespace

PUSB_INTERFACE_DESCRIPTOR
USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                    PVOID StartPosition, LONG InterfaceNumber,
                                    LONG AlternateSetting, LONG InterfaceClass,
                                    LONG InterfaceSubClass, LONG InterfaceProtocol) {
    PUSB_INTERFACE_DESCRIPTOR Found = nullptr;
    WalkDescriptors(ConfigurationDescriptor, static_cast<PUCHAR>(StartPosition),
                    [&](PUSB_COMMON_DESCRIPTOR Common) {
                        if (Common->bDescriptorType != USB_INTERFACE_DESCRIPTOR_TYPE ||
                            Common->bLength < sizeof(USB_INTERFACE_DESCRIPTOR))
                            return false;
                        auto* Interface = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(Common);
                        if (Matches(InterfaceNumber, Interface->bInterfaceNumber) &&
                            Matches(AlternateSetting, Interface->bAlternateSetting) &&
                            Matches(InterfaceClass, Interface->bInterfaceClass) &&
                            Matches(InterfaceSubClass, Interface->bInterfaceSubClass) &&
                            Matches(InterfaceProtocol, Interface->bInterfaceProtocol)) {
                            Found = Interface;
                            return true;
                        }
                        return false;
                    });
    return Found;
}

PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    ULONG Interfaces = 0;
    for (PUSBD_INTERFACE_LIST_ENTRY Entry = InterfaceList; Entry->InterfaceDescriptor; ++Entry)
        Interfaces++;
    if (Interfaces == 0)
        return nullptr;
    // Every interface information has room for at least one pipe, as the
    // request size of the library's own macro counts it.
    ULONG Size = sizeof(struct _URB_SELECT_CONFIGURATION) - sizeof(USBD_INTERFACE_INFORMATION);
    for (PUSBD_INTERFACE_LIST_ENTRY Entry = InterfaceList; Entry->InterfaceDescriptor; ++Entry) {
        UCHAR Endpoints = Entry->InterfaceDescriptor->bNumEndpoints;
        Size += GET_USBD_INTERFACE_SIZE(Endpoints != 0 ? Endpoints : 1);
    }
    auto Urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, Size, kUsbdTag));
    if (Urb == nullptr)
        return nullptr;
    memset(Urb, 0, Size);
    Urb->UrbHeader.Length = USHORT(Size);
    Urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    Urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
    auto* Info = &Urb->UrbSelectConfiguration.Interface;
    for (PUSBD_INTERFACE_LIST_ENTRY Entry = InterfaceList; Entry->InterfaceDescriptor; ++Entry) {
        UCHAR Endpoints = Entry->InterfaceDescriptor->bNumEndpoints;
        Info->Length = USHORT(GET_USBD_INTERFACE_SIZE(Endpoints != 0 ? Endpoints : 1));
        Info->InterfaceNumber = Entry->InterfaceDescriptor->bInterfaceNumber;
        Info->AlternateSetting = Entry->InterfaceDescriptor->bAlternateSetting;
        Info->NumberOfPipes = Endpoints;
        for (ULONG i = 0; i < Endpoints; ++i)
            Info->Pipes[i].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        Entry->Interface = Info;
        Info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(Info) +
                                                             Info->Length);
    }
    return Urb;
}
