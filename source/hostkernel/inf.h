// A reader for the setup information (INF) files that install drivers: the
// sections, their lines as key and comma-separated values with %strings%
// from [Strings] substituted, and the AddReg lines the installer applies.
// Errors name the file and line.
//
// Environment: host code of the emulated Plug and Play manager; no kernel
// state, no locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hk {

struct InfLine {
    int number = 0;  // in the file, 1-based (the first line of a continued line)
    std::string key; // empty for a line without '='
    std::vector<std::string> values;
};

// One AddReg line: root, subkey, value name, flags, value.
struct InfRegEntry {
    std::string root; // HKR, HKLM, ...
    std::string subkey;
    std::string value_name;
    uint32_t flags = 0; // FLG_ADDREG_*
    std::vector<std::string> values;

    // An install section's AddReg lines at most: each name in an AddReg
    // value brings its section's lines again, so a small file could
    // otherwise ask for millions.
    static constexpr size_t kMaxEntries = 1024;

    static constexpr uint32_t kNoClobber = 0x00000002;
    static constexpr uint32_t kTypeMask = 0xFFFF0001;
    static constexpr uint32_t kTypeString = 0x00000000;
    static constexpr uint32_t kTypeMultiString = 0x00010000;
    static constexpr uint32_t kTypeExpandString = 0x00020000;
    static constexpr uint32_t kTypeDword = 0x00010001;
};

class Inf {
  public:
    // Reads and parses a file; nullopt with *error set when it cannot be
    // read or has errors.
    static std::optional<Inf> Load(const std::string& path, std::string* error);
    // Parses text; every problem is added to Errors() as "name(line): what".
    static Inf Parse(std::string_view text, const std::string& name);

    const std::vector<std::string>& Errors() const { return errors_; }
    // A section's lines; null when there is no such section. Names compare
    // case-insensitively, as do keys.
    const std::vector<InfLine>* Section(std::string_view name) const;
    // The first value of the section's first line with that key.
    std::optional<std::string> Value(std::string_view section, std::string_view key) const;
    // The AddReg lines of the sections named by the install section's AddReg
    // keys; malformed lines are added to *errors.
    std::vector<InfRegEntry> AddReg(std::string_view install_section,
                                    std::vector<std::string>* errors) const;

  private:
    struct NamedSection {
        std::string name;
        std::vector<InfLine> lines;
    };
    std::string name_;
    std::vector<NamedSection> sections_;
    std::vector<std::string> errors_;
};

} // namespace hk
