#include "ppp_rig.h"

#include <cstdlib>

namespace ppp_test {

namespace {
PppRig* current_rig = nullptr;
}

PppRig::PppRig(SendEngineOptions send)
    : device_(new DEVICE()), send_(send), packets_(send.Packets) {
    if (current_rig != nullptr)
        std::abort(); // one rig at a time: the doubles are free functions
    current_rig = this;
    device_->Type = EXTENSION_TYPE_DEVICE;
    device_->Magic = DEVICE_MAGIC;
    device_->Port.PortName = port_name_;
    device_->PppState = PPP_STATE_ON;
    for (Packet& packet : packets_)
        packet.data.reset(new UCHAR[send_.PacketSize]);
}

PppRig::~PppRig() {
    current_rig = nullptr;
}

PppRig& PppRig::Current() {
    if (current_rig == nullptr)
        std::abort();
    return *current_rig;
}

void PppRig::StartFraming(const Bytes& special_chars) {
    PppSetSpecialChars(&Framer(), special_chars.data(), (ULONG)special_chars.size());
    PppFramerInit(&Framer(), device_.get());
    PppDeFramerInit(&DeFramer(), device_.get());
}

size_t PppRig::FeedModem(const Bytes& bytes) {
    return PppFramerIndicateBuffer(&Framer(), bytes.data(), (ULONG)bytes.size());
}

bool PppRig::WriteHost(const Bytes& bytes) {
    for (uint8_t byte : bytes) {
        // Each retry with a free send packet sends one more chunk.
        while (!PppDeFramerSendChar(&DeFramer(), byte)) {
            if (!CompleteSend() && FreePackets() == 0)
                return false;
        }
    }
    return true;
}

bool PppRig::Drain() {
    while (DeFramer().State == PPP_DEFRAMER_SUBMIT_PENDING) {
        uint64_t chunks = sent_chunks_;
        while (CompleteSend())
            ;
        SubmitWaiting();
        if (sent_chunks_ == chunks)
            return false;
    }
    while (CompleteSend())
        ;
    return true;
}

bool PppRig::CompleteSend() {
    if (in_flight_.empty())
        return false;
    in_flight_.front()->state = PacketState::Free;
    in_flight_.pop_front();
    return true;
}

unsigned PppRig::FreePackets() const {
    unsigned free = 0;
    for (const Packet& packet : packets_)
        free += packet.state == PacketState::Free;
    return free;
}

Bytes PppRig::SentStream() const {
    Bytes stream;
    for (const Bytes& chunk : chunks_)
        stream.insert(stream.end(), chunk.begin(), chunk.end());
    return stream;
}

PppRig::Packet* PppRig::FindPacket(PUSB_PACKET token, const char* who) {
    for (Packet& packet : packets_) {
        if (reinterpret_cast<PUSB_PACKET>(&packet) == token)
            return &packet;
    }
    Violation(std::string(who) + ": unknown packet");
    return nullptr;
}

BOOLEAN PppRig::GetWriteBuffer(PDEVICE dev, PUCHAR* buffer, PULONG max_length,
                               PUSB_PACKET* packet) {
    get_calls_++;
    if (dev != device_.get())
        Violation("GetWriteBuffer: wrong device");
    for (Packet& candidate : packets_) {
        if (candidate.state == PacketState::Free) {
            candidate.state = PacketState::Lent;
            *buffer = candidate.data.get();
            *max_length = send_.PacketSize;
            *packet = reinterpret_cast<PUSB_PACKET>(&candidate);
            return TRUE;
        }
    }
    return FALSE;
}

void PppRig::SubmitWriteBuffer(PDEVICE dev, PUCHAR buffer, ULONG length, PUSB_PACKET token) {
    if (dev != device_.get())
        Violation("SubmitWriteBuffer: wrong device");
    Packet* packet = FindPacket(token, "SubmitWriteBuffer");
    if (packet == nullptr)
        return;
    if (packet->state != PacketState::Lent)
        Violation("SubmitWriteBuffer: packet not lent");
    if (buffer != packet->data.get())
        Violation("SubmitWriteBuffer: buffer is not the packet's");
    if (length > send_.PacketSize)
        Violation("SubmitWriteBuffer: longer than the packet");
    if (length == 0)
        Violation("SubmitWriteBuffer: empty chunk");
    ULONG kept = length < send_.PacketSize ? length : send_.PacketSize;
    sent_bytes_ += kept;
    sent_chunks_++;
    if (keep_traffic_)
        chunks_.emplace_back(buffer, buffer + kept);
    packet->state = PacketState::InFlight;
    in_flight_.push_back(packet);
    if (send_.AutoComplete)
        CompleteSend();
}

void PppRig::ReturnWriteBuffer(PDEVICE dev, PUCHAR buffer, PUSB_PACKET token) {
    if (dev != device_.get())
        Violation("ReturnWriteBuffer: wrong device");
    Packet* packet = FindPacket(token, "ReturnWriteBuffer");
    if (packet == nullptr)
        return;
    if (packet->state != PacketState::Lent || buffer != packet->data.get())
        Violation("ReturnWriteBuffer: packet not lent");
    packet->state = PacketState::Free;
}

ULONG PppRig::SndRcvIndicateData(PDEVICE dev, const UCHAR* data, ULONG length) {
    receive_calls_++;
    if (dev != device_.get())
        Violation("SndRcvIndicateData: wrong device");
    if (length == 0)
        Violation("SndRcvIndicateData: nothing offered");
    ULONG taken = length;
    if (!receive_limits_.empty()) {
        taken = receive_limits_.front() < length ? receive_limits_.front() : length;
        receive_limits_.pop_front();
    }
    received_bytes_ += taken;
    if (keep_traffic_)
        received_.insert(received_.end(), data, data + taken);
    return taken;
}

} // namespace ppp_test

// The driver-side operations, routed to the current rig.
BOOLEAN GetWriteBuffer(PDEVICE Dev, PUCHAR* Buffer, PULONG MaxLength, PUSB_PACKET* Packet) {
    return ppp_test::PppRig::Current().GetWriteBuffer(Dev, Buffer, MaxLength, Packet);
}

void SubmitWriteBuffer(PDEVICE Dev, PUCHAR Buffer, ULONG Length, PUSB_PACKET Packet) {
    ppp_test::PppRig::Current().SubmitWriteBuffer(Dev, Buffer, Length, Packet);
}

void ReturnWriteBuffer(PDEVICE Dev, PUCHAR Buffer, PUSB_PACKET Packet) {
    ppp_test::PppRig::Current().ReturnWriteBuffer(Dev, Buffer, Packet);
}

ULONG SndRcvIndicateData(PDEVICE Dev, const UCHAR* Data, ULONG Length) {
    return ppp_test::PppRig::Current().SndRcvIndicateData(Dev, Data, Length);
}
