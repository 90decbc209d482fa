// Profile files: each built-in file gives exactly the descriptors and
// behaviour of its C++ twin at both speeds; descriptor bytes parse back
// into the tables they came from; the oddities of malformed bytes; values
// a file gives in its other forms (hex, raw, faults).
#include "descriptors.h"
#include "profile_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

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
            EXPECT_EQ(a.identification, b.identification);
            EXPECT_EQ(a.dial_outcome, b.dial_outcome);
            EXPECT_EQ(a.dial_ms, b.dial_ms);
            EXPECT_EQ(a.connect_speed, b.connect_speed);
            EXPECT_EQ(a.ppp, b.ppp);
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
            EXPECT_EQ(sm::ConfigurationBytes(got), bytes);
            EXPECT_EQ(got.value, want.value);
            EXPECT_EQ(got.attributes, want.attributes);
            EXPECT_EQ(got.max_power, want.max_power);
            ASSERT_EQ(got.interfaces.size(), want.interfaces.size());
            for (size_t i = 0; i < want.interfaces.size(); ++i) {
                const sm::InterfaceTable& g = got.interfaces[i];
                const sm::InterfaceTable& w = want.interfaces[i];
                EXPECT_EQ(g.number, w.number);
                EXPECT_EQ(g.cls, w.cls);
                EXPECT_EQ(g.subclass, w.subclass);
                EXPECT_EQ(g.protocol, w.protocol);
                EXPECT_EQ(g.functional, w.functional);
                ASSERT_EQ(g.endpoints.size(), w.endpoints.size());
                for (size_t e = 0; e < w.endpoints.size(); ++e) {
                    EXPECT_EQ(g.endpoints[e].address, w.endpoints[e].address);
                    EXPECT_EQ(g.endpoints[e].attributes, w.endpoints[e].attributes);
                    EXPECT_EQ(g.endpoints[e].max_packet, w.endpoints[e].max_packet);
                    EXPECT_EQ(g.endpoints[e].interval, w.endpoints[e].interval);
                }
            }
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
// changes made to them.
struct Malformed {
    const char* what;
    std::vector<uint8_t> (*change)(std::vector<uint8_t> configuration);
    std::vector<const char*> oddities; // part of each line expected, in order
};

const Malformed kMalformed[] = {
    {"a wTotalLength that lies",
     [](std::vector<uint8_t> c) {
         c[2] = 0x50;
         return c;
     },
     {"configuration index 0: wTotalLength says 80 bytes, but it has 67"}},
    {"a bLength of 0",
     [](std::vector<uint8_t> c) {
         c.insert(c.begin() + 9, {0, 0});
         c[2] += 2;
         return c;
     },
     {"a descriptor of bLength 0 at offset 9 (stepped over as two bytes)"}},
    {"a bLength past the end",
     [](std::vector<uint8_t> c) {
         c[60] = 9; // the last endpoint claims two bytes more than are there
         return c;
     },
     {"the descriptor at offset 60 (type 0x05) has bLength 9, past the end at 67",
      "interface 1 announces 2 endpoints, but has 1", "no bulk-out endpoint"}},
    {"an endpoint missing",
     [](std::vector<uint8_t> c) {
         c.erase(c.begin() + 60, c.end()); // bulk-out of the data interface
         c[2] = uint8_t(c.size());
         return c;
     },
     {"interface 1 announces 2 endpoints, but has 1", "no bulk-out endpoint"}},
    {"no union",
     [](std::vector<uint8_t> c) {
         c.erase(c.begin() + 32, c.begin() + 37);
         c[2] = uint8_t(c.size());
         return c;
     },
     {"communication interface 0 has no CDC union descriptor"}},
    {"a union naming an interface that is not there",
     [](std::vector<uint8_t> c) {
         c[36] = 5;
         return c;
     },
     {"its union names interface 5, which the configuration does not have"}},
    {"bNumInterfaces wrong",
     [](std::vector<uint8_t> c) {
         c[4] = 3;
         return c;
     },
     {"bNumInterfaces says 3, but it has 2"}},
    {"a lone byte at the end",
     [](std::vector<uint8_t> c) {
         c.push_back(7);
         c[2] = uint8_t(c.size());
         return c;
     },
     {"a lone byte at offset 67 after the last descriptor"}},
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
        std::vector<uint8_t> bytes = m.change(clean);
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

// lsusb's layout: names in 19 columns, values right-aligned in 6.
TEST(LsusbText, FieldLayout) {
    std::string text = sim::LsusbText(sm::CompositeTwoAcm(hu::Speed::kHigh));
    for (const char* line : {
             "Device Descriptor:\n  bLength                18\n",
             "  bcdUSB               2.00\n",
             "  bDeviceClass          239 Miscellaneous Device\n",
             "  idVendor           0xfff0\n",
             "  iSerial                 3 KM0000001\n",
             "  Configuration Descriptor:\n    bLength                 9\n",
             "    wTotalLength       0x008d\n",
             "    bmAttributes         0xa0\n      (Bus Powered)\n      Remote Wakeup\n",
             "    MaxPower              500mA\n",
             "    Interface Association:\n      bLength                 8\n",
             "      bInterfaceProtocol      1 AT-commands (v.25ter)\n",
             "      CDC Union:\n        bMasterInterface        2\n        bSlaveInterface         "
             "3\n",
             "        bEndpointAddress     0x84  EP 4 IN\n",
             "        wMaxPacketSize     0x0200  1x 512 bytes\n        bInterval               0\n",
         })
        EXPECT_NE(text.find(line), std::string::npos) << "no\n" << line << "in\n" << text;
}

} // namespace
