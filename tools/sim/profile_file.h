// Modem profiles read from JSON files: the descriptors, by fields or as the
// raw bytes of a real device's dump, and the modem's behaviour (its AT
// answers, how a dial ends, PPP, its bus speeds, remote wake-up, faults to
// arm when it is plugged). The format is described in README.md.
//
// Environment: host code of the tool; no kernel, no machine.
#pragma once

#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// A bus fault armed each time the modem is plugged, as a scenario's fault
// line arms it.
struct PlugFault {
    std::string kind; // the scenario language's name: stall, error, ...
    hu::Fault fault;
    hu::UsbFaultKnob knob;
};

struct ModemProfile {
    std::string name;
    std::string description;
    std::string file;
    std::vector<hu::Speed> speeds; // those it can be plugged at
    hu::Speed default_speed = hu::Speed::kFull;
    std::vector<PlugFault> faults;
    bool remote_wakeup_given = false; // the file set it (it shows in bmAttributes)

    bool Supports(hu::Speed speed) const;
    // The tables at a supported speed.
    const sm::Profile& At(hu::Speed speed) const;

    std::optional<sm::Profile> full, high;
};

struct LoadedProfile {
    std::optional<ModemProfile> profile;
    // When it could not be loaded: "FILE: PATH: PROBLEM", PATH a JSON path
    // such as configurations[0].interfaces[1].endpoints[0].max_packet.
    std::string error;
};

LoadedProfile LoadProfileFile(const std::string& file);
LoadedProfile LoadProfileText(std::string_view text, const std::string& file);

// The behaviour settings, a line each, and the faults armed at plug.
std::vector<std::string> BehaviourLines(const ModemProfile& profile, hu::Speed speed);
std::string FaultText(const PlugFault& fault);

} // namespace sim
