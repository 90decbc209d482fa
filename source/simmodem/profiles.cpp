// The built-in modem profiles as constant descriptor tables, and the helpers
// that turn a profile into the descriptor bytes a device sends. Runs on the
// host only; no locks.
#include "simmodem/simmodem.h"

namespace sm {

namespace {

constexpr uint8_t kClassCommunications = 0x02;
constexpr uint8_t kSubclassAcm = 0x02;
constexpr uint8_t kProtocolAtCommands = 0x01;
constexpr uint8_t kClassData = 0x0a;
constexpr uint8_t kCsInterface = 0x24;

// The functional descriptors of an ACM communication interface whose data
// interface is data_interface: header (CDC 1.10), call management (handled by
// the device, over the data interface), abstract control management (line
// coding, control-line state, break), union.
std::vector<std::vector<uint8_t>> AcmFunctional(uint8_t comm_interface, uint8_t data_interface) {
    return {
        {5, kCsInterface, 0x00, 0x10, 0x01},
        {5, kCsInterface, 0x01, 0x03, data_interface},
        {4, kCsInterface, 0x02, 0x06},
        {5, kCsInterface, 0x06, comm_interface, data_interface},
    };
}

uint16_t BulkPacket(hu::Speed speed) {
    return speed == hu::Speed::kFull ? 64 : 512;
}

// Interrupt polling: 16 ms at either speed (bInterval is in frames at full
// speed and an exponent of microframes at high speed).
uint8_t NotifyInterval(hu::Speed speed) {
    return speed == hu::Speed::kFull ? 16 : 8;
}

// One ACM function: the communication interface with its interrupt-in
// endpoint and the data interface with bulk-in and bulk-out.
std::vector<InterfaceTable> AcmFunction(hu::Speed speed, uint8_t first_interface,
                                        uint8_t endpoint_base) {
    return {
        {first_interface,
         kClassCommunications,
         kSubclassAcm,
         kProtocolAtCommands,
         AcmFunctional(first_interface, uint8_t(first_interface + 1)),
         {{uint8_t(0x80 | (endpoint_base + 1)), USB_ENDPOINT_TYPE_INTERRUPT, 16,
           NotifyInterval(speed)}}},
        {uint8_t(first_interface + 1),
         kClassData,
         0,
         0,
         {},
         {{uint8_t(0x80 | endpoint_base), USB_ENDPOINT_TYPE_BULK, BulkPacket(speed), 0},
          {endpoint_base, USB_ENDPOINT_TYPE_BULK, BulkPacket(speed), 0}}},
    };
}

// Configuration index 0 runs from the bus at 100 mA; index 1 takes 500 mA and
// may wake the host.
ConfigurationTable LowPower(std::vector<InterfaceTable> interfaces) {
    return {1, USB_CONFIG_BUS_POWERED, 50, std::move(interfaces), {}, {}, {}};
}
ConfigurationTable HighPower(std::vector<InterfaceTable> interfaces) {
    return {
        2, USB_CONFIG_BUS_POWERED | USB_CONFIG_REMOTE_WAKEUP, 250, std::move(interfaces), {}, {},
        {}};
}

void PutWord(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(uint8_t(value));
    out.push_back(uint8_t(value >> 8));
}

} // namespace

Profile OrdinaryModem(hu::Speed speed) {
    Profile profile;
    profile.name = "ordinary";
    profile.manufacturer = "Korva";
    profile.product = "Korva USB Modem";
    profile.serial = "KM0000001";
    profile.commands.identification = {"Korva USB Modem", "Korva", "1.00"};
    profile.configurations = {LowPower(AcmFunction(speed, 0, 1)),
                              HighPower(AcmFunction(speed, 0, 1))};
    return profile;
}

Profile SingleConfiguration(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "single-configuration";
    profile.configurations.resize(1);
    return profile;
}

Profile NoSerialNumber(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "no-serial-number";
    profile.serial.reset();
    return profile;
}

Profile CompositeTwoAcm(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "composite";
    std::vector<InterfaceTable> interfaces = AcmFunction(speed, 0, 1);
    std::vector<InterfaceTable> second = AcmFunction(speed, 2, 3);
    interfaces.insert(interfaces.end(), second.begin(), second.end());
    profile.configurations = {LowPower(interfaces), HighPower(interfaces)};
    profile.functions = {{0, 1}, {2, 3}};
    return profile;
}

Profile NoInterruptEndpoint(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "no-interrupt-endpoint";
    for (auto& configuration : profile.configurations)
        configuration.interfaces[0].endpoints.clear();
    return profile;
}

Profile SingleInterface(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "single-interface";
    for (auto& configuration : profile.configurations) {
        InterfaceTable& comm = configuration.interfaces[0];
        for (const EndpointTable& endpoint : configuration.interfaces[1].endpoints)
            comm.endpoints.push_back(endpoint);
        configuration.interfaces.resize(1);
    }
    return profile;
}

Profile GrowingTotalLength(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "growing-total-length";
    for (auto& configuration : profile.configurations)
        configuration.reported_total_length = 200;
    return profile;
}

Profile ZeroLengthDescriptor(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "zero-length-descriptor";
    for (auto& configuration : profile.configurations)
        configuration.zero_length_before = 1;
    return profile;
}

// A modem that announces remote wake-up in every configuration, so that
// the bus reports it can wake the system.
Profile WakingModem(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "waking";
    for (ConfigurationTable& configuration : profile.configurations)
        configuration.attributes |= USB_CONFIG_REMOTE_WAKEUP;
    return profile;
}

Profile BusyModem(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "busy";
    profile.commands.dial_outcome = DialOutcome::kBusy;
    return profile;
}

Profile NoAnswerModem(hu::Speed speed) {
    Profile profile = OrdinaryModem(speed);
    profile.name = "no-answer";
    profile.commands.dial_outcome = DialOutcome::kNoAnswer;
    return profile;
}

StringIndices StringIndicesOf(const Profile& profile) {
    if (profile.raw_device && profile.raw_device->size() >= 17)
        return {(*profile.raw_device)[14], (*profile.raw_device)[15], (*profile.raw_device)[16]};
    return {1, 2, uint8_t(profile.serial ? 3 : 0)};
}

std::vector<uint8_t> DeviceDescriptorBytes(const Profile& profile) {
    if (profile.raw_device)
        return *profile.raw_device;
    bool composite = profile.functions.size() > 1;
    std::vector<uint8_t> out = {18, USB_DEVICE_DESCRIPTOR_TYPE};
    PutWord(out, 0x0200);
    // A composite device announces interface associations; a single ACM
    // function is a communications device.
    out.push_back(composite ? 0xef : kClassCommunications);
    out.push_back(composite ? 0x02 : 0);
    out.push_back(composite ? 0x01 : 0);
    out.push_back(64);
    PutWord(out, profile.vendor_id);
    PutWord(out, profile.product_id);
    PutWord(out, profile.bcd_device);
    out.push_back(1);
    out.push_back(2);
    out.push_back(profile.serial ? 3 : 0);
    out.push_back(uint8_t(profile.configurations.size()));
    return out;
}

std::vector<uint8_t> ConfigurationBytes(const ConfigurationTable& configuration) {
    if (configuration.raw)
        return *configuration.raw;
    std::vector<uint8_t> out = {9,
                                USB_CONFIGURATION_DESCRIPTOR_TYPE,
                                0,
                                0,
                                uint8_t(configuration.interfaces.size()),
                                configuration.value,
                                0,
                                configuration.attributes,
                                configuration.max_power};
    for (size_t i = 0; i < configuration.interfaces.size(); ++i) {
        const InterfaceTable& interface = configuration.interfaces[i];
        if (configuration.zero_length_before == i)
            out.insert(out.end(), {0, 0});
        // Two functions of one device are bound by interface associations.
        if (interface.cls == kClassCommunications && configuration.interfaces.size() > 2)
            out.insert(out.end(), {8, 0x0b, interface.number, 2, kClassCommunications, kSubclassAcm,
                                   kProtocolAtCommands, 0});
        out.insert(out.end(), {9, USB_INTERFACE_DESCRIPTOR_TYPE, interface.number, 0,
                               uint8_t(interface.endpoints.size()), interface.cls,
                               interface.subclass, interface.protocol, 0});
        for (const auto& functional : interface.functional)
            out.insert(out.end(), functional.begin(), functional.end());
        for (const EndpointTable& endpoint : interface.endpoints) {
            out.insert(out.end(),
                       {7, USB_ENDPOINT_DESCRIPTOR_TYPE, endpoint.address, endpoint.attributes});
            PutWord(out, endpoint.max_packet);
            out.push_back(endpoint.interval);
        }
    }
    uint16_t total = configuration.reported_total_length.value_or(uint16_t(out.size()));
    out[2] = uint8_t(total);
    out[3] = uint8_t(total >> 8);
    return out;
}

std::vector<uint8_t> StringBytes(const std::string& text) {
    std::vector<uint8_t> out = {uint8_t(2 + 2 * text.size()), USB_STRING_DESCRIPTOR_TYPE};
    for (char c : text)
        PutWord(out, uint8_t(c));
    return out;
}

} // namespace sm
