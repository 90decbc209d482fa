// The shared data port with bigger buffers, and helpers that send I/O
// controls from the test's application thread through the fixture's Control
// (buffered I/O) and wait for them. The CDC control requests reach the
// fixture's simulated modem, which records them.
#pragma once

// Tests take the device lock with the driver's macros, whose assertions
// name a source file.
#ifndef TRACE_FILE
#define TRACE_FILE "tests/cdcacm/ioctl"
#endif
#include "device_fixture.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// Bytes of the circular buffers the rig's serial port starts with.
constexpr ULONG RigReceiveBufferSize = 4096;
constexpr ULONG RigSendBufferSize = 2048;

struct IoctlResult {
    NTSTATUS Status;
    ULONG_PTR Information;
    std::vector<uint8_t> Output; // the system buffer; unwritten bytes are hk::Pool::kNewFill
};

class IoctlTest : public DeviceFixture {
  protected:
    Options DeviceOptions() override {
        Options options;
        options.rcv_buffer = RigReceiveBufferSize;
        options.snd_buffer = RigSendBufferSize;
        return options;
    }
    void SetUp() override;
    void TearDown() override;

    IoctlResult Ioctl(ULONG Code, const void* Input, ULONG InputLength, ULONG OutputLength,
                      bool Internal = false);
    template <typename T> IoctlResult Set(ULONG Code, const T& Value) {
        return Ioctl(Code, &Value, sizeof(T), 0);
    }
    template <typename T> T Get(ULONG Code) {
        IoctlResult Result = Ioctl(Code, nullptr, 0, sizeof(T));
        EXPECT_EQ(Result.Status, STATUS_SUCCESS);
        EXPECT_EQ(Result.Information, sizeof(T));
        T Value{};
        memcpy(&Value, Result.Output.data(), sizeof(T));
        return Value;
    }

    // Raises serial events the way the serial port and the modem-status
    // processing do: under the device lock.
    void RaiseEvents(ULONG Events);
    // Whether the trace output holds Text, line ends included; a failure
    // shows the last lines printed.
    ::testing::AssertionResult Traced(const std::string& Text) {
        std::string All = dbg().Text();
        if (All.find(Text) != std::string::npos)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "trace ends with:\n"
                                             << All.substr(All.size() > 600 ? All.size() - 600 : 0);
    }

    PDEVICE_OBJECT DataPort() { return data_port_; }
    PDEVICE Dev() { return dev_; }
    PSER_PORT SerPort() { return ser_; }
    SER_SETTINGS& Settings() { return ser_->Settings; }
};
