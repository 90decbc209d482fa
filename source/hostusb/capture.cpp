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

uint64_t Get(const u_char* at, int bytes) {
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | at[i];
    return value;
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

std::vector<CaptureRecord> ReadCapture(const std::string& file) {
    std::vector<CaptureRecord> records;
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* pcap = pcap_open_offline(file.c_str(), error);
    if (pcap == nullptr)
        return records;
    pcap_pkthdr* header;
    const u_char* packet;
    while (pcap_next_ex(pcap, &header, &packet) == 1) {
        if (header->caplen < 27)
            continue;
        const uint16_t header_length = uint16_t(Get(packet, 2));
        const uint32_t data_length = uint32_t(Get(packet + 23, 4));
        if (header_length < 27 || header_length + data_length > header->caplen)
            continue;
        CaptureRecord record;
        record.irp_id = Get(packet + 2, 8);
        record.usbd_status = int32_t(Get(packet + 10, 4));
        record.function = uint16_t(Get(packet + 14, 2));
        record.completion = (packet[16] & 1) != 0;
        record.bus = uint16_t(Get(packet + 17, 2));
        record.device = uint16_t(Get(packet + 19, 2));
        record.endpoint = packet[21];
        record.transfer = CaptureTransfer(packet[22]);
        if (header_length > 27)
            record.stage = CaptureStage(packet[27]);
        record.data.assign(packet + header_length, packet + header_length + data_length);
        records.push_back(std::move(record));
    }
    pcap_close(pcap);
    return records;
}

} // namespace hu
