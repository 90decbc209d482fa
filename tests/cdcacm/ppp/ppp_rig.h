// A device with its PPP framer and deframer wired to test doubles of the
// send engine (GetWriteBuffer, SubmitWriteBuffer, ReturnWriteBuffer) and of
// the serial port's receive path (SndRcvIndicateData). Shared by the unit
// tests, the fuzzers and the benchmarks. The doubles check the contract the
// converters must keep and record every breach in Violations().
//
// One rig may exist at a time; it needs a live emulated kernel (the trace
// lock and the DEVICE live in ordinary host memory).
#pragma once

#include "cdcacm.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace ppp_test {

using Bytes = std::vector<uint8_t>;

// The send engine as the deframer sees it: a fixed set of send packets of
// PacketSize bytes each. A packet lent by GetWriteBuffer is in flight after
// SubmitWriteBuffer until CompleteSend() returns it, or at once when
// AutoComplete is set.
struct SendEngineOptions {
    ULONG PacketSize = 64;
    unsigned Packets = 1;
    bool AutoComplete = true;
};

class PppRig {
  public:
    explicit PppRig(SendEngineOptions send = {});
    ~PppRig();
    PppRig(const PppRig&) = delete;
    PppRig& operator=(const PppRig&) = delete;

    static PppRig& Current();

    DEVICE& Device() { return *device_; }
    PPP_FRAMER& Framer() { return device_->PppFramer; }
    PPP_DEFRAMER& DeFramer() { return device_->PppDeFramer; }

    // Switches framing on as the driver does: special characters, then both
    // converters initialised.
    void StartFraming(const Bytes& special_chars);

    // Device to host. FeedModem offers bytes like the receive engine: it
    // returns how many the framer took.
    size_t FeedModem(const Bytes& bytes);
    // Limits for the following SndRcvIndicateData calls, one per call;
    // once they are used up every call takes everything.
    void LimitReceive(std::deque<ULONG> limits) { receive_limits_ = std::move(limits); }
    Bytes& Received() { return received_; }
    unsigned ReceiveCalls() const { return receive_calls_; }
    uint64_t ReceivedBytes() const { return received_bytes_; }

    // Host to device, the way the serial port's send pass feeds the
    // deframer: a byte that is refused is offered again after a send packet
    // completed. Returns FALSE when a byte is refused while no send packet
    // is free and none is in flight (the rig would never make progress).
    bool WriteHost(const Bytes& bytes);
    // The send pass found the send buffer empty.
    void SubmitWaiting() { PppDeFramerSubmitBuffer(&DeFramer()); }
    // Completes transfers and retries until no packet waits in the
    // deframer; FALSE when that makes no progress.
    bool Drain();

    // Send engine state and traffic.
    void SetAutoComplete(bool on) { send_.AutoComplete = on; }
    // Completes the oldest transfer in flight; FALSE when none is.
    bool CompleteSend();
    unsigned FreePackets() const;
    // Every chunk given to SubmitWriteBuffer, in order.
    const std::vector<Bytes>& Chunks() const { return chunks_; }
    Bytes SentStream() const;
    uint64_t SentBytes() const { return sent_bytes_; }
    uint64_t SentChunks() const { return sent_chunks_; }
    unsigned GetWriteBufferCalls() const { return get_calls_; }
    // Benchmarks count the traffic without keeping its bytes.
    void KeepTraffic(bool keep) { keep_traffic_ = keep; }

    const std::vector<std::string>& Violations() const { return violations_; }

    // The doubles' entry points.
    BOOLEAN GetWriteBuffer(PDEVICE dev, PUCHAR* buffer, PULONG max_length, PUSB_PACKET* packet);
    void SubmitWriteBuffer(PDEVICE dev, PUCHAR buffer, ULONG length, PUSB_PACKET packet);
    void ReturnWriteBuffer(PDEVICE dev, PUCHAR buffer, PUSB_PACKET packet);
    ULONG SndRcvIndicateData(PDEVICE dev, const UCHAR* data, ULONG length);

  private:
    enum class PacketState { Free, Lent, InFlight };
    struct Packet {
        std::unique_ptr<UCHAR[]> data; // exactly PacketSize bytes, so overruns are caught
        PacketState state = PacketState::Free;
    };
    Packet* FindPacket(PUSB_PACKET packet, const char* who);
    void Violation(std::string what) { violations_.push_back(std::move(what)); }

    std::unique_ptr<DEVICE> device_;
    WCHAR port_name_[8] = u"COM5";
    SendEngineOptions send_;
    std::vector<Packet> packets_;
    std::deque<Packet*> in_flight_;
    std::vector<Bytes> chunks_;
    bool keep_traffic_ = true;
    uint64_t sent_bytes_ = 0;
    uint64_t sent_chunks_ = 0;
    uint64_t received_bytes_ = 0;
    unsigned get_calls_ = 0;
    std::deque<ULONG> receive_limits_;
    Bytes received_;
    unsigned receive_calls_ = 0;
    std::vector<std::string> violations_;
};

} // namespace ppp_test
