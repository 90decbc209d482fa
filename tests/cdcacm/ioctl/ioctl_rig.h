// The shared data port with bigger buffers, and helpers that send I/O
// controls from the test's application thread through the fixture's Control
// (buffered I/O) and wait for them. The CDC control requests reach the
// fixture's simulated modem, which records them.
#pragma once

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
    IoctlTest() {
        options_.rcv_buffer = RigReceiveBufferSize;
        options_.snd_buffer = RigSendBufferSize;
    }
    void SetUp() override {
        DeviceFixture::SetUp();
        TraceMask = 0xFFFFFFFF; // every line, so that tests can look for the ones they expect
        dbg().Clear();
    }
    void TearDown() override {
        if (dev != nullptr) {
            EXPECT_EQ(dev->Port.WaitIrp, nullptr) << "a test left a wait pending";
        }
        DeviceFixture::TearDown();
    }

    IoctlResult Ioctl(ULONG Code, const void* Input, ULONG InputLength, ULONG OutputLength,
                      bool Internal = false) {
        const auto* Bytes = static_cast<const uint8_t*>(Input);
        AppRequest* Request =
            Control(Code, std::vector<uint8_t>(Bytes, Bytes + InputLength), OutputLength, Internal);
        EXPECT_TRUE(Wait(Request));
        return IoctlResult{Request->status, Request->information, Request->buffer};
    }
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

    // The wait-on-mask protocol: a new mask, a wait that pends, and the mask
    // a completed wait returned.
    void SetMask(ULONG Mask) {
        ASSERT_EQ(Set(IOCTL_SERIAL_SET_WAIT_MASK, Mask).Status, STATUS_SUCCESS);
    }
    AppRequest* StartWait() {
        AppRequest* Request = Control(IOCTL_SERIAL_WAIT_ON_MASK, {}, sizeof(ULONG));
        EXPECT_EQ(Request->returned, STATUS_PENDING);
        return Request;
    }
    static ULONG Mask(const AppRequest* Request) {
        ULONG Value;
        memcpy(&Value, Request->buffer.data(), sizeof(Value));
        return Value;
    }

    // Whether the trace output holds Text, line ends included; a failure
    // shows the last lines printed.
    ::testing::AssertionResult Traced(const std::string& Text) {
        std::string All = dbg().Text();
        if (All.find(Text) != std::string::npos)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "trace ends with:\n"
                                             << All.substr(All.size() > 600 ? All.size() - 600 : 0);
    }

    SER_SETTINGS& Settings() { return ser->Settings; }
};
