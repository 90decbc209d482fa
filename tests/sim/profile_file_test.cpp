// Profile files: each built-in file gives exactly the descriptors and
// behaviour of its C++ twin at both speeds; descriptor bytes parse back
// into the tables they came from; the oddities of malformed bytes; values
// a file gives in its other forms (hex, raw, faults), and its errors. (The
// lsusb layout is the sim.modems tests'.)
#include "descriptors.h"
#include "profile_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>

namespace sm {

// The tables a configuration's bytes parse back into compare field by field.
bool operator==(const EndpointTable& a, const EndpointTable& b) {
    return std::tie(a.address, a.attributes, a.max_packet, a.interval) ==
           std::tie(b.address, b.attributes, b.max_packet, b.interval);
}
bool operator==(const InterfaceTable& a, const InterfaceTable& b) {
    return std::tie(a.number, a.cls, a.subclass, a.protocol, a.functional, a.endpoints) ==
           std::tie(b.number, b.cls, b.subclass, b.protocol, b.functional, b.endpoints);
}

} // namespace sm

namespace {

struct Twin {
    const char* name;
    sm::Profile (*make)(hu::Speed);
};

const Twin kTwins[] = {
    {"ordinary", sm::OrdinaryModem},
    {"waking", sm::WakingModem},
    {"busy", sm::BusyModem},
    {"no-answer", sm::NoAnswerModem},
    {"single-configuration", sm::SingleConfiguration},
    {"no-serial-number", sm::NoSerialNumber},
    {"composite", sm::CompositeTwoAcm},
    {"no-interrupt-endpoint", sm::NoInterruptEndpoint},
    {"single-interface", sm::SingleInterface},
    {"growing-total-length", sm::GrowingTotalLength},
    {"zero-length-descriptor", sm::ZeroLengthDescriptor},
};

sim::ModemProfile Load(const std::string& file) {
    sim::LoadedProfile loaded = sim::LoadProfileFile(file);
    EXPECT_TRUE(loaded.profile) << loaded.error;
    return loaded.profile ? *loaded.profile : sim::ModemProfile{};
}

// A built-in file without a twin would go unchecked.
TEST(BuiltInProfiles, EveryFileHasATwin) {
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CDCACM_PROFILES_DIR))
        files += entry.path().extension() == ".json";
    EXPECT_EQ(files, std::size(kTwins));
}

TEST(BuiltInProfiles, EachFileIsItsCppTwinByteForByte) {
    for (const Twin& twin : kTwins) {
        SCOPED_TRACE(twin.name);
        sim::ModemProfile file = Load(std::string(CDCACM_PROFILES_DIR) + "/" + twin.name + ".json");
        ASSERT_EQ(file.name, twin.name);
        EXPECT_EQ(file.default_speed, hu::Speed::kFull);
        EXPECT_TRUE(file.faults.empty());
        for (hu::Speed speed : {hu::Speed::kFull, hu::Speed::kHigh}) {
            SCOPED_TRACE(speed == hu::Speed::kFull ? "full speed" : "high speed");
            ASSERT_TRUE(file.Supports(speed));
            const sm::Profile& got = file.At(speed);
            sm::Profile want = twin.make(speed);
            EXPECT_EQ(sm::DeviceDescriptorBytes(got), sm::DeviceDescriptorBytes(want));
            ASSERT_EQ(got.configurations.size(), want.configurations.size());
            for (size_t i = 0; i < want.configurations.size(); ++i) {
                EXPECT_EQ(sm::ConfigurationBytes(got.configurations[i]),
                          sm::ConfigurationBytes(want.configurations[i]))
                    << "configuration index " << i;
            }
            EXPECT_EQ(sm::StringBytes(got.manufacturer), sm::StringBytes(want.manufacturer));
            EXPECT_EQ(sm::StringBytes(got.product), sm::StringBytes(want.product));
            EXPECT_EQ(got.serial, want.serial);
            EXPECT_EQ(got.functions, want.functions);
            const sm::CommandSet& a = got.commands;
            const sm::CommandSet& b = want.commands;
            EXPECT_EQ(
                std::tie(a.identification, a.dial_outcome, a.dial_ms, a.connect_speed, a.ppp),
                std::tie(b.identification, b.dial_outcome, b.dial_ms, b.connect_speed, b.ppp));
        }
    }
}

// What the modem learns from raw bytes is what the tables said: every
// built-in configuration's bytes parse back into its interfaces, class
// descriptors and endpoints, and a composite's associations into its
// functions.
TEST(ParseConfiguration, GivesBackTheTablesTheBytesCameFrom) {
    for (const Twin& twin : kTwins) {
        SCOPED_TRACE(twin.name);
        sm::Profile profile = twin.make(hu::Speed::kHigh);
        for (const sm::ConfigurationTable& want : profile.configurations) {
            std::vector<uint8_t> bytes = sm::ConfigurationBytes(want);
            sm::ConfigurationTable got = sim::ParseConfiguration(bytes);
            EXPECT_EQ(got.raw, bytes);
            EXPECT_EQ(std::tie(got.value, got.attributes, got.max_power, got.interfaces),
                      std::tie(want.value, want.attributes, want.max_power, want.interfaces));
            std::vector<std::vector<uint8_t>> functions = sim::FunctionsOf(bytes);
            EXPECT_EQ(functions, profile.functions.size() > 1
                                     ? profile.functions
                                     : std::vector<std::vector<uint8_t>>{});
        }
    }
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    for (uint8_t b : bytes) {
        char pair[4];
        std::snprintf(pair, sizeof pair, "%02x ", b);
        text += pair;
    }
    return text;
}

// The ordinary modem at full speed, given as raw bytes in a file with
// bytes [from, to) of its configuration replaced; with fix_length,
// wTotalLength follows the change.
struct Malformed {
    const char* what;
    size_t from, to;
    std::vector<uint8_t> bytes;
    bool fix_length;
    std::vector<const char*> oddities; // part of each line expected, in order
};

Malformed Change(const char* what, size_t from, size_t to, std::vector<uint8_t> bytes,
                 bool fix_length, std::vector<const char*> oddities) {
    return {what, from, to, bytes, fix_length, oddities};
}

const Malformed kMalformed[] = {
    Change("a wTotalLength that lies", 2, 3, {0x50}, false,
           {"configuration index 0: wTotalLength says 80 bytes, but it has 67"}),
    Change("a bLength of 0", 9, 9, {0, 0}, true,
           {"a descriptor of bLength 0 at offset 9 (stepped over as two bytes)"}),
    Change("a bLength past the end (the last endpoint's)", 60, 61, {9}, false,
           {"the descriptor at offset 60 (type 0x05) has bLength 9, past the end at 67",
            "interface 1 announces 2 endpoints, but has 1", "no bulk-out endpoint"}),
    Change("the data interface's bulk-out endpoint missing", 60, 67, {}, true,
           {"interface 1 announces 2 endpoints, but has 1", "no bulk-out endpoint"}),
    Change("no union", 32, 37, {}, true, {"communication interface 0 has no CDC union descriptor"}),
    Change("a union naming an interface that is not there", 36, 37, {5}, false,
           {"its union names interface 5, which the configuration does not have"}),
    Change("bNumInterfaces wrong", 4, 5, {3}, false, {"bNumInterfaces says 3, but it has 2"}),
    Change("a lone byte at the end", 67, 67, {7}, true,
           {"a lone byte at offset 67 after the last descriptor"}),
};

std::string RawProfile(const std::vector<uint8_t>& device,
                       const std::vector<uint8_t>& configuration, const std::string& serial) {
    return R"({"name": "raw", "device": {"raw": ")" + Hex(device) +
           R"(", "manufacturer": "M", "product": "P")" + serial + R"(},
               "configurations": [")" +
           Hex(configuration) + R"("]})";
}

TEST(Oddities, EachMalformationIsReportedAndTheBytesAreSentAsTheyAre) {
    sm::Profile ordinary = sm::SingleConfiguration(hu::Speed::kFull);
    std::vector<uint8_t> device = sm::DeviceDescriptorBytes(ordinary);
    std::vector<uint8_t> clean = sm::ConfigurationBytes(ordinary.configurations[0]);
    ASSERT_EQ(clean.size(), 67u);
    sim::LoadedProfile plain =
        sim::LoadProfileText(RawProfile(device, clean, R"(, "serial": "KM0000001")"), "plain");
    ASSERT_TRUE(plain.profile) << plain.error;
    EXPECT_EQ(sim::Oddities(plain.profile->At(hu::Speed::kFull)), std::vector<std::string>{});
    for (const Malformed& m : kMalformed) {
        SCOPED_TRACE(m.what);
        std::vector<uint8_t> bytes = clean;
        bytes.erase(bytes.begin() + long(m.from), bytes.begin() + long(m.to));
        bytes.insert(bytes.begin() + long(m.from), m.bytes.begin(), m.bytes.end());
        if (m.fix_length)
            bytes[2] = uint8_t(bytes.size());
        sim::LoadedProfile loaded =
            sim::LoadProfileText(RawProfile(device, bytes, R"(, "serial": "KM0000001")"), "f");
        ASSERT_TRUE(loaded.profile) << loaded.error;
        const sm::Profile& profile = loaded.profile->At(hu::Speed::kFull);
        EXPECT_EQ(sm::ConfigurationBytes(profile.configurations[0]), bytes);
        std::vector<std::string> oddities = sim::Oddities(profile);
        ASSERT_EQ(oddities.size(), m.oddities.size()) << ::testing::PrintToString(oddities);
        for (size_t i = 0; i < oddities.size(); ++i)
            EXPECT_NE(oddities[i].find(m.oddities[i]), std::string::npos) << oddities[i];
    }
}

TEST(Oddities, DeviceDescriptor) {
    sm::Profile ordinary = sm::SingleConfiguration(hu::Speed::kFull);
    std::vector<uint8_t> configuration = sm::ConfigurationBytes(ordinary.configurations[0]);
    struct Case {
        size_t at;
        uint8_t value;
        const char* serial;
        const char* oddity;
    };
    const Case cases[] = {
        {7, 9, R"(, "serial": "S")", "bMaxPacketSize0 is 9, not 8, 16, 32 or 64"},
        {17, 2, R"(, "serial": "S")", "bNumConfigurations says 2, but the device answers 1"},
        {16, 3, "", "iSerialNumber is 3, but the device has no serial number string"},
        {16, 0, R"(, "serial": "S")", "iSerialNumber is 0: the serial number string is never"},
        {0, 17, R"(, "serial": "S")", "18 bytes with bLength 17, where 18 are due"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.oddity);
        std::vector<uint8_t> device = sm::DeviceDescriptorBytes(ordinary);
        device[c.at] = c.value;
        sim::LoadedProfile loaded =
            sim::LoadProfileText(RawProfile(device, configuration, c.serial), "f");
        ASSERT_TRUE(loaded.profile) << loaded.error;
        std::vector<std::string> oddities = sim::Oddities(loaded.profile->At(hu::Speed::kFull));
        ASSERT_EQ(oddities.size(), 1u) << ::testing::PrintToString(oddities);
        EXPECT_EQ(oddities[0].find(std::string("device descriptor: ") + c.oddity), 0u)
            << oddities[0];
    }
}

// A raw device descriptor decides which string index answers what.
TEST(ProfileFile, RawDeviceStringIndices) {
    sm::Profile ordinary = sm::SingleConfiguration(hu::Speed::kFull);
    std::vector<uint8_t> device = sm::DeviceDescriptorBytes(ordinary);
    device[14] = 4, device[15] = 5, device[16] = 6;
    sim::LoadedProfile loaded =
        sim::LoadProfileText(RawProfile(device, sm::ConfigurationBytes(ordinary.configurations[0]),
                                        R"(, "serial": "S")"),
                             "f");
    ASSERT_TRUE(loaded.profile) << loaded.error;
    sm::StringIndices indices = sm::StringIndicesOf(loaded.profile->At(hu::Speed::kFull));
    EXPECT_EQ(indices.manufacturer, 4);
    EXPECT_EQ(indices.product, 5);
    EXPECT_EQ(indices.serial, 6);
}

// Behaviour settings and the forms values take: hex strings, per-speed
// values, remote wake-up cleared, faults with their matches.
TEST(ProfileFile, BehaviourAndFaults) {
    sim::LoadedProfile loaded = sim::LoadProfileText(R"({
        "name": "b",
        "device": {"vendor_id": "0x1234", "manufacturer": "M", "product": "P"},
        "configurations": [{"value": 1, "attributes": "0xa0", "max_power_ma": 2, "interfaces": [
            {"number": 0, "class": 2, "subclass": 2, "protocol": 1, "endpoints": [
                {"address": "0x81", "type": "bulk", "max_packet": {"full": 32, "high": 256},
                 "interval": 3}]}]}],
        "behaviour": {"dial": "no-answer", "dial_ms": 10, "connect_speed": 9600, "ppp": false,
                      "speeds": ["high"], "remote_wakeup": false,
                      "faults": [{"kind": "stall", "endpoint": "0x81", "every": 2},
                                 {"kind": "error", "request": 34, "status": "0xc0000004"},
                                 {"kind": "delay", "delay_ms": 50}]}})",
                                                     "b");
    ASSERT_TRUE(loaded.profile) << loaded.error;
    const sim::ModemProfile& p = *loaded.profile;
    EXPECT_FALSE(p.Supports(hu::Speed::kFull));
    EXPECT_EQ(p.default_speed, hu::Speed::kHigh);
    const sm::Profile& t = p.At(hu::Speed::kHigh);
    EXPECT_EQ(t.vendor_id, 0x1234);
    EXPECT_EQ(t.configurations[0].attributes, 0x80);
    EXPECT_EQ(t.configurations[0].max_power, 1);
    EXPECT_EQ(t.configurations[0].interfaces[0].endpoints[0].max_packet, 256);
    EXPECT_EQ(t.configurations[0].interfaces[0].endpoints[0].interval, 3);
    EXPECT_EQ(t.commands.dial_outcome, sm::DialOutcome::kNoAnswer);
    EXPECT_EQ(t.commands.dial_ms, 10);
    EXPECT_EQ(t.commands.connect_speed, 9600u);
    EXPECT_FALSE(t.commands.ppp);
    ASSERT_EQ(p.faults.size(), 3u);
    EXPECT_EQ(sim::FaultText(p.faults[0]), "stall endpoint 0x81 every 2");
    EXPECT_EQ(p.faults[0].knob.match, hu::EndpointKey(0x81));
    EXPECT_EQ(sim::FaultText(p.faults[1]), "error request 0x22 nth 1 status 0xc0000004");
    EXPECT_EQ(p.faults[1].knob.match, hu::RequestKey(0x22));
    EXPECT_EQ(p.faults[2].fault, hu::Fault::kDelay);
    EXPECT_EQ(p.faults[2].knob.delay_ms, 50);
}

// A bad profile is refused with the file, the JSON path and the problem,
// one text per kind of error. (That cdcacm-sim refuses it before anything
// runs is bad_profiles/out_of_range.json's test.)
TEST(ProfileFile, EachKindOfErrorNamesItsPath) {
    const std::string kDevice = R"("device": {"manufacturer": "K", "product": "P"}, )";
    const std::string kConfiguration =
        R"("configurations": [{"value": 1, "attributes": "0x80", "max_power_ma": 100, )";
    const struct {
        std::string text;
        const char* error;
    } rows[] = {
        {R"({"name": "b", )" + kDevice + kConfiguration +
             R"("interfaces": [{"number": 0, "subclass": 2, "protocol": 1}]}]})",
         "configurations[0].interfaces[0].class: missing"},
        {R"({"name": "b", "device": {"manufacturer": 42}})",
         "device.manufacturer: wrong type: a number, where a string is due"},
        {R"({"name": "b", )" + kDevice + kConfiguration +
             R"("interfaces": [{"number": 0, "class": 2, "subclass": 2, "protocol": 1,
                 "functional": ["05 24 00 10 01", "05 24 01 0g 01"]}]}]})",
         "configurations[0].interfaces[0].functional[1]: bad hex: 'g' at character 11"},
        {R"({"name": "b", "behaviour": {"dail": "busy"}})", "behaviour.dail: unknown field"},
        {R"({"name": "b", )" + kDevice + kConfiguration + R"("interfaces": []}],
            "behaviour": {"faults": [{"kind": "stal", "endpoint": "0x81"}]}})",
         "behaviour.faults[0].kind: out of range: \"stal\""},
        {R"({"name": "b", "configurations": ["09 02 09 00 00 01 00 c0 32"],
            "behaviour": {"speeds": ["full", "high"]}})",
         "behaviour.speeds: out of range: raw descriptors are those of one speed"},
        {R"({"name": "b", "device": {)", "not JSON: "},
        {R"({"name": "b", "description": 1e999})", "not JSON: number overflow parsing '1e999'"},
    };
    for (const auto& row : rows) {
        sim::LoadedProfile loaded = sim::LoadProfileText(row.text, "f.json");
        EXPECT_FALSE(loaded.profile) << row.error;
        EXPECT_EQ(loaded.error.rfind(std::string("f.json: ") + row.error, 0), 0u) << loaded.error;
    }
}

} // namespace
