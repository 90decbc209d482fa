// Device interfaces as the PnP manager keeps them: registered per PDO it
// knows, under a symbolic name made of the instance and the class GUID
// (stable for an instance across plugs), enabled as a symbolic link to the
// PDO, and the arrival and removal notifications sent to whoever registered
// for the class, kept in order for tests and tools. An arrival waits until
// the device's start has completed; removing a device disables what its
// driver left enabled.
//
// Environment: the kernel calls at PASSIVE_LEVEL; host code otherwise.
// Locks: none of its own; the scheduler runs one emulated thread at a time.
#pragma once

#include "hostkernel/wdk.h"

#include <string>
#include <string_view>
#include <vector>

namespace hk {

class PnpManager;

struct DeviceInterface {
    std::u16string name; // "\??\" + instance with '#' for '\' + "#{guid}" [+ "\reference"]
    std::string instance;
    PDEVICE_OBJECT pdo = nullptr;
    GUID class_guid = {};
    bool enabled = false;
};

struct InterfaceNotification {
    std::u16string name;
    bool arrival = false; // else removal
};

class DeviceInterfaces {
  public:
    explicit DeviceInterfaces(PnpManager& manager) : manager_(manager) {}
    NTSTATUS Register(PDEVICE_OBJECT pdo, const GUID& class_guid, std::u16string_view reference,
                      std::u16string* name);
    NTSTATUS SetState(std::u16string_view name, bool enable);
    void Started(PDEVICE_OBJECT pdo); // the start completed: pending arrivals go out
    void Removed(PDEVICE_OBJECT pdo); // the stack was removed: its interfaces are disabled

    const std::vector<DeviceInterface>& List() const { return interfaces_; }
    const std::vector<InterfaceNotification>& Notifications() const { return notifications_; }

  private:
    void Disable(DeviceInterface& interface);
    PnpManager& manager_;
    std::vector<DeviceInterface> interfaces_;
    std::vector<InterfaceNotification> notifications_;
    std::vector<std::u16string> pending_arrivals_;
};

// The GUID in the registry's form, lower case: {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}.
std::string GuidText(const GUID& guid);

} // namespace hk
