// USB device configuration: the descriptor reads, the choice of the
// configuration by the current the hub port can supply, the selection of
// the first two interfaces, the three endpoints the engines use, port
// reset, and the records of the opened interfaces and pipes with their
// abort, reset and deletion.
//
// Environment: PASSIVE_LEVEL, in the Plug and Play start and stop paths and
// in work items; never concurrent with the transfer engines of the device.
// Locks: none of its own. The interface and pipe lists are changed only
// while no engine runs, under the device's DeviceMutex.
#define TRACE_FILE "source/cdcacm/usbcfg"
#include "cdcacm.h"

// Descriptor scans walk a configuration by bLength. A descriptor of bLength
// 0 would never advance the walk, and one that runs past the
// configuration's end would be read beyond it: either ends the scan, and
// whatever follows counts as absent.
static PUSB_COMMON_DESCRIPTOR NextDescriptor(PUSB_CONFIGURATION_DESCRIPTOR Config,
                                             PUSB_COMMON_DESCRIPTOR Current) {
    PUCHAR End = (PUCHAR)Config + Config->wTotalLength;
    PUCHAR Next = Current == NULL ? (PUCHAR)Config : (PUCHAR)Current + Current->bLength;
    if (Next + sizeof(USB_COMMON_DESCRIPTOR) > End)
        return NULL;
    if (((PUSB_COMMON_DESCRIPTOR)Next)->bLength == 0 ||
        Next + ((PUSB_COMMON_DESCRIPTOR)Next)->bLength > End)
        return NULL;
    return (PUSB_COMMON_DESCRIPTOR)Next;
}

// bInterfaceNumber of the Position-th interface descriptor (alternate
// settings count), 0xFF when there is none.
static UCHAR InterfaceNumberAt(PUSB_CONFIGURATION_DESCRIPTOR Config, ULONG Position) {
    PUSB_COMMON_DESCRIPTOR Desc = NULL;
    while ((Desc = NextDescriptor(Config, Desc)) != NULL) {
        if (Desc->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE &&
            Desc->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            if (Position == 0)
                return ((PUSB_INTERFACE_DESCRIPTOR)Desc)->bInterfaceNumber;
            Position--;
        }
    }
    return 0xFF;
}

// bEndpointAddress of the first endpoint of the configuration with the
// transfer type and direction, 0 when there is none.
static UCHAR EndpointOfKind(PUSB_CONFIGURATION_DESCRIPTOR Config, UCHAR Type, UCHAR Direction) {
    PUSB_COMMON_DESCRIPTOR Desc = NULL;
    while ((Desc = NextDescriptor(Config, Desc)) != NULL) {
        if (Desc->bDescriptorType == USB_ENDPOINT_DESCRIPTOR_TYPE &&
            Desc->bLength >= sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            PUSB_ENDPOINT_DESCRIPTOR Endpoint = (PUSB_ENDPOINT_DESCRIPTOR)Desc;
            if ((Endpoint->bmAttributes & USB_ENDPOINT_TYPE_MASK) == Type &&
                (Endpoint->bEndpointAddress & USB_ENDPOINT_DIRECTION_MASK) == Direction)
                return Endpoint->bEndpointAddress;
        }
    }
    return 0;
}

VOID UsbDeviceInit(PDEVICE Dev, PUSB_DEVICE UsbDevice) {
    RtlZeroMemory(UsbDevice, sizeof(*UsbDevice));
    UsbDevice->Dev = Dev;
    UsbDevice->StackSize = Dev->StackSize;
    InitializeListHead(&UsbDevice->PipeList);
    InitializeListHead(&UsbDevice->InterfaceList);
}

// A control-descriptor request for Length bytes into Buffer; on success
// Length is the number of bytes the device sent.
static NTSTATUS GetDescriptor(PUSB_DEVICE UsbDevice, UCHAR Type, UCHAR Index, USHORT LanguageId,
                              PVOID Buffer, PULONG Length) {
    URB Urb;
    struct _URB_CONTROL_DESCRIPTOR_REQUEST* Request = &Urb.UrbControlDescriptorRequest;
    PIRP Irp;
    NTSTATUS Status;

    RtlZeroMemory(&Urb, sizeof(Urb));
    Request->Hdr.Length = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    Request->Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    Request->DescriptorType = Type;
    Request->Index = Index;
    Request->LanguageId = LanguageId;
    Request->TransferBuffer = Buffer;
    Request->TransferBufferLength = *Length;

    Irp = IoAllocateIrp(UsbDevice->StackSize, FALSE);
    if (Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    Status = SubmitUrbAndWait(UsbDevice->Dev, Irp, &Urb, UsbDevice->Dev->Cfg.RequestTimeout);
    if (NT_SUCCESS(Status))
        *Length = Request->TransferBufferLength;
    IoFreeIrp(Irp);
    return Status;
}

NTSTATUS GetDeviceDescriptor(PUSB_DEVICE UsbDevice, PUSB_DEVICE_DESCRIPTOR Descriptor) {
    PDEVICE Dev = UsbDevice->Dev;
    ULONG Length = sizeof(USB_DEVICE_DESCRIPTOR);
    NTSTATUS Status;

    Status = GetDescriptor(UsbDevice, USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, Descriptor, &Length);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:GetDeviceDescriptor: SubmitUrbAndWait failed (%D).\n",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    TRACE(TL_USBCFG, "%P:Device Descriptor Length %W\n", Length);
    TRACE(TL_USBCFG, "%P:  bcdUSB %W\n", Descriptor->bcdUSB);
    TRACE(TL_USBCFG, "%P:  bDeviceClass %B\n", Descriptor->bDeviceClass);
    TRACE(TL_USBCFG, "%P:  bDeviceSubClass %B\n", Descriptor->bDeviceSubClass);
    TRACE(TL_USBCFG, "%P:  bDeviceProtocol %B\n", Descriptor->bDeviceProtocol);
    TRACE(TL_USBCFG, "%P:  bMaxPacketSize0 %B\n", Descriptor->bMaxPacketSize0);
    TRACE(TL_USBCFG, "%P:  idVendor %W\n", Descriptor->idVendor);
    TRACE(TL_USBCFG, "%P:  idProduct %W\n", Descriptor->idProduct);
    TRACE(TL_USBCFG, "%P:  bcdDevice %W\n", Descriptor->bcdDevice);
    TRACE(TL_USBCFG, "%P:  iManufacturer %B\n", Descriptor->iManufacturer);
    TRACE(TL_USBCFG, "%P:  iProduct %B\n", Descriptor->iProduct);
    TRACE(TL_USBCFG, "%P:  iSerialNumber %B\n", Descriptor->iSerialNumber);
    TRACE(TL_USBCFG, "%P:  bNumConfigurations %B\n", Descriptor->bNumConfigurations);
    return Status;
}

NTSTATUS GetConfigurationDescriptor(PUSB_DEVICE UsbDevice, UCHAR Index, PULONG Length,
                                    PVOID Buffer) {
    PDEVICE Dev = UsbDevice->Dev;
    PUSB_CONFIGURATION_DESCRIPTOR Config = (PUSB_CONFIGURATION_DESCRIPTOR)Buffer;
    NTSTATUS Status;

    Status = GetDescriptor(UsbDevice, USB_CONFIGURATION_DESCRIPTOR_TYPE, Index, 0, Buffer, Length);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:GetConfigurationDescriptor: SubmitUrbAndWait failed (%D).\n",
              DEV_PORT_NAME(Dev), Status);
        return Status;
    }
    TRACE(TL_USBCFG, "%P:Configuration Descriptor Length %x\n", *Length);
    if (*Length >= sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        TRACE(TL_USBCFG, "%P:  wTotalLength %W\n", Config->wTotalLength);
        TRACE(TL_USBCFG, "%P:  bNumInterfaces %B\n", Config->bNumInterfaces);
        TRACE(TL_USBCFG, "%P:  bConfigurationValue %B\n", Config->bConfigurationValue);
        TRACE(TL_USBCFG, "%P:  bmAttributes %B\n", Config->bmAttributes);
        TRACE(TL_USBCFG, "%P:  MaxPower %B\n", Config->MaxPower);
    }
    return Status;
}

NTSTATUS GetStringDescriptor(PUSB_DEVICE UsbDevice, UCHAR Index, USHORT LanguageId, PVOID Buffer,
                             PULONG Length) {
    PDEVICE Dev = UsbDevice->Dev;
    NTSTATUS Status;

    Status =
        GetDescriptor(UsbDevice, USB_STRING_DESCRIPTOR_TYPE, Index, LanguageId, Buffer, Length);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:GetStringDescriptor: SubmitUrbAndWait failed (%D).\n",
              DEV_PORT_NAME(Dev), Status);
    else
        TRACE(TL_USBCFG, "%P:%S:String Descriptor Length %W\n", DEV_PORT_NAME(Dev), *Length);
    return Status;
}

NTSTATUS GetConfigDescAndAlloc(PUSB_DEVICE UsbDevice, UCHAR Index, PULONG Length,
                               PUSB_CONFIGURATION_DESCRIPTOR* Descriptor) {
    PDEVICE Dev = UsbDevice->Dev;
    ULONG Size = 64;
    ULONG Attempt;
    NTSTATUS Status = STATUS_UNSUCCESSFUL;

    TRACE(TL_USBCFG, "%P:%S:GetConfigDescAndAlloc[ \n", DEV_PORT_NAME(Dev));
    *Length = 0;
    *Descriptor = NULL;
    // A descriptor longer than the first guess is read again with its own
    // length; one that is still longer than what arrives is refused.
    for (Attempt = 0; Attempt < 2; Attempt++) {
        ULONG Transferred = Size;
        PUSB_CONFIGURATION_DESCRIPTOR Config =
            (PUSB_CONFIGURATION_DESCRIPTOR)MemAlloc(Size, USB_CONFIG_DESC_TAG);
        if (Config == NULL) {
            TRACE(TL_ERROR, "%P:%S:GetConfigDescAndAlloc: alloc buffer failed (%u)\n",
                  DEV_PORT_NAME(Dev), Size);
            Status = STATUS_NO_MEMORY;
            break;
        }
        RtlZeroMemory(Config, Size);
        Status = GetConfigurationDescriptor(UsbDevice, Index, &Transferred, Config);
        if (!NT_SUCCESS(Status)) {
            TRACE(TL_ERROR, "%P:%S:GetConfigDescAndAlloc: GetConfigurationDescriptor failed\n",
                  DEV_PORT_NAME(Dev));
            MemFree(Config);
            break;
        }
        if (Config->wTotalLength <= Transferred) {
            *Length = Transferred;
            *Descriptor = Config;
            break;
        }
        Size = Config->wTotalLength;
        TRACE(TL_INFO,
              "%P:%S:GetConfigDescAndAlloc: Default buffer size is to small, retry with %D\n",
              DEV_PORT_NAME(Dev), Size);
        MemFree(Config);
        Status = STATUS_UNSUCCESSFUL;
    }
    TRACE(TL_USBCFG, "%P:%S:]GetConfigDescAndAlloc (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS GetHubInfo(PDEVICE Dev, PUSB_NODE_INFORMATION NodeInformation) {
    KEVENT Event;
    IO_STATUS_BLOCK IoStatus;
    PDEVICE_OBJECT HubDevObj = NULL;
    PDEVICE_OBJECT Top;
    PIO_STACK_LOCATION Stack;
    PIRP Irp;
    NTSTATUS Status;

    // clang-format off
    TRACE_ASSERT(KeGetCurrentIrql()==PASSIVE_LEVEL);
    // clang-format on
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    Irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO, Dev->LowerDevObj,
                                        NULL, 0, &HubDevObj, sizeof(HubDevObj), TRUE, &Event,
                                        &IoStatus);
    if (Irp == NULL) {
        TRACE(TL_ERROR, "%P:%S:QueryInterface: IoBuildSynchronousFsdRequest failed\n",
              DEV_PORT_NAME(Dev));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Stack = IoGetNextIrpStackLocation(Irp);
    // clang-format off
    TRACE_ASSERT((Stack));
    // clang-format on
    // The hub driver writes its device object through the first argument.
    Stack->Parameters.Others.Argument1 = &HubDevObj;
    Status = IoCallDriver(Dev->LowerDevObj, Irp);
    if (Status == STATUS_PENDING) {
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
        Status = IoStatus.Status;
    }
    if (!NT_SUCCESS(Status) || HubDevObj == NULL) {
        TRACE(TL_ERROR, "%P:%S: IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO failed with %D\n",
              DEV_PORT_NAME(Dev), Status);
        return NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status;
    }

    // The node information comes from the top of the hub's stack.
    for (Top = HubDevObj; Top->AttachedDevice != NULL;)
        Top = Top->AttachedDevice;
    RtlZeroMemory(NodeInformation, sizeof(*NodeInformation));
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    Irp = IoBuildDeviceIoControlRequest(IOCTL_USB_GET_NODE_INFORMATION, Top, NodeInformation,
                                        sizeof(*NodeInformation), NodeInformation,
                                        sizeof(*NodeInformation), FALSE, &Event, &IoStatus);
    if (Irp == NULL) {
        TRACE(TL_ERROR, "%P:%S:QueryInterface: IoBuildSynchronousFsdRequest failed\n",
              DEV_PORT_NAME(Dev));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Status = IoCallDriver(Top, Irp);
    if (Status == STATUS_PENDING) {
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
        Status = IoStatus.Status;
    }
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:IOCTL_USB_GET_NODE_INFORMATION failed with %D\n", DEV_PORT_NAME(Dev),
              Status);
        return Status;
    }
    TRACE(TL_HUB, "NodeType %D\n", (ULONG)NodeInformation->NodeType);
    TRACE(TL_HUB, "Length 0x%B\n",
          NodeInformation->u.HubInformation.HubDescriptor.bDescriptorLength);
    TRACE(TL_HUB, "Type 0x%B\n", NodeInformation->u.HubInformation.HubDescriptor.bDescriptorType);
    TRACE(TL_HUB, "bNumberOfPorts 0x%B\n",
          NodeInformation->u.HubInformation.HubDescriptor.bNumberOfPorts);
    return STATUS_SUCCESS;
}

NTSTATUS InitUsbDevice(PUSB_DEVICE UsbDevice) {
    PDEVICE Dev = UsbDevice->Dev;
    USB_NODE_INFORMATION NodeInformation;
    USB_INTERFACE_REQUEST Request;
    PUSB_CONFIGURATION_DESCRIPTOR Config = NULL;
    LONG Configurations = Dev->DeviceDescriptor.bNumConfigurations;
    BOOLEAN HighPower = FALSE;
    BOOLEAN Selected = FALSE;
    ULONG Index;
    ULONG Length;
    NTSTATUS Status;

    TRACE(TL_USBCFG, "%P:%S:[InitUsbDevice\n", DEV_PORT_NAME(Dev));
    if (UsbDevice->ConfigDescriptor != NULL) {
        MemFree(UsbDevice->ConfigDescriptor);
        UsbDevice->ConfigDescriptor = NULL;
    }

    // The parent hub's own driver says whether it is bus-powered; where no
    // hub answers, the port is taken for a 100 mA one. A device with one
    // configuration has nothing to choose and asks no hub.
    if (Configurations > 1) {
        Status = GetHubInfo(Dev, &NodeInformation);
        if (NT_SUCCESS(Status))
            HighPower = !NodeInformation.u.HubInformation.HubIsBusPowered;
        else
            TRACE(TL_ERROR, "%P:%S:InitUsbDevice:GetHubInfo failed %08x\n", DEV_PORT_NAME(Dev),
                  Status);
    }
    TRACE(TL_INFO, "%P:%S:Hub supports cuurrent up to %d mA\n", DEV_PORT_NAME(Dev),
          HighPower ? 500 : 100);

    Index = (HighPower ? Dev->Cfg.HighPowerCfg : Dev->Cfg.LowPowerCfg) & 0xFF;
    if ((LONG)Index >= Configurations - 1)
        Index = (ULONG)(Configurations > 0 ? Configurations - 1 : 0);

    Status = GetConfigDescAndAlloc(UsbDevice, (UCHAR)Index, &Length, &Config);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:InitUsbDevice: Get Config Descriptor failed. (%D)\n",
              DEV_PORT_NAME(Dev), Status);
        goto Exit;
    }
    TRACE(TL_INFO, "%P:%S:Got configuration Desc: index %d MAX current:%d mA\n", DEV_PORT_NAME(Dev),
          Index, Config->MaxPower * 2);

    Request.ConfigIndex = (USHORT)Index;
    Request.NbOfInterfaces = USB_CFG_INTERFACES;
    Request.Interfaces[0].InterfaceNumber = InterfaceNumberAt(Config, 0);
    Request.Interfaces[1].InterfaceNumber = InterfaceNumberAt(Config, 1);
    UsbDevice->DataInterface = (UCHAR)Request.Interfaces[1].InterfaceNumber;
    for (ULONG i = 0; i < USB_CFG_INTERFACES; i++) {
        Request.Interfaces[i].AlternateSetting = 0;
        Request.Interfaces[i].MaxTransferSize = USB_CFG_MAX_TRANSFER_SIZE;
    }

    Status = SetConfiguration(UsbDevice, &Request, Config);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ASSERT, "%P:%S:Cannot configure USB device (%D)\n", DEV_PORT_NAME(Dev), Status);
        MemFree(Config);
        Config = NULL;
        goto Exit;
    }
    Selected = TRUE;
    TRACE(TL_INFO, "%P:%S:Device configured with index %d MAX current:%d mA\n", DEV_PORT_NAME(Dev),
          Index, Config->MaxPower * 2);

    Dev->Cfg.DataInPipe = EndpointOfKind(Config, USB_ENDPOINT_TYPE_BULK, 0x80);
    Dev->Cfg.DataOutPipe = EndpointOfKind(Config, USB_ENDPOINT_TYPE_BULK, 0);
    Dev->Cfg.IntInPipe = EndpointOfKind(Config, USB_ENDPOINT_TYPE_INTERRUPT, 0x80);
    Dev->Cfg.UsbInterface = InterfaceNumberAt(Config, 0);
    Dev->Cfg.UsbConfig = Config->bConfigurationValue;
    TRACE(TL_INFO, "%P:%S:Interface %d\n", DEV_PORT_NAME(Dev), Dev->Cfg.UsbInterface);
    TRACE(TL_INFO, "%P:%S:DataInPipe %x\n", DEV_PORT_NAME(Dev), Dev->Cfg.DataInPipe);
    TRACE(TL_INFO, "%P:%S:DataOutPipe %x\n", DEV_PORT_NAME(Dev), Dev->Cfg.DataOutPipe);
    TRACE(TL_INFO, "%P:%S:IntInPipe %x\n", DEV_PORT_NAME(Dev), Dev->Cfg.IntInPipe);

    // Both checks run, so that one start reports every missing endpoint.
    Dev->ReceivePipe.Pipe = FindPipe(UsbDevice, (UCHAR)Dev->Cfg.DataInPipe);
    Dev->WritePipe.Pipe = FindPipe(UsbDevice, (UCHAR)Dev->Cfg.DataOutPipe);
    if (Dev->ReceivePipe.Pipe == NULL || Dev->WritePipe.Pipe == NULL) {
        TRACE(TL_ASSERT, "%P:%S:Cannot find USB pipe\n", DEV_PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    } else {
        if (Dev->ReceivePipe.Pipe->PipeHandle == NULL) {
            TRACE(TL_ASSERT, "%P:%S:USBD return ReceivePipeHandle == NULL fatal\n",
                  DEV_PORT_NAME(Dev));
            Status = STATUS_UNSUCCESSFUL;
        }
        if (Dev->WritePipe.Pipe->PipeHandle == NULL) {
            TRACE(TL_ASSERT, "%P:%S:USBD return WritePipeHandle == NULL fatal\n",
                  DEV_PORT_NAME(Dev));
            Status = STATUS_UNSUCCESSFUL;
        }
    }
    Dev->IntPipe.Pipe = FindPipe(UsbDevice, (UCHAR)Dev->Cfg.IntInPipe);
    if (Dev->IntPipe.Pipe == NULL) {
        TRACE(TL_ASSERT, "%P:%S:Cannot find interrupt USB pipe\n", DEV_PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    } else if (Dev->IntPipe.Pipe->PipeHandle == NULL) {
        TRACE(TL_ASSERT, "%P:%S:USBD return IntPipeHandle == NULL fatal\n", DEV_PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
    }

    if (Config->bmAttributes & USB_CONFIG_REMOTE_WAKEUP)
        Dev->RemoteWakeup = TRUE;

Exit:
    TRACE(TL_USBCFG, "%P:%S:]InitUsbDevice (%D)\n", DEV_PORT_NAME(Dev), Status);
    if (NT_SUCCESS(Status)) {
        UsbDevice->ConfigDescriptor = Config;
        UsbDevice->ConfigIndex = (UCHAR)Index;
    } else if (Selected) {
        // A later start begins from the unconfigured state.
        Dev->ReceivePipe.Pipe = NULL;
        Dev->WritePipe.Pipe = NULL;
        Dev->IntPipe.Pipe = NULL;
        UnconfigureDevice(UsbDevice, TRUE);
        MemFree(Config);
    }
    return Status;
}

NTSTATUS SetConfiguration(PUSB_DEVICE UsbDevice, PUSB_INTERFACE_REQUEST Request,
                          PUSB_CONFIGURATION_DESCRIPTOR ConfigDescriptor) {
    PDEVICE Dev = UsbDevice->Dev;
    PUSBD_INTERFACE_LIST_ENTRY InterfaceList = NULL;
    PURB Urb = NULL;
    PIRP Irp = NULL;
    ULONG ListSize;
    ULONG i;
    NTSTATUS Status = STATUS_SUCCESS;

    TRACE(TL_USBCFG, "%P:%S:SetConfiguration[\n", DEV_PORT_NAME(Dev));
    if (UsbDevice->Configured) {
        TRACE(TL_ERROR, "%P:%S:SetConfiguration: already configured\n", DEV_PORT_NAME(Dev));
        Status = STATUS_UNSUCCESSFUL;
        goto Exit;
    }

    TRACE(TL_USBCFG, "%P:%S:NbOfInterfaces: %d\n", DEV_PORT_NAME(Dev), Request->NbOfInterfaces);
    ListSize = (Request->NbOfInterfaces + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY);
    InterfaceList = (PUSBD_INTERFACE_LIST_ENTRY)MemAlloc(ListSize, USB_INTERFACE_LIST_TAG);
    if (InterfaceList == NULL) {
        TRACE(TL_ASSERT, "%P:%S:allocation of InterfaceList failed, %u bytes\n", DEV_PORT_NAME(Dev),
              ListSize);
        Status = STATUS_NO_MEMORY;
        goto Exit;
    }
    RtlZeroMemory(InterfaceList, ListSize);

    for (i = 0; i < Request->NbOfInterfaces; i++) {
        USHORT Number = Request->Interfaces[i].InterfaceNumber;
        USHORT Alternate = Request->Interfaces[i].AlternateSetting;
        PUSB_INTERFACE_DESCRIPTOR Interface = USBD_ParseConfigurationDescriptorEx(
            ConfigDescriptor, ConfigDescriptor, Number, Alternate, -1, -1, -1);
        TRACE(TL_USBCFG, "%P:%S:InterfaceDescriptor: %x\n", DEV_PORT_NAME(Dev),
              (ULONG)(ULONG_PTR)Interface);
        if (Interface == NULL) {
            TRACE(TL_ERROR, "%P:%S:Interface (%x,%x) not found in config descriptor\n",
                  DEV_PORT_NAME(Dev), Number, Alternate);
            Status = STATUS_UNSUCCESSFUL;
            goto Exit;
        }
        InterfaceList[i].InterfaceDescriptor = Interface;
    }

    Urb = USBD_CreateConfigurationRequestEx(ConfigDescriptor, InterfaceList);
    if (Urb == NULL) {
        TRACE(TL_ASSERT, "%P:%S:allocation of ConfigUrb failed\n", DEV_PORT_NAME(Dev));
        Status = STATUS_NO_MEMORY;
        goto Exit;
    }
    for (i = 0; i < Request->NbOfInterfaces; i++) {
        PUSBD_INTERFACE_INFORMATION Info = InterfaceList[i].Interface;
        if (Info == NULL) {
            TRACE(TL_ERROR, "%P:%S:SetConfiguration: got NULL InterfaceInfo pointer\n",
                  DEV_PORT_NAME(Dev));
            continue;
        }
        TRACE(TL_USBCFG, "%P:%S:InterfaceInfo: Nb:%d As:%d nPipes:%d\n", DEV_PORT_NAME(Dev),
              Info->InterfaceNumber, Info->AlternateSetting, Info->NumberOfPipes);
        for (ULONG p = 0; p < Info->NumberOfPipes; p++) {
            TRACE(TL_USBCFG, "%P:%S:PipeInfo: EP:%x \n", DEV_PORT_NAME(Dev),
                  Info->Pipes[p].EndpointAddress);
            Info->Pipes[p].MaximumTransferSize = Request->Interfaces[i].MaxTransferSize;
        }
    }

    Irp = IoAllocateIrp(UsbDevice->StackSize, FALSE);
    if (Irp == NULL) {
        Status = STATUS_INSUFFICIENT_RESOURCES;
        goto Exit;
    }
    Status = SubmitUrbAndWait(Dev, Irp, Urb, Dev->Cfg.RequestTimeout);
    if (!NT_SUCCESS(Status)) {
        TRACE(TL_ERROR, "%P:%S:SetConfiguration: SubmitUrbAndWait failed (%D).\n",
              DEV_PORT_NAME(Dev), Status);
        goto Exit;
    }
    for (i = 0; i < Request->NbOfInterfaces && NT_SUCCESS(Status); i++) {
        if (InterfaceList[i].Interface != NULL)
            Status = CreateInterfacePipes(UsbDevice, InterfaceList[i].Interface,
                                          Urb->UrbSelectConfiguration.ConfigurationHandle);
    }
    if (NT_SUCCESS(Status))
        UsbDevice->Configured = TRUE;

Exit:
    if (InterfaceList != NULL)
        MemFree(InterfaceList);
    if (Urb != NULL)
        ExFreePool(Urb);
    if (Irp != NULL)
        IoFreeIrp(Irp);
    TRACE(TL_USBCFG, "%P:%S:]SetConfiguration (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS UnconfigureDevice(PUSB_DEVICE UsbDevice, BOOLEAN Deselect) {
    PDEVICE Dev = UsbDevice->Dev;
    NTSTATUS Status = STATUS_SUCCESS;

    TRACE(TL_USBCFG, "%P:%S:UnconfigureDevice[\n", DEV_PORT_NAME(Dev));
    AbortAllPipes(UsbDevice);
    if (Deselect) {
        URB Urb;
        PIRP Irp = IoAllocateIrp(UsbDevice->StackSize, FALSE);
        if (Irp == NULL) {
            Status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            // Without a configuration descriptor the request returns the
            // device to the unconfigured state.
            RtlZeroMemory(&Urb, sizeof(Urb));
            Urb.UrbHeader.Length = sizeof(struct _URB_SELECT_CONFIGURATION);
            Urb.UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
            Urb.UrbSelectConfiguration.ConfigurationDescriptor = NULL;
            Status = SubmitUrbAndWait(Dev, Irp, &Urb, Dev->Cfg.RequestTimeout);
            if (!NT_SUCCESS(Status))
                TRACE(TL_ERROR, "%P:%S:UnconfigureDevice: SubmitUrbAndWait failed (%D).\n",
                      DEV_PORT_NAME(Dev), Status);
            IoFreeIrp(Irp);
        }
    }
    DeleteAllPipes(UsbDevice);
    if (Dev->WakeIrp != NULL) {
        IoCancelIrp(Dev->WakeIrp);
        Dev->WakeIrp = NULL;
    }
    UsbDevice->Configured = FALSE;
    if (UsbDevice->ConfigDescriptor != NULL) {
        MemFree(UsbDevice->ConfigDescriptor);
        UsbDevice->ConfigDescriptor = NULL;
    }
    TRACE(TL_USBCFG, "%P:%S:]UnconfigureDevice (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ResetDevice(PDEVICE Dev) {
    PIRP Irp;
    NTSTATUS Status;

    TRACE(TL_USBCFG, "%P:%S:ResetDevice[\n", DEV_PORT_NAME(Dev));
    Irp = IoAllocateIrp(Dev->StackSize, FALSE);
    if (Irp == NULL) {
        Status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        Status = SubmitIrpAndWait(Dev, Irp, NULL, IOCTL_INTERNAL_USB_RESET_PORT,
                                  Dev->Cfg.RequestTimeout);
        if (Status >= 0)
            Status = STATUS_SUCCESS;
        IoFreeIrp(Irp);
    }
    TRACE(TL_USBCFG, "%P:%S:]ResetDevice (%d)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

static VOID DeletePipe(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe) {
    UNREFERENCED_PARAMETER(UsbDevice);
    RemoveEntryList(&Pipe->Link);
    TRACE(TL_USBCFG, "%P:Delete Pipe EP:%02x\n", Pipe->EndpointAddress);
    MemFree(Pipe);
}

static VOID DeleteInterface(PUSB_DEVICE UsbDevice, PUSB_INTERFACE Interface) {
    UNREFERENCED_PARAMETER(UsbDevice);
    RemoveEntryList(&Interface->Link);
    TRACE(TL_USBCFG, "%P:Delete Interface %02x\n", Interface->InterfaceNumber);
    MemFree(Interface);
}

NTSTATUS CreateInterfacePipes(PUSB_DEVICE UsbDevice, PUSBD_INTERFACE_INFORMATION Info,
                              USBD_CONFIGURATION_HANDLE ConfigurationHandle) {
    PDEVICE Dev = UsbDevice->Dev;
    PUSB_INTERFACE Interface;
    ULONG i;

    TRACE(TL_USBCFG, "%P:%S:[CreateInterfacePipes\n", DEV_PORT_NAME(Dev));
    Interface = (PUSB_INTERFACE)MemAlloc(sizeof(USB_INTERFACE), USB_INTERFACE_TAG);
    if (Interface == NULL) {
        TRACE(TL_ASSERT, "%P:%S:allocation of USB_INTERFACE failed\n", DEV_PORT_NAME(Dev));
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory(Interface, sizeof(*Interface));
    Interface->Length = Info->Length;
    Interface->InterfaceNumber = Info->InterfaceNumber;
    Interface->AlternateSetting = Info->AlternateSetting;
    Interface->Class = Info->Class;
    Interface->SubClass = Info->SubClass;
    Interface->Protocol = Info->Protocol;
    Interface->InterfaceHandle = Info->InterfaceHandle;
    Interface->NumberOfPipes = Info->NumberOfPipes;
    TRACE(TL_USBCFG, "%P:%S:Interface created: %B\n", DEV_PORT_NAME(Dev),
          Interface->InterfaceNumber);
    UsbDevice->ConfigHandle = ConfigurationHandle;
    InsertTailList(&UsbDevice->InterfaceList, &Interface->Link);

    for (i = 0; i < Info->NumberOfPipes; i++) {
        PUSBD_PIPE_INFORMATION PipeInfo = &Info->Pipes[i];
        PUSB_PIPE Pipe = (PUSB_PIPE)MemAlloc(sizeof(USB_PIPE), USB_PIPE_TAG);
        if (Pipe == NULL) {
            TRACE(TL_ASSERT, "%P:%S:allocation of USB_PIPE failed\n", DEV_PORT_NAME(Dev));
            DeleteInterfacePipes(UsbDevice, Interface);
            return STATUS_NO_MEMORY;
        }
        RtlZeroMemory(Pipe, sizeof(*Pipe));
        Pipe->MaximumPacketSize = PipeInfo->MaximumPacketSize;
        Pipe->EndpointAddress = PipeInfo->EndpointAddress;
        Pipe->Interval = PipeInfo->Interval;
        Pipe->PipeType = PipeInfo->PipeType;
        Pipe->PipeHandle = PipeInfo->PipeHandle;
        Pipe->MaximumTransferSize = PipeInfo->MaximumTransferSize;
        Pipe->PipeFlags = PipeInfo->PipeFlags;
        Pipe->Interface = Interface;
        TRACE(TL_USBCFG, "%P:%S:Pipe created: EP:%B Handle:%D\n", DEV_PORT_NAME(Dev),
              Pipe->EndpointAddress, (ULONG)(ULONG_PTR)Pipe->PipeHandle);
        InsertTailList(&UsbDevice->PipeList, &Pipe->Link);
    }
    TRACE(TL_USBCFG, "%P:%S:]CreateInterfacePipes\n", DEV_PORT_NAME(Dev));
    return STATUS_SUCCESS;
}

VOID DeleteInterfacePipes(PUSB_DEVICE UsbDevice, PUSB_INTERFACE Interface) {
    PDEVICE Dev = UsbDevice->Dev;
    PLIST_ENTRY Entry;

    TRACE(TL_USBCFG, "%P:%S[DeleteInterfacePipes\n", DEV_PORT_NAME(Dev));
    for (Entry = UsbDevice->PipeList.Flink; Entry != &UsbDevice->PipeList;) {
        PUSB_PIPE Pipe = CONTAINING_RECORD(Entry, USB_PIPE, Link);
        Entry = Entry->Flink;
        if (Pipe->Interface == Interface) {
            AbortPipe(UsbDevice, Pipe);
            DeletePipe(UsbDevice, Pipe);
        }
    }
    DeleteInterface(UsbDevice, Interface);
    TRACE(TL_USBCFG, "%P:%S:]DeleteInterfacePipes\n", DEV_PORT_NAME(Dev));
}

PUSB_PIPE FindPipe(PUSB_DEVICE UsbDevice, UCHAR EndpointAddress) {
    PLIST_ENTRY Entry;

    for (Entry = UsbDevice->PipeList.Flink; Entry != &UsbDevice->PipeList; Entry = Entry->Flink) {
        PUSB_PIPE Pipe = CONTAINING_RECORD(Entry, USB_PIPE, Link);
        if (Pipe->EndpointAddress == EndpointAddress)
            return Pipe;
    }
    return NULL;
}

// A pipe request (abort, or reset and clear stall) on the pipe's handle.
static NTSTATUS PipeRequest(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe, USHORT Function) {
    PDEVICE Dev = UsbDevice->Dev;
    URB Urb;
    PIRP Irp;
    NTSTATUS Status;

    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.UrbPipeRequest.Hdr.Length = sizeof(struct _URB_PIPE_REQUEST);
    Urb.UrbPipeRequest.Hdr.Function = Function;
    Urb.UrbPipeRequest.PipeHandle = Pipe->PipeHandle;
    Irp = IoAllocateIrp(UsbDevice->StackSize, FALSE);
    if (Irp == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    Status = SubmitUrbAndWait(Dev, Irp, &Urb, Dev->Cfg.RequestTimeout);
    IoFreeIrp(Irp);
    return Status;
}

NTSTATUS AbortPipe(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe) {
    PDEVICE Dev = UsbDevice->Dev;
    NTSTATUS Status;

    // clang-format off
    TRACE_ASSERT(Pipe!=NULL);
    // clang-format on
    TRACE(TL_USBCFG, "%P:%S:AbortPipe[\n", DEV_PORT_NAME(Dev));
    if (Pipe->PendingRequests == 0) {
        TRACE(TL_USBCFG, "%P:%S:Abort Pipe for EP:%02x not required\n", DEV_PORT_NAME(Dev),
              Pipe->EndpointAddress);
        return STATUS_SUCCESS;
    }
    TRACE(TL_USBCFG, "%P:%S:Abort Pipe EP:%02x, pending requests:%d\n", DEV_PORT_NAME(Dev),
          Pipe->EndpointAddress, Pipe->PendingRequests);
    // The aborted transfers come back through their own completion routines.
    Status = PipeRequest(UsbDevice, Pipe, URB_FUNCTION_ABORT_PIPE);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:AbortPipe: SubmitUrbAndWait failed (%D).\n", DEV_PORT_NAME(Dev),
              Status);
    TRACE(TL_USBCFG, "%P:%S:]AbortPipe (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

NTSTATUS ResetPipe(PUSB_DEVICE UsbDevice, PUSB_PIPE Pipe) {
    PDEVICE Dev = UsbDevice->Dev;
    NTSTATUS Status;

    // clang-format off
    TRACE_ASSERT(Pipe!=NULL);
    // clang-format on
    TRACE(TL_USBCFG, "%P:%S:ResetPipe[\n", DEV_PORT_NAME(Dev));
    if (!Dev->UsbDeviceEnabled)
        return STATUS_DEVICE_REMOVED;
    TRACE(TL_USBCFG, "%P:%S:Reset Pipe EP:%02x\n", DEV_PORT_NAME(Dev), Pipe->EndpointAddress);
    Status = PipeRequest(UsbDevice, Pipe, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL);
    if (!NT_SUCCESS(Status))
        TRACE(TL_ERROR, "%P:%S:ResetPipe: SubmitUrbAndWait failed (%D).\n", DEV_PORT_NAME(Dev),
              Status);
    TRACE(TL_USBCFG, "%P:%S:]ResetPipe (%D)\n", DEV_PORT_NAME(Dev), Status);
    return Status;
}

VOID AbortAllPipes(PUSB_DEVICE UsbDevice) {
    PDEVICE Dev = UsbDevice->Dev;
    PLIST_ENTRY Entry;

    TRACE(TL_USBCFG, "%P:%S:AbortAllPipes[\n", DEV_PORT_NAME(Dev));
    for (Entry = UsbDevice->PipeList.Flink; Entry != &UsbDevice->PipeList; Entry = Entry->Flink) {
        NTSTATUS Status = AbortPipe(UsbDevice, CONTAINING_RECORD(Entry, USB_PIPE, Link));
        if (!NT_SUCCESS(Status))
            TRACE(TL_ERROR, "%P:%S:AbortAllPipes: FATAL: AbortPipe failed (%D)\n",
                  DEV_PORT_NAME(Dev), Status);
    }
    TRACE(TL_USBCFG, "%P:%S:]AbortAllPipes\n", DEV_PORT_NAME(Dev));
}

VOID DeleteAllPipes(PUSB_DEVICE UsbDevice) {
    PDEVICE Dev = UsbDevice->Dev;

    TRACE(TL_USBCFG, "%P:%S:[DeleteAllPipes\n", DEV_PORT_NAME(Dev));
    while (!IsListEmpty(&UsbDevice->PipeList))
        DeletePipe(UsbDevice, CONTAINING_RECORD(UsbDevice->PipeList.Flink, USB_PIPE, Link));
    while (!IsListEmpty(&UsbDevice->InterfaceList))
        DeleteInterface(UsbDevice,
                        CONTAINING_RECORD(UsbDevice->InterfaceList.Flink, USB_INTERFACE, Link));
    TRACE(TL_USBCFG, "%P:%S:]DeleteAllPipes\n", DEV_PORT_NAME(Dev));
}
