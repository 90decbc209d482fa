// The data-port rig (device_rig.h) as a test fixture: SetUp builds the rig
// with the test's options_ inside the test's kernel, the test
// body is the application thread, and TearDown takes the rig apart and
// checks that every request completed and no pool is left counted. Rig
// failures fail the test. The rig's calls and pieces (dev, port, ser,
// modem, bus, driver, ...) are the fixture's own.
//
// Adding pieces: a test replaces MajorFunction entries on driver after
// DeviceFixture::SetUp, fills more DEVICE fields through dev before it
// sends requests, or sets its constructor's choice of buffer sizes,
// the tick, the modem or the bus in options_.
//
// Link with: LIBS device_fixture and MODULES ${CDCACM_DEVICE_MODULES}.
#pragma once

// Tests take the device lock with the driver's macros, whose assertions
// name a source file.
#ifndef TRACE_FILE
#define TRACE_FILE "tests/cdcacm"
#endif
#include "device_rig.h"
#include "driver_test.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

class DeviceFixture : public DriverTest, public DeviceRig {
  protected:
    void SetUp() override;
    void TearDown() override;

    using DeviceRig::Receive;
    using DeviceRig::Write;
    AppRequest* Write(const std::string& text) {
        return Write(std::vector<uint8_t>(text.begin(), text.end()));
    }
    ULONG Receive(const std::string& text) {
        return Receive(std::vector<uint8_t>(text.begin(), text.end()));
    }
    // Reads until length bytes arrived, in reads of at most chunk() bytes
    // (each waits for all it asks); less when a read does not complete.
    std::vector<uint8_t> ReadAll(size_t length, const std::function<size_t()>& chunk) {
        std::vector<uint8_t> got;
        while (got.size() < length) {
            AppRequest* read = Read(ULONG(std::min(chunk(), length - got.size())));
            if (!Wait(read, 20000))
                break;
            std::vector<uint8_t> data = read->Data();
            got.insert(got.end(), data.begin(), data.end());
        }
        return got;
    }
    // Runs body under the device lock, as the driver's own callers run it.
    template <class Body> void Locked(Body body) {
        KIRQL irql;
        DEVICE_LOCK(dev, &irql);
        body();
        DEVICE_UNLOCK(dev, irql);
    }
    // Raises serial events as the serial port and the modem-status
    // processing do.
    void RaiseEvents(ULONG events) {
        Locked([&] { IndicateWaitEvent(&dev->Port, events); });
    }

    // What SetUp builds the rig with: a fixture's constructor changes it.
    Options options_;

    // Runs body once per seed on a fresh machine and device, on two
    // processors with preemption points moving the clock up to jump_us,
    // until one fails; with HK_SEED (and HK_INTERLEAVE) from a failure's
    // replay line in the environment, only that machine runs.
    template <class Body> void ForEachSeed(uint64_t seeds, int64_t jump_us, Body body) {
        const char* replay_seed = std::getenv("HK_SEED");
        const char* replay_mode = std::getenv("HK_INTERLEAVE");
        for (uint64_t seed = 1; seed <= (replay_seed ? 1 : seeds) && !HasFailure(); ++seed) {
            hk::KernelOptions options = hk::KernelOptions::FromEnvironment();
            if (replay_seed == nullptr)
                options.seed = seed;
            if (replay_mode == nullptr || *replay_mode == 0)
                options.interleave = {true, 2, 3, jump_us};
            SCOPED_TRACE(options.Replay());
            TearDown();
            UseOptions(options);
            SetUp();
            if (!HasFailure())
                body();
        }
    }
};
