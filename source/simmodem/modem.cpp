// The simulated modem's behaviour: standard requests from its descriptor
// tables, the CDC and vendor requests of an ACM modem (recorded with their
// virtual time), a stall for anything else, bulk data in loopback or test
// mode, transparent or as modem packets of the PPP framing mode, the way
// into the AT command mode (hayes.cpp), and notifications on the interrupt
// endpoint on demand. Runs in the bus's completion context or on the test
// thread; no locks.
#include "simmodem/simmodem.h"

#include <algorithm>
#include <utility>
#include <stdexcept>

namespace sm {

namespace {

constexpr uint8_t kLanguageEnglishUs[] = {4, USB_STRING_DESCRIPTOR_TYPE, 0x09, 0x04};
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kTypeStandard = 0x00;
constexpr uint8_t kTypeClass = 0x20;
constexpr uint8_t kTypeVendor = 0x40;
constexpr uint8_t kRecipientInterface = 0x01;
constexpr uint16_t kDtr = 0x0001; // SET_CONTROL_LINE_STATE

// Modem packets: magic 0xAA 0xBB, then a big-endian word of a 5-bit
// sequence number and an 11-bit length that counts the header too.
constexpr uint8_t kMagicLow = 0xaa;
constexpr uint8_t kMagicHigh = 0xbb;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kLengthMask = 0x7ff;
constexpr size_t kMaxContent = kLengthMask - kHeaderBytes;
constexpr uint8_t kSequences = 32;
constexpr size_t kFcsBytes = 2;

} // namespace

Modem::Modem(Profile profile, DataMode mode) : profile_(std::move(profile)), mode_(mode) {
    if (profile_.functions.empty()) {
        std::vector<uint8_t> all;
        for (const InterfaceTable& interface : profile_.configurations.at(0).interfaces)
            all.push_back(interface.number);
        profile_.functions = {all};
    }
    functions_.resize(profile_.functions.size());
    Configure(0);
    if (mode_ == DataMode::kCommand)
        CreateCommandState();
}

std::vector<std::vector<uint8_t>> Modem::Functions() const {
    return profile_.functions;
}

const ConfigurationTable* Modem::Selected() const {
    for (const ConfigurationTable& configuration : profile_.configurations)
        if (configuration.value == configuration_)
            return &configuration;
    return nullptr;
}

// Learns each function's endpoints from the selected configuration (the
// first one while unconfigured, so that pushed data is framed alike).
void Modem::Configure(uint8_t value) {
    configuration_ = value;
    const ConfigurationTable* configuration = Selected();
    if (configuration == nullptr)
        configuration = &profile_.configurations.at(0);
    for (size_t f = 0; f < functions_.size(); ++f) {
        FunctionData& data = functions_[f];
        // A function without interfaces (a configuration that has none)
        // has no pipes either.
        data.comm_interface = profile_.functions[f].empty() ? 0 : profile_.functions[f][0];
        for (const InterfaceTable& interface : configuration->interfaces) {
            const auto& numbers = profile_.functions[f];
            if (std::find(numbers.begin(), numbers.end(), interface.number) == numbers.end())
                continue;
            for (const EndpointTable& endpoint : interface.endpoints) {
                if (endpoint.attributes == USB_ENDPOINT_TYPE_INTERRUPT) {
                    data.interrupt_in = endpoint.address;
                } else if (endpoint.address & USB_ENDPOINT_DIRECTION_MASK) {
                    data.bulk_in = endpoint.address;
                    data.bulk_in_packet = endpoint.max_packet;
                } else {
                    data.bulk_out = endpoint.address;
                }
            }
        }
    }
}

std::optional<std::vector<uint8_t>> Modem::Descriptor(uint8_t type, uint8_t index,
                                                      uint16_t language) {
    switch (type) {
    case USB_DEVICE_DESCRIPTOR_TYPE:
        return DeviceDescriptorBytes(profile_);
    case USB_CONFIGURATION_DESCRIPTOR_TYPE:
        if (index >= profile_.configurations.size())
            return std::nullopt;
        return ConfigurationBytes(profile_.configurations[index]);
    case USB_STRING_DESCRIPTOR_TYPE:
        if (index == 0)
            return std::vector<uint8_t>(std::begin(kLanguageEnglishUs),
                                        std::end(kLanguageEnglishUs));
        if (language != 0x0409)
            return std::nullopt;
        if (StringIndices strings = StringIndicesOf(profile_); index == strings.manufacturer)
            return StringBytes(profile_.manufacturer);
        else if (index == strings.product)
            return StringBytes(profile_.product);
        else if (index == strings.serial && profile_.serial)
            return StringBytes(*profile_.serial);
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

hu::ControlAnswer Modem::Control(const hu::SetupPacket& setup,
                                 const std::vector<uint8_t>& out_data) {
    uint8_t type = setup.request_type & kTypeMask;
    if (type == kTypeStandard) {
        switch (setup.request) {
        case USB_REQUEST_GET_DESCRIPTOR: {
            auto bytes = Descriptor(uint8_t(setup.value >> 8), uint8_t(setup.value), setup.index);
            if (!bytes)
                return hu::ControlAnswer::Stall();
            bytes->resize(std::min<size_t>(bytes->size(), setup.length));
            return {false, *bytes};
        }
        case USB_REQUEST_SET_CONFIGURATION: {
            uint8_t value = uint8_t(setup.value);
            bool known = value == 0;
            for (const ConfigurationTable& configuration : profile_.configurations)
                known = known || configuration.value == value;
            if (!known)
                return hu::ControlAnswer::Stall();
            Configure(value);
            return {};
        }
        case USB_REQUEST_GET_CONFIGURATION:
            return {false, {configuration_}};
        case USB_REQUEST_GET_STATUS:
            return {false, {0, 0}};
        case USB_REQUEST_CLEAR_FEATURE:
            return {};
        default:
            return hu::ControlAnswer::Stall();
        }
    }
    // Class and vendor requests go to a communication interface of a
    // configured device.
    FunctionData* function = (setup.request_type & 0x1f) == kRecipientInterface
                                 ? ByCommInterface(uint8_t(setup.index))
                                 : nullptr;
    if (configuration_ == 0 || function == nullptr)
        return hu::ControlAnswer::Stall();
    hu::ControlAnswer answer;
    bool in = setup.DeviceToHost();
    if (type == kTypeClass && setup.request == kSetLineCoding && !in && out_data.size() == 7) {
        line_coding_ = out_data;
    } else if (type == kTypeClass && setup.request == kGetLineCoding && in) {
        answer.data = line_coding_;
    } else if (type == kTypeClass && setup.request == kSetControlLineState && !in) {
        if (function->at)
            AtDtr(*function, control_lines_ & kDtr, setup.value & kDtr);
        control_lines_ = setup.value;
    } else if (type == kTypeClass && setup.request == kSendBreak && !in) {
        break_state_ = setup.value;
    } else if (type == kTypeVendor && setup.request == kGetSpecialChars && in) {
        if (stall_special_chars_) {
            stall_special_chars_ = false;
            return hu::ControlAnswer::Stall();
        }
        answer.data = special_chars_;
    } else if (type == kTypeVendor && setup.request == kStartFraming && !in) {
        StartFraming(*function);
    } else if (type == kTypeVendor && setup.request == kStopFraming && !in) {
        function->framing = false;
        function->peer.reset();
        if (!function->after_framing.empty())
            Push(std::exchange(function->after_framing, {}), size_t(function - functions_.data()));
    } else {
        return hu::ControlAnswer::Stall();
    }
    if (answer.data.size() > setup.length)
        answer.data.resize(setup.length);
    requests_.push_back({hk::Kernel::Current().NowMs(), setup, out_data});
    return answer;
}

Modem::FunctionData* Modem::ByEndpoint(uint8_t endpoint) {
    for (FunctionData& f : functions_)
        if (f.bulk_in == endpoint || f.bulk_out == endpoint || f.interrupt_in == endpoint)
            return &f;
    return nullptr;
}

Modem::FunctionData* Modem::ByCommInterface(uint8_t interface) {
    for (FunctionData& f : functions_)
        if (f.comm_interface == interface)
            return &f;
    return nullptr;
}

void Modem::Out(uint8_t endpoint, const std::vector<uint8_t>& data) {
    FunctionData* f = ByEndpoint(endpoint);
    if (f == nullptr)
        return;
    if (f->framing) {
        f->stream.insert(f->stream.end(), data.begin(), data.end());
        ParseStream(*f);
    } else if (mode_ == DataMode::kLoopback)
        Push(data, size_t(f - functions_.data()));
    else if (mode_ == DataMode::kCommand)
        AtReceive(*f, data);
    else
        f->written.insert(f->written.end(), data.begin(), data.end());
}

std::optional<std::vector<uint8_t>> Modem::In(uint8_t endpoint, uint16_t max_packet) {
    FunctionData* f = ByEndpoint(endpoint);
    if (f == nullptr)
        return std::nullopt;
    auto& queue = endpoint == f->interrupt_in ? f->notifications : f->in_packets;
    if (queue.empty())
        return std::nullopt;
    std::vector<uint8_t> packet = std::move(queue.front());
    queue.pop_front();
    if (packet.size() > max_packet)
        packet.resize(max_packet);
    return packet;
}

void Modem::StartFraming(FunctionData& f) {
    f.framing = true;
    f.stream.clear();
    f.resynchronising = false;
    f.host_sequence = 0;
    f.device_sequence = 0;
    f.peer.reset();
    if (f.at && Connected(size_t(&f - functions_.data())) && profile_.commands.ppp) {
        ppp::Config config;
        config.server = true;
        config.local_address = profile_.commands.address;
        config.address_for_peer = profile_.commands.peer_address;
        size_t function = size_t(&f - functions_.data());
        f.peer = std::make_unique<ppp::Engine>(
            config, [this, function](const ppp::Bytes& frame) { PushFrame(frame, function); });
    }
}

// Takes every whole modem packet off the front of the host's stream; a
// packet still incomplete waits for the next transfer. A bad header is
// counted once and the bytes up to the next 0xAA are skipped uncounted; a
// length shorter than the header counts as a bad header. After a packet out
// of sequence the expected number follows the host's.
void Modem::ParseStream(FunctionData& f) {
    std::vector<uint8_t>& s = f.stream;
    size_t at = 0;
    auto skip = [&](uint32_t& counter) {
        if (!f.resynchronising)
            ++counter;
        f.resynchronising = true;
        ++at;
    };
    while (at < s.size()) {
        if (s[at] != kMagicLow) {
            skip(f.bad_magic);
            continue;
        }
        f.resynchronising = false;
        if (s.size() - at < kHeaderBytes)
            break;
        size_t word = size_t(s[at + 2]) << 8 | s[at + 3];
        uint8_t sequence = uint8_t(word >> 11);
        size_t length = word & kLengthMask;
        if (s[at + 1] != kMagicHigh || length < kHeaderBytes) {
            skip(f.bad_magic);
            continue;
        }
        if (sequence != f.host_sequence) {
            f.host_sequence = (sequence + 1) % kSequences;
            skip(f.bad_sequence);
            continue;
        }
        if (s.size() - at < length)
            break;
        std::vector<uint8_t> frame(s.begin() + long(at + kHeaderBytes),
                                   s.begin() + long(at + length));
        at += length;
        f.host_sequence = (sequence + 1) % kSequences;
        bool good =
            frame.size() >= kFcsBytes && ppp::Fcs16(frame.data(), frame.size()) == ppp::kGoodFcs;
        if (!good)
            ++f.bad_fcs;
        // A looped-back frame with a bad FCS is dropped, as a PPP peer would.
        // The peer opens at the host's first frame, so that nothing of its
        // own reaches the host before the host frames.
        if (good && f.peer) {
            if (f.peer->Lcp() == ppp::Engine::State::kInitial)
                f.peer->Open();
            f.peer->Receive(std::vector<uint8_t>(frame.begin(), frame.end() - kFcsBytes));
        } else if (good && mode_ == DataMode::kLoopback)
            PushFrame(std::vector<uint8_t>(frame.begin(), frame.end() - kFcsBytes),
                      size_t(&f - functions_.data()));
        f.frames.push_back(std::move(frame));
    }
    s.erase(s.begin(), s.begin() + long(at));
}

std::vector<std::vector<uint8_t>> Modem::TakeFrames(size_t function) {
    std::vector<std::vector<uint8_t>> frames;
    frames.swap(functions_.at(function).frames);
    return frames;
}

void Modem::PushFrames(const std::vector<std::vector<uint8_t>>& contents, size_t function) {
    FunctionData& f = functions_.at(function);
    std::vector<uint8_t> packets;
    for (const std::vector<uint8_t>& content : contents) {
        if (content.size() > kMaxContent)
            throw std::length_error("a modem packet holds at most 2043 content bytes");
        size_t word = size_t(f.device_sequence) << 11 | (content.size() + kHeaderBytes);
        f.device_sequence = (f.device_sequence + 1) % kSequences;
        packets.insert(packets.end(), {kMagicLow, kMagicHigh, uint8_t(word >> 8), uint8_t(word)});
        packets.insert(packets.end(), content.begin(), content.end());
    }
    if (record_to_host_)
        f.to_host.frames.insert(f.to_host.frames.end(), contents.begin(), contents.end());
    Queue(packets, f);
}

void Modem::Push(const std::vector<uint8_t>& data, size_t function) {
    FunctionData& f = functions_.at(function);
    if (record_to_host_)
        f.to_host.text.insert(f.to_host.text.end(), data.begin(), data.end());
    Queue(data, f);
}

// Each push ends with a short packet, or with a zero-length one when its
// last packet is full (an empty push is a zero-length packet alone), so a
// host transfer never runs from one push into the next.
void Modem::Queue(const std::vector<uint8_t>& data, FunctionData& f) {
    size_t packet = f.bulk_in_packet;
    for (size_t at = 0; at < data.size(); at += packet)
        f.in_packets.emplace_back(data.begin() + long(at),
                                  data.begin() + long(std::min(data.size(), at + packet)));
    if (data.size() % packet == 0)
        f.in_packets.emplace_back();
    DataReady(f.bulk_in);
}

std::vector<uint8_t> Modem::Pull(size_t function) {
    std::vector<uint8_t> written;
    written.swap(functions_.at(function).written);
    return written;
}

void Modem::Notify(size_t function, std::vector<uint8_t> packet) {
    FunctionData& f = functions_.at(function);
    if (f.interrupt_in == 0)
        return;
    f.notifications.push_back(std::move(packet));
    DataReady(f.interrupt_in);
}

void Modem::SendSerialState(uint16_t state, size_t function) {
    uint8_t interface = functions_.at(function).comm_interface;
    Notify(function,
           {0xa1, kSerialState, 0, 0, interface, 0, 2, 0, uint8_t(state), uint8_t(state >> 8)});
}

void Modem::SendNetworkConnection(bool connected, size_t function) {
    uint8_t interface = functions_.at(function).comm_interface;
    Notify(function, {0xa1, kNetworkConnection, uint8_t(connected ? 1 : 0), 0, interface, 0, 0, 0});
}

void Modem::SendVendorNotification(uint8_t code, size_t function) {
    uint8_t interface = functions_.at(function).comm_interface;
    Notify(function, {0xc1, code, 0, 0, interface, 0, 0, 0});
}

void Modem::RequestFraming(bool start, size_t function) {
    SendVendorNotification(start ? kRequestToStartFraming : kRequestToStopFraming, function);
}

void Modem::SendRawNotification(std::vector<uint8_t> bytes, size_t function) {
    Notify(function, std::move(bytes));
}

} // namespace sm
