// The two framings of PPP frames: RFC 1662's HDLC-like framing with its
// FCS-16, and the driver's modem packets. One thread at a time; no locks.
#include "ppp/ppp.h"

#include <algorithm>
#include <array>

namespace ppp {

namespace {

constexpr uint8_t kFlag = 0x7e;
constexpr uint8_t kEscape = 0x7d;
constexpr uint8_t kTransparency = 0x20;
constexpr uint8_t kAddress = 0xff;
constexpr uint8_t kControl = 0x03;
constexpr uint8_t kMagicLow = 0xaa;
constexpr uint8_t kMagicHigh = 0xbb;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kLengthMask = 0x7ff;
constexpr uint8_t kSequences = 32;
constexpr size_t kFcsBytes = 2;

// RFC 1662 appendix C.2: the table of the reflected polynomial 0x8408.
constexpr std::array<uint16_t, 256> MakeFcsTable() {
    std::array<uint16_t, 256> table{};
    for (unsigned b = 0; b < 256; ++b) {
        unsigned v = b;
        for (int bit = 0; bit < 8; ++bit)
            v = (v & 1) ? (v >> 1) ^ 0x8408 : v >> 1;
        table[b] = uint16_t(v);
    }
    return table;
}
constexpr std::array<uint16_t, 256> kFcsTable = MakeFcsTable();

} // namespace

uint16_t Fcs16(const uint8_t* bytes, size_t length, uint16_t fcs) {
    for (size_t i = 0; i < length; ++i)
        fcs = uint16_t((fcs >> 8) ^ kFcsTable[(fcs ^ bytes[i]) & 0xff]);
    return fcs;
}

Bytes WithFcs(Bytes frame) {
    uint16_t fcs = uint16_t(~Fcs16(frame.data(), frame.size()));
    frame.push_back(uint8_t(fcs));
    frame.push_back(uint8_t(fcs >> 8));
    return frame;
}

std::optional<Packet> Unwrap(const Bytes& frame) {
    if (frame.size() < 4 || frame[0] != kAddress || frame[1] != kControl)
        return std::nullopt;
    return Packet{uint16_t(frame[2] << 8 | frame[3]), Bytes(frame.begin() + 4, frame.end())};
}

Bytes Wrap(uint16_t protocol, const Bytes& information) {
    Bytes frame = {kAddress, kControl, uint8_t(protocol >> 8), uint8_t(protocol)};
    frame.insert(frame.end(), information.begin(), information.end());
    return frame;
}

Bytes HdlcFraming::Encode(const Bytes& frame) {
    Bytes line = {kFlag};
    for (uint8_t byte : WithFcs(frame)) {
        bool mapped = byte < 0x20 && (send_accm_ >> byte & 1);
        if (byte == kFlag || byte == kEscape || mapped) {
            line.push_back(kEscape);
            line.push_back(byte ^ kTransparency);
        } else {
            line.push_back(byte);
        }
    }
    line.push_back(kFlag);
    return line;
}

// A flag ends the frame being collected: kept when its FCS is good, counted
// when there was something that is not a frame. Back-to-back flags are
// allowed.
std::vector<Bytes> HdlcFraming::Decode(const Bytes& bytes) {
    std::vector<Bytes> frames;
    for (uint8_t byte : bytes) {
        if (byte == kFlag) {
            bool aborted = escaped_;
            if (aborted || overlong_ ||
                (!frame_.empty() &&
                 (frame_.size() <= kFcsBytes || Fcs16(frame_.data(), frame_.size()) != kGoodFcs)))
                ++errors_;
            else if (!frame_.empty())
                frames.emplace_back(frame_.begin(), frame_.end() - kFcsBytes);
            frame_.clear();
            escaped_ = overlong_ = false;
            continue;
        }
        if (byte < 0x20 && (receive_accm_ >> byte & 1))
            continue; // inserted on the way; the sender escaped its own
        if (byte == kEscape) {
            escaped_ = true;
            continue;
        }
        if (escaped_) {
            byte ^= kTransparency;
            escaped_ = false;
        }
        if (frame_.size() < kMaxFrame)
            frame_.push_back(byte);
        else
            overlong_ = true;
    }
    return frames;
}

Bytes ModemPacketFraming::Encode(const Bytes& frame) {
    Bytes content = side_ == Side::kHost ? WithFcs(frame) : frame;
    if (content.size() > kMaxContent)
        return {}; // the framing mode has no room for it: dropped
    size_t word = size_t(send_sequence_) << 11 | (content.size() + kHeaderBytes);
    send_sequence_ = (send_sequence_ + 1) % kSequences;
    Bytes packet(kHeaderBytes + content.size());
    packet[0] = kMagicLow;
    packet[1] = kMagicHigh;
    packet[2] = uint8_t(word >> 8);
    packet[3] = uint8_t(word);
    std::copy(content.begin(), content.end(), packet.begin() + kHeaderBytes);
    return packet;
}

std::vector<Bytes> ModemPacketFraming::Decode(const Bytes& bytes) {
    std::vector<Bytes> frames;
    stream_.insert(stream_.end(), bytes.begin(), bytes.end());
    size_t at = 0;
    auto skip = [&] {
        if (!skipping_)
            ++errors_;
        skipping_ = true;
        ++at;
    };
    while (at < stream_.size()) {
        if (stream_[at] != kMagicLow) {
            skip();
            continue;
        }
        skipping_ = false;
        if (stream_.size() - at < kHeaderBytes)
            break;
        size_t word = size_t(stream_[at + 2]) << 8 | stream_[at + 3];
        uint8_t sequence = uint8_t(word >> 11);
        size_t length = word & kLengthMask;
        if (stream_[at + 1] != kMagicHigh || length < kHeaderBytes ||
            sequence != receive_sequence_) {
            if (stream_[at + 1] == kMagicHigh && length >= kHeaderBytes)
                receive_sequence_ = (sequence + 1) % kSequences;
            skip();
            continue;
        }
        if (stream_.size() - at < length)
            break;
        Bytes content(stream_.begin() + long(at + kHeaderBytes),
                      stream_.begin() + long(at + length));
        at += length;
        receive_sequence_ = (sequence + 1) % kSequences;
        if (side_ == Side::kHost) {
            frames.push_back(std::move(content)); // the modem sends no FCS
        } else if (content.size() > kFcsBytes &&
                   Fcs16(content.data(), content.size()) == kGoodFcs) {
            content.resize(content.size() - kFcsBytes);
            frames.push_back(std::move(content));
        } else {
            ++errors_;
        }
    }
    stream_.erase(stream_.begin(), stream_.begin() + long(at));
    return frames;
}

} // namespace ppp
