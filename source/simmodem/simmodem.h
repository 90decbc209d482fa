// Simulated CDC-ACM modems: profiles described as constant descriptor
// tables, the helpers that turn them into descriptor bytes, and the modem
// that answers the bus: standard, CDC and vendor requests (recorded with
// their virtual time), loopback or test data, the PPP framing mode's modem
// packets, and notifications on demand.
//
// Environment: a modem is called by the bus in its completion context
// (DISPATCH_LEVEL) and by the test thread; both run on the one emulated
// processor, so the modem's state needs no lock of its own.
#pragma once

#include "hostusb/bus.h"
#include "ppp/ppp.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sm {

// CDC requests and notifications the modem knows.
constexpr uint8_t kSetLineCoding = 0x20;
constexpr uint8_t kGetLineCoding = 0x21;
constexpr uint8_t kSetControlLineState = 0x22;
constexpr uint8_t kSendBreak = 0x23;
constexpr uint8_t kGetSpecialChars = 0x60;
constexpr uint8_t kStartFraming = 0x61;
constexpr uint8_t kStopFraming = 0x62;
constexpr uint8_t kNetworkConnection = 0x00;
constexpr uint8_t kSerialState = 0x20;
constexpr uint8_t kRequestToStartFraming = 0x10;
constexpr uint8_t kRequestToStopFraming = 0x11;

struct EndpointTable {
    uint8_t address;
    uint8_t attributes; // transfer type
    uint16_t max_packet;
    uint8_t interval;
};

struct InterfaceTable {
    uint8_t number;
    uint8_t cls, subclass, protocol;
    std::vector<std::vector<uint8_t>> functional; // class-specific descriptors, as bytes
    std::vector<EndpointTable> endpoints;
};

struct ConfigurationTable {
    uint8_t value;
    uint8_t attributes; // bmAttributes
    uint8_t max_power;  // 2 mA units
    std::vector<InterfaceTable> interfaces;
    // A descriptor of bLength 0 inserted before this interface (index).
    std::optional<size_t> zero_length_before;
    // wTotalLength as the device reports it, when it lies.
    std::optional<uint16_t> reported_total_length;
    // The configuration descriptor with all that follows it exactly as a
    // real device sent it: answered as it is, whatever the fields above say
    // (they hold what could be parsed from it, so that the modem knows its
    // endpoints).
    std::optional<std::vector<uint8_t>> raw;
};

// What a dial leads to.
enum class DialOutcome { kConnect, kBusy, kNoAnswer };

// The command mode's behaviour (a Hayes-style command set with the syntax
// and result codes of ITU-T V.250). ATZ and AT&F restore these defaults.
struct CommandSet {
    std::vector<std::string> identification; // ATI0, ATI1, ... (others: ERROR)
    DialOutcome dial_outcome = DialOutcome::kConnect;
    int64_t dial_ms = 2000; // from ATD to CONNECT or BUSY
    uint32_t connect_speed = 115200;
    bool ppp = true; // on connect the modem asks the host for PPP framing
    uint8_t s0_answer_rings = 0;
    uint8_t s7_carrier_wait_s = 50;   // NO ANSWER, or NO CARRIER, after this
    uint8_t s12_guard_fiftieths = 50; // the escape's guard time, 1/50 s
    // Once framing is on after a dial, the modem is the PPP peer: it waits
    // for the host's first frame, then negotiates, gives the host
    // peer_address and answers pings at address.
    uint32_t address = 0x0a000001;      // 10.0.0.1
    uint32_t peer_address = 0x0a000002; // 10.0.0.2
};

struct Profile {
    std::string name;
    uint16_t vendor_id = 0xfff0; // a test identifier
    uint16_t product_id = 0x0001;
    uint16_t bcd_device = 0x0100;
    std::string manufacturer;
    std::string product;
    std::optional<std::string> serial; // none: iSerialNumber 0
    // The device descriptor exactly as a real device sent it; its string
    // indices say which index answers manufacturer, product and serial.
    std::optional<std::vector<uint8_t>> raw_device;
    std::vector<ConfigurationTable> configurations;
    // Interface numbers per function; one function holding every interface
    // when empty.
    std::vector<std::vector<uint8_t>> functions;
    CommandSet commands;
};

// The built-in profiles; packets are 64 bytes at full speed and 512 at high
// speed.
Profile OrdinaryModem(hu::Speed speed = hu::Speed::kFull);
Profile SingleConfiguration(hu::Speed speed = hu::Speed::kFull);
Profile NoSerialNumber(hu::Speed speed = hu::Speed::kFull);
Profile CompositeTwoAcm(hu::Speed speed = hu::Speed::kFull);
Profile NoInterruptEndpoint(hu::Speed speed = hu::Speed::kFull);
Profile SingleInterface(hu::Speed speed = hu::Speed::kFull);
Profile GrowingTotalLength(hu::Speed speed = hu::Speed::kFull); // reports more than it has
Profile ZeroLengthDescriptor(hu::Speed speed = hu::Speed::kFull);
Profile WakingModem(hu::Speed speed = hu::Speed::kFull);   // remote wake-up in every configuration
Profile BusyModem(hu::Speed speed = hu::Speed::kFull);     // dials get BUSY
Profile NoAnswerModem(hu::Speed speed = hu::Speed::kFull); // dials get NO ANSWER

// Descriptor bytes of a profile (the raw bytes when it has them), and the
// string index of manufacturer, product and serial number (0: none).
std::vector<uint8_t> DeviceDescriptorBytes(const Profile& profile);
std::vector<uint8_t> ConfigurationBytes(const ConfigurationTable& configuration);
struct StringIndices {
    uint8_t manufacturer, product, serial;
};
StringIndices StringIndicesOf(const Profile& profile);
std::vector<uint8_t> StringBytes(const std::string& text); // UTF-16LE, ASCII in

// A request the modem received on its default pipe, with its virtual time.
struct RecordedRequest {
    int64_t time_ms;
    hu::SetupPacket setup;
    std::vector<uint8_t> data; // host-to-device data stage
};

class Modem : public hu::Device {
  public:
    // Loopback sends the host's bytes back; test keeps them for Pull; command
    // runs the AT interpreter on them (hayes.cpp): a dial that connects goes
    // on-line, with data kept for Pull as in test mode.
    enum class DataMode { kLoopback, kTest, kCommand };
    explicit Modem(Profile profile, DataMode mode = DataMode::kTest);
    ~Modem() override;
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    // hu::Device
    hu::ControlAnswer Control(const hu::SetupPacket& setup,
                              const std::vector<uint8_t>& out_data) override;
    void Out(uint8_t endpoint, const std::vector<uint8_t>& data) override;
    std::optional<std::vector<uint8_t>> In(uint8_t endpoint, uint16_t max_packet) override;
    std::vector<std::vector<uint8_t>> Functions() const override;

    const Profile& profile() const { return profile_; }
    // Class and vendor requests, in order (standard ones are not kept).
    const std::vector<RecordedRequest>& Requests() const { return requests_; }
    // A modem kept plugged across many runs (a fuzzer's) forgets them after
    // each, or the record grows without bound.
    void ForgetRequests() { requests_.clear(); }
    // Line coding as last set (7 bytes).
    const std::vector<uint8_t>& LineCoding() const { return line_coding_; }
    uint16_t ControlLineState() const { return control_lines_; }
    uint8_t Configuration() const { return configuration_; }
    // The answer to the special-character request.
    void SetSpecialChars(std::vector<uint8_t> table) { special_chars_ = std::move(table); }
    // The next special-character request stalls (once).
    void StallNextGetSpecialChars() { stall_special_chars_ = true; }

    // Test mode: bytes for the host to read on the function's bulk-in
    // endpoint, framed by its packet size (a zero-length packet follows a
    // chunk that fills its last packet, and is all an empty chunk sends), and
    // the bytes the host wrote outside framing mode.
    void Push(const std::vector<uint8_t>& data, size_t function = 0);
    std::vector<uint8_t> Pull(size_t function = 0);

    // Everything the modem gave its bulk-in endpoint for the host, when
    // recording was switched on: plain bytes, and the contents of the frames
    // it sent in framing mode, each in order. A tool checks what reached the
    // application against it.
    struct ToHost {
        std::vector<uint8_t> text;
        std::vector<std::vector<uint8_t>> frames;
    };
    void RecordToHost(bool on) { record_to_host_ = on; }
    const ToHost& SentToHost(size_t function = 0) const { return functions_.at(function).to_host; }

    // Framing mode, switched by the start and stop framing requests. The
    // host's bulk-out stream is parsed into modem packets: each packet with
    // good magic and the next sequence number is kept as received (content
    // with the host's FCS), its FCS checked; the others are counted and
    // skipped up to the next 0xAA (a length below the header's own counts as
    // bad magic). In loopback mode each kept frame whose FCS is good comes
    // back as a device packet without it. Each start of framing restarts both
    // directions' numbering; the counters and kept frames last until taken.
    bool Framing(size_t function = 0) const { return functions_.at(function).framing; }
    std::vector<std::vector<uint8_t>> TakeFrames(size_t function = 0);
    uint32_t BadMagic(size_t function = 0) const { return functions_.at(function).bad_magic; }
    uint32_t BadSequence(size_t function = 0) const { return functions_.at(function).bad_sequence; }
    uint32_t BadFcs(size_t function = 0) const { return functions_.at(function).bad_fcs; }
    // One device-to-host modem packet per content (no FCS; more than 2043
    // bytes throw std::length_error), all in one push: they reach the host
    // in the same transfer.
    void PushFrames(const std::vector<std::vector<uint8_t>>& contents, size_t function = 0);
    void PushFrame(const std::vector<uint8_t>& content, size_t function = 0) {
        PushFrames({content}, function);
    }

    // Notifications on the function's interrupt endpoint.
    void SendSerialState(uint16_t state, size_t function = 0);
    void SendNetworkConnection(bool connected, size_t function = 0);
    void SendVendorNotification(uint8_t code, size_t function = 0);
    void RequestFraming(bool start, size_t function = 0);
    // Any bytes, malformed ones included.
    void SendRawNotification(std::vector<uint8_t> bytes, size_t function = 0);

    // Remote wake-up: the modem signals resume on its port, as on an
    // incoming call. What comes of it is the bus's to decide.
    void SignalRemoteWakeup() { RemoteWakeup(); }

    // The PPP peer of a framing connection, if any.
    const ppp::Engine* Peer(size_t function = 0) const {
        return functions_.at(function).peer.get();
    }
    // Command mode: whether the function is connected (on-line, or in
    // on-line command state after an escape), and the register value Sn.
    bool Connected(size_t function = 0) const;
    uint8_t SRegister(uint8_t n, size_t function = 0) const;

  private:
    struct AtState; // hayes.cpp
    struct AtStateDelete {
        void operator()(AtState* state) const;
    };
    struct FunctionData {
        uint8_t comm_interface = 0;
        uint8_t bulk_in = 0, bulk_out = 0, interrupt_in = 0;
        uint16_t bulk_in_packet = 64;
        std::deque<std::vector<uint8_t>> in_packets; // bulk-in, framed
        std::deque<std::vector<uint8_t>> notifications;
        std::vector<uint8_t> written;
        bool framing = false;
        std::vector<uint8_t> stream;  // bulk-out bytes not yet parsed
        bool resynchronising = false; // skipping up to the next 0xAA
        uint8_t host_sequence = 0;    // expected next
        uint8_t device_sequence = 0;
        std::vector<std::vector<uint8_t>> frames;
        uint32_t bad_magic = 0, bad_sequence = 0, bad_fcs = 0;
        std::unique_ptr<AtState, AtStateDelete> at; // command mode only
        std::unique_ptr<ppp::Engine> peer;          // framing after a dial
        // A result code of a hang-up while framing is on waits until the
        // host has stopped framing, so that it arrives as plain text.
        std::vector<uint8_t> after_framing;
        ToHost to_host;
    };
    const ConfigurationTable* Selected() const;
    void Configure(uint8_t value);
    FunctionData* ByEndpoint(uint8_t endpoint);
    FunctionData* ByCommInterface(uint8_t interface);
    void Queue(const std::vector<uint8_t>& data, FunctionData& f);
    void StartFraming(FunctionData& f);
    void ParseStream(FunctionData& f);
    void Notify(size_t function, std::vector<uint8_t> packet);
    std::optional<std::vector<uint8_t>> Descriptor(uint8_t type, uint8_t index, uint16_t language);
    // Command mode (hayes.cpp).
    void AtReceive(FunctionData& f, const std::vector<uint8_t>& data);
    void AtLine(FunctionData& f, const std::string& line, std::string& out);
    void AtTimer(FunctionData& f);
    void CreateCommandState();
    void AtHangUp(FunctionData& f);
    void AtDtr(FunctionData& f, bool was_on, bool on);
    static VOID NTAPI AtTimerDpc(KDPC* dpc, PVOID context, PVOID, PVOID);

    Profile profile_;
    DataMode mode_;
    uint8_t configuration_ = 0;
    bool record_to_host_ = false;
    std::vector<FunctionData> functions_;
    std::vector<RecordedRequest> requests_;
    std::vector<uint8_t> line_coding_{0x80, 0x25, 0, 0, 0, 0, 8}; // 9600 8N1
    uint16_t control_lines_ = 0;
    uint16_t break_state_ = 0;
    std::vector<uint8_t> special_chars_{0x7e, 0x7d};
    bool stall_special_chars_ = false;
};

} // namespace sm
