// The machine of the fuzzers that drive the whole driver: in the shared
// kernel (fuzz_support.h), the PnP manager installs modems from the
// driver's INF and loads the driver through its entry, on one simulated
// bus. Plugging a modem runs the driver's add and start; unplugging it runs
// the removal, and the driver unloads with its last device.
//
// A target either plugs a modem per input (what it fuzzes is the modem), or
// keeps one plugged with its port open across inputs and puts the port
// back at the end of each input. At exit every modem is
// unplugged; the driver must have unloaded with no memory counted, and the
// kernel's teardown then reports whatever else is left.
//
// Environment: the fuzzer's thread, the shared kernel's application thread.
#pragma once

#include "fuzz_support.h"

#include "cdcacm.h"
#include "driver_state.h"
#include "entry.h"
#include "hostkernel/pnp.h"
#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <map>
#include <memory>
#include <string>

namespace fuzz {

class Machine {
  public:
    static Machine& Get() {
        static Machine* machine = nullptr;
        if (machine == nullptr) {
            machine = new Machine();
            // Registered after the kernel's own, so it runs first.
            OnTearDown([] {
                delete machine;
                machine = nullptr;
            });
        }
        return *machine;
    }

    hu::Bus& bus() { return *bus_; }
    hk::PnpManager& pnp() { return kernel->pnp(); }

    // The driver's TraceMask, read at its load and at every open.
    void SetTraceMask(ULONG mask) {
        kernel->registry().SetDword(kService, "TraceMask", mask);
        TraceMask = mask;
    }

    // Plugs a modem and lets its start and first re-initialisation run;
    // returns the bus port.
    int Plug(sm::Profile profile, sm::Modem::DataMode mode = sm::Modem::DataMode::kTest) {
        if (pnp().LoadedDriver("cdcacm") == nullptr)
            ResetDriverState(TraceMask);
        auto modem = std::make_shared<sm::Modem>(std::move(profile), mode);
        int port = bus_->Plug(modem);
        // Every input unplugs what it plugged: finding no free port means an
        // earlier removal kept its port, and no later input would reach the
        // driver.
        FUZZ_CHECK(port != 0);
        modems_[port] = modem;
        pnp().Settle();
        kernel->Sleep(100);
        return port;
    }
    void Unplug(int port) {
        bus_->Unplug(port);
        pnp().Settle();
        kernel->Sleep(10);
        modems_.erase(port);
    }
    sm::Modem& ModemOn(int port) { return *modems_.at(port); }

    // A modem kept plugged across inputs with its port kept open, so that an
    // input costs neither a start nor an open; the target puts the port
    // back at the end of each input. Returns the bus port.
    int PlugKept(std::u16string& name) {
        int port = Plug(sm::OrdinaryModem());
        name = PortName(port);
        kept_ = std::make_unique<hk::File>();
        FUZZ_CHECK(kept_->Open(name) == STATUS_SUCCESS);
        return port;
    }
    hk::File& KeptFile() { return *kept_; }

    // The DosDevices name of the port's data port ("" when it has none).
    std::u16string PortName(int port) {
        const hk::PnpDevice* device = pnp().DeviceFor(bus_->Pdo(port));
        if (device == nullptr)
            return u"";
        std::string name = kernel->registry()
                               .GetString(std::string(hk::Registry::kEnumPath) + "\\" +
                                              device->instance + "\\Device Parameters",
                                          "PortName")
                               .value_or("");
        return name.empty() ? u"" : u"\\DosDevices\\" + std::u16string(name.begin(), name.end());
    }
    // The DEVICE behind a data port name, or null.
    PDEVICE DataPort(const std::u16string& name) {
        PDEVICE_OBJECT device = hk::FindDevice(name);
        return device ? static_cast<PDEVICE>(device->DeviceExtension) : nullptr;
    }

    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

  private:
    static inline const std::string kService =
        std::string(hk::Registry::kServicesPath) + "\\cdcacm";

    Machine() {
        hk::Kernel& k = SharedKernel();
        std::string error;
        if (!k.pnp().LoadInf(CDCACM_INF, &error)) {
            std::fprintf(stderr, "cannot read the driver's INF: %s\n", error.c_str());
            std::abort();
        }
        k.pnp().RegisterDriverEntry("cdcacm", DriverEntry);
        SetTraceMask(TL_ASSERT);
        ResetDriverState(TL_ASSERT);
        bus_ = std::make_unique<hu::Bus>();
    }
    ~Machine() {
        if (kept_)
            FUZZ_CHECK(kept_->Close() == STATUS_SUCCESS);
        kept_.reset();
        while (!modems_.empty())
            Unplug(modems_.begin()->first);
        FUZZ_CHECK(pnp().LoadedDriver("cdcacm") == nullptr);
        FUZZ_CHECK(MemoryCounter == 0);
        bus_.reset();
    }

    std::unique_ptr<hu::Bus> bus_;
    std::map<int, std::shared_ptr<sm::Modem>> modems_;
    std::unique_ptr<hk::File> kept_;
};

} // namespace fuzz
