// The catalogue of modem profiles.
#include "profiles.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace sim {

namespace {

struct Catalogue {
    std::map<std::string, ModemProfile, std::less<>> profiles; // by name, and files by path
    std::vector<ProfileInfo> names;
};

Catalogue& TheCatalogue() {
    static Catalogue catalogue;
    return catalogue;
}

bool IsPath(std::string_view text) {
    return text.find('/') != std::string_view::npos ||
           (text.size() > 5 && text.substr(text.size() - 5) == ".json");
}

} // namespace

const char* BuiltInProfilesDir() {
    return CDCACM_PROFILES_DIR;
}

bool LoadProfiles(const std::string& dir, bool built_in, std::string* error) {
    namespace fs = std::filesystem;
    std::error_code code;
    std::vector<std::string> files;
    for (fs::directory_iterator it(dir, code), end; !code && it != end; it.increment(code))
        if (it->path().extension() == ".json")
            files.push_back(it->path().string());
    if (code) {
        *error = dir + ": cannot read the profiles folder (" + code.message() + ")";
        return false;
    }
    std::sort(files.begin(), files.end());
    Catalogue& catalogue = TheCatalogue();
    for (const std::string& file : files) {
        LoadedProfile loaded = LoadProfileFile(file);
        if (!loaded.profile) {
            *error = loaded.error;
            return false;
        }
        const std::string& name = loaded.profile->name;
        if (auto it = catalogue.profiles.find(name); it != catalogue.profiles.end()) {
            *error = file + ": name: the profile \"" + name + "\" is also in " + it->second.file;
            return false;
        }
        catalogue.names.push_back({name, loaded.profile->description, file, built_in});
        catalogue.profiles.emplace(name, std::move(*loaded.profile));
    }
    return true;
}

const ModemProfile* FindModemProfile(std::string_view name_or_path, std::string* error) {
    Catalogue& catalogue = TheCatalogue();
    if (auto it = catalogue.profiles.find(name_or_path); it != catalogue.profiles.end())
        return &it->second;
    if (!IsPath(name_or_path)) {
        *error = "no profile named \"" + std::string(name_or_path) + "\"";
        return nullptr;
    }
    LoadedProfile loaded = LoadProfileFile(std::string(name_or_path));
    if (!loaded.profile) {
        *error = loaded.error;
        return nullptr;
    }
    return &catalogue.profiles.emplace(std::string(name_or_path), std::move(*loaded.profile))
                .first->second;
}

const std::vector<ProfileInfo>& ProfileNames() {
    return TheCatalogue().names;
}

std::optional<sm::Profile> FindProfile(std::string_view name, hu::Speed speed) {
    std::string error;
    const ModemProfile* profile = FindModemProfile(name, &error);
    if (!profile || !profile->Supports(speed))
        return std::nullopt;
    return profile->At(speed);
}

void ArmPlugFaults(std::string_view name, hu::Bus& bus) {
    std::string error;
    if (const ModemProfile* profile = FindModemProfile(name, &error))
        for (const PlugFault& fault : profile->faults)
            bus.AddFault(fault.fault, fault.knob);
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
