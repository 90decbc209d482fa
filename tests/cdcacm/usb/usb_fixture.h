// A modem on the simulated bus with the driver's objects on top of it: an
// attach object attached to the modem's physical device object and a
// DEVICE set up as the add-device routine leaves it (LowerDevObj, StackSize,
// IrpSize, ControlIrp, the USB_DEVICE, and the registry defaults of the
// request time-out and the two power configurations). The test body is the
// passive-level thread that starts and configures the device; the bus rig
// sends the transfers a test submits itself.
//
// Link with: MODULES usbsbmit usbcfg trace wdmkrnl, LIBS driver_test_support
// hostusb simmodem.
#pragma once

#include "bus_client.h"
#include "driver_test.h"

#include "cdcacm.h"

#include <memory>
#include <vector>

class UsbDeviceTest : public BusRig<DriverTest> {
  protected:
    void TearDown() override;

    // Plugs a modem of the profile (the function-th function of it) and
    // attaches the driver's objects.
    void Start(const sm::Profile& profile, hu::BusOptions options = {}, size_t function = 0);
    // Reads the device descriptor and configures the device, as start does.
    NTSTATUS Configure();
    // A bulk or interrupt transfer on one of the driver's pipes, as the
    // engines send it.
    BusRequest* Submit(PUSB_PIPE pipe, bool in, std::vector<uint8_t> data, ULONG in_length = 0) {
        pipes_[pipe->EndpointAddress] = pipe->PipeHandle;
        return Transfer(pipe->EndpointAddress, in, std::move(data), in_length);
    }
    void RunFor(int64_t ms) { kernel().Sleep(ms); }
    uint64_t Urbs() const { return bus_->UrbsSubmitted(port_); }

    PDEVICE dev_ = nullptr;
    PUSB_DEVICE usb_ = nullptr;

  private:
    hk::Driver driver_{u"\\Driver\\cdcacm"};
    PDEVICE_OBJECT attach_ = nullptr;
    std::unique_ptr<DEVICE> device_;
    WCHAR port_name_[5] = {u'C', u'O', u'M', u'7', 0};
};

// An ordinary modem, configured.
class ConfiguredUsbTest : public UsbDeviceTest {
  protected:
    void SetUp() override {
        UsbDeviceTest::SetUp();
        Start(sm::OrdinaryModem());
        ASSERT_EQ(Configure(), STATUS_SUCCESS);
    }
};
