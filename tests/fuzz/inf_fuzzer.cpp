// Fuzzes the stand-in's INF reader with arbitrary text, and follows the
// file as the Plug and Play manager follows it when it installs a device:
// [Manufacturer] to the models, a model to its install section, that
// section's AddReg lines and services, each service's values and AddReg.
#include "fuzz_check.h"
#include "hostkernel/inf.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

// Bounds the walk: a file may name the same sections many times over.
constexpr size_t kMaxSectionsFollowed = 8;

void CheckLines(const std::vector<hk::InfLine>* lines) {
    if (!lines)
        return;
    int number = 0;
    for (const hk::InfLine& line : *lines) {
        FUZZ_CHECK(line.number > number);
        number = line.number;
    }
}

void FollowInstall(const hk::Inf& inf, const std::string& install, size_t& followed) {
    if (++followed > kMaxSectionsFollowed)
        return;
    std::vector<std::string> errors;
    for (const std::string& section : {install, install + ".NTx86"}) {
        CheckLines(inf.Section(section));
        FUZZ_CHECK(inf.AddReg(section, &errors).size() <= hk::InfRegEntry::kMaxEntries);
        const std::vector<hk::InfLine>* services = inf.Section(section + ".Services");
        CheckLines(services);
        for (const hk::InfLine& line : services ? *services : std::vector<hk::InfLine>()) {
            if (line.values.size() < 3 || ++followed > kMaxSectionsFollowed)
                continue;
            for (const char* key : {"DisplayName", "ServiceType", "StartType", "ServiceBinary"})
                inf.Value(line.values[2], key);
            FUZZ_CHECK(inf.AddReg(line.values[2], &errors).size() <= hk::InfRegEntry::kMaxEntries);
        }
    }
    for (const std::string& error : errors)
        FUZZ_CHECK(!error.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    hk::Inf inf =
        hk::Inf::Parse(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz.inf");
    for (const std::string& error : inf.Errors())
        FUZZ_CHECK(error.rfind("fuzz.inf(", 0) == 0);
    inf.Value("Version", "Class");
    inf.Value("Version", "ClassGuid");
    size_t followed = 0;
    const std::vector<hk::InfLine>* makers = inf.Section("Manufacturer");
    CheckLines(makers);
    for (const hk::InfLine& maker : makers ? *makers : std::vector<hk::InfLine>()) {
        for (const std::string& value : maker.values) {
            for (const std::string& models : {value, value + ".NTx86"}) {
                const std::vector<hk::InfLine>* lines = inf.Section(models);
                CheckLines(lines);
                for (const hk::InfLine& line : lines ? *lines : std::vector<hk::InfLine>())
                    if (!line.values.empty())
                        FollowInstall(inf, line.values[0], followed);
            }
        }
    }
    return 0;
}
