// The emulated Plug and Play manager (see pnp.h).
#include "hostkernel/pnp.h"

#include "hostkernel/emu.h"
#include "hostkernel/iomgr.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace hk {

namespace {

constexpr const char* kControlPath = "\\Registry\\Machine\\System\\CurrentControlSet\\Control";
constexpr const char* kComNameArbiter = "COM Name Arbiter";
constexpr size_t kComDbBytes = 32; // one bit per COM port, COM1 to COM256

struct Waiter {
    KEVENT done;
};

NTSTATUS NTAPI TakeBack(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(&static_cast<Waiter*>(context)->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

bool SameText(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(uint8_t(x)) == std::tolower(uint8_t(y));
           });
}

// The strings of a PnP answer, which the manager frees as the caller must.
std::vector<std::string> TakeStrings(ULONG_PTR information, bool multi) {
    std::vector<std::string> strings;
    auto* text = reinterpret_cast<const WCHAR*>(information);
    if (text == nullptr)
        return strings;
    for (const WCHAR* at = text; *at != 0; ++at) {
        strings.emplace_back();
        for (; *at != 0; ++at)
            strings.back() += *at < 0x80 ? char(*at) : '?';
        if (!multi)
            break;
    }
    ExFreePool(const_cast<WCHAR*>(text));
    return strings;
}

uint32_t Number(const std::string& text) {
    return uint32_t(std::stoul(text, nullptr, 0));
}

// Applies AddReg lines under the key HKR stands for; other roots are not
// used by the driver packages the manager installs.
void ApplyAddReg(Registry& registry, const std::vector<InfRegEntry>& entries,
                 const std::string& hkr, std::vector<std::string>& problems) {
    for (const InfRegEntry& entry : entries) {
        if (!SameText(entry.root, "HKR")) {
            problems.push_back("AddReg root " + entry.root + " is not supported");
            continue;
        }
        std::string key = entry.subkey.empty() ? hkr : hkr + "\\" + entry.subkey;
        if ((entry.flags & InfRegEntry::kNoClobber) && registry.GetValue(key, entry.value_name))
            continue;
        std::string first = entry.values.empty() ? std::string() : entry.values.front();
        switch (entry.flags & InfRegEntry::kTypeMask) {
        case InfRegEntry::kTypeString:
            registry.SetString(key, entry.value_name, first);
            break;
        case InfRegEntry::kTypeExpandString:
            registry.SetString(key, entry.value_name, first, REG_EXPAND_SZ);
            break;
        case InfRegEntry::kTypeMultiString:
            registry.SetMultiString(key, entry.value_name, entry.values);
            break;
        case InfRegEntry::kTypeDword:
            registry.SetDword(key, entry.value_name, Number(first));
            break;
        default: {
            std::vector<uint8_t> bytes;
            for (const std::string& value : entry.values)
                bytes.push_back(uint8_t(std::stoul(value, nullptr, 16)));
            registry.SetValue(key, entry.value_name, entry.flags >> 16, bytes);
        }
        }
    }
}

} // namespace

PnpAnswer PnpManager::Send(PDEVICE_OBJECT device, UCHAR minor,
                           const std::function<void(IO_STACK_LOCATION&)>& fill) {
    detail::CheckIoIrql("a PnP request", PASSIVE_LEVEL);
    PIRP irp;
    {
        // The PnP manager's requests do not fail for want of memory.
        Pool::Exempt exempt(Kernel::Current().pool());
        irp = IoAllocateIrp(device->StackSize, FALSE);
    }
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_PNP;
    next->MinorFunction = minor;
    if (fill)
        fill(*next);
    Waiter waiter;
    KeInitializeEvent(&waiter.done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, TakeBack, &waiter, TRUE, TRUE, TRUE);
    if (IoCallDriver(device, irp) == STATUS_PENDING)
        KeWaitForSingleObject(&waiter.done, Executive, KernelMode, FALSE, nullptr);
    PnpAnswer answer{irp->IoStatus.Status, irp->IoStatus.Information};
    IoFreeIrp(irp);
    return answer;
}

bool PnpManager::LoadInf(const std::string& path, std::string* error) {
    KeInitializeMutex(&engine_lock_, 0);
    inf_ = Inf::Load(path, error);
    return inf_.has_value();
}

void PnpManager::RegisterDriver(std::string_view service, PDRIVER_OBJECT driver) {
    drivers_[std::string(service)] = driver;
}

PnpManager::~PnpManager() = default;

void PnpManager::RegisterDriverEntry(std::string_view service, PDRIVER_INITIALIZE entry) {
    entries_[std::string(service)] = entry;
}

PDRIVER_OBJECT PnpManager::LoadedDriver(std::string_view service) const {
    auto it = loaded_.find(service);
    return it == loaded_.end() ? nullptr : it->second->Object();
}

int PnpManager::Loads(std::string_view service) const {
    auto it = load_counts_.find(service);
    return it == load_counts_.end() ? 0 : it->second.first;
}

int PnpManager::Unloads(std::string_view service) const {
    auto it = load_counts_.find(service);
    return it == load_counts_.end() ? 0 : it->second.second;
}

// Loads the service's driver into a new driver object named after the
// service, calling its entry with the service key's path.
bool PnpManager::Load(const std::string& service, PnpDevice& device) {
    auto entry = entries_.find(service);
    if (entry == entries_.end())
        return false;
    std::u16string name = u"\\Driver\\" + std::u16string(service.begin(), service.end());
    std::string key = std::string(Registry::kServicesPath) + "\\" + service;
    auto driver = std::make_unique<Driver>(name);
    NTSTATUS status = driver->Initialize(entry->second, std::u16string(key.begin(), key.end()));
    load_counts_[service].first++;
    if (!NT_SUCCESS(status)) {
        device.problems.push_back("DriverEntry of " + service + " failed with " +
                                  detail::Hex(ULONG(status)));
        return false;
    }
    drivers_[service] = driver->Object();
    loaded_[service] = std::move(driver);
    return true;
}

void PnpManager::DriverIdle(PDRIVER_OBJECT driver) {
    for (const auto& [service, loaded] : loaded_) {
        if (loaded->Object() != driver)
            continue;
        // Unloaded from a system thread, once the deletion's caller is done.
        Kernel::Current().QueueSystemWork([this, name = service] {
            Serialized([&] {
                auto it = loaded_.find(name);
                if (it == loaded_.end() || it->second->Object()->DeviceObject != nullptr)
                    return;
                it->second->Unload();
                load_counts_[name].second++;
                drivers_.erase(name);
                loaded_.erase(it);
            });
        });
        return;
    }
}

void PnpManager::InvalidateRelations(PDEVICE_OBJECT bus_device, DEVICE_RELATION_TYPE type) {
    if (!Active() || type != BusRelations)
        return;
    Kernel::Current().QueueSystemWork(
        [this, bus_device] { Serialized([&] { Enumerate(bus_device); }); });
}

void PnpManager::HandleClosed(PDEVICE_OBJECT device) {
    if (!Active())
        return;
    for (auto& [instance, record] : devices_) {
        if (record.state != PnpState::kSurpriseRemoved || record.pdo == nullptr)
            continue;
        for (PDEVICE_OBJECT at = record.pdo; at != nullptr; at = at->AttachedDevice) {
            if (at != device)
                continue;
            Kernel::Current().QueueSystemWork([this, name = instance] {
                Serialized([&] {
                    PnpDevice* again = Find(name);
                    if (again && again->state == PnpState::kSurpriseRemoved && !HandlesOpen(*again))
                        Remove(*again);
                });
            });
            return;
        }
    }
}

PnpAnswer PnpManager::Call(PnpDevice& device, UCHAR minor,
                           const std::function<void(IO_STACK_LOCATION&)>& fill) {
    return Send(IoGetAttachedDevice(device.pdo), minor, fill);
}

std::optional<std::string> PnpManager::QueryText(PnpDevice& device, BUS_QUERY_ID_TYPE type) {
    PnpAnswer answer = Call(device, IRP_MN_QUERY_ID,
                            [type](IO_STACK_LOCATION& s) { s.Parameters.QueryId.IdType = type; });
    std::vector<std::string> strings = TakeStrings(answer.information, false);
    if (!NT_SUCCESS(answer.status) || strings.empty())
        return std::nullopt;
    return strings.front();
}

std::vector<std::string> PnpManager::QueryList(PnpDevice& device, BUS_QUERY_ID_TYPE type) {
    PnpAnswer answer = Call(device, IRP_MN_QUERY_ID,
                            [type](IO_STACK_LOCATION& s) { s.Parameters.QueryId.IdType = type; });
    std::vector<std::string> strings = TakeStrings(answer.information, true);
    return NT_SUCCESS(answer.status) ? strings : std::vector<std::string>();
}

// The bus's relations: every PDO not known yet arrives, every known one
// left out has gone. The references the bus took for the manager are
// dropped at once; the manager then knows a PDO only by its address.
void PnpManager::Enumerate(PDEVICE_OBJECT bus_device) {
    PnpAnswer answer =
        Send(IoGetAttachedDevice(bus_device), IRP_MN_QUERY_DEVICE_RELATIONS,
             [](IO_STACK_LOCATION& s) { s.Parameters.QueryDeviceRelations.Type = BusRelations; });
    if (!NT_SUCCESS(answer.status))
        return;
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(answer.information);
    std::vector<PDEVICE_OBJECT> present(relations->Objects, relations->Objects + relations->Count);
    ExFreePool(relations);
    for (PDEVICE_OBJECT pdo : present)
        if (!instance_of_.count(pdo))
            Arrive(pdo);
    std::vector<std::string> gone;
    for (auto& [pdo, instance] : instance_of_)
        if (std::find(present.begin(), present.end(), pdo) == present.end())
            gone.push_back(instance);
    for (const std::string& instance : gone)
        Depart(*Find(instance));
    for (PDEVICE_OBJECT pdo : present)
        ObDereferenceObject(pdo);
}

// A new PDO: its instance (device ID and instance ID, so that the same
// device is the same instance at its next plug), installation, AddDevice,
// capabilities and start.
void PnpManager::Arrive(PDEVICE_OBJECT pdo) {
    PnpDevice probe;
    probe.pdo = pdo;
    std::optional<std::string> device_id = QueryText(probe, BusQueryDeviceID);
    std::optional<std::string> instance_id = QueryText(probe, BusQueryInstanceID);
    std::vector<std::string> hardware_ids = QueryList(probe, BusQueryHardwareIDs);
    std::vector<std::string> compatible_ids = QueryList(probe, BusQueryCompatibleIDs);
    if (!device_id || !instance_id) {
        std::fprintf(stderr, "hostkernel: a PDO answered no device or instance ID\n");
        return;
    }
    std::string instance = *device_id + "\\" + *instance_id;
    PnpDevice& device = devices_[instance];
    device.instance = instance;
    device.pdo = pdo;
    device.present = true;
    device.state = PnpState::kNoDriver;
    device.add_device = STATUS_PENDING;
    device.service.clear();
    instance_of_[pdo] = instance;
    if (Install(device, hardware_ids, compatible_ids))
        Start(device);
}

bool PnpManager::Install(PnpDevice& device, const std::vector<std::string>& hardware_ids,
                         const std::vector<std::string>& compatible_ids) {
    Registry& registry = Kernel::Current().registry();
    // Hardware IDs rank before compatible IDs, each list in its order.
    std::optional<InfLine> model;
    std::vector<std::string> ids = hardware_ids;
    ids.insert(ids.end(), compatible_ids.begin(), compatible_ids.end());
    const std::vector<InfLine>* manufacturers = inf_->Section("Manufacturer");
    for (const std::string& id : ids) {
        for (const InfLine& maker : manufacturers ? *manufacturers : std::vector<InfLine>()) {
            if (maker.values.empty())
                continue;
            std::string models = maker.values[0];
            if (std::find_if(maker.values.begin() + 1, maker.values.end(), [](const auto& v) {
                    return SameText(v, "NTx86");
                }) != maker.values.end())
                models += ".NTx86";
            for (const InfLine& line :
                 inf_->Section(models) ? *inf_->Section(models) : std::vector<InfLine>())
                for (size_t i = 1; i < line.values.size() && !model; ++i)
                    if (SameText(line.values[i], id))
                        model = line;
        }
        if (model)
            break;
    }
    std::string enum_key = std::string(Registry::kEnumPath) + "\\" + device.instance;
    registry.SetMultiString(enum_key, "HardwareID", hardware_ids);
    registry.SetMultiString(enum_key, "CompatibleIDs", compatible_ids);
    if (!model) {
        device.problems.push_back("no driver matches the device's IDs");
        return false;
    }
    std::string section = model->values[0];
    if (inf_->Section(section + ".NTx86"))
        section += ".NTx86";
    std::string class_guid = inf_->Value("Version", "ClassGuid").value_or("");
    std::string class_name = inf_->Value("Version", "Class").value_or("");
    registry.SetString(enum_key, "DeviceDesc", model->key);
    registry.SetString(enum_key, "ClassGUID", class_guid);
    registry.SetString(enum_key, "Class", class_name);

    // The device's AddReg applies to its software key under the class.
    std::optional<std::string> driver_key = registry.GetString(enum_key, "Driver");
    if (!driver_key) {
        std::string class_key = std::string(kControlPath) + "\\Class\\" + class_guid;
        size_t next = registry.SubkeyNames(class_key).size();
        char number[8];
        std::snprintf(number, sizeof number, "%04zu", next);
        driver_key = class_guid + "\\" + number;
        registry.SetString(enum_key, "Driver", *driver_key);
    }
    std::vector<std::string> errors;
    ApplyAddReg(registry, inf_->AddReg(section, &errors),
                std::string(kControlPath) + "\\Class\\" + *driver_key, device.problems);

    // The function driver's service: the AddService line that associates it.
    std::optional<std::string> service;
    for (const InfLine& line : inf_->Section(section + ".Services")
                                   ? *inf_->Section(section + ".Services")
                                   : std::vector<InfLine>()) {
        if (!SameText(line.key, "AddService") || line.values.size() < 3)
            continue;
        std::string service_key = registry.CreateServiceKey(line.values[0]);
        const std::string& install = line.values[2];
        if (auto text = inf_->Value(install, "DisplayName"))
            registry.SetString(service_key, "DisplayName", *text);
        for (auto [name, inf_key] :
             {std::pair{"Type", "ServiceType"}, std::pair{"Start", "StartType"},
              std::pair{"ErrorControl", "ErrorControl"}})
            if (auto value = inf_->Value(install, inf_key))
                registry.SetDword(service_key, name, Number(*value));
        if (auto binary = inf_->Value(install, "ServiceBinary")) {
            // %12% is the drivers directory, relative to the system root.
            std::string image = *binary;
            if (image.rfind("%12%", 0) == 0)
                image = "System32\\drivers" + image.substr(4);
            registry.SetString(service_key, "ImagePath", image, REG_EXPAND_SZ);
        }
        ApplyAddReg(registry, inf_->AddReg(install, &errors), service_key, device.problems);
        if (Number(line.values[1]) & 0x2) // SPSVCINST_ASSOCSERVICE: the function driver
            service = line.values[0];
    }
    for (const std::string& error : errors)
        device.problems.push_back(error);
    if (!service) {
        device.problems.push_back("the install section names no function driver");
        return false;
    }
    device.service = *service;
    registry.SetString(enum_key, "Service", *service);
    registry.CreateHardwareKey(device.pdo, device.instance);
    if (SameText(class_name, "Ports"))
        AssignPortName(device, enum_key);
    return true;
}

// As the ports class installer: the lowest COM number free in the COM name
// arbiter's database, reserved there for good, and kept in the hardware key
// so that the instance has the same name at every plug.
void PnpManager::AssignPortName(PnpDevice& device, const std::string& enum_key) {
    Registry& registry = Kernel::Current().registry();
    std::string hardware_key = enum_key + "\\Device Parameters";
    std::optional<std::string> name = registry.GetString(hardware_key, "PortName");
    if (!name) {
        std::string arbiter = std::string(kControlPath) + "\\" + kComNameArbiter;
        std::vector<uint8_t> bits(kComDbBytes, 0);
        if (auto value = registry.GetValue(arbiter, "ComDB"); value && value->type == REG_BINARY)
            std::copy_n(value->data.begin(), std::min(value->data.size(), bits.size()),
                        bits.begin());
        size_t free = 0;
        while (free < kComDbBytes * 8 && (bits[free / 8] >> (free % 8) & 1))
            ++free;
        if (free == kComDbBytes * 8) {
            device.problems.push_back("no free COM port number");
            return;
        }
        bits[free / 8] |= uint8_t(1u << (free % 8));
        registry.SetValue(arbiter, "ComDB", REG_BINARY, bits);
        name = "COM" + std::to_string(free + 1);
        registry.SetString(hardware_key, "PortName", *name);
    }
    std::string description = registry.GetString(enum_key, "DeviceDesc").value_or("");
    registry.SetString(enum_key, "FriendlyName", description + " (" + *name + ")");
}

// AddDevice, then the capabilities and the start, down the whole stack.
void PnpManager::Start(PnpDevice& device) {
    auto driver = drivers_.find(device.service);
    if (driver == drivers_.end() && Load(device.service, device))
        driver = drivers_.find(device.service);
    if (driver == drivers_.end()) {
        device.problems.push_back("no driver object serves the service " + device.service);
        return;
    }
    PDRIVER_OBJECT object = driver->second;
    PDRIVER_ADD_DEVICE add = object->DriverExtension ? object->DriverExtension->AddDevice : nullptr;
    if (add == nullptr) {
        device.problems.push_back("the driver has no AddDevice routine");
        device.state = PnpState::kAddFailed;
        return;
    }
    device.add_device = add(object, device.pdo);
    if (!NT_SUCCESS(device.add_device) || device.pdo->AttachedDevice == nullptr) {
        if (NT_SUCCESS(device.add_device))
            device.problems.push_back("AddDevice attached no device object");
        device.state = PnpState::kAddFailed;
        // A driver left without device objects is unloaded, as after a removal.
        if (object->DeviceObject == nullptr)
            DriverIdle(object);
        return;
    }
    device.capabilities = {};
    device.capabilities.Size = sizeof(DEVICE_CAPABILITIES);
    device.capabilities.Version = 1;
    device.capabilities.Address = 0xFFFFFFFF;
    device.capabilities.UINumber = 0xFFFFFFFF;
    DEVICE_CAPABILITIES* caps = &device.capabilities;
    Call(device, IRP_MN_QUERY_CAPABILITIES,
         [caps](IO_STACK_LOCATION& s) { s.Parameters.DeviceCapabilities.Capabilities = caps; });
    StartStack(device);
}

// A failed start is followed by the removal of the stack.
void PnpManager::StartStack(PnpDevice& device) {
    if (NT_SUCCESS(Call(device, IRP_MN_START_DEVICE).status)) {
        device.state = PnpState::kStarted;
        interfaces_.Started(device.pdo);
        return;
    }
    device.state = PnpState::kStartFailed;
    Call(device, IRP_MN_REMOVE_DEVICE);
    interfaces_.Removed(device.pdo);
}

// A PDO the bus no longer reports: a started stack is surprise-removed and
// removed once its last handle closes; any other goes at once.
void PnpManager::Depart(PnpDevice& device) {
    device.present = false;
    if (device.state == PnpState::kStarted || device.state == PnpState::kStopped) {
        Call(device, IRP_MN_SURPRISE_REMOVAL);
        device.state = PnpState::kSurpriseRemoved;
        if (HandlesOpen(device))
            return;
    }
    Remove(device);
}

void PnpManager::Remove(PnpDevice& device) {
    PDEVICE_OBJECT pdo = device.pdo;
    Call(device, IRP_MN_REMOVE_DEVICE);
    device.state = PnpState::kRemoved;
    interfaces_.Removed(pdo);
    if (!device.present) {
        instance_of_.erase(pdo);
        Kernel::Current().registry().ForgetDevice(pdo);
        device.pdo = nullptr;
    }
}

bool PnpManager::HandlesOpen(const PnpDevice& device) const {
    for (PDEVICE_OBJECT at = device.pdo; at != nullptr; at = at->AttachedDevice)
        if (detail::DeviceInfo* info = detail::Io().FindDevice(at); info && info->open_files != 0)
            return true;
    return false;
}

// Like the Windows PnP engine, one device event at a time, whichever of the
// system worker threads carries it: enumerations, removals, ejects and
// rebalances never interleave.
void PnpManager::Serialized(const std::function<void()>& work) {
    KeWaitForSingleObject(&engine_lock_, Executive, KernelMode, FALSE, nullptr);
    work();
    KeReleaseMutex(&engine_lock_, FALSE);
}

void PnpManager::RunAndWait(std::function<void()> work) {
    Waiter waiter;
    KeInitializeEvent(&waiter.done, NotificationEvent, FALSE);
    Kernel::Current().QueueSystemWork([&] {
        Serialized(work);
        KeSetEvent(&waiter.done, IO_NO_INCREMENT, FALSE);
    });
    KeWaitForSingleObject(&waiter.done, Executive, KernelMode, FALSE, nullptr);
}

// Work that the waited-for work queued (a bus deleting a removed PDO) is
// waited for as well. With several system workers the work queued before
// may still wait for the engine lock, or run elsewhere, when this pass gets
// it, so the workers' idleness is waited for too.
void PnpManager::Settle() {
    Kernel& kernel = Kernel::Current();
    uint64_t before;
    do {
        before = kernel.SystemWorkQueued();
        RunAndWait([] {});
        kernel.WaitSystemWorkIdle();
    } while (kernel.SystemWorkQueued() != before + 1);
}

bool PnpManager::Eject(std::string_view instance) {
    bool done = false;
    RunAndWait([&] {
        PnpDevice* device = Find(instance);
        if (device == nullptr || device->state != PnpState::kStarted)
            return;
        if (!NT_SUCCESS(Call(*device, IRP_MN_QUERY_REMOVE_DEVICE).status)) {
            Call(*device, IRP_MN_CANCEL_REMOVE_DEVICE);
            return;
        }
        Remove(*device);
        done = true;
    });
    return done;
}

bool PnpManager::Rebalance(std::string_view instance) {
    bool done = false;
    RunAndWait([&] {
        PnpDevice* device = Find(instance);
        if (device == nullptr || device->state != PnpState::kStarted)
            return;
        if (!NT_SUCCESS(Call(*device, IRP_MN_QUERY_STOP_DEVICE).status)) {
            Call(*device, IRP_MN_CANCEL_STOP_DEVICE);
            return;
        }
        Call(*device, IRP_MN_STOP_DEVICE);
        device->state = PnpState::kStopped;
        StartStack(*device);
        done = true;
    });
    return done;
}

PnpDevice* PnpManager::Find(std::string_view instance) {
    auto it = devices_.find(instance);
    return it == devices_.end() ? nullptr : &it->second;
}

const PnpDevice* PnpManager::Device(std::string_view instance) const {
    auto it = devices_.find(instance);
    return it == devices_.end() ? nullptr : &it->second;
}

const PnpDevice* PnpManager::DeviceFor(PDEVICE_OBJECT pdo) const {
    auto it = instance_of_.find(pdo);
    return it == instance_of_.end() ? nullptr : Device(it->second);
}

std::vector<std::string> PnpManager::Instances() const {
    std::vector<std::string> names;
    for (const auto& [instance, device] : devices_)
        names.push_back(instance);
    return names;
}

} // namespace hk

void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type) {
    hk::Kernel::Current().pnp().InvalidateRelations(DeviceObject, Type);
}
