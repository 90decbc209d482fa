// The bus capture in the USBPcap format: a 27-byte little-endian
// pseudo-header (28 with the control stage) before the transfer's data, one
// pcap record per URB event, written with libpcap.
#include "hostusb/capture.h"

#include <pcap/pcap.h>

namespace hu {

namespace {

constexpr int kLinkTypeUsbPcap = 249;
constexpr int kSnapLength = 0x40000;

void Put16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(uint8_t(value));
    out.push_back(uint8_t(value >> 8));
}
void Put32(std::vector<uint8_t>& out, uint32_t value) {
    Put16(out, uint16_t(value));
    Put16(out, uint16_t(value >> 16));
}
void Put64(std::vector<uint8_t>& out, uint64_t value) {
    Put32(out, uint32_t(value));
    Put32(out, uint32_t(value >> 32));
}

} // namespace

Capture::Capture(const std::string& file) {
    pcap_ = pcap_open_dead(kLinkTypeUsbPcap, kSnapLength);
    if (pcap_ != nullptr)
        dumper_ = pcap_dump_open(pcap_, file.c_str());
}

Capture::~Capture() {
    Close();
}

void Capture::Close() {
    if (dumper_ != nullptr)
        pcap_dump_close(dumper_);
    if (pcap_ != nullptr)
        pcap_close(pcap_);
    dumper_ = nullptr;
    pcap_ = nullptr;
}

void Capture::Write(const CaptureRecord& record, int64_t time_100ns) {
    if (dumper_ == nullptr)
        return;
    const bool control = record.transfer == CaptureTransfer::kControl;
    std::vector<uint8_t> packet;
    Put16(packet, control ? 28 : 27);
    Put64(packet, record.irp_id);
    Put32(packet, uint32_t(record.usbd_status));
    Put16(packet, record.function);
    packet.push_back(record.completion ? 1 : 0);
    Put16(packet, record.bus);
    Put16(packet, record.device);
    packet.push_back(record.endpoint);
    packet.push_back(uint8_t(record.transfer));
    Put32(packet, uint32_t(record.data.size()));
    if (control)
        packet.push_back(uint8_t(record.stage));
    packet.insert(packet.end(), record.data.begin(), record.data.end());

    pcap_pkthdr header{};
    header.ts.tv_sec = time_t(time_100ns / 10000000);
    header.ts.tv_usec = suseconds_t(time_100ns % 10000000 / 10);
    header.caplen = bpf_u_int32(packet.size());
    header.len = header.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dumper_), &header, packet.data());
}

} // namespace hu
