// The bus capture, internal to the bus: every URB at submission and at
// completion as a USBPcap record (pcap link type 249), written through
// libpcap's dump interface with the virtual time as the packet time, and
// read back the same way for tests and tools.
//
// Environment: called by the bus under its lock, at any IRQL.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pcap;
struct pcap_dumper;

namespace hu {

// USBPcap transfer types and control stages.
enum class CaptureTransfer : uint8_t { kIsochronous = 0, kInterrupt = 1, kControl = 2, kBulk = 3 };
enum class CaptureStage : uint8_t { kSetup = 0, kData = 1, kStatus = 2 };

struct CaptureRecord {
    uint64_t irp_id = 0;
    int32_t usbd_status = 0;
    uint16_t function = 0;
    bool completion = false; // info bit 0: from the device's side, on return
    uint16_t bus = 0;
    uint16_t device = 0;
    uint8_t endpoint = 0; // with the direction bit
    CaptureTransfer transfer = CaptureTransfer::kControl;
    CaptureStage stage = CaptureStage::kSetup; // control transfers only
    std::vector<uint8_t> data;
};

class Capture {
  public:
    // Opens the file; Ok() tells whether that worked.
    explicit Capture(const std::string& file);
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    bool Ok() const { return dumper_ != nullptr; }
    void Write(const CaptureRecord& record, int64_t time_100ns);
    void Close();

  private:
    pcap* pcap_ = nullptr;
    pcap_dumper* dumper_ = nullptr;
};

// The records of a capture file written by Capture, in order; empty when
// the file cannot be read. A record that is not a USBPcap pseudo-header is
// skipped.
std::vector<CaptureRecord> ReadCapture(const std::string& file);

} // namespace hu
