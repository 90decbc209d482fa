// The INF reader. Syntax as setup reads it: ';' starts a comment outside
// quotes, a '\' ending a line continues it, "" inside quotes is a quote,
// %key% is replaced from [Strings] and %% is a percent sign; a %number%
// (a directory ID) stays as written.
#include "hostkernel/inf.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace hk {

namespace {

bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string Trim(std::string_view text) {
    size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    size_t last = text.find_last_not_of(" \t\r");
    return std::string(text.substr(first, last - first + 1));
}

// A logical line split at '=' and ',' outside quotes, quotes removed, each
// field trimmed; *error names an unterminated quote.
struct Fields {
    bool has_key = false;
    std::vector<std::string> parts; // the key first when has_key
};
Fields Split(std::string_view line, std::string* error) {
    Fields fields;
    std::string current;
    bool quoted = false, any_quote = false;
    auto finish = [&] {
        fields.parts.push_back(any_quote ? current : Trim(current));
        current.clear();
        any_quote = false;
    };
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quoted) {
            if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
                current += '"';
                ++i;
            } else if (c == '"')
                quoted = false;
            else
                current += c;
        } else if (c == '"') {
            // Text outside the quotes of a quoted field is only blanks.
            current = Trim(current);
            quoted = any_quote = true;
        } else if (c == ';')
            break;
        else if (c == '=' && !fields.has_key && fields.parts.empty()) {
            fields.has_key = true;
            finish();
        } else if (c == ',')
            finish();
        else if (!any_quote)
            current += c;
    }
    if (quoted)
        *error = "unterminated quoted string";
    finish();
    return fields;
}

} // namespace

std::optional<Inf> Inf::Load(const std::string& path, std::string* error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = path + ": cannot be read";
        return std::nullopt;
    }
    std::stringstream text;
    text << file.rdbuf();
    Inf inf = Parse(text.str(), path);
    if (!inf.Errors().empty()) {
        *error = inf.Errors().front();
        return std::nullopt;
    }
    return inf;
}

Inf Inf::Parse(std::string_view text, const std::string& name) {
    Inf inf;
    inf.name_ = name;
    auto fail = [&](int number, const std::string& what) {
        inf.errors_.push_back(name + "(" + std::to_string(number) + "): " + what);
    };
    // Logical lines: continuations joined, sections opened.
    bool in_section = false;
    std::istringstream lines{std::string(text)};
    std::string physical, logical;
    int number = 0, first_number = 0;
    while (std::getline(lines, physical)) {
        ++number;
        if (logical.empty())
            first_number = number;
        std::string trimmed = Trim(physical);
        if (!trimmed.empty() && trimmed.back() == '\\' && trimmed.find(';') == std::string::npos) {
            logical += trimmed.substr(0, trimmed.size() - 1);
            continue;
        }
        logical += physical;
        std::string line = Trim(logical);
        logical.clear();
        if (line.empty() || line[0] == ';')
            continue;
        if (line[0] == '[') {
            size_t close = line.find(']');
            if (close == std::string::npos) {
                fail(first_number, "section name without ']'");
                in_section = false;
                continue;
            }
            inf.sections_.push_back({Trim(line.substr(1, close - 1)), {}});
            in_section = true;
            continue;
        }
        if (!in_section) {
            fail(first_number, "line outside any section");
            continue;
        }
        std::string error;
        Fields fields = Split(line, &error);
        if (!error.empty())
            fail(first_number, error);
        InfLine entry;
        entry.number = first_number;
        if (fields.has_key) {
            entry.key = fields.parts.front();
            fields.parts.erase(fields.parts.begin());
        }
        entry.values = std::move(fields.parts);
        inf.sections_.back().lines.push_back(std::move(entry));
    }

    // %key% from [Strings], in keys and values of every other section.
    const std::vector<InfLine>* strings = inf.Section("Strings");
    auto substitute = [&](std::string& field, int line) {
        std::string out;
        for (size_t at = 0; at < field.size(); ++at) {
            if (field[at] != '%') {
                out += field[at];
                continue;
            }
            size_t close = field.find('%', at + 1);
            if (close == std::string::npos) {
                fail(line, "'%' without its closing '%'");
                out += field.substr(at);
                break;
            }
            std::string key = field.substr(at + 1, close - at - 1);
            at = close;
            if (key.empty()) {
                out += '%';
                continue;
            }
            if (std::all_of(key.begin(), key.end(),
                            [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
                out += "%" + key + "%";
                continue;
            }
            const InfLine* found = nullptr;
            for (size_t n = 0; strings != nullptr && n < strings->size() && !found; ++n)
                if (SameText((*strings)[n].key, key) && !(*strings)[n].values.empty())
                    found = &(*strings)[n];
            if (found == nullptr)
                fail(line, "%" + key + "% is not in [Strings]");
            else
                out += found->values.front();
        }
        field = std::move(out);
    };
    for (NamedSection& each : inf.sections_) {
        if (SameText(each.name, "Strings"))
            continue;
        for (InfLine& line : each.lines) {
            substitute(line.key, line.number);
            for (std::string& value : line.values)
                substitute(value, line.number);
        }
    }
    return inf;
}

const std::vector<InfLine>* Inf::Section(std::string_view name) const {
    for (const NamedSection& section : sections_)
        if (SameText(section.name, name))
            return &section.lines;
    return nullptr;
}

std::optional<std::string> Inf::Value(std::string_view section, std::string_view key) const {
    if (const std::vector<InfLine>* lines = Section(section))
        for (const InfLine& line : *lines)
            if (SameText(line.key, key))
                return line.values.empty() ? std::string() : line.values.front();
    return std::nullopt;
}

std::vector<InfRegEntry> Inf::AddReg(std::string_view install_section,
                                     std::vector<std::string>* errors) const {
    std::vector<InfRegEntry> entries;
    const std::vector<InfLine>* install = Section(install_section);
    if (install == nullptr) {
        errors->push_back(name_ + ": no section [" + std::string(install_section) + "]");
        return entries;
    }
    for (const InfLine& directive : *install) {
        if (!SameText(directive.key, "AddReg"))
            continue;
        for (const std::string& name : directive.values) {
            const std::vector<InfLine>* lines = Section(name);
            if (lines == nullptr) {
                errors->push_back(name_ + "(" + std::to_string(directive.number) +
                                  "): AddReg names a missing section [" + name + "]");
                continue;
            }
            for (const InfLine& line : *lines) {
                if (entries.size() == InfRegEntry::kMaxEntries) {
                    errors->push_back(name_ + "(" + std::to_string(directive.number) +
                                      "): more than " + std::to_string(InfRegEntry::kMaxEntries) +
                                      " AddReg entries");
                    return entries;
                }
                // The whole line is the entry: a key would be the root.
                std::vector<std::string> fields = line.values;
                if (!line.key.empty())
                    fields.insert(fields.begin(), line.key);
                if (fields.size() < 3) {
                    errors->push_back(name_ + "(" + std::to_string(line.number) +
                                      "): an AddReg line needs root, subkey and value name");
                    continue;
                }
                InfRegEntry entry;
                entry.root = fields[0];
                entry.subkey = fields[1];
                entry.value_name = fields[2];
                if (fields.size() > 3 && !fields[3].empty()) {
                    char* end = nullptr;
                    entry.flags = uint32_t(std::strtoul(fields[3].c_str(), &end, 0));
                    if (*end != '\0') {
                        errors->push_back(name_ + "(" + std::to_string(line.number) + "): flags '" +
                                          fields[3] + "' are not a number");
                        continue;
                    }
                }
                entry.values.assign(fields.begin() + std::min<size_t>(4, fields.size()),
                                    fields.end());
                entries.push_back(std::move(entry));
            }
        }
    }
    return entries;
}

} // namespace hk
