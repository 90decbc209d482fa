// The built-in modem profiles by name.
#include "profiles.h"

namespace sim {

namespace {

struct Entry {
    ProfileInfo info;
    sm::Profile (*make)(hu::Speed);
};

// A modem that announces remote wake-up in every configuration, so that
// the bus reports it can wake the system.
sm::Profile WakingModem(hu::Speed speed) {
    sm::Profile profile = sm::OrdinaryModem(speed);
    profile.name = "waking";
    for (sm::ConfigurationTable& configuration : profile.configurations)
        configuration.attributes |= 0x20;
    return profile;
}

sm::Profile BusyModem(hu::Speed speed) {
    sm::Profile profile = sm::OrdinaryModem(speed);
    profile.name = "busy";
    profile.commands.dial_outcome = sm::DialOutcome::kBusy;
    return profile;
}

sm::Profile SilentModem(hu::Speed speed) {
    sm::Profile profile = sm::OrdinaryModem(speed);
    profile.name = "no-answer";
    profile.commands.dial_outcome = sm::DialOutcome::kNoAnswer;
    return profile;
}

const std::vector<Entry>& Entries() {
    static const std::vector<Entry> entries = {
        {{"ordinary", "two configurations, a serial number, dials and speaks PPP"},
         sm::OrdinaryModem},
        {{"waking", "the ordinary modem with remote wake-up"}, WakingModem},
        {{"busy", "the ordinary modem whose dials get BUSY"}, BusyModem},
        {{"no-answer", "the ordinary modem whose dials get NO ANSWER"}, SilentModem},
        {{"single-configuration", "one configuration only"}, sm::SingleConfiguration},
        {{"no-serial-number", "no serial number string"}, sm::NoSerialNumber},
        {{"composite", "two ACM functions sharing one serial number"}, sm::CompositeTwoAcm},
        {{"no-interrupt-endpoint", "no interrupt endpoint"}, sm::NoInterruptEndpoint},
        {{"single-interface", "data and notifications on one interface"}, sm::SingleInterface},
        {{"growing-total-length", "a configuration that reports more bytes than it has"},
         sm::GrowingTotalLength},
        {{"zero-length-descriptor", "a descriptor of length 0 inside its configuration"},
         sm::ZeroLengthDescriptor},
    };
    return entries;
}

} // namespace

const std::vector<ProfileInfo>& ProfileNames() {
    static const std::vector<ProfileInfo> names = [] {
        std::vector<ProfileInfo> list;
        for (const Entry& entry : Entries())
            list.push_back(entry.info);
        return list;
    }();
    return names;
}

std::optional<sm::Profile> FindProfile(std::string_view name, hu::Speed speed) {
    for (const Entry& entry : Entries())
        if (entry.info.name == name)
            return entry.make(speed);
    return std::nullopt;
}

std::optional<hu::Speed> ParseSpeed(std::string_view text) {
    if (text == "full")
        return hu::Speed::kFull;
    if (text == "high")
        return hu::Speed::kHigh;
    return std::nullopt;
}

const char* SpeedName(hu::Speed speed) {
    return speed == hu::Speed::kFull ? "full" : "high";
}

} // namespace sim
