// A modem on the simulated bus with the driver's objects on top of it: an
// attach object attached to the modem's physical device object and a
// DEVICE set up as the add-device routine leaves it (LowerDevObj, StackSize,
// IrpSize, ControlIrp, the USB_DEVICE, and the registry defaults of the
// request time-out and the two power configurations). The test body is the
// passive-level thread that starts and configures the device.
//
// Link with: MODULES usbsbmit usbcfg trace wdmkrnl, LIBS driver_test_support
// hostusb simmodem.
#pragma once

#include "driver_test.h"

#include "cdcacm.h"
#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <memory>
#include <vector>

// A bulk or interrupt transfer the test submits itself, as the engines do.
struct TestTransfer {
    URB urb{};
    std::vector<uint8_t> buffer;
    PIRP irp = nullptr;
    bool completed = false;
    NTSTATUS status = STATUS_PENDING;
};

class UsbDeviceTest : public DriverTest {
  protected:
    void TearDown() override;

    // Plugs a modem of the profile (the function-th function of it) and
    // attaches the driver's objects.
    void Start(const sm::Profile& profile, hu::BusOptions options = {}, size_t function = 0);
    // Reads the device descriptor and configures the device, as start does.
    NTSTATUS Configure();
    TestTransfer* Submit(PUSB_PIPE pipe, bool in, std::vector<uint8_t> data, ULONG in_length = 0);
    void RunFor(int64_t ms) { kernel().Sleep(ms); }
    uint64_t Urbs() const { return bus_->UrbsSubmitted(port_); }

    std::unique_ptr<hu::Bus> bus_;
    std::shared_ptr<sm::Modem> modem_;
    int port_ = 0;
    PDEVICE dev_ = nullptr;
    PUSB_DEVICE usb_ = nullptr;

  private:
    static NTSTATUS NTAPI OnTransferDone(PDEVICE_OBJECT, PIRP irp, PVOID context);
    hk::Driver driver_{u"\\Driver\\cdcacm"};
    PDEVICE_OBJECT attach_ = nullptr;
    std::unique_ptr<DEVICE> device_;
    std::vector<std::unique_ptr<TestTransfer>> transfers_;
    WCHAR port_name_[5] = {u'C', u'O', u'M', u'7', 0};
};
