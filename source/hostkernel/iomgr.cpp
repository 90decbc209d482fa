// The I/O manager's objects: the namespace of device names and symbolic
// links, device objects with their stacks and references, driver objects,
// and the leak checks made at teardown.
#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"

#include "hostkernel/scheduler.h"

#include <cstdlib>

namespace hk::detail {

IoManager& Io() {
    return Kernel::Current().io();
}

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

bool CheckIoIrql(const char* call, KIRQL max) {
    KIRQL irql = Sched().Irql();
    if (irql <= max)
        return true;
    Kernel::Current().verifier().Violation(rule::kIoIrql, std::string(call) + " called at IRQL " +
                                                              std::to_string(irql) + ", above " +
                                                              std::to_string(max));
    return false;
}

static std::u16string FromUnicode(PCUNICODE_STRING name) {
    return std::u16string(name->Buffer, name->Length / sizeof(WCHAR));
}

std::string Narrow(std::u16string_view text) {
    std::string out;
    for (char16_t c : text)
        out += c < 0x80 ? char(c) : '?';
    return out;
}

IoManager::IoManager(Kernel& kernel) : kernel_(kernel) {}
IoManager::~IoManager() = default;

std::u16string IoManager::Key(std::u16string_view name) {
    std::u16string key(name);
    for (auto& c : key)
        if (c >= u'A' && c <= u'Z')
            c = char16_t(c - u'A' + u'a');
    static const std::u16string kDosDevices = u"\\dosdevices\\";
    if (key.compare(0, kDosDevices.size(), kDosDevices) == 0)
        key = u"\\??\\" + key.substr(kDosDevices.size());
    return key;
}

NTSTATUS IoManager::InsertDevice(std::u16string_view name, PDEVICE_OBJECT device) {
    if (name.empty() || name[0] != u'\\')
        return STATUS_OBJECT_NAME_INVALID;
    if (!names_.emplace(Key(name), NamedObject{device, {}}).second)
        return STATUS_OBJECT_NAME_COLLISION;
    return STATUS_SUCCESS;
}

NTSTATUS IoManager::InsertLink(std::u16string_view link, std::u16string_view target) {
    if (link.empty() || link[0] != u'\\' || target.empty())
        return STATUS_OBJECT_NAME_INVALID;
    if (!names_.emplace(Key(link), NamedObject{nullptr, std::u16string(target)}).second)
        return STATUS_OBJECT_NAME_COLLISION;
    return STATUS_SUCCESS;
}

NTSTATUS IoManager::RemoveLink(std::u16string_view link) {
    auto it = names_.find(Key(link));
    if (it == names_.end() || it->second.link_target.empty())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    names_.erase(it);
    return STATUS_SUCCESS;
}

void IoManager::RemoveName(std::u16string_view name) {
    names_.erase(Key(name));
}

PDEVICE_OBJECT IoManager::Lookup(std::u16string_view name) const {
    std::u16string key = Key(name);
    for (int hops = 0; hops < 8; ++hops) {
        auto it = names_.find(key);
        if (it == names_.end())
            return nullptr;
        if (it->second.link_target.empty())
            return it->second.device;
        key = Key(it->second.link_target);
    }
    return nullptr;
}

const std::u16string* IoManager::LinkTarget(std::u16string_view link) const {
    auto it = names_.find(Key(link));
    if (it == names_.end() || it->second.link_target.empty())
        return nullptr;
    return &it->second.link_target;
}

DeviceInfo* IoManager::FindDevice(PDEVICE_OBJECT device) {
    auto it = devices.find(device);
    return it == devices.end() ? nullptr : &it->second;
}

static DeviceInfo& KnownDevice(const char* call, PDEVICE_OBJECT device) {
    DeviceInfo* info = Io().FindDevice(device);
    if (!info) {
        std::fprintf(stderr, "hostkernel: %s on %p, which is not a device object\n", call,
                     static_cast<void*>(device));
        std::abort();
    }
    return *info;
}

void IoManager::Reference(PDEVICE_OBJECT device) {
    KnownDevice("ObReferenceObject", device);
    InterlockedIncrement(&device->ReferenceCount);
}

void IoManager::Dereference(PDEVICE_OBJECT device) {
    DeviceInfo& info = KnownDevice("ObDereferenceObject", device);
    if (InterlockedDecrement(&device->ReferenceCount) == 0 && info.delete_requested)
        FreeDevice(device);
}

void IoManager::FreeDevice(PDEVICE_OBJECT device) {
    devices.erase(device);
    ExFreePoolWithTag(device, kDeviceTag);
}

std::shared_ptr<IrpInfo> IoManager::FindIrp(PIRP irp) const {
    auto it = irps.find(irp);
    return it == irps.end() ? nullptr : it->second;
}

std::shared_ptr<IrpInfo> IoManager::Register(PIRP irp, IrpOrigin origin) {
    auto info = std::make_shared<IrpInfo>();
    info->origin = origin;
    size_t count = size_t(irp->StackCount);
    info->at.resize(count);
    auto& slot = irps[irp];
    if (slot)
        slot->gone = true;
    slot = info;
    completed_and_freed.erase(irp);
    return info;
}

const IoManager::Frame* IoManager::InnermostFrame(PIRP irp) const {
    auto it = frames.find(Sched().Current());
    if (it == frames.end())
        return nullptr;
    for (auto frame = it->second.rbegin(); frame != it->second.rend(); ++frame)
        if (frame->irp == irp)
            return &*frame;
    return nullptr;
}

void IoManager::Release(PIRP irp) {
    ExFreePoolWithTag(irp, kIrpTag); // the pool forgets the record (ForgetIrpsIn)
}

void IoManager::ForgetIrpsIn(const void* block, size_t bytes) {
    if (bytes < sizeof(IRP) || irps.empty())
        return;
    auto start = reinterpret_cast<uintptr_t>(block);
    for (auto it = irps.begin(); it != irps.end();) {
        auto at = reinterpret_cast<uintptr_t>(it->first);
        if (at < start || at - start >= bytes) {
            ++it;
            continue;
        }
        it->second->gone = true;
        if (it->second->completions != 0 && completed_and_freed.insert(it->first).second) {
            completed_and_freed_order.push_back(it->first);
            if (completed_and_freed_order.size() > kFreedIrpsKept) {
                completed_and_freed.erase(completed_and_freed_order.front());
                completed_and_freed_order.pop_front();
            }
        }
        it = irps.erase(it);
    }
}

void IoManager::CheckTeardown() {
    Verifier& verifier = kernel_.verifier();
    std::vector<PIRP> leaked;
    for (auto& [irp, info] : irps)
        if (info->origin != IrpOrigin::kDriver)
            leaked.push_back(irp);
    if (!leaked.empty()) {
        std::string detail = std::to_string(leaked.size()) + " IRP(s):";
        // Completion leaves CurrentLocation one past the top location and
        // clears the locations it passed, so such an IRP has no major left.
        for (PIRP irp : leaked) {
            if (irp->CurrentLocation > irp->StackCount + 1)
                detail += " [completed, never freed]";
            else if (irp->CurrentLocation <= irp->StackCount)
                detail += " [major " + Hex(IoGetCurrentIrpStackLocation(irp)->MajorFunction) +
                          ", pending in a driver]";
            else
                detail +=
                    " [major " + Hex(IoGetNextIrpStackLocation(irp)->MajorFunction) + ", not sent]";
        }
        verifier.Violation(rule::kIrpLeak, detail);
        for (PIRP irp : leaked) {
            if (irp->AssociatedIrp.SystemBuffer && (irp->Flags & IRP_DEALLOCATE_BUFFER))
                ExFreePoolWithTag(irp->AssociatedIrp.SystemBuffer, kSystemBufferTag);
            Release(irp);
        }
    }
    irps.clear();
    if (!work_items.empty()) {
        verifier.Violation(rule::kWorkItemLeak,
                           std::to_string(work_items.size()) + " work item(s) never freed");
        for (PIO_WORKITEM item : std::set<PIO_WORKITEM>(work_items))
            FreeWorkItemBlock(item);
    }
    if (!devices.empty()) {
        std::string detail = std::to_string(devices.size()) + " device object(s):";
        for (auto& [device, info] : devices)
            detail +=
                " [" + (info.name.empty() ? std::string("unnamed") : Narrow(info.name)) +
                (info.delete_requested ? ", deleted but referenced " +
                                             std::to_string(device->ReferenceCount) + " time(s)"
                                       : ", never deleted") +
                "]";
        verifier.Violation(rule::kDeviceLeak, detail);
        while (!devices.empty())
            FreeDevice(devices.begin()->first);
    }
}

static NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT, PIRP Irp) {
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

} // namespace hk::detail

using namespace hk;
using namespace hk::detail;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                        PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                        ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject) {
    *DeviceObject = nullptr;
    CheckIoIrql("IoCreateDevice", PASSIVE_LEVEL);
    IoManager& io = Io();
    std::u16string name = DeviceName ? FromUnicode(DeviceName) : std::u16string();
    if (!DeviceName && (DeviceCharacteristics & FILE_AUTOGENERATED_DEVICE_NAME)) {
        char text[24];
        std::snprintf(text, sizeof text, "\\Device\\%08X", io.next_autogenerated_name++);
        name.assign(text, text + strlen(text));
    }
    if (DeviceName && (name.empty() || name[0] != u'\\'))
        return STATUS_OBJECT_NAME_INVALID;
    if (!name.empty() && io.Lookup(name) != nullptr)
        return STATUS_OBJECT_NAME_COLLISION;
    size_t extension_offset = (sizeof(DEVICE_OBJECT) + 15) & ~size_t(15);
    auto* device = static_cast<PDEVICE_OBJECT>(
        ExAllocatePoolWithTag(NonPagedPool, extension_offset + DeviceExtensionSize, kDeviceTag));
    if (!device)
        return STATUS_INSUFFICIENT_RESOURCES;
    memset(device, 0, extension_offset + DeviceExtensionSize);
    if (!name.empty()) {
        NTSTATUS status = io.InsertDevice(name, device);
        if (!NT_SUCCESS(status)) {
            ExFreePoolWithTag(device, kDeviceTag);
            return status;
        }
    }
    device->Type = IO_TYPE_DEVICE;
    device->Size = USHORT(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->DeviceExtension = DeviceExtensionSize ? (PCHAR)device + extension_offset : nullptr;
    device->DeviceType = DeviceType;
    device->Characteristics = DeviceCharacteristics;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0) |
                    (name.empty() ? 0 : DO_DEVICE_HAS_NAME);
    device->StackSize = 1;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    device->NextDevice = DriverObject->DeviceObject;
    DriverObject->DeviceObject = device;
    io.devices[device].name = name;
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    CheckIoIrql("IoDeleteDevice", PASSIVE_LEVEL);
    IoManager& io = Io();
    DeviceInfo& info = KnownDevice("IoDeleteDevice", DeviceObject);
    if (info.delete_requested) {
        std::fputs("hostkernel: IoDeleteDevice called twice on one device object\n", stderr);
        std::abort();
    }
    if (info.attached_to || DeviceObject->AttachedDevice)
        Kernel::Current().verifier().Violation(
            rule::kDeviceDeletedAttached,
            info.attached_to ? "the device is still attached to a lower device; IoDetachDevice "
                               "must come first"
                             : "another device is still attached on top of it");
    if (!info.name.empty())
        io.RemoveName(info.name);
    for (PDEVICE_OBJECT* link = &DeviceObject->DriverObject->DeviceObject; *link;
         link = &(*link)->NextDevice) {
        if (*link == DeviceObject) {
            *link = DeviceObject->NextDevice;
            break;
        }
    }
    info.delete_requested = true;
    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    if (DeviceObject->ReferenceCount == 0)
        io.FreeDevice(DeviceObject);
    // A PnP driver goes once its last device object is deleted.
    if (driver->DeviceObject == nullptr)
        Kernel::Current().pnp().DriverIdle(driver);
}

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject) {
    while (DeviceObject->AttachedDevice)
        DeviceObject = DeviceObject->AttachedDevice;
    return DeviceObject;
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice,
                                           PDEVICE_OBJECT TargetDevice) {
    CheckIoIrql("IoAttachDeviceToDeviceStack", PASSIVE_LEVEL);
    DeviceInfo& source = KnownDevice("IoAttachDeviceToDeviceStack", SourceDevice);
    PDEVICE_OBJECT top = IoGetAttachedDevice(TargetDevice);
    if (KnownDevice("IoAttachDeviceToDeviceStack", top).delete_requested)
        return nullptr;
    top->AttachedDevice = SourceDevice;
    SourceDevice->StackSize = CCHAR(top->StackSize + 1);
    if (top->AlignmentRequirement > SourceDevice->AlignmentRequirement)
        SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    source.attached_to = top;
    return top;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    CheckIoIrql("IoDetachDevice", PASSIVE_LEVEL);
    KnownDevice("IoDetachDevice", TargetDevice);
    PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
    if (!upper) {
        std::fputs("hostkernel: IoDetachDevice on a device with nothing attached\n", stderr);
        std::abort();
    }
    KnownDevice("IoDetachDevice", upper).attached_to = nullptr;
    TargetDevice->AttachedDevice = nullptr;
}

void ObReferenceObject(PVOID Object) {
    Io().Reference(static_cast<PDEVICE_OBJECT>(Object));
}

void ObDereferenceObject(PVOID Object) {
    Io().Dereference(static_cast<PDEVICE_OBJECT>(Object));
}

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
    CheckIoIrql("IoCreateSymbolicLink", PASSIVE_LEVEL);
    return Io().InsertLink(FromUnicode(SymbolicLinkName), FromUnicode(DeviceName));
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
    CheckIoIrql("IoDeleteSymbolicLink", PASSIVE_LEVEL);
    return Io().RemoveLink(FromUnicode(SymbolicLinkName));
}

namespace hk {

Driver::Driver(std::u16string name) : name_(std::move(name)) {
    object_.Type = IO_TYPE_DRIVER;
    object_.Size = sizeof(DRIVER_OBJECT);
    object_.DriverExtension = &extension_;
    extension_.DriverObject = &object_;
    object_.DriverName.Buffer = name_.data();
    object_.DriverName.Length = USHORT(name_.size() * sizeof(WCHAR));
    object_.DriverName.MaximumLength = object_.DriverName.Length;
    for (auto& routine : object_.MajorFunction)
        routine = detail::InvalidDeviceRequest;
}

Driver::~Driver() {
    if (object_.DeviceObject && Kernel::Exists())
        Kernel::Current().verifier().Violation(
            rule::kDeviceLeak, "the driver object goes away with device objects left");
}

NTSTATUS Driver::Initialize(PDRIVER_INITIALIZE entry, std::u16string registry_path) {
    registry_path_ = std::move(registry_path);
    UNICODE_STRING path;
    path.Buffer = registry_path_.data();
    path.Length = USHORT(registry_path_.size() * sizeof(WCHAR));
    path.MaximumLength = path.Length;
    object_.DriverInit = entry;
    return entry(&object_, &path);
}

void Driver::Unload() {
    if (object_.DriverUnload)
        object_.DriverUnload(&object_);
}

PDEVICE_OBJECT FindDevice(std::u16string_view name) {
    return detail::Io().Lookup(name);
}

bool SymbolicLinkExists(std::u16string_view link) {
    return detail::Io().LinkTarget(link) != nullptr;
}

std::u16string SymbolicLinkTarget(std::u16string_view link) {
    const std::u16string* target = detail::Io().LinkTarget(link);
    return target ? *target : std::u16string();
}

LONG DeviceReferences(PDEVICE_OBJECT device) {
    detail::KnownDevice("DeviceReferences", device);
    return device->ReferenceCount;
}

bool DeviceExists(PDEVICE_OBJECT device) {
    return detail::Io().FindDevice(device) != nullptr;
}

size_t LiveIrps() {
    return detail::Io().irps.size();
}

} // namespace hk
