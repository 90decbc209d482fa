// Reference encodings written independently of the driver's converters:
// the FCS computed bit by bit from the reflected polynomial, HDLC-like
// framing, the modem packet format, and the deframer's rules.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace ppp_test {

using Bytes = std::vector<uint8_t>;
using EscapeSet = std::array<bool, 256>;

inline uint16_t ReferenceFcsByte(uint16_t fcs, uint8_t byte) {
    fcs ^= byte;
    for (int bit = 0; bit < 8; bit++)
        fcs = (fcs & 1) ? (uint16_t)((fcs >> 1) ^ 0x8408) : (uint16_t)(fcs >> 1);
    return fcs;
}

inline uint16_t ReferenceFcs(const Bytes& data, uint16_t fcs = 0xFFFF) {
    for (uint8_t byte : data)
        fcs = ReferenceFcsByte(fcs, byte);
    return fcs;
}

// The value a receiver finds after running the FCS over content and FCS.
inline constexpr uint16_t kFcsGood = 0xF0B8;

inline EscapeSet EscapeSetOf(const Bytes& special) {
    EscapeSet set{};
    for (uint8_t byte : special)
        set[byte] = true;
    set[0x7D] = set[0x7E] = true;
    return set;
}

// Content -> 7E, escaped content and FCS (low byte first), 7E.
inline Bytes HdlcFrame(const Bytes& content, const EscapeSet& escape) {
    uint16_t fcs = ReferenceFcs(content) ^ 0xFFFF;
    Bytes body = content;
    body.push_back((uint8_t)(fcs & 0xFF));
    body.push_back((uint8_t)(fcs >> 8));
    Bytes frame{0x7E};
    for (uint8_t byte : body) {
        if (escape[byte]) {
            frame.push_back(0x7D);
            frame.push_back(byte ^ 0x20);
        } else {
            frame.push_back(byte);
        }
    }
    frame.push_back(0x7E);
    return frame;
}

inline Bytes ModemPacketBytes(unsigned sequence, const Bytes& content) {
    unsigned word = (sequence & 31) << 11 | ((unsigned)(content.size() + 4) & 0x7FF);
    Bytes packet{0xAA, 0xBB, (uint8_t)(word >> 8), (uint8_t)(word & 0xFF)};
    packet.insert(packet.end(), content.begin(), content.end());
    return packet;
}

// The frames a host byte stream carries to the modem, by the deframer's
// rules: the stream starts inside a frame; a frame ends at a flag; writing
// the 4102nd content byte discards the frame up to the next flag; frames of
// more than 2043 content bytes do not fit a packet and are dropped.
inline std::vector<Bytes> ReferenceDeFrame(const Bytes& stream) {
    std::vector<Bytes> frames;
    Bytes current;
    bool escape = false, hunting = false;
    for (uint8_t byte : stream) {
        if (hunting) {
            hunting = byte != 0x7E;
            continue;
        }
        if (!escape && byte == 0x7D) {
            escape = true;
            continue;
        }
        if (!escape && byte == 0x7E) {
            if (!current.empty() && current.size() <= 2043)
                frames.push_back(current);
            current.clear();
            continue;
        }
        current.push_back(escape ? byte ^ 0x20 : byte);
        escape = false;
        if (current.size() == 4102) {
            current.clear();
            hunting = true;
        }
    }
    return frames;
}

} // namespace ppp_test
