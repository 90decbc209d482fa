// The modem profiles cdcacm-sim can plug, by name, and the bus speeds.
//
// Environment: host code of the tool.
#pragma once

#include "simmodem/simmodem.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct ProfileInfo {
    std::string name;
    std::string description;
};

const std::vector<ProfileInfo>& ProfileNames();
std::optional<sm::Profile> FindProfile(std::string_view name, hu::Speed speed);
std::optional<hu::Speed> ParseSpeed(std::string_view text); // "full" or "high"
const char* SpeedName(hu::Speed speed);

} // namespace sim
