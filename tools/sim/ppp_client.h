// The host's PPP client of a cdcacm-sim session: the PPP engine speaking
// RFC 1662's HDLC-like framing through the application's COM port, as a
// dial-up stack does once the modem has connected.
//
// Environment: the machine's application thread; pumping blocks it in
// virtual time.
#pragma once

#include "app_port.h"

#include "ppp/ppp.h"

#include <functional>

namespace sim {

class PppClient {
  public:
    explicit PppClient(AppPort& port);
    void Open() { engine_.Open(); }
    void Close() { engine_.Close(); }
    // Feeds what the port receives to the engine until done() holds or ms
    // of virtual time have passed; true when done. When no frame came for
    // the restart time, an unanswered request goes again (RFC 1661's
    // restart timer, its default 3 s and at most 10 times).
    bool RunUntil(const std::function<bool()>& done, uint32_t ms);
    const ppp::Engine& engine() const { return engine_; }
    ppp::Engine& engine() { return engine_; }
    uint32_t FramingErrors() const { return framing_.Errors(); }
    uint32_t Restarts() const { return restarts_; }

  private:
    AppPort& port_;
    ppp::HdlcFraming framing_;
    ppp::Engine engine_;
    bool accm_agreed_ = false;
    uint32_t restarts_ = 0;
    static constexpr int64_t kRestartMs = 3000;
    static constexpr uint32_t kMaxRestarts = 10;
};

} // namespace sim
