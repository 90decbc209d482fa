// The data-port rig (device_rig.h) as a test fixture: SetUp builds the rig
// with the DeviceOptions() of the test inside the test's kernel, the test
// body is the application thread, and TearDown takes the rig apart and
// checks that every request completed and no pool is left counted. Rig
// failures fail the test.
//
// Adding pieces: a test replaces MajorFunction entries on driver_ after
// DeviceFixture::SetUp, fills more DEVICE fields through dev_ before it
// sends requests, or overrides the Options() hook to change buffer sizes,
// the tick, the modem or the bus.
//
// Link with: LIBS device_fixture and MODULES ${CDCACM_DEVICE_MODULES}.
#pragma once

#include "device_rig.h"
#include "driver_test.h"

#include <string>

class DeviceFixture : public DriverTest {
  protected:
    using Options = DeviceRigOptions;
    virtual Options DeviceOptions() { return Options{}; }

    void SetUp() override;
    void TearDown() override;

    AppRequest* Read(ULONG length, bool cancel_first = false) {
        return rig_.Read(length, cancel_first);
    }
    AppRequest* Write(const std::vector<uint8_t>& data, bool cancel_first = false) {
        return rig_.Write(data, cancel_first);
    }
    AppRequest* Write(const std::string& text) {
        return Write(std::vector<uint8_t>(text.begin(), text.end()));
    }
    AppRequest* Control(ULONG code, const std::vector<uint8_t>& input, ULONG output_length,
                        bool internal = false) {
        return rig_.Control(code, input, output_length, internal);
    }
    AppRequest* Prepare(UCHAR major, ULONG buffer_length) {
        return rig_.Prepare(major, buffer_length);
    }
    void Send(AppRequest* request, bool cancel_first = false) { rig_.Send(request, cancel_first); }
    bool Wait(AppRequest* request, int64_t ms = 5000) { return rig_.Wait(request, ms); }
    void Cancel(AppRequest* request) { rig_.Cancel(request); }
    void RunFor(int64_t ms) { rig_.RunFor(ms); }
    ULONG Receive(const std::vector<uint8_t>& data) { return rig_.Receive(data); }
    ULONG Receive(const std::string& text) {
        return Receive(std::vector<uint8_t>(text.begin(), text.end()));
    }
    void SetReadTimeouts(ULONG interval, ULONG multiplier, ULONG constant) {
        rig_.SetReadTimeouts(interval, multiplier, constant);
    }
    void StartPipes() { rig_.StartPipes(); }
    std::vector<std::pair<uint8_t, uint16_t>> ModemRequests() const { return rig_.ModemRequests(); }

    DeviceRig rig_;
    // The rig's pieces under the names the tests use.
    PDEVICE& dev_ = rig_.dev;
    PPORT_OBJ& port_ = rig_.port;
    PSER_PORT& ser_ = rig_.ser;
    PDEVICE_OBJECT& data_port_ = rig_.data_port;
    std::unique_ptr<hu::Bus>& bus_ = rig_.bus;
    std::shared_ptr<sm::Modem>& modem_ = rig_.modem;
    int& bus_port_ = rig_.bus_port;
    DRIVER_OBJECT& driver_ = rig_.driver;
    DRIVER_EXTENSION& driver_extension_ = rig_.driver_extension;
};
