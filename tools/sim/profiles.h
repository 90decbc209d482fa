// The modem profiles cdcacm-sim can plug: the built-in ones (profile files
// in the folder compiled in), those of a --profiles folder, and any file
// named by its path; and the bus speeds.
//
// Environment: host code of the tool; one catalogue for the process,
// filled before a machine runs.
#pragma once

#include "profile_file.h"
#include "simmodem/simmodem.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct ProfileInfo {
    std::string name;
    std::string description;
    std::string file;
    bool built_in;
};

// Loads every *.json file of dir into the catalogue (built_in: the folder
// compiled in). False with "FILE: PATH: PROBLEM" in error for the first bad
// file or a name used twice.
bool LoadProfiles(const std::string& dir, bool built_in, std::string* error);
// The folder of the built-in profiles.
const char* BuiltInProfilesDir();

// A profile by name or, when name_or_path has a slash or ends in .json, by
// file (loaded once and kept under its path). Null with error set when
// there is none or the file is bad.
const ModemProfile* FindModemProfile(std::string_view name_or_path, std::string* error);

const std::vector<ProfileInfo>& ProfileNames();
// The tables at that speed; nullopt for an unknown name or a speed the
// profile does not support.
std::optional<sm::Profile> FindProfile(std::string_view name, hu::Speed speed);
// Arms the profile's faults on the bus (before it is plugged).
void ArmPlugFaults(std::string_view name, hu::Bus& bus);

std::optional<hu::Speed> ParseSpeed(std::string_view text); // "full" or "high"
const char* SpeedName(hu::Speed speed);

} // namespace sim
