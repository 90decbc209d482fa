// A device with its serial port, and doubles for what the serial core calls
// outside itself: a send engine with a configurable number and size of send
// packets that records every submitted chunk, the wait-on-mask events, the
// request completion and the receive engine's hand-over to the serial port.
// The doubles check the locking rule of each call they stand in for.
#pragma once

#include "driver_test.h"

// The device lock macros report assertions with the including file.
#ifndef TRACE_FILE
#define TRACE_FILE "tests/cdcacm/serport"
#endif
#include "cdcacm.h"

#include <list>
#include <memory>
#include <vector>

using Bytes = std::vector<UCHAR>;

struct FakeSendEngine {
    struct Packet {
        Bytes buffer;
        bool out = false;
    };
    struct Chunk {
        Bytes bytes;
        LONG check_lock; // the device's CheckLock during the submission
    };
    // Creates count packets of size bytes each; all free.
    void Configure(size_t count, ULONG size);
    // Gives every packet out back, as completed transfers do.
    void CompleteAll();
    // Completes transfers and lets the serial port refill them, as the send
    // DPC does, until nothing more goes out.
    void Drain(PSER_PORT port);
    Bytes Stream() const; // every submitted byte, in order

    std::vector<Packet> packets;
    std::vector<Chunk> submitted;
    bool allowed = true; // FALSE: GetWriteBuffer refuses (CTS, stop-sending)
    int returned = 0;    // packets given back unused
    size_t bytes_submitted = 0;
};

struct Completion {
    PSER_REQUEST request;
    NTSTATUS status;
    ULONG length;
    size_t bytes_submitted; // bytes that had reached the send engine by then
};

struct SerialFakes {
    FakeSendEngine engine;
    std::vector<Completion> completions;
    std::vector<ULONG> events; // masks passed to IndicateWaitEvent
    int send_dpc_runs = 0;
    PDEVICE dev = nullptr;
};
extern SerialFakes* g_fakes;

class SerialTest : public DriverTest {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Replaces the port made by SetUp (1000-byte buffers, 10 ms tick).
    void MakePort(ULONG rcv_size, ULONG snd_size, ULONG tick_ms);

    PSER_REQUEST NewRead(ULONG length);
    PSER_REQUEST NewWrite(const Bytes& data);
    // The calls the dispatch, the receive engine and the timer make, each
    // under the device lock like theirs.
    NTSTATUS AddRead(PSER_REQUEST request);
    ULONG Indicate(const Bytes& data);
    void Tick(int count = 1);
    void SetTimeouts(ULONG interval, ULONG read_multiplier, ULONG read_constant,
                     ULONG write_multiplier = 0, ULONG write_constant = 0);

    const Completion* CompletionOf(PSER_REQUEST request) const;
    Bytes ReadData(PSER_REQUEST request) const; // the bytes a completed read got
    size_t EventCount(ULONG mask) const;

    SerialFakes fakes;
    std::unique_ptr<DEVICE> dev;
    PSER_PORT port = nullptr;

  private:
    struct TestRequest {
        SER_REQUEST request;
        Bytes data;
        char irp; // its address stands in for the request's IRP
    };
    std::list<TestRequest> requests_;
};
