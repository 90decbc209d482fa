// RFC 1662's HDLC-like framing of PPP frames, with its FCS-16. One thread at
// a time; no locks.
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

} // namespace ppp
