// The simulated USB host controller, its root hub and the bus driver, as
// tests and tools see them. Plugging a device into a port creates one
// physical device object per function at the bottom of that device's stack;
// the bus driver answers the URBs and internal controls sent to it, strictly,
// and completes transfers at DISPATCH_LEVEL in virtual time. Driver code
// never includes this header.
//
// Environment: the bus lives inside one hk::Kernel and must be destroyed
// before it. Its dispatch routines run at the caller's IRQL (up to
// DISPATCH_LEVEL); completions run in DPCs.
// Locks: one spin lock guards the bus state; it is never held while an IRP
// is completed or a device model is called back.
#pragma once

#include "hostkernel/emu.h"
#include "hostusb/usb.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace hu {

enum class Speed { kFull, kHigh };

// The setup packet of a control transfer, as on the wire.
struct SetupPacket {
    uint8_t request_type = 0; // bmRequestType
    uint8_t request = 0;      // bRequest
    uint16_t value = 0;
    uint16_t index = 0;
    uint16_t length = 0;
    bool DeviceToHost() const { return (request_type & 0x80) != 0; }
};

// What a device answers on its default pipe: data for the IN stage (at most
// wLength is sent) or a stall.
struct ControlAnswer {
    bool stall = false;
    std::vector<uint8_t> data;
    static ControlAnswer Stall() { return ControlAnswer{true, {}}; }
};

// A device behind a port: the simulated modems implement it. The bus calls
// it from its completion context (DISPATCH_LEVEL) without holding its lock.
class Device {
  public:
    virtual ~Device() = default;
    // Every request of the default pipe, standard ones included; out_data is
    // the host-to-device data stage.
    virtual ControlAnswer Control(const SetupPacket& setup,
                                  const std::vector<uint8_t>& out_data) = 0;
    // A bulk or interrupt OUT transfer's bytes, as one unit.
    virtual void Out(uint8_t endpoint, const std::vector<uint8_t>& data) = 0;
    // The next packet of an IN endpoint (at most max_packet bytes; empty for
    // a zero-length packet), or nothing while the device has no data.
    virtual std::optional<std::vector<uint8_t>> In(uint8_t endpoint, uint16_t max_packet) = 0;
    // Interface numbers of each function; a device with several functions
    // gets one physical device object per function.
    virtual std::vector<std::vector<uint8_t>> Functions() const = 0;
    // The bus installs this: the device calls it when an IN endpoint has
    // data again.
    void SetDataReady(std::function<void(uint8_t endpoint)> ready) { ready_ = std::move(ready); }
    // The bus installs this too: the device calls it to signal remote
    // wake-up (resume signalling on its port).
    void SetRemoteWake(std::function<void()> wake) { wake_ = std::move(wake); }

  protected:
    void DataReady(uint8_t endpoint) {
        if (ready_)
            ready_(endpoint);
    }
    void RemoteWakeup() {
        if (wake_)
            wake_();
    }

  private:
    std::function<void(uint8_t)> ready_;
    std::function<void()> wake_;
};

// Faults the bus can inject. Each is a named knob (hk::FaultKnob: n-th,
// every n-th, probability, maximum count, match) that counts its calls and
// fires. The match key is EndpointKey(address) for transfers and pipe
// requests, RequestKey(bRequest) for control requests; 0 matches all.
enum class Fault {
    kStall,         // the transfer stalls and the endpoint stays halted until reset
    kError,         // the transfer fails with the knob's USBD status
    kNoAnswer,      // a request or transfer that never completes; only a cancel ends it
    kDelay,         // the completion, or the cancellation, comes delay_ms later than modelled
    kResetPipeFail, // reset pipe fails with the knob's USBD status
    kResetPortFail, // IOCTL_INTERNAL_USB_RESET_PORT fails
    kHubQueryFail,  // GET_PARENT_HUB_INFO and the hub's node information fail
    kDeviceGone,    // from this URB on the device is gone
    kUnplug,        // the device is pulled out as this URB arrives (a surprise removal)
    kInline,        // a bulk or interrupt transfer fails with the knob's status inside IoCallDriver
};
constexpr uint32_t EndpointKey(uint8_t address) {
    return 0x100u | address;
}
constexpr uint32_t RequestKey(uint8_t request) {
    return 0x200u | request;
}

struct UsbFaultKnob : hk::FaultKnob {
    USBD_STATUS status = USBD_STATUS_DEV_NOT_RESPONDING;
    // kError: the IRP's status; 0 maps status as the bus does.
    NTSTATUS nt_status = STATUS_SUCCESS;
    int64_t delay_ms = 0;
};

struct BusOptions {
    int ports = 4;
    bool hub_self_powered = true;
    std::string capture_file; // empty: no capture
    uint16_t bus_number = 1;
};

// A lower-driver notification seen by a physical device object.
struct Notification {
    ULONG code;
    int64_t time_ms;
};

class Bus {
  public:
    explicit Bus(BusOptions options = {});
    ~Bus(); // every device must be unplugged, or at least detached from
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Plugs a device into a free port (1-based); returns the port.
    int Plug(std::shared_ptr<Device> device, Speed speed = Speed::kFull);
    // The device leaves its port: pending and later transfers fail with
    // USBD_STATUS_DEVICE_GONE; its physical device objects are deleted (any
    // driver must have detached from them), or, under the PnP manager, the
    // hub's relations are invalidated and each goes at its removal.
    void Unplug(int port);
    // The device stops answering from now on, but stays plugged.
    void DeviceGone(int port);

    PDEVICE_OBJECT Pdo(int port, size_t function = 0) const;
    PDEVICE_OBJECT HubDevice() const;

    // Faults, added by kind; the reference stays valid until ClearFaults.
    UsbFaultKnob& AddFault(Fault kind, UsbFaultKnob knob);
    void ClearFaults();

    // The stand-in's latest diagnostics about refused requests. Every one is
    // also printed to the debugger sink with a "hostusb: " prefix; only the
    // latest are kept, so that a simulator running for hours, or a fuzzer's
    // millions of plugs, does not grow with every refusal.
    static constexpr size_t kDiagnosticsKept = 64;
    const std::deque<std::string>& Diagnostics() const;
    // The lower-driver notifications the port's devices received.
    std::vector<Notification> Notifications(int port) const;
    // URBs submitted to the port's devices, and how many are still pending.
    uint64_t UrbsSubmitted(int port) const;
    size_t PendingTransfers(int port) const;
    // The configuration value the bus selected (0: unconfigured).
    uint8_t ConfigurationValue(int port) const;
    // Closes the capture file now (the destructor does it otherwise).
    void CloseCapture();

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace hu
