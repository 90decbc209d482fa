// The driver following the system into sleep and back with its port open,
// the device states it chooses, the wait-wake request and remote wake-up.
// (A whole life from load to unload is the simulator's demo, which fails on
// anything left behind.)
#include "modem_life.h"
#include "hostkernel/power.h"

namespace {

class ModemPower : public ModemLife {
  protected:
    hk::PowerManager& power() { return kernel().power(); }
    PDEVICE Dev0() { return DataPort(u"\\Device\\korvadem0"); }
    size_t ReadsOut(PDEVICE dev) { return 5 - dev->ReceivePipe.Pool->Count; }
    // A modem whose every configuration announces remote wake-up, so that the
    // bus reports it can wake the system from S3.
    static sm::Profile Waking() {
        sm::Profile profile = sm::OrdinaryModem();
        for (sm::ConfigurationTable& configuration : profile.configurations)
            configuration.attributes |= 0x20;
        return profile;
    }
    static Bytes Got(const hk::PendingIo& read) {
        return Bytes(read.Output().begin(), read.Output().begin() + read.Result().information);
    }
};

// Sleep stops the port without losing what the modem has not sent yet;
// resume re-initialises it without a USB reset and arms wake-up again.
TEST_F(ModemPower, SleepWithThePortOpenLosesNothingAndResumes) {
    Plug(Waking());
    PDEVICE dev = Dev0();
    hk::File& file = Open(u"\\DosDevices\\COM1");
    auto read = file.ReadAsync(4);
    kernel().Sleep(10);
    ASSERT_NE(dev->WakeIrp, nullptr) << "wake-up armed after the first re-initialisation";

    dev->ReinitCount = 3; // as a series of failed re-initialisations leaves it
    ASSERT_TRUE(power().Sleep(PowerSystemSleeping3));
    EXPECT_EQ(dev->DevicePowerState, dev->Capabilities.DeviceState[PowerSystemSleeping3]);
    EXPECT_NE(dev->DevicePowerState, ULONG(PowerDeviceD0));
    EXPECT_EQ(ReadsOut(dev), 0u) << "no transfer runs while asleep";
    EXPECT_FALSE(dev->TimerActive);
    ModemOn(0).Push({'a', 'b'}); // held by the sleeping modem
    kernel().Sleep(200);
    EXPECT_FALSE(read->Done());

    dbg().Clear();
    power().Wake();
    kernel().Sleep(100);
    EXPECT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD0));
    EXPECT_TRUE(dev->DeviceInitialized);
    EXPECT_FALSE(dbg().Contains("Reinit: USBResetDevice")) << "a resume is no error";
    ModemOn(0).Push({'c', 'd'});
    kernel().Sleep(50);
    ASSERT_TRUE(read->Done());
    EXPECT_EQ(Got(*read), (Bytes{'a', 'b', 'c', 'd'}));
    EXPECT_NE(dev->WakeIrp, nullptr) << "wake-up armed again";
}

TEST_F(ModemPower, DeviceStatesFollowTheCapabilitiesAndRefuseLowToLow) {
    int port = Plug(Waking());
    PDEVICE dev = Dev0();
    ASSERT_TRUE(power().Sleep(PowerSystemHibernate));
    EXPECT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD3)) << "whatever the bus reported";
    power().Wake();
    kernel().Sleep(100);

    // A system state the driver does not know is reported and taken as D3.
    TraceMask |= TL_ASSERT;
    power().SendSystemIrp(bus_->Pdo(port), IRP_MN_SET_POWER, SYSTEM_POWER_STATE(9),
                          PowerActionSleep);
    EXPECT_TRUE(dbg().Contains("ASSERTION FAILED: (0)"));
    EXPECT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD3));
    power().SendSystemIrp(bus_->Pdo(port), IRP_MN_SET_POWER, PowerSystemWorking, PowerActionSleep);
    kernel().Sleep(100);
    ASSERT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD0));

    ASSERT_TRUE(power().Sleep(PowerSystemSleeping3));
    ASSERT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD2)) << "a modem that can wake sleeps in D2";
    dbg().Clear();
    EXPECT_EQ(SetDevicePowerState(dev, PowerDeviceD3), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(dbg().Contains("Requesting POWER IRP")) << "from one low state to another";
    EXPECT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD2));
    power().Wake();
    kernel().Sleep(100);

    dbg().Clear();
    EXPECT_EQ(SetDevicePowerState(dev, PowerDeviceD0), STATUS_SUCCESS);
    EXPECT_TRUE(dbg().Contains("device is already in power state PowerDeviceD0"));
    EXPECT_FALSE(dbg().Contains("Requesting POWER IRP"));
}

TEST_F(ModemPower, OneWaitWakeAtATimeAndOnlyForAModemThatCanWake) {
    int port = Plug(Waking());
    PDEVICE dev = Dev0();
    ASSERT_NE(dev->WakeIrp, nullptr);
    struct Done {
        KEVENT event;
        NTSTATUS status = STATUS_PENDING;
    } second;
    KeInitializeEvent(&second.event, NotificationEvent, FALSE);
    POWER_STATE state;
    state.SystemState = PowerSystemSleeping3;
    auto record = [](PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK io) {
        auto* done = static_cast<Done*>(context);
        done->status = io->Status;
        KeSetEvent(&done->event, IO_NO_INCREMENT, FALSE);
    };
    ASSERT_EQ(PoRequestPowerIrp(bus_->Pdo(port), IRP_MN_WAIT_WAKE, state, record, &second, nullptr),
              STATUS_PENDING);
    KeWaitForSingleObject(&second.event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(second.status, STATUS_UNSUCCESSFUL) << "a second wait-wake is refused";
    Unplug(port);

    // Without remote wake-up in its configuration, a modem is never armed.
    sm::Profile quiet = sm::OrdinaryModem();
    for (sm::ConfigurationTable& configuration : quiet.configurations)
        configuration.attributes &= ~0x20;
    Plug(quiet);
    EXPECT_FALSE(Dev0()->RemoteWakeup);
    EXPECT_EQ(Dev0()->WakeIrp, nullptr);
    // Nor is one whose port cannot wake the system (SystemWake S0).
    Dev0()->RemoteWakeup = TRUE;
    Dev0()->Capabilities.SystemWake = PowerSystemWorking;
    RequestWakeupIrp(Dev0());
    EXPECT_TRUE(dbg().Contains("RequestWakeupIrp: PC does not support wake up on this USB port"));
    EXPECT_EQ(Dev0()->WakeIrp, nullptr);
}

TEST_F(ModemPower, TheModemWakesTheSystemAndThePortWorks) {
    Plug(Waking());
    PDEVICE dev = Dev0();
    hk::File& file = Open(u"\\DosDevices\\COM1");
    ASSERT_TRUE(power().Sleep(PowerSystemSleeping3));
    ModemOn(0).SignalRemoteWakeup();
    pnp().Settle();
    kernel().Sleep(100);
    EXPECT_EQ(power().State(), PowerSystemWorking);
    EXPECT_EQ(dev->DevicePowerState, ULONG(PowerDeviceD0));
    EXPECT_EQ(file.Write("ring", 4).status, STATUS_SUCCESS);
    kernel().Sleep(20);
    EXPECT_EQ(ModemOn(0).Pull(), (Bytes{'r', 'i', 'n', 'g'}));
}

} // namespace
