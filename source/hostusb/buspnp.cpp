// The bus driver's Plug and Play side. At plug time the hub enumerates the
// device (device, configuration and string descriptors) for the identities
// its physical device objects report. The hub's device object answers the
// bus-relations query with the functions present; each function's physical
// device object answers the PnP requests a USB bus driver's PDO answers:
// IDs, capabilities, texts, start, stop and removal.
//
// Environment: PnP requests arrive at PASSIVE_LEVEL from the PnP manager's
// thread (or a test's). Enumeration runs on the plugging thread.
// Locks: Bus::Impl::lock while transfers are failed; never held while an
// IRP is completed or the device model is called.
#include "hostusb/bus_impl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hu {

namespace {

constexpr ULONG kIdTag = 0x64496255; // 'UbId'
constexpr uint8_t kDescriptorDevice = 1;
constexpr uint8_t kDescriptorConfiguration = 2;
constexpr uint8_t kDescriptorString = 3;
constexpr uint8_t kDescriptorInterface = 4;
constexpr uint16_t kLanguageUsEnglish = 0x0409;

std::vector<uint8_t> GetDescriptor(Device& device, uint8_t type, uint8_t index, uint16_t language,
                                   uint16_t length) {
    SetupPacket setup;
    setup.request_type = 0x80;
    setup.request = 6; // GET_DESCRIPTOR
    setup.value = uint16_t(type << 8 | index);
    setup.index = language;
    setup.length = length;
    ControlAnswer answer = device.Control(setup, {});
    if (answer.stall)
        return {};
    if (answer.data.size() > length)
        answer.data.resize(length);
    return answer.data;
}

// A string descriptor in US English, ASCII kept and anything else as '?'.
std::string GetString(Device& device, uint8_t index) {
    if (index == 0)
        return {};
    std::vector<uint8_t> bytes =
        GetDescriptor(device, kDescriptorString, index, kLanguageUsEnglish, 255);
    std::string text;
    for (size_t i = 2; i + 1 < bytes.size() && i + 1 < bytes[0]; i += 2) {
        uint16_t unit = uint16_t(bytes[i] | bytes[i + 1] << 8);
        text += unit >= 0x20 && unit < 0x7f ? char(unit) : '?';
    }
    return text;
}

// A serial number serves as instance ID only when every character may
// stand in one: printable, no space, no comma, within the length limit.
bool UsableAsInstanceId(const std::string& serial) {
    if (serial.empty() || serial.size() > MAX_DEVICE_ID_LEN)
        return false;
    for (char c : serial)
        if (c <= 0x20 || c >= 0x7f || c == ',')
            return false;
    return true;
}

std::string Hex4(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04X", value);
    return text;
}

std::string Hex2(uint8_t value) {
    char text[4];
    std::snprintf(text, sizeof text, "%02X", value);
    return text;
}

// Answers a query with the strings in a buffer from paged pool, each with
// its terminator, and one more terminator when multi is set; the caller
// frees it.
NTSTATUS AnswerStrings(PIRP irp, const std::vector<std::string>& strings, bool multi) {
    size_t units = multi ? 1 : 0;
    for (const std::string& text : strings)
        units += text.size() + 1;
    // The hub's answers are not the driver's allocations to survive.
    hk::Pool::Exempt exempt(hk::Kernel::Current().pool());
    auto* buffer =
        static_cast<PWCHAR>(ExAllocatePoolWithTag(PagedPool, units * sizeof(WCHAR), kIdTag));
    if (buffer == nullptr) {
        irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PWCHAR out = buffer;
    for (const std::string& text : strings) {
        for (char c : text)
            *out++ = WCHAR(uint8_t(c));
        *out++ = 0;
    }
    if (multi)
        *out = 0;
    irp->IoStatus.Information = ULONG_PTR(buffer);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

} // namespace

void Bus::Impl::Enumerate(PortState* port) {
    Device& device = *port->device;
    Identity& id = port->identity;
    std::vector<uint8_t> dd = GetDescriptor(device, kDescriptorDevice, 0, 0, 18);
    if (dd.size() >= 18) {
        id.vendor = uint16_t(dd[8] | dd[9] << 8);
        id.product = uint16_t(dd[10] | dd[11] << 8);
        id.revision = uint16_t(dd[12] | dd[13] << 8);
        id.product_text = GetString(device, dd[15]);
        std::string serial = GetString(device, dd[16]);
        id.serial = UsableAsInstanceId(serial) ? serial : std::string();
    }
    std::vector<uint8_t> head = GetDescriptor(device, kDescriptorConfiguration, 0, 0, 9);
    if (head.size() < 9)
        return;
    id.remote_wakeup = (head[7] & 0x20) != 0;
    std::vector<uint8_t> full =
        GetDescriptor(device, kDescriptorConfiguration, 0, 0, uint16_t(head[2] | head[3] << 8));
    for (auto& function : port->functions) {
        for (size_t at = 0; at + 1 < full.size() && full[at] != 0; at += full[at]) {
            if (full[at + 1] != kDescriptorInterface || at + 8 > full.size())
                continue;
            if (full[at + 2] == function->interfaces.front() && full[at + 3] == 0) {
                function->cls = full[at + 5];
                function->subclass = full[at + 6];
                function->protocol = full[at + 7];
                break;
            }
        }
    }
}

NTSTATUS NTAPI Bus::Impl::DispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
    auto* ext = static_cast<BusExtension*>(device->DeviceExtension);
    NTSTATUS status = ext->kind == BusExtension::kHub ? ext->bus->HubPnp(irp)
                                                      : ext->bus->FunctionPnp(ext->function, irp);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// The hub answers bus relations with every function of a device still in
// its port, each referenced for the PnP manager, which dereferences them;
// a function left out is from then on known to be missing. Every other
// request keeps the status it came with.
NTSTATUS Bus::Impl::HubPnp(PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MinorFunction != IRP_MN_QUERY_DEVICE_RELATIONS ||
        stack->Parameters.QueryDeviceRelations.Type != BusRelations)
        return irp->IoStatus.Status;
    std::vector<PDEVICE_OBJECT> present;
    for (auto& port : ports) {
        for (auto& function : port->functions) {
            if (port->unplugged)
                function->reported_missing = true;
            else
                present.push_back(function->pdo);
        }
    }
    size_t bytes = sizeof(DEVICE_RELATIONS) + present.size() * sizeof(PDEVICE_OBJECT);
    hk::Pool::Exempt exempt(hk::Kernel::Current().pool());
    auto* relations =
        static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(PagedPool, bytes, kIdTag));
    if (relations == nullptr) {
        irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    relations->Count = ULONG(present.size());
    for (size_t i = 0; i < present.size(); ++i) {
        ObReferenceObject(present[i]);
        relations->Objects[i] = present[i];
    }
    irp->IoStatus.Information = ULONG_PTR(relations);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

NTSTATUS Bus::Impl::FunctionPnp(Function* function, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = STATUS_SUCCESS;
    switch (stack->MinorFunction) {
    case IRP_MN_QUERY_ID:
        return QueryId(function, irp);
    case IRP_MN_QUERY_CAPABILITIES:
        return QueryCapabilities(function, irp);
    case IRP_MN_QUERY_DEVICE_TEXT:
        return QueryText(function, irp);
    case IRP_MN_START_DEVICE:
        // A device still in its port starts again after a removal.
        if (function->port->unplugged)
            status = STATUS_NO_SUCH_DEVICE;
        else
            function->removed = false;
        function->power = PowerDeviceD0;
        break;
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        break;
    case IRP_MN_SURPRISE_REMOVAL:
    case IRP_MN_REMOVE_DEVICE: {
        KIRQL irql;
        KeAcquireSpinLock(&lock, &irql);
        FailTransfers(function);
        PIRP wait_wake = TakeWaitWake(function);
        KeReleaseSpinLock(&lock, irql);
        if (wait_wake != nullptr) {
            wait_wake->IoStatus.Status = STATUS_NO_SUCH_DEVICE;
            IoCompleteRequest(wait_wake, IO_NO_INCREMENT);
        }
        if (stack->MinorFunction == IRP_MN_REMOVE_DEVICE && function->reported_missing)
            DeleteWhenDetached(function);
        break;
    }
    default:
        return irp->IoStatus.Status;
    }
    irp->IoStatus.Status = status;
    return status;
}

NTSTATUS Bus::Impl::QueryId(Function* function, PIRP irp) {
    const PortState& port = *function->port;
    const Identity& id = port.identity;
    std::string device_id = "USB\\VID_" + Hex4(id.vendor) + "&PID_" + Hex4(id.product);
    std::string interface_part;
    if (port.functions.size() > 1)
        interface_part = "&MI_" + Hex2(function->interfaces.front());
    std::vector<std::string> strings;
    bool multi = false;
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryId.IdType) {
    case BusQueryDeviceID:
        strings = {device_id + interface_part};
        break;
    case BusQueryHardwareIDs:
        strings = {device_id + "&REV_" + Hex4(id.revision) + interface_part,
                   device_id + interface_part};
        multi = true;
        break;
    case BusQueryCompatibleIDs: {
        std::string cls = "USB\\Class_" + Hex2(function->cls);
        std::string subclass = cls + "&SubClass_" + Hex2(function->subclass);
        strings = {subclass + "&Prot_" + Hex2(function->protocol), subclass, cls};
        multi = true;
        break;
    }
    case BusQueryInstanceID:
        // Without a serial number the instance is the port's: the bus number,
        // a 0 for the root hub's level and the port number.
        strings = {!id.serial.empty()
                       ? id.serial
                       : std::to_string(options.bus_number) + "&0&" + std::to_string(port.number)};
        break;
    case BusQueryDeviceSerialNumber:
        if (id.serial.empty())
            return irp->IoStatus.Status;
        strings = {id.serial};
        break;
    default:
        return irp->IoStatus.Status;
    }
    return AnswerStrings(irp, strings, multi);
}

// A USB device's PDO: removable, not to be pulled without warning unless a
// function driver says so on the way up, a unique ID only with a serial
// number, D0 while working and D3 in hibernation and shutdown; sleeping
// states keep D2 for a device that can wake the system, D3 otherwise.
NTSTATUS Bus::Impl::QueryCapabilities(Function* function, PIRP irp) {
    PDEVICE_CAPABILITIES caps =
        IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceCapabilities.Capabilities;
    if (caps == nullptr || caps->Version != 1 || caps->Size < sizeof(DEVICE_CAPABILITIES)) {
        irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        return STATUS_UNSUCCESSFUL;
    }
    const PortState& port = *function->port;
    bool wake = port.identity.remote_wakeup;
    caps->Removable = TRUE;
    caps->UniqueID = port.identity.serial.empty() ? FALSE : TRUE;
    caps->SurpriseRemovalOK = FALSE;
    caps->DeviceD1 = FALSE;
    caps->DeviceD2 = wake ? TRUE : FALSE;
    caps->WakeFromD2 = wake ? TRUE : FALSE;
    caps->Address = ULONG(port.number);
    caps->UINumber = ULONG(port.number);
    DEVICE_POWER_STATE sleeping = wake ? PowerDeviceD2 : PowerDeviceD3;
    caps->DeviceState[PowerSystemUnspecified] = PowerDeviceUnspecified;
    caps->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    caps->DeviceState[PowerSystemSleeping1] = sleeping;
    caps->DeviceState[PowerSystemSleeping2] = sleeping;
    caps->DeviceState[PowerSystemSleeping3] = sleeping;
    caps->DeviceState[PowerSystemHibernate] = PowerDeviceD3;
    caps->DeviceState[PowerSystemShutdown] = PowerDeviceD3;
    caps->SystemWake = wake ? PowerSystemSleeping3 : PowerSystemUnspecified;
    caps->DeviceWake = wake ? PowerDeviceD2 : PowerDeviceUnspecified;
    irp->IoStatus.Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
}

// The description is the product string (none: the request keeps its
// status); the location names the port and the hub.
NTSTATUS Bus::Impl::QueryText(Function* function, PIRP irp) {
    const PortState& port = *function->port;
    std::string text;
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryDeviceText.DeviceTextType) {
    case DeviceTextDescription:
        text = port.identity.product_text;
        break;
    case DeviceTextLocationInformation: {
        char location[40];
        std::snprintf(location, sizeof location, "Port_#%04d.Hub_#%04d", port.number,
                      int(options.bus_number));
        text = location;
        break;
    }
    default:
        break;
    }
    if (text.empty())
        return irp->IoStatus.Status;
    return AnswerStrings(irp, {text}, false);
}

// Pending and later transfers of the function fail as the device's
// departure fails them.
void Bus::Impl::FailTransfers(Function* function) {
    function->removed = true;
    auto fail = [&](Endpoint& ep) {
        for (Transfer* t : ep.queue) {
            if (t->function != function)
                continue;
            t->cancel = true;
            t->forced = USBD_STATUS_DEVICE_GONE;
            Release(t);
        }
    };
    fail(function->port->ep0);
    for (auto& [address, ep] : function->port->endpoints)
        fail(ep);
}

// A function driver may detach from the PDO only after passing the removal
// down, and the request still has to come back through the PDO: the PDO
// goes once the removal's work is over, from the system worker queue behind
// the PnP manager's own work.
void Bus::Impl::DeleteWhenDetached(Function* function, int tries) {
    hk::Kernel::Current().QueueSystemWork([this, function, tries, alive = alive] {
        if (!*alive)
            return;
        // On another worker thread the function driver may still be on its
        // way from passing the removal down to detaching: look again later.
        if (function->pdo->AttachedDevice != nullptr && tries < kDetachTries) {
            DeleteWhenDetached(function, tries + 1);
            return;
        }
        DeleteFunction(function);
    });
}

void Bus::Impl::DeleteFunction(Function* function) {
    PortState* port = function->port;
    if (function->pdo->AttachedDevice != nullptr) {
        Diagnose("port " + std::to_string(port->number) +
                 ": a driver is still attached to a removed device object");
        return;
    }
    IoDeleteDevice(function->pdo);
    auto& functions = port->functions;
    functions.erase(std::find_if(functions.begin(), functions.end(),
                                 [&](const auto& f) { return f.get() == function; }));
    if (functions.empty()) {
        port->device->SetDataReady(nullptr);
        port->device->SetRemoteWake(nullptr);
        port->device.reset();
        port->unplugged = false;
    }
}

} // namespace hu
