// Fuzzes the modem-profile reader and the descriptor parser and checker.
//
// Input: either a profile file's JSON text, read as cdcacm-sim reads a file
// (a profile that loads is then checked and printed at every speed it
// supports), or 'D', a length n and n bytes of a device descriptor, and the
// bytes of a configuration descriptor with all that follows it: parsed as a
// raw dump is, then checked and printed. Neither may crash, whatever the
// bytes say about their own lengths.
#include "fuzz_check.h"
#include "descriptors.h"
#include "profile_file.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

void CheckAndPrint(const sm::Profile& profile) {
    for (const std::string& oddity : sim::Oddities(profile))
        FUZZ_CHECK(!oddity.empty());
    FUZZ_CHECK(!sim::LsusbText(profile).empty());
}

void FuzzJson(std::string_view text) {
    sim::LoadedProfile loaded = sim::LoadProfileText(text, "fuzz.json");
    FUZZ_CHECK(loaded.profile.has_value() != !loaded.error.empty());
    if (!loaded.profile)
        return;
    const sim::ModemProfile& profile = *loaded.profile;
    FUZZ_CHECK(!profile.speeds.empty() && profile.Supports(profile.default_speed));
    for (hu::Speed speed : profile.speeds) {
        CheckAndPrint(profile.At(speed));
        sim::BehaviourLines(profile, speed);
    }
    for (const sim::PlugFault& fault : profile.faults)
        FUZZ_CHECK(!sim::FaultText(fault).empty());
}

void FuzzDescriptors(const uint8_t* data, size_t size) {
    size_t device_bytes = size > 0 ? data[0] : 0;
    data += size > 0;
    size -= size > 0;
    device_bytes = device_bytes < size ? device_bytes : size;
    std::vector<uint8_t> configuration(data + device_bytes, data + size);
    sm::Profile profile;
    profile.name = "fuzz";
    profile.raw_device = std::vector<uint8_t>(data, data + device_bytes);
    sm::ConfigurationTable table = sim::ParseConfiguration(configuration);
    FUZZ_CHECK(table.raw && *table.raw == configuration);
    profile.configurations.push_back(table);
    profile.functions = sim::FunctionsOf(configuration);
    CheckAndPrint(profile);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0 && data[0] == 'D')
        FuzzDescriptors(data + 1, size - 1);
    else
        FuzzJson(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
