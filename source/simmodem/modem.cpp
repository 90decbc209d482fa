// The simulated modem's behaviour: standard requests from its descriptor
// tables, the CDC and vendor requests of an ACM modem (recorded with their
// virtual time), a stall for anything else, bulk data in loopback or test
// mode, and notifications on the interrupt endpoint on demand. Runs in the
// bus's completion context or on the test thread; no locks.
#include "simmodem/simmodem.h"

#include <algorithm>

namespace sm {

namespace {

constexpr uint8_t kLanguageEnglishUs[] = {4, USB_STRING_DESCRIPTOR_TYPE, 0x09, 0x04};
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kTypeStandard = 0x00;
constexpr uint8_t kTypeClass = 0x20;
constexpr uint8_t kTypeVendor = 0x40;
constexpr uint8_t kRecipientInterface = 0x01;

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
        data.comm_interface = profile_.functions[f].at(0);
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
        if (index == 1)
            return StringBytes(profile_.manufacturer);
        if (index == 2)
            return StringBytes(profile_.product);
        if (index == 3 && profile_.serial)
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
    bool to_comm = (setup.request_type & 0x1f) == kRecipientInterface &&
                   std::any_of(functions_.begin(), functions_.end(), [&](const FunctionData& f) {
                       return f.comm_interface == uint8_t(setup.index);
                   });
    if (configuration_ == 0 || !to_comm)
        return hu::ControlAnswer::Stall();
    hu::ControlAnswer answer;
    bool in = setup.DeviceToHost();
    if (type == kTypeClass && setup.request == kSetLineCoding && !in && out_data.size() == 7) {
        line_coding_ = out_data;
    } else if (type == kTypeClass && setup.request == kGetLineCoding && in) {
        answer.data = line_coding_;
    } else if (type == kTypeClass && setup.request == kSetControlLineState && !in) {
        control_lines_ = setup.value;
    } else if (type == kTypeClass && setup.request == kSendBreak && !in) {
        break_state_ = setup.value;
    } else if (type == kTypeVendor && setup.request == kGetSpecialChars && in) {
        answer.data = special_chars_;
    } else if (type == kTypeVendor &&
               (setup.request == kStartFraming || setup.request == kStopFraming) && !in) {
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

void Modem::Out(uint8_t endpoint, const std::vector<uint8_t>& data) {
    FunctionData* f = ByEndpoint(endpoint);
    if (f == nullptr)
        return;
    if (mode_ == DataMode::kLoopback)
        Push(data, size_t(f - functions_.data()));
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

void Modem::Push(const std::vector<uint8_t>& data, size_t function) {
    FunctionData& f = functions_.at(function);
    size_t packet = f.bulk_in_packet;
    for (size_t at = 0; at < data.size(); at += packet)
        f.in_packets.emplace_back(data.begin() + long(at),
                                  data.begin() + long(std::min(data.size(), at + packet)));
    if (!data.empty() && data.size() % packet == 0)
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

} // namespace sm
