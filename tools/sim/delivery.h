// What reached the application against what the modems sent toward it.
// Every byte the application reads from a COM port is kept, over every
// handle opened on it, with the frames its PPP client accepted; at the end
// of the session the plain bytes (read outside the PPP client, and outside
// HDLC frames, which run from flag to flag) must be a subsequence of the
// plain bytes the port's modems sent, and the accepted frames a subsequence
// of the frames they sent, both in order. Loss passes (the driver drops
// data by design when the device goes, on a purge, or when memory fails);
// a byte or frame that is duplicated, reordered, altered or invented does
// not.
//
// Environment: host code of the tool, on the machine's application thread.
#pragma once

#include "simmodem/simmodem.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

class Reception {
  public:
    // by_client: the PPP client read them (its frames are checked as frames).
    void Read(const std::vector<uint8_t>& bytes, bool by_client);
    void Frame(const std::vector<uint8_t>& frame) { frames_.push_back(frame); }
    // The bytes read outside the PPP client and outside HDLC frames.
    std::vector<uint8_t> PlainText() const;
    const std::vector<std::vector<uint8_t>>& Frames() const { return frames_; }

  private:
    std::vector<uint8_t> bytes_;
    std::vector<bool> by_client_;
    std::vector<std::vector<uint8_t>> frames_;
};

// The first way in which the reception could not have come from what was
// sent (each modem's stream toward the port, in plug order); nullopt when
// it could.
std::optional<std::string> CheckDelivery(const Reception& reception,
                                         const std::vector<sm::Modem::ToHost>& sent);

} // namespace sim
