// The host's PPP client on the COM port.
#include "ppp_client.h"

#include "hostkernel/emu.h"

#include <algorithm>

namespace sim {

PppClient::PppClient(AppPort& port)
    : port_(port), engine_(ppp::Config{}, [this](const ppp::Bytes& frame) {
          port_.Write(framing_.Encode(frame));
      }) {
    // The modem's framer escapes only the flag and the escape byte (its
    // table of special characters), so control characters arrive as they
    // are; the client asks for an ACCM of 0 anyway.
    framing_.SetReceiveAccm(0);
}

bool PppClient::RunUntil(const std::function<bool()>& done, uint32_t ms) {
    hk::Kernel& kernel = hk::Kernel::Current();
    int64_t deadline = kernel.NowMs() + ms;
    int64_t restart_at = kernel.NowMs() + kRestartMs;
    while (!done()) {
        int64_t now = kernel.NowMs();
        if (now >= deadline)
            return false;
        if (now >= restart_at) {
            if (restarts_ < kMaxRestarts) {
                ++restarts_;
                engine_.Timeout();
            }
            restart_at = now + kRestartMs;
        }
        port_.SetClientReading(true);
        Bytes bytes = port_.ReadSome(uint32_t(std::min(deadline, restart_at) - now));
        port_.SetClientReading(false);
        std::vector<ppp::Bytes> frames = framing_.Decode(bytes);
        if (!frames.empty())
            restart_at = kernel.NowMs() + kRestartMs;
        for (const ppp::Bytes& frame : frames) {
            if (port_.reception())
                port_.reception()->Frame(frame);
            engine_.Receive(frame);
        }
        if (!accm_agreed_ && engine_.Lcp() == ppp::Engine::State::kOpened) {
            // From now on only what the peer asked for is escaped.
            framing_.SetSendAccm(engine_.PeerAccm());
            accm_agreed_ = true;
        }
    }
    return true;
}

} // namespace sim
