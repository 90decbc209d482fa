// Device interfaces of the emulated PnP manager (see devinterface.h).
#include "hostkernel/devinterface.h"

#include "hostkernel/emu.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hk {

std::string GuidText(const GUID& guid) {
    char text[40];
    std::snprintf(text, sizeof text, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}",
                  unsigned(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1],
                  guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6],
                  guid.Data4[7]);
    return text;
}

NTSTATUS DeviceInterfaces::Register(PDEVICE_OBJECT pdo, const GUID& class_guid,
                                    std::u16string_view reference, std::u16string* name) {
    const PnpDevice* device = manager_.DeviceFor(pdo);
    if (device == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    std::string text = "\\??\\" + device->instance + "#" + GuidText(class_guid);
    std::replace(text.begin() + 4, text.end(), '\\', '#');
    std::u16string full(text.begin(), text.end());
    if (!reference.empty())
        full += u"\\" + std::u16string(reference);
    *name = full;
    for (const DeviceInterface& known : interfaces_)
        if (known.name == full)
            return STATUS_SUCCESS; // registered before: the same name again
    DeviceInterface interface;
    interface.name = full;
    interface.instance = device->instance;
    interface.pdo = pdo;
    interface.class_guid = class_guid;
    interfaces_.push_back(interface);
    return STATUS_SUCCESS;
}

NTSTATUS DeviceInterfaces::SetState(std::u16string_view name, bool enable) {
    auto it = std::find_if(interfaces_.begin(), interfaces_.end(),
                           [&](const DeviceInterface& i) { return i.name == name; });
    if (it == interfaces_.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (!enable) {
        if (!it->enabled)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        Disable(*it);
        return STATUS_SUCCESS;
    }
    if (it->enabled)
        return STATUS_OBJECT_NAME_EXISTS;
    // The name belongs to the instance: when the device comes back with a
    // new physical device object, the same name enables it there.
    if (const PnpDevice* device = manager_.Device(it->instance); device && device->present)
        it->pdo = device->pdo;
    detail::DeviceInfo* pdo = it->pdo ? detail::Io().FindDevice(it->pdo) : nullptr;
    if (pdo == nullptr || pdo->name.empty())
        return STATUS_INVALID_DEVICE_REQUEST;
    std::u16string link = it->name.substr(0, it->name.find(u'\\', 4));
    NTSTATUS status = detail::Io().InsertLink(link, pdo->name);
    if (!NT_SUCCESS(status))
        return status;
    it->enabled = true;
    const PnpDevice* device = manager_.DeviceFor(it->pdo);
    if (device != nullptr && device->state == PnpState::kStarted)
        notifications_.push_back({it->name, true});
    else
        pending_arrivals_.push_back(it->name);
    return STATUS_SUCCESS;
}

void DeviceInterfaces::Disable(DeviceInterface& interface) {
    detail::Io().RemoveLink(interface.name.substr(0, interface.name.find(u'\\', 4)));
    interface.enabled = false;
    auto pending = std::find(pending_arrivals_.begin(), pending_arrivals_.end(), interface.name);
    if (pending != pending_arrivals_.end())
        pending_arrivals_.erase(pending); // never announced, so no removal either
    else
        notifications_.push_back({interface.name, false});
}

void DeviceInterfaces::Started(PDEVICE_OBJECT pdo) {
    for (const DeviceInterface& interface : interfaces_) {
        auto pending =
            std::find(pending_arrivals_.begin(), pending_arrivals_.end(), interface.name);
        if (interface.pdo == pdo && pending != pending_arrivals_.end()) {
            notifications_.push_back({interface.name, true});
            pending_arrivals_.erase(pending);
        }
    }
}

void DeviceInterfaces::Removed(PDEVICE_OBJECT pdo) {
    for (DeviceInterface& interface : interfaces_) {
        if (interface.pdo == pdo && interface.enabled)
            Disable(interface);
    }
}

} // namespace hk

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject,
                                   const GUID* InterfaceClassGuid, PUNICODE_STRING ReferenceString,
                                   PUNICODE_STRING SymbolicLinkName) {
    hk::detail::CheckIoIrql("IoRegisterDeviceInterface", PASSIVE_LEVEL);
    std::u16string reference;
    if (ReferenceString != nullptr && ReferenceString->Buffer != nullptr)
        reference.assign(reinterpret_cast<const char16_t*>(ReferenceString->Buffer),
                         ReferenceString->Length / sizeof(WCHAR));
    std::u16string name;
    NTSTATUS status = hk::Kernel::Current().pnp().interfaces().Register(
        PhysicalDeviceObject, *InterfaceClassGuid, reference, &name);
    if (!NT_SUCCESS(status))
        return status;
    // The name is ASCII; the caller frees it with RtlFreeUnicodeString.
    std::string narrow(name.begin(), name.end());
    ANSI_STRING source;
    source.Buffer = narrow.data();
    source.Length = USHORT(narrow.size());
    source.MaximumLength = source.Length;
    return RtlAnsiStringToUnicodeString(SymbolicLinkName, &source, TRUE);
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
    hk::detail::CheckIoIrql("IoSetDeviceInterfaceState", PASSIVE_LEVEL);
    std::u16string name(reinterpret_cast<const char16_t*>(SymbolicLinkName->Buffer),
                        SymbolicLinkName->Length / sizeof(WCHAR));
    return hk::Kernel::Current().pnp().interfaces().SetState(name, Enable != FALSE);
}
