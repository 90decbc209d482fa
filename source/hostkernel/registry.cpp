// The emulated registry: an in-memory tree of keys with typed values, the
// kernel handles open on it, the registry calls of the executive, the I/O
// manager and Rtl, and a text form for tools.
//
// As on the real system, names compare without regard to case, and Zw calls
// made from kernel mode skip the access check, so a handle's access mask is
// accepted and not enforced.
#include "hostkernel/emu.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace hk {

namespace {

constexpr const char* kRootName = "Registry";
constexpr const char* kControlPath = "\\Registry\\Machine\\System\\CurrentControlSet\\Control";
constexpr const char* kDeviceParameters = "Device Parameters";
constexpr uintptr_t kFirstHandle = 0x80000004; // kernel handles have the top bit set on x86
constexpr ULONG kPartialHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

std::string Fold(std::string_view name) {
    std::string folded(name);
    for (char& c : folded)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    return folded;
}

std::string ToUtf8(const WCHAR* text, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) {
        uint32_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < count && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string out;
    for (size_t i = 0; i < text.size();) {
        unsigned char b = (unsigned char)text[i];
        uint32_t c = b;
        size_t extra = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
        if (extra) {
            c = b & (0x3F >> extra);
            for (size_t k = 1; k <= extra && i + k < text.size(); ++k)
                c = (c << 6) | ((unsigned char)text[i + k] & 0x3F);
        }
        i += extra + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += char16_t(0xD800 + (c >> 10));
            out += char16_t(0xDC00 + (c & 0x3FF));
        } else {
            out += char16_t(c);
        }
    }
    return out;
}

std::string NameOf(PCUNICODE_STRING name) {
    return name && name->Buffer ? ToUtf8(name->Buffer, name->Length / sizeof(WCHAR)) : "";
}

std::string NameOf(PCWSTR name) {
    size_t n = 0;
    while (name && name[n])
        ++n;
    return name ? ToUtf8(name, n) : "";
}

std::vector<uint8_t> StringData(std::string_view text) {
    std::u16string wide = ToUtf16(text);
    wide += u'\0';
    const auto* bytes = reinterpret_cast<const uint8_t*>(wide.data());
    return std::vector<uint8_t>(bytes, bytes + wide.size() * sizeof(char16_t));
}

// Splits "a\b\c" into its components; empty components make it invalid.
bool SplitPath(std::string_view path, std::vector<std::string>* parts) {
    parts->clear();
    if (path.empty())
        return true;
    size_t start = 0;
    for (;;) {
        size_t end = path.find('\\', start);
        std::string_view part =
            path.substr(start, end == std::string_view::npos ? end : end - start);
        if (part.empty())
            return false;
        parts->emplace_back(part);
        if (end == std::string_view::npos)
            return true;
        start = end + 1;
    }
}

void CheckPassive(const char* call) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL)
        Kernel::Current().verifier().Violation(
            rule::kRegistryIrql, std::string(call) + " at IRQL " + std::to_string(irql));
}

} // namespace

struct RegKey {
    std::string name;
    std::map<std::string, Registry::Value> values; // by folded name
    std::map<std::string, std::shared_ptr<RegKey>> subkeys;
    bool deleted = false;
};

struct Registry::Impl {
    explicit Impl(std::mt19937_64& rng) : faults(rng, "registry") {
        root = std::make_shared<RegKey>();
        root->name = kRootName;
    }

    // Resolves components below base; null when one is missing. With
    // create, missing keys are made on the way.
    std::shared_ptr<RegKey> Walk(std::shared_ptr<RegKey> base,
                                 const std::vector<std::string>& parts, size_t first, bool create) {
        for (size_t i = first; i < parts.size() && base; ++i) {
            std::string folded = Fold(parts[i]);
            auto it = base->subkeys.find(folded);
            if (it != base->subkeys.end()) {
                base = it->second;
            } else if (create) {
                auto made = std::make_shared<RegKey>();
                made->name = parts[i];
                base = base->subkeys[folded] = made;
            } else {
                base = nullptr;
            }
        }
        return base;
    }

    // An absolute path "\Registry\...".
    NTSTATUS Resolve(std::string_view path, bool create, std::shared_ptr<RegKey>* key) {
        std::vector<std::string> parts;
        if (path.empty() || path[0] != '\\' || !SplitPath(path.substr(1), &parts) ||
            parts.empty() || Fold(parts[0]) != Fold(kRootName))
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        *key = Walk(root, parts, 1, create);
        return *key ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }

    std::shared_ptr<RegKey> MustResolve(std::string_view path, bool create) {
        std::shared_ptr<RegKey> key;
        NTSTATUS status = Resolve(path, create, &key);
        if (status == STATUS_OBJECT_PATH_SYNTAX_BAD) {
            std::fprintf(stderr, "hostkernel: bad registry path \"%.*s\"\n", int(path.size()),
                         path.data());
            std::abort();
        }
        return key;
    }

    HANDLE Open(std::shared_ptr<RegKey> key, std::string path) {
        uintptr_t value = next_handle;
        next_handle += 4;
        handles[value] = Handle{std::move(key), std::move(path)};
        return reinterpret_cast<HANDLE>(value);
    }

    struct Handle {
        std::shared_ptr<RegKey> key;
        std::string path;
    };

    // The key behind a handle, or the status a call on it returns.
    NTSTATUS Lookup(HANDLE handle, const char* call, Handle** found) {
        auto it = handles.find(reinterpret_cast<uintptr_t>(handle));
        if (it == handles.end()) {
            std::ostringstream text;
            text << call << " on handle " << handle;
            Kernel::Current().verifier().Violation(rule::kBadHandle, text.str());
            return STATUS_INVALID_HANDLE;
        }
        *found = &it->second;
        return it->second.key->deleted ? STATUS_KEY_DELETED : STATUS_SUCCESS;
    }

    void Remove(RegKey& key) {
        key.deleted = true;
        for (auto& [name, sub] : key.subkeys)
            Remove(*sub);
    }

    void DumpKey(const RegKey& key, const std::string& path, std::ostream& out) const;

    std::shared_ptr<RegKey> root;
    std::map<uintptr_t, Handle> handles;
    uintptr_t next_handle = kFirstHandle;
    std::map<PDEVICE_OBJECT, std::string> hardware_keys;
    FaultSet faults;
};

namespace {

// Text form of values.
std::string Quote(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if ((unsigned char)c < 0x20) {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", (unsigned char)c);
            out += hex;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// The strings of REG_SZ or REG_MULTI_SZ data when it is well formed: each
// string terminated, none empty in a multi-string but the final terminator.
bool DecodeStrings(const std::vector<uint8_t>& data, bool multi, std::vector<std::string>* out) {
    if (data.size() < 2 || data.size() % 2)
        return false;
    std::u16string wide(data.size() / 2, u'\0');
    memcpy(wide.data(), data.data(), data.size());
    if (wide.back() != 0)
        return false;
    out->clear();
    if (!multi) {
        if (wide.find(u'\0') != wide.size() - 1)
            return false;
        out->push_back(ToUtf8(wide.data(), wide.size() - 1));
        return true;
    }
    size_t start = 0;
    while (start < wide.size() - 1) {
        size_t end = wide.find(u'\0', start);
        if (end == start)
            return false;
        out->push_back(ToUtf8(wide.data() + start, end - start));
        start = end + 1;
    }
    return start == wide.size() - 1 && (!out->empty() || wide.size() == 1);
}

std::string FormatValue(const Registry::Value& value) {
    std::string line = (value.name.empty() ? std::string("@") : Quote(value.name)) + "=";
    std::vector<std::string> strings;
    if (value.type == REG_DWORD && value.data.size() == 4) {
        ULONG v;
        memcpy(&v, value.data.data(), 4);
        char text[16];
        std::snprintf(text, sizeof(text), "dword:%08x", v);
        return line + text;
    }
    if (value.type == REG_SZ && DecodeStrings(value.data, false, &strings))
        return line + "sz:" + Quote(strings[0]);
    if (value.type == REG_MULTI_SZ && DecodeStrings(value.data, true, &strings) &&
        !strings.empty()) {
        line += "multi_sz:";
        for (size_t i = 0; i < strings.size(); ++i)
            line += (i ? "," : "") + Quote(strings[i]);
        return line;
    }
    char head[24];
    std::snprintf(head, sizeof(head), "hex(%x):", value.type);
    line += head;
    for (size_t i = 0; i < value.data.size(); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof(byte), "%s%02x", i ? "," : "", value.data[i]);
        line += byte;
    }
    return line;
}

// A small cursor over one line of the text form.
class LineParser {
  public:
    explicit LineParser(std::string_view line) : line_(line) {}
    bool Eat(std::string_view token) {
        if (line_.substr(pos_, token.size()) != token)
            return false;
        pos_ += token.size();
        return true;
    }
    bool Done() const { return pos_ == line_.size(); }
    bool Quoted(std::string* text) {
        if (!Eat("\""))
            return false;
        text->clear();
        while (pos_ < line_.size() && line_[pos_] != '"') {
            char c = line_[pos_++];
            if (c == '\\') {
                if (pos_ >= line_.size())
                    return false;
                c = line_[pos_++];
                if (c == 'x') {
                    unsigned long byte = 0;
                    if (!Hex(2, &byte))
                        return false;
                    c = char(byte);
                }
            }
            *text += c;
        }
        return Eat("\"");
    }
    // Up to max_digits hex digits, at least one.
    bool Hex(size_t max_digits, unsigned long* value) {
        size_t n = 0;
        *value = 0;
        while (n < max_digits && pos_ < line_.size() && isxdigit((unsigned char)line_[pos_])) {
            char c = line_[pos_++];
            *value =
                *value * 16 + unsigned(isdigit((unsigned char)c) ? c - '0' : (c | 0x20) - 'a' + 10);
            ++n;
        }
        return n != 0;
    }

  private:
    std::string_view line_;
    size_t pos_ = 0;
};

bool ParseValue(std::string_view line, Registry::Value* value) {
    LineParser p(line);
    value->name.clear();
    value->data.clear();
    if (!p.Eat("@") && !p.Quoted(&value->name))
        return false;
    if (!p.Eat("="))
        return false;
    unsigned long number = 0;
    std::string text;
    if (p.Eat("dword:")) {
        if (!p.Hex(8, &number))
            return false;
        ULONG v = ULONG(number);
        value->type = REG_DWORD;
        value->data.assign(reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + 4);
    } else if (p.Eat("sz:")) {
        if (!p.Quoted(&text))
            return false;
        value->type = REG_SZ;
        value->data = StringData(text);
    } else if (p.Eat("multi_sz:")) {
        value->type = REG_MULTI_SZ;
        do {
            if (!p.Quoted(&text))
                return false;
            std::vector<uint8_t> one = StringData(text);
            value->data.insert(value->data.end(), one.begin(), one.end());
        } while (p.Eat(","));
        value->data.push_back(0);
        value->data.push_back(0);
    } else if (p.Eat("hex(")) {
        if (!p.Hex(8, &number) || !p.Eat("):"))
            return false;
        value->type = ULONG(number);
        if (!p.Done()) {
            do {
                if (!p.Hex(2, &number))
                    return false;
                value->data.push_back(uint8_t(number));
            } while (p.Eat(","));
        }
    } else {
        return false;
    }
    return p.Done();
}

Registry::Impl& Reg() {
    return Kernel::Current().registry().impl();
}

constexpr NTSTATUS kFaultStatus = STATUS_INSUFFICIENT_RESOURCES;

} // namespace

void Registry::Impl::DumpKey(const RegKey& key, const std::string& path, std::ostream& out) const {
    out << "[" << path << "]\n";
    for (const auto& [folded, value] : key.values)
        out << FormatValue(value) << "\n";
    for (const auto& [folded, sub] : key.subkeys) {
        out << "\n";
        DumpKey(*sub, path + "\\" + sub->name, out);
    }
}

// The test and tool side.

Registry::Registry(std::mt19937_64& rng) : impl_(std::make_unique<Impl>(rng)) {
    CreateKey(kServicesPath);
    CreateKey(kEnumPath);
    CreateKey(kControlPath);
    CreateKey(kDeviceMapPath);
}

Registry::~Registry() = default;

void Registry::CreateKey(std::string_view path) {
    impl_->MustResolve(path, true);
}

bool Registry::KeyExists(std::string_view path) const {
    return impl_->MustResolve(path, false) != nullptr;
}

bool Registry::DeleteKey(std::string_view path) {
    std::shared_ptr<RegKey> key = impl_->MustResolve(path, false);
    size_t cut = path.rfind('\\');
    if (!key || key == impl_->root)
        return false;
    std::shared_ptr<RegKey> parent = impl_->MustResolve(path.substr(0, cut), false);
    parent->subkeys.erase(Fold(key->name));
    impl_->Remove(*key);
    return true;
}

void Registry::SetValue(std::string_view path, std::string_view name, ULONG type,
                        std::vector<uint8_t> data) {
    std::shared_ptr<RegKey> key = impl_->MustResolve(path, true);
    key->values[Fold(name)] = Value{std::string(name), type, std::move(data)};
}

void Registry::SetDword(std::string_view path, std::string_view name, ULONG value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    SetValue(path, name, REG_DWORD, std::vector<uint8_t>(bytes, bytes + sizeof(value)));
}

void Registry::SetString(std::string_view path, std::string_view name, std::string_view text,
                         ULONG type) {
    SetValue(path, name, type, StringData(text));
}

void Registry::SetMultiString(std::string_view path, std::string_view name,
                              const std::vector<std::string>& strings) {
    std::vector<uint8_t> data;
    for (const std::string& text : strings) {
        std::vector<uint8_t> one = StringData(text);
        data.insert(data.end(), one.begin(), one.end());
    }
    data.push_back(0);
    data.push_back(0);
    SetValue(path, name, REG_MULTI_SZ, std::move(data));
}

std::optional<Registry::Value> Registry::GetValue(std::string_view path,
                                                  std::string_view name) const {
    std::shared_ptr<RegKey> key = impl_->MustResolve(path, false);
    if (!key)
        return std::nullopt;
    auto it = key->values.find(Fold(name));
    if (it == key->values.end())
        return std::nullopt;
    return it->second;
}

std::optional<ULONG> Registry::GetDword(std::string_view path, std::string_view name) const {
    std::optional<Value> value = GetValue(path, name);
    if (!value || value->type != REG_DWORD || value->data.size() != sizeof(ULONG))
        return std::nullopt;
    ULONG v;
    memcpy(&v, value->data.data(), sizeof(v));
    return v;
}

std::optional<std::string> Registry::GetString(std::string_view path, std::string_view name) const {
    std::optional<Value> value = GetValue(path, name);
    if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ))
        return std::nullopt;
    std::u16string wide(value->data.size() / 2, u'\0');
    if (!wide.empty())
        memcpy(wide.data(), value->data.data(), wide.size() * 2);
    return ToUtf8(wide.data(), std::min(wide.find(u'\0'), wide.size()));
}

bool Registry::DeleteValue(std::string_view path, std::string_view name) {
    std::shared_ptr<RegKey> key = impl_->MustResolve(path, false);
    return key && key->values.erase(Fold(name)) != 0;
}

std::vector<std::string> Registry::ValueNames(std::string_view path) const {
    std::vector<std::string> names;
    if (std::shared_ptr<RegKey> key = impl_->MustResolve(path, false))
        for (const auto& [folded, value] : key->values)
            names.push_back(value.name);
    return names;
}

std::vector<std::string> Registry::SubkeyNames(std::string_view path) const {
    std::vector<std::string> names;
    if (std::shared_ptr<RegKey> key = impl_->MustResolve(path, false))
        for (const auto& [folded, sub] : key->subkeys)
            names.push_back(sub->name);
    return names;
}

std::string Registry::CreateServiceKey(std::string_view driver) {
    std::string path = std::string(kServicesPath) + "\\" + std::string(driver);
    CreateKey(path);
    return path;
}

std::string Registry::CreateHardwareKey(PDEVICE_OBJECT pdo, std::string_view instance_id) {
    std::string path =
        std::string(kEnumPath) + "\\" + std::string(instance_id) + "\\" + kDeviceParameters;
    CreateKey(path);
    impl_->hardware_keys[pdo] = path;
    return path;
}

std::optional<std::string> Registry::HardwareKeyFor(PDEVICE_OBJECT pdo) const {
    auto it = impl_->hardware_keys.find(pdo);
    if (it == impl_->hardware_keys.end())
        return std::nullopt;
    return it->second;
}

void Registry::ForgetDevice(PDEVICE_OBJECT pdo) {
    impl_->hardware_keys.erase(pdo);
}

std::string Registry::Dump(std::string_view path) const {
    std::ostringstream out;
    std::shared_ptr<RegKey> key = impl_->MustResolve(path, false);
    if (key)
        impl_->DumpKey(*key, std::string(path), out);
    return out.str();
}

bool Registry::Load(std::string_view text, std::string* error) {
    std::string current;
    size_t number = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty() || line[0] == ';' || line[0] == '#')
            continue;
        std::shared_ptr<RegKey> key;
        Value value;
        bool ok;
        if (line[0] == '[') {
            ok = line.back() == ']';
            if (ok) {
                current = std::string(line.substr(1, line.size() - 2));
                ok = impl_->Resolve(current, true, &key) == STATUS_SUCCESS;
            }
        } else {
            ok = !current.empty() && ParseValue(line, &value);
            if (ok)
                SetValue(current, value.name, value.type, std::move(value.data));
        }
        if (!ok) {
            if (error)
                *error = "line " + std::to_string(number) + ": " + std::string(line);
            return false;
        }
    }
    return true;
}

bool Registry::SaveFile(const std::string& file) const {
    std::ofstream out(file, std::ios::binary);
    out << Dump();
    return bool(out);
}

bool Registry::LoadFile(const std::string& file, std::string* error) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (error)
            *error = "cannot open " + file;
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    return Load(text.str(), error);
}

size_t Registry::OpenHandles() const {
    return impl_->handles.size();
}

FaultSet& Registry::Faults() {
    return impl_->faults;
}

void Registry::CheckTeardown() {
    if (impl_->handles.empty())
        return;
    std::string detail = std::to_string(impl_->handles.size()) + " handle(s):";
    for (const auto& [value, handle] : impl_->handles)
        detail += "\n  " + handle.path;
    impl_->handles.clear();
    Kernel::Current().verifier().Violation(rule::kHandleLeak, detail);
}

} // namespace hk

// The kernel calls.

using hk::CheckPassive;
using hk::Reg;
using hk::Registry;

namespace {

// Opens or creates ObjectName relative to RootDirectory (or absolute).
NTSTATUS OpenByAttributes(const char* call, PHANDLE KeyHandle, POBJECT_ATTRIBUTES Attributes,
                          bool create, PULONG Disposition) {
    CheckPassive(call);
    if (!KeyHandle || !Attributes || !Attributes->ObjectName)
        return STATUS_INVALID_PARAMETER;
    Registry::Impl& reg = Reg();
    if (reg.faults.ShouldFail(Registry::kOpen))
        return hk::kFaultStatus;
    std::string name = hk::NameOf(Attributes->ObjectName);
    std::shared_ptr<hk::RegKey> base;
    std::string path;
    std::vector<std::string> parts;
    if (Attributes->RootDirectory) {
        Registry::Impl::Handle* root;
        NTSTATUS status = reg.Lookup(Attributes->RootDirectory, call, &root);
        if (status != STATUS_SUCCESS)
            return status;
        if (!name.empty() && name[0] == '\\')
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        if (!hk::SplitPath(name, &parts))
            return STATUS_OBJECT_NAME_INVALID;
        base = root->key;
        path = root->path;
    } else {
        if (name.empty() || name[0] != '\\' || !hk::SplitPath(name.substr(1), &parts) ||
            parts.empty() || hk::Fold(parts[0]) != hk::Fold(hk::kRootName))
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        parts.erase(parts.begin());
        base = reg.root;
        path = "\\" + std::string(hk::kRootName);
    }
    // ZwCreateKey makes the last component only; its parent must exist.
    bool last_missing = false;
    std::shared_ptr<hk::RegKey> key = reg.Walk(base, parts, 0, false);
    if (!key && create && !parts.empty()) {
        std::vector<std::string> parent_parts(parts.begin(), parts.end() - 1);
        if (std::shared_ptr<hk::RegKey> parent = reg.Walk(base, parent_parts, 0, false)) {
            key = reg.Walk(parent, parts, parts.size() - 1, true);
            last_missing = true;
        }
    }
    if (!key)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    for (const std::string& part : parts)
        path += "\\" + part;
    if (Disposition)
        *Disposition = last_missing ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *KeyHandle = reg.Open(key, path);
    return STATUS_SUCCESS;
}

// The absolute key path of an Rtl registry call's RelativeTo and Path.
NTSTATUS RtlKeyPath(ULONG RelativeTo, PCWSTR Path, std::string* path) {
    std::string relative = hk::NameOf(Path);
    switch (RelativeTo & ~RTL_REGISTRY_OPTIONAL) {
    case RTL_REGISTRY_ABSOLUTE:
        *path = relative;
        return STATUS_SUCCESS;
    case RTL_REGISTRY_SERVICES:
        *path = std::string(Registry::kServicesPath);
        break;
    case RTL_REGISTRY_CONTROL:
        *path = hk::kControlPath;
        break;
    case RTL_REGISTRY_DEVICEMAP:
        *path = std::string(Registry::kDeviceMapPath);
        break;
    default:
        std::fprintf(stderr, "hostkernel: Rtl registry root %#x is not emulated\n", RelativeTo);
        return STATUS_INVALID_PARAMETER;
    }
    if (!relative.empty())
        *path += (relative[0] == '\\' ? "" : "\\") + relative;
    return STATUS_SUCCESS;
}

// The key an Rtl registry call works on: a handle's or one named by path.
NTSTATUS RtlKey(const char* call, ULONG RelativeTo, PCWSTR Path, bool create,
                std::shared_ptr<hk::RegKey>* key) {
    CheckPassive(call);
    Registry::Impl& reg = Reg();
    if (RelativeTo & RTL_REGISTRY_HANDLE) {
        Registry::Impl::Handle* handle;
        NTSTATUS status = reg.Lookup(const_cast<PWSTR>(Path), call, &handle);
        if (status == STATUS_SUCCESS)
            *key = handle->key;
        return status;
    }
    if (reg.faults.ShouldFail(Registry::kOpen))
        return hk::kFaultStatus;
    std::string path;
    NTSTATUS status = RtlKeyPath(RelativeTo, Path, &path);
    if (status == STATUS_SUCCESS)
        status = reg.Resolve(path, false, key);
    if (status != STATUS_OBJECT_NAME_NOT_FOUND || !create)
        return status;
    // As ZwCreateKey, the write creates the last key of the path only.
    std::shared_ptr<hk::RegKey> parent;
    status = reg.Resolve(path.substr(0, path.rfind('\\')), false, &parent);
    return status == STATUS_SUCCESS ? reg.Resolve(path, true, key) : status;
}

NTSTATUS SetValue(hk::RegKey& key, const std::string& name, ULONG Type, const void* Data,
                  ULONG DataSize) {
    if (Reg().faults.ShouldFail(Registry::kSet))
        return hk::kFaultStatus;
    if (!Data && DataSize)
        return STATUS_INVALID_PARAMETER;
    const auto* bytes = static_cast<const uint8_t*>(Data);
    key.values[hk::Fold(name)] =
        Registry::Value{name, Type, std::vector<uint8_t>(bytes, bytes + DataSize)};
    return STATUS_SUCCESS;
}

NTSTATUS DeleteValue(hk::RegKey& key, const std::string& name) {
    if (Reg().faults.ShouldFail(Registry::kDelete))
        return hk::kFaultStatus;
    return key.values.erase(hk::Fold(name)) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // namespace

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                   POBJECT_ATTRIBUTES ObjectAttributes) {
    (void)DesiredAccess;
    return OpenByAttributes("ZwOpenKey", KeyHandle, ObjectAttributes, false, nullptr);
}

NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                     POBJECT_ATTRIBUTES ObjectAttributes, ULONG TitleIndex, PUNICODE_STRING Class,
                     ULONG CreateOptions, PULONG Disposition) {
    (void)DesiredAccess;
    (void)TitleIndex;
    (void)Class;
    (void)CreateOptions;
    return OpenByAttributes("ZwCreateKey", KeyHandle, ObjectAttributes, true, Disposition);
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                         PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    CheckPassive("ZwQueryValueKey");
    Registry::Impl& reg = Reg();
    Registry::Impl::Handle* handle;
    NTSTATUS status = reg.Lookup(KeyHandle, "ZwQueryValueKey", &handle);
    if (status != STATUS_SUCCESS)
        return status;
    if (KeyValueInformationClass != KeyValuePartialInformation) {
        std::fprintf(stderr, "hostkernel: ZwQueryValueKey class %d is not emulated\n",
                     int(KeyValueInformationClass));
        return STATUS_NOT_IMPLEMENTED;
    }
    if (!ResultLength || (!KeyValueInformation && Length))
        return STATUS_INVALID_PARAMETER;
    if (reg.faults.ShouldFail(Registry::kQuery))
        return hk::kFaultStatus;
    auto it = handle->key->values.find(hk::Fold(hk::NameOf(ValueName)));
    if (it == handle->key->values.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    const Registry::Value& value = it->second;
    ULONG data_length = ULONG(value.data.size());
    // As the real kernel: the header needs its 12 bytes, or nothing is written;
    // a header without room for the data is written and reported as overflow.
    *ResultLength = hk::kPartialHeader + data_length;
    if (Length < hk::kPartialHeader)
        return STATUS_BUFFER_TOO_SMALL;
    auto* info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(KeyValueInformation);
    info->TitleIndex = 0;
    info->Type = value.type;
    info->DataLength = data_length;
    if (Length < *ResultLength)
        return STATUS_BUFFER_OVERFLOW;
    if (data_length)
        memcpy(info->Data, value.data.data(), data_length);
    return STATUS_SUCCESS;
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                       PVOID Data, ULONG DataSize) {
    (void)TitleIndex;
    CheckPassive("ZwSetValueKey");
    Registry::Impl::Handle* handle;
    NTSTATUS status = Reg().Lookup(KeyHandle, "ZwSetValueKey", &handle);
    if (status != STATUS_SUCCESS)
        return status;
    return SetValue(*handle->key, hk::NameOf(ValueName), Type, Data, DataSize);
}

NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    CheckPassive("ZwDeleteValueKey");
    Registry::Impl::Handle* handle;
    NTSTATUS status = Reg().Lookup(KeyHandle, "ZwDeleteValueKey", &handle);
    if (status != STATUS_SUCCESS)
        return status;
    return DeleteValue(*handle->key, hk::NameOf(ValueName));
}

NTSTATUS ZwClose(HANDLE Handle) {
    CheckPassive("ZwClose");
    Registry::Impl& reg = Reg();
    auto it = reg.handles.find(reinterpret_cast<uintptr_t>(Handle));
    if (it == reg.handles.end()) {
        std::ostringstream text;
        text << "ZwClose on handle " << Handle;
        hk::Kernel::Current().verifier().Violation(hk::rule::kBadHandle, text.str());
        return STATUS_INVALID_HANDLE;
    }
    reg.handles.erase(it);
    return STATUS_SUCCESS;
}

NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                 ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey) {
    (void)DesiredAccess;
    CheckPassive("IoOpenDeviceRegistryKey");
    if (DevInstKeyType != PLUGPLAY_REGKEY_DEVICE) {
        std::fprintf(stderr, "hostkernel: IoOpenDeviceRegistryKey type %u is not emulated\n",
                     DevInstKeyType);
        return STATUS_INVALID_PARAMETER;
    }
    Registry::Impl& reg = Reg();
    auto it = reg.hardware_keys.find(DeviceObject);
    if (it == reg.hardware_keys.end())
        return STATUS_INVALID_DEVICE_REQUEST; // not a physical device object with an instance
    if (reg.faults.ShouldFail(Registry::kOpen))
        return hk::kFaultStatus;
    std::shared_ptr<hk::RegKey> key;
    NTSTATUS status = reg.Resolve(it->second, false, &key);
    if (status != STATUS_SUCCESS)
        return status;
    *DevInstRegKey = reg.Open(key, it->second);
    return STATUS_SUCCESS;
}

// A path that names a missing key creates it, as drivers rely on for device
// map entries such as SERIALCOMM.
NTSTATUS RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType,
                               PVOID ValueData, ULONG ValueLength) {
    std::shared_ptr<hk::RegKey> key;
    NTSTATUS status = RtlKey("RtlWriteRegistryValue", RelativeTo, Path, true, &key);
    if (status != STATUS_SUCCESS)
        return status;
    return SetValue(*key, hk::NameOf(ValueName), ValueType, ValueData, ValueLength);
}

NTSTATUS RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName) {
    std::shared_ptr<hk::RegKey> key;
    NTSTATUS status = RtlKey("RtlDeleteRegistryValue", RelativeTo, Path, false, &key);
    if (status != STATUS_SUCCESS)
        return status;
    return DeleteValue(*key, hk::NameOf(ValueName));
}
