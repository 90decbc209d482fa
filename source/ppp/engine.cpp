// The PPP engine: RFC 1661's option negotiation automaton, shared by LCP
// and IPCP (RFC 1332), and IPv4 with ICMP echo (RFC 791, RFC 792). States
// and events carry RFC 1661's names (RCR+, RCA, RTR, ...); the restart timer
// and its counters are left out (see ppp.h). One thread at a time; no locks.
#include "ppp/ppp.h"

namespace ppp {

namespace {

// Control packet codes (RFC 1661 section 5).
enum Code : uint8_t {
    kConfigureRequest = 1,
    kConfigureAck = 2,
    kConfigureNak = 3,
    kConfigureReject = 4,
    kTerminateRequest = 5,
    kTerminateAck = 6,
    kCodeReject = 7,
    kProtocolReject = 8,
    kEchoRequest = 9,
    kEchoReply = 10,
    kDiscardRequest = 11,
};

// Options (RFC 1661 section 6, RFC 1332 section 3).
constexpr uint8_t kOptionMru = 1, kOptionAccm = 2, kOptionMagic = 5;
constexpr uint8_t kOptionAddress = 3;
constexpr uint16_t kDefaultMru = 1500, kMinimumMru = 64;

constexpr uint8_t kIcmp = 1;
constexpr uint8_t kIcmpEchoReply = 0, kIcmpEchoRequest = 8;
constexpr size_t kIpHeaderBytes = 20, kIcmpHeaderBytes = 8;
constexpr uint8_t kTtl = 64;

void Put16(Bytes& b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
void Put32(Bytes& b, uint32_t v) {
    Put16(b, uint16_t(v >> 16));
    Put16(b, uint16_t(v));
}
uint16_t Get16(const Bytes& b, size_t at) {
    return uint16_t(b[at] << 8 | b[at + 1]);
}
uint32_t Get32(const Bytes& b, size_t at) {
    return uint32_t(Get16(b, at)) << 16 | Get16(b, at + 2);
}
Bytes Option32(uint8_t type, uint32_t value) {
    Bytes o = {type, 6};
    Put32(o, value);
    return o;
}

// The Internet checksum (RFC 1071) over bytes [from, to).
uint16_t Checksum(const Bytes& b, size_t from, size_t to) {
    uint32_t sum = 0;
    for (size_t i = from; i < to; i += 2)
        sum += uint32_t(b[i] << 8 | (i + 1 < to ? b[i + 1] : 0));
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return uint16_t(~sum);
}

// The next magic number to try; server and client step differently, so
// that two engines that collided do not collide again.
uint32_t NextMagic(uint32_t magic, bool server) {
    magic = magic * 1103515245u + (server ? 12345u : 54321u);
    return magic == 0 ? 1 : magic;
}

} // namespace

Engine::Engine(Config config, std::function<void(const Bytes&)> send)
    : config_(config), send_(std::move(send)), mru_(config.mru), accm_(config.accm),
      magic_(config.magic == 0 ? 1 : config.magic), ask_mru_(config.mru != kDefaultMru),
      local_address_(config.server ? config.local_address : 0) {}

void Engine::SendControl(Automaton& a, uint8_t code, uint8_t id, const Bytes& data) {
    Bytes info = {code, id};
    Put16(info, uint16_t(4 + data.size()));
    info.insert(info.end(), data.begin(), data.end());
    send_(Wrap(a.protocol, info));
}

Bytes Engine::RequestOptions(const Automaton& a) const {
    Bytes options;
    if (a.protocol == kProtocolLcp) {
        if (ask_mru_)
            options.insert(options.end(), {kOptionMru, 4, uint8_t(mru_ >> 8), uint8_t(mru_)});
        if (ask_accm_) {
            Bytes o = Option32(kOptionAccm, accm_);
            options.insert(options.end(), o.begin(), o.end());
        }
        if (ask_magic_) {
            Bytes o = Option32(kOptionMagic, magic_);
            options.insert(options.end(), o.begin(), o.end());
        }
    } else if (ask_address_) {
        options = Option32(kOptionAddress, local_address_);
    }
    return options;
}

void Engine::SendRequest(Automaton& a) {
    a.request_id = a.next_id++;
    SendControl(a, kConfigureRequest, a.request_id, RequestOptions(a));
}

void Engine::Open() {
    if (lcp_.state == State::kInitial || lcp_.state == State::kClosed ||
        lcp_.state == State::kStopped) {
        SendRequest(lcp_);
        lcp_.state = State::kReqSent;
    }
}

void Engine::Timeout() {
    for (Automaton* a : {&lcp_, &ipcp_}) {
        switch (a->state) {
        case State::kClosing:
            SendControl(*a, kTerminateRequest, a->terminate_id, {});
            break;
        case State::kAckRcvd:
            a->state = State::kReqSent;
            [[fallthrough]];
        case State::kReqSent:
        case State::kAckSent:
            SendRequest(*a);
            break;
        default:
            break;
        }
    }
}

void Engine::Close() {
    switch (lcp_.state) {
    case State::kOpened:
        ThisLayerDown(lcp_);
        [[fallthrough]];
    case State::kReqSent:
    case State::kAckRcvd:
    case State::kAckSent:
        lcp_.terminate_id = lcp_.next_id++;
        SendControl(lcp_, kTerminateRequest, lcp_.terminate_id, {});
        lcp_.state = State::kClosing;
        break;
    case State::kStopped:
        lcp_.state = State::kClosed;
        break;
    default:
        break;
    }
}

// This-Layer-Up: LCP's opens IPCP; IPCP's leaves the addresses as agreed.
void Engine::ThisLayerUp(Automaton& a) {
    if (&a == &lcp_ && ipcp_.state != State::kReqSent) {
        SendRequest(ipcp_);
        ipcp_.state = State::kReqSent;
    }
}

// This-Layer-Down: LCP's takes IPCP down with it.
void Engine::ThisLayerDown(Automaton& a) {
    if (&a == &lcp_)
        ipcp_.state = State::kInitial;
}

// Checks the peer's configure-request: an option we do not know or of the
// wrong length is rejected; a value we cannot take is naked with one we
// can. Rejects go out alone, then naks, else the request is acked.
Engine::Verdict Engine::CheckRequest(const Automaton& a, const Bytes& options, Bytes& answer) {
    Bytes naks, rejects;
    size_t at = 0;
    while (at < options.size()) {
        size_t length = at + 1 < options.size() ? options[at + 1] : 0;
        if (length < 2 || at + length > options.size()) {
            rejects.insert(rejects.end(), options.begin() + long(at), options.end());
            break;
        }
        Bytes option(options.begin() + long(at), options.begin() + long(at + length));
        at += length;
        uint8_t type = option[0];
        if (a.protocol == kProtocolLcp && type == kOptionMru && length == 4) {
            uint16_t mru = Get16(option, 2);
            if (mru < kMinimumMru)
                naks.insert(naks.end(), {kOptionMru, 4, kDefaultMru >> 8, kDefaultMru & 0xff});
            else
                peer_mru_ = mru;
        } else if (a.protocol == kProtocolLcp && type == kOptionAccm && length == 6) {
            peer_accm_ = Get32(option, 2);
        } else if (a.protocol == kProtocolLcp && type == kOptionMagic && length == 6) {
            uint32_t magic = Get32(option, 2);
            if (magic == 0 || magic == magic_) {
                // Zero, or our own: a looped-back link or a collision; both
                // sides pick again (RFC 1661 6.4).
                Bytes o = Option32(kOptionMagic, NextMagic(magic ^ 0x5a5a5a5a, config_.server));
                naks.insert(naks.end(), o.begin(), o.end());
                magic_ = NextMagic(magic_, config_.server);
            } else {
                peer_magic_ = magic;
            }
        } else if (a.protocol == kProtocolIpcp && type == kOptionAddress && length == 6) {
            uint32_t address = Get32(option, 2);
            if (config_.server && address != config_.address_for_peer) {
                Bytes o = Option32(kOptionAddress, config_.address_for_peer);
                naks.insert(naks.end(), o.begin(), o.end());
            } else if (!config_.server && address == 0) {
                rejects.insert(rejects.end(), option.begin(), option.end());
            } else {
                peer_address_ = address;
            }
        } else {
            rejects.insert(rejects.end(), option.begin(), option.end());
        }
    }
    if (!rejects.empty()) {
        answer = rejects;
        return Verdict::kReject;
    }
    if (!naks.empty()) {
        answer = naks;
        return Verdict::kNak;
    }
    answer = options;
    return Verdict::kAck;
}

// The peer's configure-nak or -reject of our request: take its values, or
// stop asking for what it rejected.
void Engine::TakeNak(Automaton& a, const Bytes& options, bool reject) {
    size_t at = 0;
    while (at + 2 <= options.size() && options[at + 1] >= 2 &&
           at + options[at + 1] <= options.size()) {
        uint8_t type = options[at], length = options[at + 1];
        Bytes option(options.begin() + long(at), options.begin() + long(at + length));
        at += length;
        if (a.protocol == kProtocolLcp && type == kOptionMru) {
            ask_mru_ = !reject && length == 4;
            if (ask_mru_)
                mru_ = Get16(option, 2);
        } else if (a.protocol == kProtocolLcp && type == kOptionAccm) {
            ask_accm_ = !reject && length == 6;
            if (ask_accm_)
                accm_ |= Get32(option, 2);
        } else if (a.protocol == kProtocolLcp && type == kOptionMagic) {
            ask_magic_ = !reject;
            magic_ = NextMagic(magic_, config_.server);
        } else if (a.protocol == kProtocolIpcp && type == kOptionAddress) {
            ask_address_ = !reject;
            if (!reject && length == 6 && !config_.server)
                local_address_ = Get32(option, 2);
        }
    }
}

void Engine::ReceiveControl(Automaton& a, const Bytes& info) {
    if (info.size() < 4 || Get16(info, 2) < 4 || Get16(info, 2) > info.size()) {
        ++dropped_;
        return;
    }
    uint8_t code = info[0], id = info[1];
    Bytes data(info.begin() + 4, info.begin() + Get16(info, 2));
    State& s = a.state;
    switch (code) {
    case kConfigureRequest: {
        if (s == State::kInitial || s == State::kClosing) {
            ++dropped_;
            return;
        }
        if (s == State::kClosed) {
            SendControl(a, kTerminateAck, id, {});
            return;
        }
        if (s == State::kOpened)
            ThisLayerDown(a);
        if (s == State::kOpened || s == State::kStopped) {
            SendRequest(a);
            s = State::kReqSent;
        }
        Bytes answer;
        Verdict verdict = CheckRequest(a, data, answer); // RCR+ or RCR-
        if (verdict == Verdict::kAck) {
            SendControl(a, kConfigureAck, id, answer);
            if (s == State::kAckRcvd) {
                s = State::kOpened;
                ThisLayerUp(a);
            } else {
                s = State::kAckSent;
            }
        } else {
            SendControl(a, verdict == Verdict::kNak ? kConfigureNak : kConfigureReject, id, answer);
            if (s == State::kAckSent)
                s = State::kReqSent;
        }
        return;
    }
    case kConfigureAck:
        if (id != a.request_id || data != RequestOptions(a)) {
            ++dropped_;
            return;
        }
        if (s == State::kReqSent) {
            s = State::kAckRcvd;
        } else if (s == State::kAckSent) {
            s = State::kOpened;
            ThisLayerUp(a);
        } else if (s == State::kAckRcvd || s == State::kOpened) {
            if (s == State::kOpened)
                ThisLayerDown(a);
            SendRequest(a);
            s = State::kReqSent;
        } else if (s == State::kClosed || s == State::kStopped) {
            SendControl(a, kTerminateAck, id, {});
        }
        return;
    case kConfigureNak:
    case kConfigureReject:
        if (id != a.request_id) {
            ++dropped_;
            return;
        }
        if (s == State::kClosed || s == State::kStopped) {
            SendControl(a, kTerminateAck, id, {});
            return;
        }
        if (s == State::kClosing || s == State::kInitial)
            return;
        TakeNak(a, data, code == kConfigureReject);
        if (s == State::kOpened)
            ThisLayerDown(a);
        SendRequest(a);
        if (s != State::kAckSent)
            s = State::kReqSent;
        return;
    case kTerminateRequest:
        SendControl(a, kTerminateAck, id, {});
        if (s == State::kOpened) {
            ThisLayerDown(a);
            s = State::kStopped; // the peer closes; without a timer we stop at once
        } else if (s == State::kAckRcvd || s == State::kAckSent) {
            s = State::kReqSent;
        }
        return;
    case kTerminateAck:
        if (s == State::kClosing) {
            s = State::kClosed;
        } else if (s == State::kAckRcvd) {
            s = State::kReqSent;
        } else if (s == State::kOpened) {
            ThisLayerDown(a);
            SendRequest(a);
            s = State::kReqSent;
        }
        return;
    case kCodeReject:
    case kProtocolReject:
    case kDiscardRequest:
        return; // nothing we send may be refused and still matter here
    case kEchoRequest:
        if (a.protocol == kProtocolLcp && s == State::kOpened && data.size() >= 4) {
            Bytes reply;
            Put32(reply, magic_);
            reply.insert(reply.end(), data.begin() + 4, data.end());
            SendControl(a, kEchoReply, id, reply);
        } else if (a.protocol != kProtocolLcp) {
            break;
        }
        return;
    case kEchoReply:
        if (a.protocol == kProtocolLcp && s == State::kOpened)
            ++echo_replies_;
        else if (a.protocol != kProtocolLcp)
            break;
        return;
    default:
        break;
    }
    // RUC: an unknown code is refused with the packet, as far as it fits.
    Bytes rejected(info.begin(), info.begin() + Get16(info, 2));
    if (rejected.size() > size_t(peer_mru_) - 4)
        rejected.resize(size_t(peer_mru_) - 4);
    SendControl(a, kCodeReject, a.next_id++, rejected);
}

void Engine::SendEcho(const Bytes& data) {
    if (lcp_.state != State::kOpened)
        return;
    Bytes payload;
    Put32(payload, magic_);
    payload.insert(payload.end(), data.begin(), data.end());
    SendControl(lcp_, kEchoRequest, lcp_.next_id++, payload);
}

void Engine::Receive(const Bytes& frame) {
    std::optional<Packet> packet = Unwrap(frame);
    if (!packet) {
        ++dropped_;
        return;
    }
    if (packet->protocol == kProtocolLcp) {
        ReceiveControl(lcp_, packet->information);
    } else if (lcp_.state != State::kOpened) {
        ++dropped_; // network protocols wait for LCP
    } else if (packet->protocol == kProtocolIpcp) {
        ReceiveControl(ipcp_, packet->information);
    } else if (packet->protocol == kProtocolIp) {
        ReceiveIp(packet->information);
    } else {
        Bytes data;
        Put16(data, packet->protocol);
        data.insert(data.end(), packet->information.begin(), packet->information.end());
        if (data.size() > size_t(peer_mru_) - 4)
            data.resize(size_t(peer_mru_) - 4);
        SendControl(lcp_, kProtocolReject, lcp_.next_id++, data);
    }
}

void Engine::SendIp(uint32_t destination, uint8_t protocol, const Bytes& payload) {
    Bytes d = {0x45, 0};
    Put16(d, uint16_t(kIpHeaderBytes + payload.size()));
    Put16(d, ip_identification_++);
    Put16(d, 0); // not fragmented
    d.insert(d.end(), {kTtl, protocol, 0, 0});
    Put32(d, local_address_);
    Put32(d, destination);
    uint16_t checksum = Checksum(d, 0, kIpHeaderBytes);
    d[10] = uint8_t(checksum >> 8);
    d[11] = uint8_t(checksum);
    d.insert(d.end(), payload.begin(), payload.end());
    send_(Wrap(kProtocolIp, d));
}

bool Engine::Ping(uint16_t identifier, uint16_t sequence, const Bytes& data) {
    if (ipcp_.state != State::kOpened ||
        kIpHeaderBytes + kIcmpHeaderBytes + data.size() > peer_mru_)
        return false;
    Bytes icmp = {kIcmpEchoRequest, 0, 0, 0};
    Put16(icmp, identifier);
    Put16(icmp, sequence);
    icmp.insert(icmp.end(), data.begin(), data.end());
    uint16_t checksum = Checksum(icmp, 0, icmp.size());
    icmp[2] = uint8_t(checksum >> 8);
    icmp[3] = uint8_t(checksum);
    SendIp(peer_address_, kIcmp, icmp);
    return true;
}

// Takes a datagram for our address: ICMP echo requests are answered, echo
// replies kept; anything else, fragments and damaged headers are dropped.
void Engine::ReceiveIp(const Bytes& d) {
    if (ipcp_.state != State::kOpened || d.size() < kIpHeaderBytes || d[0] >> 4 != 4) {
        ++dropped_;
        return;
    }
    size_t header = size_t(d[0] & 0x0f) * 4, total = Get16(d, 2);
    if (header < kIpHeaderBytes || total < header || total > d.size() ||
        Checksum(d, 0, header) != 0 || (Get16(d, 6) & 0x3fff) != 0 ||
        Get32(d, 16) != local_address_ || d[9] != kIcmp || total - header < kIcmpHeaderBytes ||
        Checksum(d, header, total) != 0) {
        ++dropped_;
        return;
    }
    uint32_t source = Get32(d, 12);
    Bytes icmp(d.begin() + long(header), d.begin() + long(total));
    if (icmp[0] == kIcmpEchoRequest && icmp[1] == 0) {
        icmp[0] = kIcmpEchoReply;
        icmp[2] = icmp[3] = 0;
        uint16_t checksum = Checksum(icmp, 0, icmp.size());
        icmp[2] = uint8_t(checksum >> 8);
        icmp[3] = uint8_t(checksum);
        SendIp(source, kIcmp, icmp);
    } else if (icmp[0] == kIcmpEchoReply && icmp[1] == 0) {
        ping_replies_.push_back({source, Get16(icmp, 4), Get16(icmp, 6),
                                 Bytes(icmp.begin() + long(kIcmpHeaderBytes), icmp.end())});
    } else {
        ++dropped_;
    }
}

} // namespace ppp
