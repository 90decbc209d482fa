// A small PPP protocol engine for the host side of the simulation: one state
// machine (the option negotiation automaton of RFC 1661) run for LCP (RFC
// 1661: MRU, ACCM and magic number; echo; terminate) and for IPCP (RFC 1332:
// the address, which the server side assigns through configure-nak), and
// IPv4 with ICMP echo (RFC 791, RFC 792), so that a client can ping its
// peer. The engine exchanges frames (address, control, protocol and
// information, without FCS); the HDLC-like framing of RFC 1662 carries them
// for a client on the COM port (the simulated modem parses the driver's
// modem packets itself).
//
// Ordinary user-mode C++; one thread at a time. The engine keeps no timer:
// its owner calls Timeout when RFC 1661's restart timer would expire (a
// frame sent before the link carries it is lost, as a real client's first
// configure-request often is) and bounds the retries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace ppp {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kProtocolIp = 0x0021;
constexpr uint16_t kProtocolIpcp = 0x8021;
constexpr uint16_t kProtocolLcp = 0xc021;

// The FCS-16 of RFC 1662 (table-driven), from fcs over bytes; a frame with
// its FCS leaves kGoodFcs.
constexpr uint16_t kInitialFcs = 0xffff;
constexpr uint16_t kGoodFcs = 0xf0b8;
uint16_t Fcs16(const uint8_t* bytes, size_t length, uint16_t fcs = kInitialFcs);
// The frame followed by its FCS, low byte first.
Bytes WithFcs(Bytes frame);

// A framing turns frames into line bytes and line bytes back into frames
// whose FCS was good; the others are counted.
class Framing {
  public:
    virtual ~Framing() = default;
    virtual Bytes Encode(const Bytes& frame) = 0;
    virtual std::vector<Bytes> Decode(const Bytes& bytes) = 0;
    uint32_t Errors() const { return errors_; }

  protected:
    uint32_t errors_ = 0;
};

// RFC 1662 section 4: flags 0x7E, the control escape 0x7D with XOR 0x20,
// the control characters of the async control character map escaped; a
// received frame's unescaped control characters of the map are dropped, an
// escape before a flag aborts the frame. Both maps start with every
// control character (the default until LCP agrees on others).
class HdlcFraming : public Framing {
  public:
    Bytes Encode(const Bytes& frame) override;
    std::vector<Bytes> Decode(const Bytes& bytes) override;
    void SetSendAccm(uint32_t accm) { send_accm_ = accm; }
    void SetReceiveAccm(uint32_t accm) { receive_accm_ = accm; }
    static constexpr size_t kMaxFrame = 4096; // unescaped, FCS included

  private:
    uint32_t send_accm_ = 0xffffffff, receive_accm_ = 0xffffffff;
    Bytes frame_;
    bool escaped_ = false, overlong_ = false;
};

// The frame's protocol and information when it carries the address and
// control fields 0xFF 0x03 (neither side agrees to compress them).
struct Packet {
    uint16_t protocol;
    Bytes information;
};
std::optional<Packet> Unwrap(const Bytes& frame);
Bytes Wrap(uint16_t protocol, const Bytes& information);

struct Config {
    // The server assigns the client's address; the client asks for 0.0.0.0
    // and takes what the server's configure-nak offers.
    bool server = false;
    uint32_t local_address = 0;    // the server's own
    uint32_t address_for_peer = 0; // server only
    uint16_t mru = 1500;           // asked for when other than 1500
    uint32_t accm = 0;             // asked for
    uint32_t magic = 0x5a5a0001;   // never 0
};

// One PPP endpoint. Frames go out through send; Receive takes frames in.
class Engine {
  public:
    // RFC 1661's states, without the starting and stopping ones of the
    // lower layer (it is always up here).
    enum class State {
        kInitial,
        kClosed,
        kStopped,
        kClosing,
        kReqSent,
        kAckRcvd,
        kAckSent,
        kOpened
    };

    Engine(Config config, std::function<void(const Bytes& frame)> send);

    void Open();  // starts LCP; IPCP follows when LCP opens
    void Close(); // LCP terminate-request
    // The restart timer expired (RFC 1661's TO+ event, for LCP and IPCP
    // alike): an unanswered configure- or terminate-request goes again.
    void Timeout();
    void Receive(const Bytes& frame);
    // An LCP echo-request with data; replies are counted.
    void SendEcho(const Bytes& data);
    // An ICMP echo request to the peer's address (IPCP opened).
    bool Ping(uint16_t identifier, uint16_t sequence, const Bytes& data);

    State Lcp() const { return lcp_.state; }
    State Ipcp() const { return ipcp_.state; }
    uint32_t LocalAddress() const { return local_address_; }
    uint32_t PeerAddress() const { return peer_address_; }
    uint16_t PeerMru() const { return peer_mru_; }
    uint32_t PeerAccm() const { return peer_accm_; }
    uint32_t Magic() const { return magic_; }
    uint32_t EchoReplies() const { return echo_replies_; }
    struct PingReply {
        uint32_t from;
        uint16_t identifier, sequence;
        Bytes data;
        bool operator==(const PingReply& o) const {
            return from == o.from && identifier == o.identifier && sequence == o.sequence &&
                   data == o.data;
        }
    };
    const std::vector<PingReply>& PingReplies() const { return ping_replies_; }
    uint32_t Dropped() const { return dropped_; } // frames not understood or not for now

  private:
    struct Automaton {
        uint16_t protocol;
        State state = State::kInitial;
        uint8_t next_id = 1, request_id = 0;
        uint8_t terminate_id = 0;
    };
    enum class Verdict { kAck, kNak, kReject };

    void SendControl(Automaton& a, uint8_t code, uint8_t id, const Bytes& data);
    void SendRequest(Automaton& a);
    void ReceiveControl(Automaton& a, const Bytes& information);
    Bytes RequestOptions(const Automaton& a) const;
    Verdict CheckRequest(const Automaton& a, const Bytes& options, Bytes& answer);
    void TakeNak(Automaton& a, const Bytes& options, bool reject);
    void ThisLayerUp(Automaton& a);
    void ThisLayerDown(Automaton& a);
    void ReceiveIp(const Bytes& datagram);
    void SendIp(uint32_t destination, uint8_t protocol, const Bytes& payload);

    Config config_;
    std::function<void(const Bytes&)> send_;
    Automaton lcp_{kProtocolLcp}, ipcp_{kProtocolIpcp};
    // What we ask for; an option the peer rejected is no longer asked for.
    uint16_t mru_;
    uint32_t accm_, magic_;
    bool ask_mru_, ask_accm_ = true, ask_magic_ = true, ask_address_ = true;
    uint32_t local_address_ = 0, peer_address_ = 0;
    uint16_t peer_mru_ = 1500;
    uint32_t peer_accm_ = 0xffffffff, peer_magic_ = 0;
    uint32_t echo_replies_ = 0, dropped_ = 0;
    uint16_t ip_identification_ = 1;
    std::vector<PingReply> ping_replies_;
};

} // namespace ppp
