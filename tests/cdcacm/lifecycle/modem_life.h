// A modem's life under the emulated Plug and Play manager, as a test
// fixture: a fresh kernel whose PnP manager installs modems from the
// driver's INF and loads the driver through its entry; Plug and Unplug let
// the start, the first re-initialisation and the removal run. The teardown
// unplugs everything and expects the driver unloaded, no driver memory
// counted and (through the kernel's teardown) nothing else left.
//
// Environment: the test body is an application thread at PASSIVE_LEVEL.
#pragma once

#define TRACE_FILE "tests/cdcacm/lifecycle"
#include "cdcacm.h"
#include "driver_test.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"
#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
inline const std::string kService = std::string(hk::Registry::kServicesPath) + "\\cdcacm";
inline const std::string kSerialComm = std::string(hk::Registry::kDeviceMapPath) + "\\SERIALCOMM";
inline const std::string kOrdinary = "USB\\VID_FFF0&PID_0001\\KM0000001";
constexpr UCHAR kLegacyBusInformation = 0x18; // a minor code neither driver handles
constexpr ULONG kTraceMask = TL_ASSERT | TL_ERROR | TL_INFO | TL_PNP | TL_OPEN | TL_LIFECYCLE;

// The first bulk-out packet completes delay_ms late.
inline hu::UsbFaultKnob DelayedOut(int64_t delay_ms) {
    hu::UsbFaultKnob knob;
    knob.nth = 1;
    knob.match = hu::EndpointKey(0x01); // the modem's bulk-out endpoint
    knob.delay_ms = delay_ms;
    return knob;
}

class ModemLife : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        kernel().registry().SetDword(kService, "TraceMask", kTraceMask);
        TraceMask = kTraceMask;
        if (std::getenv("LIFE_ECHO"))
            dbg().SetEcho(stderr);
        std::string error;
        ASSERT_TRUE(pnp().LoadInf(CDCACM_INF, &error)) << error;
        pnp().RegisterDriverEntry("cdcacm", DriverEntry);
        bus_ = std::make_unique<hu::Bus>();
    }

    void TearDown() override {
        files_.clear();
        for (int port : ports_)
            bus_->Unplug(port);
        pnp().Settle();
        kernel().Sleep(100);
        bus_.reset();
        EXPECT_EQ(pnp().LoadedDriver("cdcacm"), nullptr)
            << "the driver unloads with its last device";
        DriverTest::TearDown();
    }

    hk::PnpManager& pnp() { return kernel().pnp(); }

    // Plugs a modem and lets its start and first re-initialisation run.
    int Plug(sm::Profile profile = sm::OrdinaryModem()) {
        modems_.push_back(std::make_shared<sm::Modem>(profile));
        int port = bus_->Plug(modems_.back());
        ports_.push_back(port);
        pnp().Settle();
        kernel().Sleep(100);
        return port;
    }
    void Unplug(int port) {
        bus_->Unplug(port);
        ports_.erase(std::find(ports_.begin(), ports_.end(), port));
        pnp().Settle();
        kernel().Sleep(10);
    }
    sm::Modem& ModemOn(size_t index) { return *modems_[index]; }

    // The DEVICE behind a data port name, or null when there is no such port.
    PDEVICE DataPort(const char16_t* name) {
        PDEVICE_OBJECT device = hk::detail::Io().Lookup(name);
        return device ? static_cast<PDEVICE>(device->DeviceExtension) : nullptr;
    }
    hk::File& Open(const std::u16string& name, NTSTATUS expected = STATUS_SUCCESS) {
        files_.push_back(std::make_unique<hk::File>());
        EXPECT_EQ(files_.back()->Open(name), expected) << hk::detail::Narrow(name);
        return *files_.back();
    }
    PDEVICE_OBJECT Top(int port) { return IoGetAttachedDevice(bus_->Pdo(port)); }

    std::unique_ptr<hu::Bus> bus_;
    std::vector<std::shared_ptr<sm::Modem>> modems_;
    std::vector<int> ports_;
    std::vector<std::unique_ptr<hk::File>> files_;
};
