// The emulated Plug and Play manager. Off until a test or tool configures
// it with an INF and the driver objects behind its services; existing tests
// that plug devices without it see no PnP requests at all. When a bus
// invalidates its relations, the manager queries them on a system worker
// thread: a new physical device object is identified (IDs), installed from
// the INF (the Enum key, the service key, the hardware key with a COM port
// name for the Ports class), given to its driver's AddDevice and started
// (capabilities, then start); a vanished one is surprise-removed and then
// removed once no handle is open on its stack. Eject and Rebalance send the
// query, and the removal or stop-and-start, or the cancel when vetoed. What
// was sent to each instance, and how it completed, is kept for tests and
// tools.
//
// Environment: host code of the stand-in; every request goes down a device
// stack at PASSIVE_LEVEL from a system worker thread.
// Locks: a mutex that lets one device event (enumeration, removal, eject,
// rebalance) run at a time; requests are sent with it held, as the Windows
// PnP engine holds its lock, and no other lock.
#pragma once

#include "hostkernel/devinterface.h"
#include "hostkernel/inf.h"
#include "hostkernel/wdk.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hk {

class Driver;

// How one PnP request came back.
struct PnpAnswer {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

enum class PnpState {
    kNoDriver,  // no INF model matches, or no driver object serves the service
    kAddFailed, // AddDevice failed or attached nothing
    kStarted,
    kStartFailed,     // the start failed; the stack was removed
    kStopped,         // a rebalance's stop, until its start
    kSurpriseRemoved, // gone; waiting for the last handle to close
    kRemoved,
};

struct PnpDevice {
    std::string instance; // device ID '\' instance ID
    PDEVICE_OBJECT pdo = nullptr;
    bool present = false; // in the bus's last relations
    PnpState state = PnpState::kNoDriver;
    std::string service;
    NTSTATUS add_device = STATUS_PENDING;
    DEVICE_CAPABILITIES capabilities = {};
    std::vector<std::string> problems;
};

class PnpManager {
  public:
    PnpManager() : interfaces_(*this) {}
    ~PnpManager();
    PnpManager(const PnpManager&) = delete;
    PnpManager& operator=(const PnpManager&) = delete;
    // Reads the INF that installs devices; the manager is active from then on.
    bool LoadInf(const std::string& path, std::string* error);
    // The driver object that implements a service (its DriverEntry has run).
    void RegisterDriver(std::string_view service, PDRIVER_OBJECT driver);
    // A service whose driver the manager loads as Windows does: DriverEntry
    // with the service key's path when a device first needs it, and
    // DriverUnload once the driver's last device object is deleted; the
    // next device loads it again into a new driver object.
    void RegisterDriverEntry(std::string_view service, PDRIVER_INITIALIZE entry);
    // The driver object loaded for a service now, or null.
    PDRIVER_OBJECT LoadedDriver(std::string_view service) const;
    // Times DriverEntry and DriverUnload ran for a service.
    int Loads(std::string_view service) const;
    int Unloads(std::string_view service) const;
    // The I/O manager deleted the driver's last device object.
    void DriverIdle(PDRIVER_OBJECT driver);
    bool Active() const { return inf_.has_value(); }

    void InvalidateRelations(PDEVICE_OBJECT bus_device, DEVICE_RELATION_TYPE type);
    // A file on the device was closed: a surprise-removed stack may go now.
    void HandleClosed(PDEVICE_OBJECT device);

    // From an application thread: run on the system worker thread and wait.
    // Eject: query-remove, then remove or, when vetoed, cancel-remove.
    // Rebalance: query-stop, then stop and start or, when vetoed,
    // cancel-stop. Each returns false when vetoed or not started.
    bool Eject(std::string_view instance);
    bool Rebalance(std::string_view instance);
    // Waits until the system work queued so far (enumerations, removals),
    // and whatever it queued in turn, is done.
    void Settle();

    const PnpDevice* Device(std::string_view instance) const;
    const PnpDevice* DeviceFor(PDEVICE_OBJECT pdo) const; // the instance the PDO now has
    std::vector<std::string> Instances() const;
    DeviceInterfaces& interfaces() { return interfaces_; }

    // Sends one IRP_MJ_PNP request to the device as the manager sends it: a
    // new IRP whose status starts as STATUS_NOT_SUPPORTED, the parameters
    // filled by fill, waited for at PASSIVE_LEVEL and freed.
    static PnpAnswer Send(PDEVICE_OBJECT device, UCHAR minor,
                          const std::function<void(IO_STACK_LOCATION&)>& fill = {});

  private:
    friend class PowerManager; // walks the started stacks under the engine lock
    void Enumerate(PDEVICE_OBJECT bus_device);
    void Arrive(PDEVICE_OBJECT pdo);
    bool Install(PnpDevice& device, const std::vector<std::string>& hardware_ids,
                 const std::vector<std::string>& compatible_ids);
    void AssignPortName(PnpDevice& device, const std::string& enum_key);
    void Start(PnpDevice& device);
    void StartStack(PnpDevice& device);
    void Depart(PnpDevice& device);
    void Remove(PnpDevice& device);
    bool HandlesOpen(const PnpDevice& device) const;
    PnpAnswer Call(PnpDevice& device, UCHAR minor,
                   const std::function<void(IO_STACK_LOCATION&)>& fill = {});
    std::optional<std::string> QueryText(PnpDevice& device, BUS_QUERY_ID_TYPE type);
    std::vector<std::string> QueryList(PnpDevice& device, BUS_QUERY_ID_TYPE type);
    void RunAndWait(std::function<void()> work);
    void Serialized(const std::function<void()>& work);
    PnpDevice* Find(std::string_view instance);

    std::optional<Inf> inf_;
    bool Load(const std::string& service, PnpDevice& device);

    std::map<std::string, PDRIVER_OBJECT, std::less<>> drivers_;
    std::map<std::string, PDRIVER_INITIALIZE, std::less<>> entries_;
    std::map<std::string, std::unique_ptr<Driver>, std::less<>> loaded_;
    std::map<std::string, std::pair<int, int>, std::less<>> load_counts_; // loads, unloads
    std::map<std::string, PnpDevice, std::less<>> devices_; // by instance, kept across plugs
    std::map<PDEVICE_OBJECT, std::string> instance_of_;     // the PDOs now known
    DeviceInterfaces interfaces_;
    KMUTEX engine_lock_{}; // one device event at a time
};

} // namespace hk
