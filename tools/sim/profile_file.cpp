// Reading a profile file. Every value is checked where it is read, and the
// first problem ends the load with the JSON path of the value and what is
// wrong with it; every object's fields are checked against those it may
// have, so that a misspelt field is an error rather than a default.
#include "profile_file.h"

#include "descriptors.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

namespace sim {

namespace {

using nlohmann::json;

constexpr size_t kMaxFileBytes = 1 << 20;
constexpr uint8_t kRemoteWakeup = 0x20;

struct Bad {
    std::string path;
    std::string problem;
};

const char* TypeName(const json& v) {
    return v.is_object()    ? "an object"
           : v.is_array()   ? "an array"
           : v.is_string()  ? "a string"
           : v.is_boolean() ? "true or false"
           : v.is_null()    ? "null"
                            : "a number";
}

// A value in the file with its JSON path.
class Node {
  public:
    Node(const json& value, std::string path) : v_(value), path_(std::move(path)) {}
    const json& value() const { return v_; }
    const std::string& path() const { return path_; }
    [[noreturn]] void Fail(const std::string& problem) const { throw Bad{path_, problem}; }

    // An object whose fields are all among allowed.
    const Node& Object(std::initializer_list<const char*> allowed) const {
        if (!v_.is_object())
            Fail("wrong type: " + std::string(TypeName(v_)) + ", where an object is due");
        for (const auto& item : v_.items()) {
            bool known = false;
            for (const char* name : allowed)
                known = known || item.key() == name;
            if (!known)
                Child(item.key()).Fail("unknown field");
        }
        return *this;
    }
    bool Has(const char* key) const { return v_.contains(key); }
    Node Child(const std::string& key) const {
        return Node(v_.contains(key) ? v_.at(key) : Null(), Join(key));
    }
    Node Field(const char* key) const {
        if (!v_.contains(key))
            Node(Null(), Join(key)).Fail("missing");
        return Child(key);
    }
    std::vector<Node> Array(size_t at_least = 0) const {
        if (!v_.is_array())
            Fail("wrong type: " + std::string(TypeName(v_)) + ", where an array is due");
        if (v_.size() < at_least)
            Fail("out of range: at least " + std::to_string(at_least) + " element(s)");
        std::vector<Node> items;
        for (size_t i = 0; i < v_.size(); ++i)
            items.emplace_back(v_[i], path_ + "[" + std::to_string(i) + "]");
        return items;
    }
    // A number, as a JSON integer or as a string "0x..." (identifiers and
    // bit fields read better in hex).
    uint64_t Number(uint64_t low, uint64_t high) const {
        uint64_t value = 0;
        if (v_.is_number_unsigned()) {
            value = v_.get<uint64_t>();
        } else if (v_.is_number_integer()) {
            Fail("out of range: " + v_.dump() + " (" + std::to_string(low) + " to " +
                 std::to_string(high) + ")");
        } else if (v_.is_string()) {
            std::string text = v_.get<std::string>();
            size_t used = 0;
            try {
                value = std::stoull(text, &used, 0);
            } catch (const std::exception&) {
                used = 0;
            }
            if (text.empty() || used != text.size() || !std::isdigit(uint8_t(text[0])))
                Fail("wrong type: \"" + text + "\" is not a number (42 or \"0x2a\")");
        } else {
            Fail("wrong type: " + std::string(TypeName(v_)) + ", where a number is due");
        }
        if (value < low || value > high) {
            std::ostringstream range;
            range << "out of range: " << value << " (" << low << " to " << high << ")";
            Fail(range.str());
        }
        return value;
    }
    std::string String() const {
        if (!v_.is_string())
            Fail("wrong type: " + std::string(TypeName(v_)) + ", where a string is due");
        return v_.get<std::string>();
    }
    // A string a string descriptor can carry: ASCII, at most 126 characters.
    std::string Text() const {
        std::string text = String();
        for (char c : text)
            if (uint8_t(c) < 0x20 || uint8_t(c) > 0x7e)
                Fail("out of range: printable ASCII only");
        if (text.size() > 126)
            Fail("out of range: " + std::to_string(text.size()) +
                 " characters, a string descriptor holds 126");
        return text;
    }
    bool Bool() const {
        if (!v_.is_boolean())
            Fail("wrong type: " + std::string(TypeName(v_)) + ", where true or false is due");
        return v_.get<bool>();
    }
    // Hex text as a dump shows it: pairs of hex digits, separated or not
    // by blanks, colons or commas.
    std::vector<uint8_t> Hex() const {
        std::string text = String();
        std::vector<uint8_t> bytes;
        int high = -1;
        for (size_t i = 0; i < text.size(); ++i) {
            char c = text[i];
            if (c == ' ' || c == '\t' || c == '\n' || c == ':' || c == ',') {
                if (high >= 0)
                    Fail("bad hex: an odd digit before character " + std::to_string(i + 1));
                continue;
            }
            if (!std::isxdigit(uint8_t(c)))
                Fail("bad hex: '" + std::string(1, c) + "' at character " + std::to_string(i + 1));
            int digit = std::isdigit(uint8_t(c)) ? c - '0' : std::tolower(uint8_t(c)) - 'a' + 10;
            if (high < 0) {
                high = digit;
            } else {
                bytes.push_back(uint8_t(high << 4 | digit));
                high = -1;
            }
        }
        if (high >= 0)
            Fail("bad hex: an odd digit at the end");
        if (bytes.empty())
            Fail("bad hex: no bytes");
        return bytes;
    }
    // One of the names, returned as its index.
    size_t OneOf(std::initializer_list<const char*> names) const {
        std::string text = String();
        size_t i = 0;
        std::string all;
        for (const char* name : names) {
            if (text == name)
                return i;
            all += std::string(i++ ? ", " : "") + name;
        }
        Fail("out of range: \"" + text + "\" (" + all + ")");
    }
    // A number or, when it differs by bus speed, {"full": N, "high": N}.
    uint64_t PerSpeed(hu::Speed speed, uint64_t low, uint64_t high) const {
        if (!v_.is_object())
            return Number(low, high);
        Object({"full", "high"});
        return Field(speed == hu::Speed::kFull ? "full" : "high").Number(low, high);
    }

  private:
    static const json& Null() {
        static const json null;
        return null;
    }
    std::string Join(const std::string& key) const {
        return path_.empty() ? key : path_ + "." + key;
    }
    const json& v_;
    std::string path_;
};

struct FaultName {
    const char* name;
    hu::Fault fault;
};
const FaultName kFaults[] = {
    {"stall", hu::Fault::kStall},
    {"error", hu::Fault::kError},
    {"no-answer", hu::Fault::kNoAnswer},
    {"delay", hu::Fault::kDelay},
    {"gone", hu::Fault::kDeviceGone},
    {"reset-pipe-fail", hu::Fault::kResetPipeFail},
    {"reset-port-fail", hu::Fault::kResetPortFail},
    {"hub-query-fail", hu::Fault::kHubQueryFail},
    {"inline", hu::Fault::kInline},
};

PlugFault ReadFault(const Node& node) {
    node.Object({"kind", "endpoint", "request", "nth", "every", "status", "delay_ms"});
    PlugFault fault{};
    size_t kind =
        node.Field("kind").OneOf({"stall", "error", "no-answer", "delay", "gone", "reset-pipe-fail",
                                  "reset-port-fail", "hub-query-fail", "inline"});
    fault.kind = kFaults[kind].name;
    fault.fault = kFaults[kind].fault;
    if (node.Has("endpoint") && node.Has("request"))
        node.Child("request").Fail("unknown field: a fault matches an endpoint or a request");
    if (node.Has("endpoint"))
        fault.knob.match = hu::EndpointKey(uint8_t(node.Child("endpoint").Number(0, 0xff)));
    if (node.Has("request"))
        fault.knob.match = hu::RequestKey(uint8_t(node.Child("request").Number(0, 0xff)));
    if (node.Has("nth") && node.Has("every"))
        node.Child("every").Fail("unknown field: a fault fires on its nth call or every nth");
    if (node.Has("nth"))
        fault.knob.nth = node.Child("nth").Number(1, 1000000);
    else if (node.Has("every"))
        fault.knob.every = node.Child("every").Number(1, 1000000);
    else
        fault.knob.nth = 1;
    if (node.Has("status"))
        fault.knob.status = USBD_STATUS(node.Child("status").Number(0, 0xffffffff));
    if (fault.fault == hu::Fault::kDelay)
        fault.knob.delay_ms = int64_t(node.Field("delay_ms").Number(1, 3600000));
    else if (node.Has("delay_ms"))
        node.Child("delay_ms").Fail("unknown field: only a delay fault has one");
    return fault;
}

sm::EndpointTable ReadEndpoint(const Node& node, hu::Speed speed) {
    node.Object({"address", "type", "max_packet", "interval"});
    sm::EndpointTable endpoint{};
    endpoint.address = uint8_t(node.Field("address").Number(0, 0xff));
    endpoint.attributes =
        uint8_t(node.Field("type").OneOf({"control", "isochronous", "bulk", "interrupt"}));
    endpoint.max_packet = uint16_t(node.Field("max_packet").PerSpeed(speed, 0, 0xffff));
    if (node.Has("interval"))
        endpoint.interval = uint8_t(node.Child("interval").PerSpeed(speed, 0, 0xff));
    return endpoint;
}

sm::InterfaceTable ReadInterface(const Node& node, hu::Speed speed) {
    node.Object({"number", "class", "subclass", "protocol", "functional", "endpoints"});
    sm::InterfaceTable interface {};
    interface.number = uint8_t(node.Field("number").Number(0, 0xff));
    interface.cls = uint8_t(node.Field("class").Number(0, 0xff));
    interface.subclass = uint8_t(node.Field("subclass").Number(0, 0xff));
    interface.protocol = uint8_t(node.Field("protocol").Number(0, 0xff));
    if (node.Has("functional"))
        for (const Node& functional : node.Child("functional").Array())
            interface.functional.push_back(functional.Hex());
    if (node.Has("endpoints"))
        for (const Node& endpoint : node.Child("endpoints").Array())
            interface.endpoints.push_back(ReadEndpoint(endpoint, speed));
    return interface;
}

sm::ConfigurationTable ReadConfiguration(const Node& node, hu::Speed speed) {
    if (node.value().is_string())
        return ParseConfiguration(node.Hex());
    node.Object({"value", "attributes", "max_power_ma", "interfaces", "total_length",
                 "zero_length_before"});
    sm::ConfigurationTable configuration{};
    configuration.value = uint8_t(node.Field("value").Number(0, 0xff));
    configuration.attributes = uint8_t(node.Field("attributes").Number(0, 0xff));
    uint64_t ma = node.Field("max_power_ma").Number(0, 510);
    if (ma % 2 != 0)
        node.Child("max_power_ma")
            .Fail("out of range: " + std::to_string(ma) +
                  " (the descriptor counts in steps of 2 mA)");
    configuration.max_power = uint8_t(ma / 2);
    for (const Node& interface : node.Field("interfaces").Array())
        configuration.interfaces.push_back(ReadInterface(interface, speed));
    if (node.Has("total_length"))
        configuration.reported_total_length =
            uint16_t(node.Child("total_length").Number(0, 0xffff));
    if (node.Has("zero_length_before"))
        configuration.zero_length_before =
            size_t(node.Child("zero_length_before").Number(0, configuration.interfaces.size()));
    return configuration;
}

// The command set's settings; the faults are read into out when it is
// given (once, not per speed). The fields were checked by Read.
void ReadBehaviour(const Node& node, sm::CommandSet& commands, ModemProfile* out) {
    if (node.Has("identification")) {
        commands.identification.clear();
        for (const Node& line : node.Child("identification").Array())
            commands.identification.push_back(line.Text());
    }
    if (node.Has("dial"))
        commands.dial_outcome =
            sm::DialOutcome(node.Child("dial").OneOf({"connect", "busy", "no-answer"}));
    if (node.Has("dial_ms"))
        commands.dial_ms = int64_t(node.Child("dial_ms").Number(0, 600000));
    if (node.Has("connect_speed"))
        commands.connect_speed = uint32_t(node.Child("connect_speed").Number(300, 100000000));
    if (node.Has("ppp"))
        commands.ppp = node.Child("ppp").Bool();
    if (node.Has("faults") && out)
        for (const Node& fault : node.Child("faults").Array())
            out->faults.push_back(ReadFault(fault));
}

void ReadSpeeds(const Node& behaviour, bool raw, ModemProfile& out) {
    out.speeds = {hu::Speed::kFull, hu::Speed::kHigh};
    if (raw)
        out.speeds = {hu::Speed::kFull};
    if (behaviour.Has("speeds")) {
        Node speeds = behaviour.Child("speeds");
        out.speeds.clear();
        for (const Node& speed : speeds.Array(1)) {
            hu::Speed value =
                speed.OneOf({"full", "high"}) == 0 ? hu::Speed::kFull : hu::Speed::kHigh;
            for (hu::Speed seen : out.speeds)
                if (seen == value)
                    speed.Fail("out of range: named twice");
            out.speeds.push_back(value);
        }
        if (raw && out.speeds.size() > 1)
            speeds.Fail("out of range: raw descriptors are those of one speed");
    }
    out.default_speed = out.speeds.front();
    if (behaviour.Has("default_speed")) {
        Node node = behaviour.Child("default_speed");
        out.default_speed = node.OneOf({"full", "high"}) == 0 ? hu::Speed::kFull : hu::Speed::kHigh;
        if (!out.Supports(out.default_speed))
            node.Fail("out of range: not among the speeds");
    }
}

sm::Profile ReadTables(const Node& root, hu::Speed speed) {
    sm::Profile profile;
    profile.name = root.Field("name").String();
    Node device = root.Field("device");
    device.Object(
        {"raw", "vendor_id", "product_id", "bcd_device", "manufacturer", "product", "serial"});
    if (device.Has("raw")) {
        for (const char* held : {"vendor_id", "product_id", "bcd_device"})
            if (device.Has(held))
                device.Child(held).Fail("unknown field: the raw device descriptor holds it");
        profile.raw_device = device.Child("raw").Hex();
    } else {
        if (device.Has("vendor_id"))
            profile.vendor_id = uint16_t(device.Child("vendor_id").Number(0, 0xffff));
        if (device.Has("product_id"))
            profile.product_id = uint16_t(device.Child("product_id").Number(0, 0xffff));
        if (device.Has("bcd_device"))
            profile.bcd_device = uint16_t(device.Child("bcd_device").Number(0, 0xffff));
    }
    profile.manufacturer = device.Field("manufacturer").Text();
    profile.product = device.Field("product").Text();
    if (device.Has("serial") && !device.Child("serial").value().is_null())
        profile.serial = device.Child("serial").Text();
    for (const Node& configuration : root.Field("configurations").Array(1))
        profile.configurations.push_back(ReadConfiguration(configuration, speed));
    if (root.Has("functions")) {
        for (const Node& function : root.Child("functions").Array(1)) {
            std::vector<uint8_t> numbers;
            for (const Node& number : function.Array(1))
                numbers.push_back(uint8_t(number.Number(0, 0xff)));
            profile.functions.push_back(numbers);
        }
    } else if (profile.configurations[0].raw) {
        // A raw dump's functions are those its interface associations bind.
        profile.functions = FunctionsOf(*profile.configurations[0].raw);
    }
    return profile;
}

ModemProfile Read(const json& document) {
    Node root(document, "");
    root.Object({"name", "description", "device", "configurations", "functions", "behaviour"});
    ModemProfile out;
    out.name = root.Field("name").String();
    if (out.name.empty() || out.name.find_first_of("/\\ ") != std::string::npos)
        root.Child("name").Fail("out of range: a name without blanks or slashes");
    if (root.Has("description"))
        out.description = root.Child("description").String();
    // Raw descriptors are of one speed: peek at the form before the speeds.
    bool raw = false;
    if (document.contains("device") && document["device"].is_object())
        raw = document["device"].contains("raw");
    if (document.contains("configurations") && document["configurations"].is_array())
        for (const json& configuration : document["configurations"])
            raw = raw || configuration.is_string();
    Node behaviour = root.Child("behaviour");
    if (root.Has("behaviour"))
        behaviour.Object({"identification", "dial", "dial_ms", "connect_speed", "ppp", "speeds",
                          "default_speed", "remote_wakeup", "faults"});
    ReadSpeeds(behaviour, raw, out);
    std::optional<bool> wakeup;
    if (behaviour.Has("remote_wakeup")) {
        if (raw)
            behaviour.Child("remote_wakeup")
                .Fail("unknown field: raw configurations say it in bmAttributes");
        wakeup = behaviour.Child("remote_wakeup").Bool();
        out.remote_wakeup_given = true;
    }
    for (hu::Speed speed : out.speeds) {
        sm::Profile profile = ReadTables(root, speed);
        if (root.Has("behaviour"))
            ReadBehaviour(behaviour, profile.commands,
                          speed == out.speeds.front() ? &out : nullptr);
        if (wakeup)
            for (sm::ConfigurationTable& configuration : profile.configurations)
                configuration.attributes =
                    uint8_t(*wakeup ? configuration.attributes | kRemoteWakeup
                                    : configuration.attributes & ~kRemoteWakeup);
        (speed == hu::Speed::kFull ? out.full : out.high) = std::move(profile);
    }
    return out;
}

} // namespace

bool ModemProfile::Supports(hu::Speed speed) const {
    for (hu::Speed supported : speeds)
        if (supported == speed)
            return true;
    return false;
}

const sm::Profile& ModemProfile::At(hu::Speed speed) const {
    return speed == hu::Speed::kFull ? full.value() : high.value();
}

LoadedProfile LoadProfileText(std::string_view text, const std::string& file) {
    LoadedProfile result;
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception& e) { // a syntax error, or a number beyond a double's range
        std::string what = e.what();
        result.error = file + ": not JSON: " + what.substr(what.find(' ') + 1);
        return result;
    }
    try {
        result.profile = Read(document);
        result.profile->file = file;
    } catch (const Bad& bad) {
        result.error =
            file + ": " + (bad.path.empty() ? "(the whole file)" : bad.path) + ": " + bad.problem;
    }
    return result;
}

LoadedProfile LoadProfileFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return {std::nullopt, file + ": cannot read the profile file"};
    std::string text;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        text.append(buffer, size_t(in.gcount()));
        if (text.size() > kMaxFileBytes)
            return {std::nullopt,
                    file + ": longer than " + std::to_string(kMaxFileBytes) + " bytes"};
    }
    return LoadProfileText(text, file);
}

std::string FaultText(const PlugFault& fault) {
    std::ostringstream out;
    out << fault.kind;
    if ((fault.knob.match & 0xf00) == 0x100)
        out << " endpoint 0x" << std::hex << (fault.knob.match & 0xff) << std::dec;
    if ((fault.knob.match & 0xf00) == 0x200)
        out << " request 0x" << std::hex << (fault.knob.match & 0xff) << std::dec;
    if (fault.knob.nth)
        out << " nth " << fault.knob.nth;
    if (fault.knob.every)
        out << " every " << fault.knob.every;
    if (fault.fault == hu::Fault::kError || fault.fault == hu::Fault::kResetPipeFail ||
        fault.fault == hu::Fault::kInline)
        out << " status 0x" << std::hex << uint32_t(fault.knob.status) << std::dec;
    if (fault.fault == hu::Fault::kDelay)
        out << " by " << fault.knob.delay_ms << " ms";
    return out.str();
}

std::vector<std::string> BehaviourLines(const ModemProfile& profile, hu::Speed speed) {
    const sm::CommandSet& c = profile.At(speed).commands;
    std::vector<std::string> lines;
    for (size_t i = 0; i < c.identification.size(); ++i)
        lines.push_back("ATI" + std::to_string(i) + "                  " + c.identification[i]);
    static const char* const kOutcomes[] = {"CONNECT", "BUSY", "NO ANSWER"};
    lines.push_back(std::string("dial                  ") + kOutcomes[int(c.dial_outcome)] +
                    " after " + std::to_string(c.dial_ms) + " ms");
    lines.push_back("connect speed         " + std::to_string(c.connect_speed));
    lines.push_back(std::string("PPP                   ") +
                    (c.ppp ? "asks the host for framing on connect" : "no"));
    std::string speeds;
    for (hu::Speed s : profile.speeds)
        speeds +=
            std::string(speeds.empty() ? "" : ", ") + (s == hu::Speed::kFull ? "full" : "high");
    lines.push_back("speeds                " + speeds + " (default " +
                    (profile.default_speed == hu::Speed::kFull ? "full" : "high") + ")");
    std::string wakeup;
    for (const sm::ConfigurationTable& configuration : profile.At(speed).configurations)
        if (configuration.attributes & kRemoteWakeup)
            wakeup += std::string(wakeup.empty() ? "" : ", ") + std::to_string(configuration.value);
    lines.push_back("remote wake-up        " +
                    (wakeup.empty() ? std::string("none") : "configuration value " + wakeup));
    for (const PlugFault& fault : profile.faults)
        lines.push_back("fault at plug         " + FaultText(fault));
    return lines;
}

} // namespace sim
