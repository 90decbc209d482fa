// The timeline recorder: events in memory, written as trace-event JSON.
#include "hostkernel/timeline.h"

#include "hostkernel/emu.h"
#include "hostkernel/scheduler.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>

namespace hk {

namespace {
constexpr int kPid = 1;
constexpr const char* kClock =
    "ts is the emulated machine's virtual clock in microseconds, not the wall clock; events "
    "of one virtual instant are spread 1 ns apart in the order they happened";
} // namespace

struct Timeline::Event {
    char phase;
    std::string name;
    std::string category;
    int64_t ns = 0;
    int track = 0;
    uint64_t id = 0;
    Args args;
};

Timeline::Timeline(std::string process_name, size_t max_events)
    : process_name_(std::move(process_name)), max_events_(max_events) {}

// Once full, nothing new opens: spans, instants, async spans and flows
// begun before still close, so the file stays well formed.
bool Timeline::Full() {
    if (events_.size() < max_events_)
        return false;
    truncated_ = true;
    return true;
}

Timeline::~Timeline() = default;

int64_t Timeline::Stamp() {
    int64_t ns = Kernel::Exists() ? Kernel::Current().Now() * 100 : 0;
    if (ns <= last_ns_)
        ns = last_ns_ + 1;
    last_ns_ = ns;
    return ns;
}

// The running context's track, named by a metadata event when first seen.
int Timeline::Track() {
    detail::EmuThread* context =
        Kernel::Exists() ? Kernel::Current().scheduler().Current() : nullptr;
    if (!context)
        return 0;
    if (context->timeline_track == 0) {
        context->timeline_track = next_track_++;
        Event named{
            'M', "thread_name", "", 0, context->timeline_track, 0, Args{{"name", context->name}}};
        events_.push_back(std::move(named));
        Event order{'M',
                    "thread_sort_index",
                    "",
                    0,
                    context->timeline_track,
                    0,
                    Args{{"sort_index", int64_t(context->timeline_track)}}};
        events_.push_back(std::move(order));
    }
    return context->timeline_track;
}

Timeline::Event& Timeline::Add(char phase, std::string name, const char* category) {
    int track = Track();
    int64_t ns = Stamp();
    events_.push_back(Event{phase, std::move(name), category, ns, track, 0, {}});
    return events_.back();
}

void Timeline::Begin(std::string name, const char* category, Args args) {
    if (Full()) {
        ++unrecorded_[Track()];
        return;
    }
    Add('B', std::move(name), category).args = std::move(args);
}

void Timeline::End() {
    auto it = unrecorded_.find(Track());
    if (it != unrecorded_.end() && it->second != 0) {
        --it->second; // its span was begun once the timeline was full
        return;
    }
    Add('E', "", "");
}

void Timeline::Instant(std::string name, const char* category, Args args) {
    if (!Full())
        Add('i', std::move(name), category).args = std::move(args);
}

uint64_t Timeline::AsyncBegin(std::string name, const char* category, Args args) {
    uint64_t id = next_id_++;
    if (Full())
        return id;
    async_[id] = {name, category};
    Event& event = Add('b', std::move(name), category);
    event.id = id;
    event.args = std::move(args);
    return id;
}

void Timeline::AsyncEnd(uint64_t id, Args args) {
    auto it = async_.find(id);
    if (it == async_.end())
        return;
    Event& event = Add('e', it->second.first, it->second.second.c_str());
    event.id = id;
    event.args = std::move(args);
    async_.erase(it);
}

uint64_t Timeline::FlowStart(const char* category) {
    uint64_t id = next_id_++;
    if (Full())
        return id;
    flows_[id] = Flow{category, false};
    Add('s', category, category).id = id;
    return id;
}

void Timeline::FlowEnd(uint64_t id) {
    auto it = flows_.find(id);
    if (it == flows_.end() || it->second.ended)
        return;
    it->second.ended = true;
    Add('f', it->second.category, it->second.category.c_str()).id = id;
}

void Timeline::IrpDispatched(const void* irp) {
    if (!irp_flows_.count(irp))
        irp_flows_[irp] = FlowStart("IRP");
}

void Timeline::IrpCompleted(const void* irp) {
    auto it = irp_flows_.find(irp);
    if (it == irp_flows_.end())
        return;
    FlowEnd(it->second);
    irp_flows_.erase(it);
}

size_t Timeline::Events() const {
    return events_.size();
}

std::string Timeline::Json() const {
    using nlohmann::json;
    json events = json::array();
    events.push_back({{"ph", "M"},
                      {"name", "process_name"},
                      {"pid", kPid},
                      {"tid", 0},
                      {"args", {{"name", process_name_ + " (virtual time)"}}}});
    if (std::any_of(events_.begin(), events_.end(), [](const Event& e) { return e.track == 0; }))
        events.push_back({{"ph", "M"},
                          {"name", "thread_name"},
                          {"pid", kPid},
                          {"tid", 0},
                          {"args", {{"name", "outside any emulated thread"}}}});
    for (const Event& e : events_) {
        json event = {{"ph", std::string(1, e.phase)}, {"pid", kPid}, {"tid", e.track}};
        if (e.phase != 'M')
            event["ts"] = double(e.ns) / 1000.0;
        if (!e.name.empty() || e.phase == 'M')
            event["name"] = e.name;
        if (!e.category.empty())
            event["cat"] = e.category;
        if (e.phase == 'i')
            event["s"] = "t";
        if (e.id != 0)
            event["id"] = e.id;
        if (e.phase == 'f')
            event["bp"] = "e";
        if (!e.args.empty()) {
            json args = json::object();
            for (const auto& [key, value] : e.args) {
                if (const auto* number = std::get_if<int64_t>(&value))
                    args[key] = *number;
                else
                    args[key] = std::get<std::string>(value);
            }
            event["args"] = std::move(args);
        }
        events.push_back(std::move(event));
    }
    json file = {{"traceEvents", std::move(events)},
                 {"displayTimeUnit", "ms"},
                 {"otherData", {{"clock", kClock}, {"process", process_name_}}}};
    if (truncated_)
        file["otherData"]["truncated"] = "the recorder held " + std::to_string(max_events_) +
                                         " events and recorded nothing that began after";
    // Trace lines may carry bytes that are not UTF-8; they are replaced.
    return file.dump(1, ' ', false, json::error_handler_t::replace);
}

bool Timeline::Write(const std::string& file, std::string* error) const {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (out)
        out << Json() << '\n';
    if (!out) {
        if (error)
            *error = "cannot write " + file;
        return false;
    }
    return true;
}

namespace {

// The function symbols of one ELF file (its .symtab, static functions
// included), sorted by address relative to the file's load base. The files
// are those loaded into this process, so of its own class: ELF32 in a 32-bit
// build, ELF64 in a 64-bit one.
constexpr unsigned char kNativeClass = __ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32;

struct SymbolTable {
    struct Entry {
        uintptr_t start;
        uintptr_t size;
        std::string name;
    };
    std::vector<Entry> entries;

    explicit SymbolTable(const char* path) {
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        std::vector<char> bytes(in ? size_t(in.tellg()) : 0);
        in.seekg(0);
        if (!in.read(bytes.data(), std::streamsize(bytes.size())))
            return;
        if (bytes.size() < sizeof(ElfW(Ehdr)) || std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0 ||
            bytes[EI_CLASS] != kNativeClass)
            return;
        ElfW(Ehdr) header;
        std::memcpy(&header, bytes.data(), sizeof header);
        auto section = [&](size_t index, ElfW(Shdr) & out) {
            size_t at = header.e_shoff + index * sizeof(ElfW(Shdr));
            if (index >= header.e_shnum || at + sizeof out > bytes.size())
                return false;
            std::memcpy(&out, bytes.data() + at, sizeof out);
            return out.sh_offset + out.sh_size <= bytes.size();
        };
        for (size_t i = 0; i < header.e_shnum; ++i) {
            ElfW(Shdr) symtab, strtab;
            if (!section(i, symtab) || symtab.sh_type != SHT_SYMTAB ||
                !section(symtab.sh_link, strtab))
                continue;
            for (size_t at = 0; at + sizeof(ElfW(Sym)) <= symtab.sh_size; at += sizeof(ElfW(Sym))) {
                ElfW(Sym) sym;
                std::memcpy(&sym, bytes.data() + symtab.sh_offset + at, sizeof sym);
                // Both classes keep a symbol's type in the same bits.
                if (ELF64_ST_TYPE(sym.st_info) != STT_FUNC || sym.st_value == 0 ||
                    sym.st_name >= strtab.sh_size)
                    continue;
                const char* name = bytes.data() + strtab.sh_offset + sym.st_name;
                entries.push_back({uintptr_t(sym.st_value), uintptr_t(sym.st_size),
                                   std::string(name, strnlen(name, strtab.sh_size - sym.st_name))});
            }
        }
        std::sort(entries.begin(), entries.end(),
                  [](const Entry& a, const Entry& b) { return a.start < b.start; });
    }

    const std::string* Find(uintptr_t offset) const {
        auto it = std::upper_bound(entries.begin(), entries.end(), offset,
                                   [](uintptr_t o, const Entry& e) { return o < e.start; });
        if (it == entries.begin())
            return nullptr;
        --it;
        return offset == it->start || offset < it->start + it->size ? &it->name : nullptr;
    }
};

std::string Demangled(const std::string& symbol) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : symbol;
    std::free(demangled);
    static const std::string kAnonymous = "(anonymous namespace)::";
    for (size_t at; (at = name.find(kAnonymous)) != std::string::npos;)
        name.erase(at, kAnonymous.size());
    size_t arguments = name.find('(');
    return arguments == std::string::npos ? name : name.substr(0, arguments);
}

} // namespace

// dladdr finds the file an address lies in; the file's own symbol table
// names the function, exported or not. Names are kept once found.
std::string Timeline::Symbol(const void* address) {
    static std::mutex mutex;
    static std::map<const void*, std::string> names;
    static std::map<std::string, std::unique_ptr<SymbolTable>> tables;
    std::lock_guard<std::mutex> lock(mutex);
    auto known = names.find(address);
    if (known != names.end())
        return known->second;
    std::string name;
    Dl_info info{};
    if (address && dladdr(address, &info) != 0 && info.dli_fname) {
        if (info.dli_sname && info.dli_saddr == address) {
            name = Demangled(info.dli_sname);
        } else {
            // The stand-in is linked into the executable, whose name dladdr
            // gives as the program was started: read it through /proc.
            Dl_info own{};
            dladdr(reinterpret_cast<const void*>(&Timeline::Symbol), &own);
            std::string file = info.dli_fbase == own.dli_fbase ? "/proc/self/exe" : info.dli_fname;
            auto& table = tables[file];
            if (!table)
                table = std::make_unique<SymbolTable>(file.c_str());
            uintptr_t offset = uintptr_t(address) - uintptr_t(info.dli_fbase);
            if (const std::string* symbol = table->Find(offset))
                name = Demangled(*symbol);
        }
    }
    if (name.empty()) {
        char text[32];
        std::snprintf(text, sizeof text, "%p", address);
        name = text;
    }
    names[address] = name;
    return name;
}

std::string Timeline::IrpName(UCHAR major, UCHAR minor) {
    static const char* const kMajor[] = {"CREATE",
                                         "CREATE_NAMED_PIPE",
                                         "CLOSE",
                                         "READ",
                                         "WRITE",
                                         "QUERY_INFORMATION",
                                         "SET_INFORMATION",
                                         "QUERY_EA",
                                         "SET_EA",
                                         "FLUSH_BUFFERS",
                                         "QUERY_VOLUME_INFORMATION",
                                         "SET_VOLUME_INFORMATION",
                                         "DIRECTORY_CONTROL",
                                         "FILE_SYSTEM_CONTROL",
                                         "DEVICE_CONTROL",
                                         "INTERNAL_DEVICE_CONTROL",
                                         "SHUTDOWN",
                                         "LOCK_CONTROL",
                                         "CLEANUP",
                                         "CREATE_MAILSLOT",
                                         "QUERY_SECURITY",
                                         "SET_SECURITY",
                                         "POWER",
                                         "SYSTEM_CONTROL",
                                         "DEVICE_CHANGE",
                                         "QUERY_QUOTA",
                                         "SET_QUOTA",
                                         "PNP"};
    static const char* const kPnp[] = {"START_DEVICE",
                                       "QUERY_REMOVE_DEVICE",
                                       "REMOVE_DEVICE",
                                       "CANCEL_REMOVE_DEVICE",
                                       "STOP_DEVICE",
                                       "QUERY_STOP_DEVICE",
                                       "CANCEL_STOP_DEVICE",
                                       "QUERY_DEVICE_RELATIONS",
                                       "QUERY_INTERFACE",
                                       "QUERY_CAPABILITIES",
                                       "QUERY_RESOURCES",
                                       "QUERY_RESOURCE_REQUIREMENTS",
                                       "QUERY_DEVICE_TEXT",
                                       "FILTER_RESOURCE_REQUIREMENTS",
                                       "0x0e",
                                       "READ_CONFIG",
                                       "WRITE_CONFIG",
                                       "EJECT",
                                       "SET_LOCK",
                                       "QUERY_ID",
                                       "QUERY_PNP_DEVICE_STATE",
                                       "QUERY_BUS_INFORMATION",
                                       "DEVICE_USAGE_NOTIFICATION",
                                       "SURPRISE_REMOVAL"};
    static const char* const kPower[] = {"WAIT_WAKE", "POWER_SEQUENCE", "SET_POWER", "QUERY_POWER"};
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02x", major);
    std::string name = major < std::size(kMajor) ? std::string("IRP_MJ_") + kMajor[major] : hex;
    if (major == IRP_MJ_PNP || major == IRP_MJ_POWER) {
        std::snprintf(hex, sizeof hex, "0x%02x", minor);
        const char* minor_name = major == IRP_MJ_PNP
                                     ? (minor < std::size(kPnp) ? kPnp[minor] : nullptr)
                                     : (minor < std::size(kPower) ? kPower[minor] : nullptr);
        name += minor_name ? std::string(" IRP_MN_") + minor_name : std::string(" ") + hex;
    }
    return name;
}

std::string Timeline::DriverName(const DRIVER_OBJECT* driver) {
    std::string name;
    if (!driver || !driver->DriverName.Buffer)
        return "driver";
    for (size_t i = 0; i < driver->DriverName.Length / sizeof(WCHAR); ++i) {
        WCHAR c = driver->DriverName.Buffer[i];
        if (c == '\\')
            name.clear();
        else
            name += c < 0x80 ? char(c) : '?';
    }
    return name;
}

} // namespace hk
