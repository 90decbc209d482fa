// The bus driver's internal state, shared by its modules: the ports and
// their devices' functions, endpoints and transfers, and the bus object
// itself. Internal to source/hostusb.
//
// Environment and locks: as bus.h says; Bus::Impl::lock guards all of it.
#pragma once

#include "hostusb/bus.h"

#include "hostusb/capture.h"

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace hu {

struct Endpoint;
struct Function;
struct PortState;

// One URB or port request accepted by the bus, from dispatch to its DPC.
struct Transfer {
    enum class Kind { kControl, kData, kSelect, kAbort, kResetPipe, kResetPort };
    Bus::Impl* bus = nullptr;
    Function* function = nullptr;
    PIRP irp = nullptr;
    PURB urb = nullptr;
    Kind kind = Kind::kControl;
    Endpoint* endpoint = nullptr; // the queue it waits in; null for pipe and port requests
    uint8_t pipe_address = 0;     // pipe requests: the pipe's endpoint and type
    uint8_t pipe_type = 0;
    SetupPacket setup; // control transfers
    bool in = false;
    bool short_ok = false;
    PUCHAR buffer = nullptr;
    ULONG length = 0;
    ULONG done = 0;         // bytes moved so far
    bool finished = false;  // data complete, waiting for the modelled end
    bool scheduled = false; // in the completion schedule, at slot
    bool running = false;   // taken by a completion pass
    bool behind = false;    // queued behind another transfer of its endpoint
    bool no_answer = false;
    bool waiting = false; // an IN transfer waiting for the device's data
    bool parked = false;  // its function left D0: it waits, unscheduled, for the return
    bool cancel = false;  // cancelled, aborted or device gone: complete with forced
    USBD_STATUS forced = USBD_STATUS_SUCCESS;
    USBD_STATUS injected = USBD_STATUS_SUCCESS; // a fault's status
    NTSTATUS injected_nt = STATUS_SUCCESS;      // a fault's IRP status, when it has one
    bool stall = false;
    int64_t delay = 0;
    std::vector<uint8_t> out_data; // control OUT data stage
    std::multimap<int64_t, Transfer*>::iterator slot;
};

struct Endpoint {
    uint8_t address = 0;
    uint8_t type = USB_ENDPOINT_TYPE_CONTROL;
    uint16_t max_packet = 64;
    uint8_t interval = 0;
    bool halted = false;
    uint64_t data_ready = 0; // the device's DataReady calls, counted
    // The last frame bulk bytes moved in (by index) and how many: a transfer
    // queued behind it fills the rest of that frame, as a host controller
    // does with the transfers queued on an endpoint.
    int64_t last_frame = -1;
    ULONG last_frame_bytes = 0;
    std::deque<Transfer*> queue; // the head is the active transfer
};

struct PipeHandleInfo {
    uint8_t address;
    ULONG max_transfer;
};

struct Function {
    PortState* port = nullptr;
    std::vector<uint8_t> interfaces;
    PDEVICE_OBJECT pdo = nullptr;
    bool configured = false;
    std::map<uintptr_t, PipeHandleInfo> pipes; // valid pipe handles
    std::vector<Notification> notifications;
    // Plug and Play: the class triple of the function's first interface
    // (its compatible IDs), and where its device object stands.
    uint8_t cls = 0, subclass = 0, protocol = 0;
    bool removed = false; // surprise-removed or removed: its transfers fail
    // Power: the device power state the last device set-power IRP gave the
    // function, and its pending wait-wake IRP (at most one; its cancel
    // routine is set while it waits here).
    DEVICE_POWER_STATE power = PowerDeviceD0;
    PIRP wait_wake = nullptr;
    bool reported_missing = false; // a relations answer left it out: the next removal deletes it
};

// What the hub learned about a device when it enumerated it at plug time.
struct Identity {
    uint16_t vendor = 0, product = 0, revision = 0;
    bool remote_wakeup = false;
    std::string product_text;
    std::string serial; // empty: none, or one that cannot be an instance ID
};

struct PortState {
    int number = 0;
    std::shared_ptr<Device> device;
    Speed speed = Speed::kFull;
    uint16_t address = 0;
    bool gone = false;
    uint8_t config_value = 0;
    bool config_remote_wakeup = false; // the selected configuration may wake the host
    Endpoint ep0;
    std::map<uint8_t, Endpoint> endpoints; // of the selected configuration
    std::vector<std::unique_ptr<Function>> functions;
    uint64_t urbs = 0;
    Identity identity;
    bool unplugged = false; // left its port; its device objects wait for their removal
};

// The lowest system state a device that can wake may wake the system from,
// and the lowest device state it signals wake-up in (its capabilities).
constexpr SYSTEM_POWER_STATE kSystemWake = PowerSystemSleeping3;
constexpr DEVICE_POWER_STATE kDeviceWake = PowerDeviceD2;

// The extension of every device object the bus owns.
struct BusExtension {
    enum Kind : uint32_t { kPdo = 1, kHub = 2 } kind;
    Bus::Impl* bus;
    Function* function;
};

struct Bus::Impl {
    explicit Impl(BusOptions opts);
    ~Impl();

    BusOptions options;
    hk::Driver driver{u"\\Driver\\usbhub"};
    PDEVICE_OBJECT hub = nullptr;
    KSPIN_LOCK lock = 0;
    std::vector<std::unique_ptr<PortState>> ports;
    std::map<PIRP, Transfer*> pending;
    // The host controller's completion context: transfers by due time (then
    // in order of scheduling), run by one DPC that the frame timer or a
    // release queues.
    std::multimap<int64_t, Transfer*> schedule;
    KTIMER frame_timer;
    KDPC completion_dpc;
    bool passing = false;    // a completion pass runs (on some processor)
    bool pass_again = false; // asked for while one ran: that one goes on
    std::list<std::pair<Fault, UsbFaultKnob>> faults;
    std::deque<std::string> diagnostics; // the latest kDiagnosticsKept
    std::unique_ptr<Capture> capture;
    uint64_t next_handle = 0x10000;
    uint16_t next_address = 1;

    // Dispatch.
    static NTSTATUS NTAPI DispatchInternal(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI DispatchControl(PDEVICE_OBJECT device, PIRP irp);
    static VOID NTAPI CancelTransfer(PDEVICE_OBJECT device, PIRP irp);
    static VOID NTAPI CompletionDpc(PKDPC dpc, PVOID context, PVOID, PVOID);
    static NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT device, PIRP irp);

    // Power (buspower.cpp).
    static NTSTATUS NTAPI DispatchPower(PDEVICE_OBJECT device, PIRP irp);
    static VOID NTAPI CancelWaitWake(PDEVICE_OBJECT device, PIRP irp);
    static VOID NTAPI WakeDpc(PKDPC dpc, PVOID context, PVOID, PVOID);
    NTSTATUS FunctionPower(Function* function, PIRP irp);
    NTSTATUS WaitWake(Function* function, PIRP irp);
    void SetDevicePower(Function* function, DEVICE_POWER_STATE state);
    PIRP TakeWaitWake(Function* function); // under lock; null when none or being cancelled
    void RemoteWake(PortState* port);
    KDPC wake_dpc;
    std::vector<PIRP> woken; // wait-wake IRPs the wake DPC completes

    // Plug and Play (buspnp.cpp).
    void Enumerate(PortState* port);
    NTSTATUS HubPnp(PIRP irp);
    NTSTATUS FunctionPnp(Function* function, PIRP irp);
    NTSTATUS QueryId(Function* function, PIRP irp);
    NTSTATUS QueryCapabilities(Function* function, PIRP irp);
    NTSTATUS QueryText(Function* function, PIRP irp);
    void FailTransfers(Function* function); // under lock
    // Times the deletion looks again for the driver to detach before it
    // reports that it never did.
    static constexpr int kDetachTries = 100;
    void DeleteWhenDetached(Function* function, int tries = 0);
    void DeleteFunction(Function* function);
    // Work queued for later must not outlive the bus.
    std::shared_ptr<bool> alive = std::make_shared<bool>(true);

    NTSTATUS SubmitUrb(Function* function, PIRP irp, PURB urb);
    NTSTATUS Refuse(PIRP irp, PURB urb, USBD_STATUS status, const std::string& why);
    NTSTATUS CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
    NTSTATUS PendLocked(Transfer* t);
    bool ValidateSelect(Function* function, PURB urb, std::string& why);

    // Runs under lock.
    void Enqueue(Transfer* t);
    void Activate(Transfer* t);
    void ArmAt(Transfer* t, int64_t due);
    void Release(Transfer* t); // runs in the completion context as soon as possible
    void ArmFrameTimer();
    int64_t FrameTime(const PortState& port) const;
    int64_t NextBoundary(int64_t period) const;
    int64_t DataDue(const PortState& port, const Endpoint& ep, ULONG bytes) const;
    int64_t MoveBulk(const PortState& port, Endpoint& ep, bool behind, ULONG bytes);
    bool Continues(const PortState& port, const Endpoint& ep, bool behind) const;
    bool Fires(Fault kind, uint32_t key, UsbFaultKnob** knob = nullptr);

    // In the DPC.
    void Run(Transfer* t);
    USBD_STATUS RunControl(Transfer* t);
    void ApplySelection(Transfer* t);
    bool RunData(Transfer* t, USBD_STATUS& status);
    // Handles are numbers never handed out twice, so a stale handle never
    // matches a later one.
    PVOID NewHandle() { return reinterpret_cast<PVOID>(uintptr_t(next_handle += 0x10)); }
    void Finish(Transfer* t, USBD_STATUS status);
    bool PullIn(Transfer* t, USBD_STATUS& status);

    void Diagnose(const std::string& text);
    void Record(const Transfer* t, PIRP irp, PURB urb, bool completion, USBD_STATUS status);
    void RecordTimeline(hk::Timeline& timeline, const Transfer* t, PIRP irp, PURB urb,
                        bool completion, USBD_STATUS status);
    // The timeline's async span and flow of each URB in flight, by its IRP.
    std::map<PIRP, std::pair<uint64_t, uint64_t>> timeline_urbs;
    void DataReady(PortState* port, uint8_t endpoint);
    PortState* Port(int number) const;
    void MarkGone(PortState* port);
    bool Unplugged(PortState* port); // after MarkGone, outside the lock
    void DeleteFunctions(PortState* port);
};

} // namespace hu
