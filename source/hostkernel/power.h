// The emulated system power manager: system sleep (S1 to S3), hibernation
// and shutdown, and the return to the working state, sent to every device
// stack the PnP manager has started. What was sent to each instance, and
// how it completed, is kept for tests and tools.
//
// Order, as on Windows: before a sleeping state every started stack is
// asked (IRP_MN_QUERY_POWER, system type); when all agree each is told
// (IRP_MN_SET_POWER, system type, with the power action as ShutdownType);
// when one refuses, the ones asked so far are told the working state again.
// The return to the working state is told without a query. Windows walks
// the device tree from the leaves up on the way down and from the root on
// the way up; the stacks here are all siblings under the bus, whose own
// device object the manager does not power, so they go in instance order.
//
// Environment: host code of the stand-in; every system request goes down a
// device stack at PASSIVE_LEVEL from a system worker thread and is waited
// for there, so that the policy owner may request and wait for its device
// power IRP inside its dispatch routine.
// Locks: the PnP manager's engine lock, so that no device event runs
// between the requests of one transition.
#pragma once

#include "hostkernel/wdk.h"

#include <string>
#include <vector>

namespace hk {

class PnpManager;

// One system power request the manager sent to a device's stack.
struct PowerRequest {
    std::string instance;
    UCHAR minor = 0;
    SYSTEM_POWER_STATE state = PowerSystemUnspecified;
    POWER_ACTION action = PowerActionNone;
    NTSTATUS status = STATUS_PENDING;
};

class PowerManager {
  public:
    explicit PowerManager(PnpManager& pnp) : pnp_(pnp) {}
    PowerManager(const PowerManager&) = delete;
    PowerManager& operator=(const PowerManager&) = delete;

    // From an application thread: the transition runs on a system worker
    // thread and is waited for. Sleep takes PowerSystemSleeping1 to
    // PowerSystemShutdown; shutdown's action is PowerActionShutdownOff
    // unless reset is asked for. It returns false when a stack refused the
    // query or the system is not working.
    bool Sleep(SYSTEM_POWER_STATE state, bool reset = false);
    void Wake();
    // From any context up to DISPATCH_LEVEL, as a wake signal: the return to
    // the working state is queued for a system worker thread.
    void RequestWake();

    // One system request to one stack, as a test drives a driver's power
    // dispatch with states and actions of its choosing: sent from a system
    // worker thread, waited for, and recorded; the system's state stays.
    NTSTATUS SendSystemIrp(PDEVICE_OBJECT pdo, UCHAR minor, SYSTEM_POWER_STATE state,
                           POWER_ACTION action);

    SYSTEM_POWER_STATE State() const { return state_; }
    const std::vector<PowerRequest>& Requests() const { return requests_; }
    void ClearRequests() { requests_.clear(); }
    // The ShutdownType a device power IRP carries: the action of the system
    // request being handled, PowerActionNone outside one.
    POWER_ACTION ActiveAction() const { return active_action_; }

  private:
    bool SleepNow(SYSTEM_POWER_STATE state, POWER_ACTION action);
    void WakeNow();
    NTSTATUS Send(const std::string& instance, PDEVICE_OBJECT pdo, UCHAR minor,
                  SYSTEM_POWER_STATE state, POWER_ACTION action);

    PnpManager& pnp_;
    SYSTEM_POWER_STATE state_ = PowerSystemWorking;
    POWER_ACTION active_action_ = PowerActionNone;
    std::vector<PowerRequest> requests_;
};

} // namespace hk
