// The data port on a simulated modem (DeviceFixture), started, as the serial
// port's tests see it: the wait events raised, the application's time-outs,
// and code run under the device lock as the driver's own callers run it.
#pragma once

#ifndef TRACE_FILE
#define TRACE_FILE "tests/cdcacm/serport"
#endif
#include "device_fixture.h"

using Bytes = std::vector<uint8_t>;

class SerialPortTest : public DeviceFixture {
  protected:
    SerialPortTest() { options_.started = true; }
    Options DeviceOptions() override { return options_; }
    void SetUp() override {
        DeviceFixture::SetUp();
        ser_->Settings.WaitMask = ~0u; // every event is kept in PendingEvents
    }
    template <class Body> void Locked(Body body) {
        KIRQL irql;
        DEVICE_LOCK(dev_, &irql);
        body();
        DEVICE_UNLOCK(dev_, irql);
    }
    ULONG TakeEvents() { // raised since the last call
        ULONG events = 0;
        Locked([&] { std::swap(events, port_->PendingEvents); });
        return events;
    }
    void SetTimeouts(SERIAL_TIMEOUTS timeouts) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&timeouts);
        AppRequest* request =
            Control(IOCTL_SERIAL_SET_TIMEOUTS, {bytes, bytes + sizeof(timeouts)}, 0);
        ASSERT_TRUE(Wait(request));
        ASSERT_EQ(request->status, STATUS_SUCCESS);
    }
    Bytes Sent() { // what reached the modem once the send engine had time
        RunFor(20);
        return modem_->Pull();
    }

    Options options_;
};
