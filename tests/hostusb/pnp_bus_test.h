// The simulated bus under the emulated PnP manager, with a small function
// driver of the test's own: SetUp installs the driver's INF and a driver
// object that attaches to each PDO and passes every PnP request down (after
// noting its minor function, and failing the one a test names) and
// completes opens and closes; a test's Install may fill other routines.
// PlugSettled and UnplugSettled let enumeration, start and removal run;
// TearDown unplugs what is left.
//
// Environment: the test body is an application thread at PASSIVE_LEVEL.
#pragma once

#include "bus_client.h"

#include "hostkernel/pnp.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

// What the pass-down driver saw, and the request it fails.
struct PassDownState {
    std::vector<UCHAR> minors;
    UCHAR veto = 0xFF;
};
inline PassDownState g_pass_down;

inline PDEVICE_OBJECT LowerOf(PDEVICE_OBJECT fdo) {
    return *static_cast<PDEVICE_OBJECT*>(fdo->DeviceExtension);
}

inline NTSTATUS NTAPI PassDownAddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT fdo;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(PDEVICE_OBJECT), nullptr, FILE_DEVICE_MODEM, 0, FALSE, &fdo);
    if (!NT_SUCCESS(status))
        return status;
    *static_cast<PDEVICE_OBJECT*>(fdo->DeviceExtension) = IoAttachDeviceToDeviceStack(fdo, pdo);
    fdo->Flags |= DO_POWER_PAGABLE;
    fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

inline NTSTATUS NTAPI PassDownPnp(PDEVICE_OBJECT fdo, PIRP irp) {
    UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    g_pass_down.minors.push_back(minor);
    if (minor == g_pass_down.veto) {
        irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
    }
    PDEVICE_OBJECT lower = LowerOf(fdo);
    IoSkipCurrentIrpStackLocation(irp);
    NTSTATUS status = IoCallDriver(lower, irp);
    if (minor == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(lower);
        IoDeleteDevice(fdo);
    }
    return status;
}

// Opens and closes succeed.
inline NTSTATUS NTAPI CompleteOpenClose(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

class PnpBusTest : public BusTest {
  protected:
    // Fills the driver object's other dispatch routines.
    virtual void Install(PDRIVER_OBJECT) {}

    void SetUp() override {
        BusTest::SetUp();
        g_pass_down = {};
        driver_ = std::make_unique<hk::Driver>(u"\\Driver\\cdcacm");
        driver_->Object()->DriverExtension->AddDevice = PassDownAddDevice;
        driver_->Object()->MajorFunction[IRP_MJ_PNP] = PassDownPnp;
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
            driver_->Object()->MajorFunction[major] = CompleteOpenClose;
        Install(driver_->Object());
        std::string error;
        ASSERT_TRUE(pnp().LoadInf(CDCACM_INF, &error)) << error;
        pnp().RegisterDriver("cdcacm", driver_->Object());
        bus_ = std::make_unique<hu::Bus>();
    }
    void TearDown() override {
        for (int port : ports_)
            bus_->Unplug(port);
        pnp().Settle();
        driver_.reset();
        BusTest::TearDown();
    }
    hk::PnpManager& pnp() { return kernel().pnp(); }
    int PlugSettled(const sm::Profile& profile) {
        modems_.push_back(std::make_shared<sm::Modem>(profile));
        ports_.push_back(bus_->Plug(modems_.back()));
        pnp().Settle();
        return ports_.back();
    }
    void UnplugSettled(int port) {
        bus_->Unplug(port);
        ports_.erase(std::find(ports_.begin(), ports_.end(), port));
        pnp().Settle();
    }

    std::unique_ptr<hk::Driver> driver_;
    std::vector<std::shared_ptr<sm::Modem>> modems_;
    std::vector<int> ports_;
};
