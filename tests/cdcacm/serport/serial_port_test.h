// The data port on a simulated modem (DeviceFixture), started, as the serial
// port's tests see it: the wait events raised, the application's time-outs,
// and what reaches the modem.
#pragma once

#ifndef TRACE_FILE
#define TRACE_FILE "tests/cdcacm/serport"
#endif
#include "device_fixture.h"

using Bytes = std::vector<uint8_t>;

class SerialPortTest : public DeviceFixture {
  protected:
    SerialPortTest() { options_.started = true; }
    void SetUp() override {
        DeviceFixture::SetUp();
        ser->Settings.WaitMask = ~0u; // every event is kept in PendingEvents
    }
    ULONG TakeEvents() { // raised since the last call
        ULONG events = 0;
        Locked([&] { std::swap(events, port->PendingEvents); });
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
        return modem->Pull();
    }
};
