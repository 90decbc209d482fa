// Parsing, checking and printing descriptor bytes. Every walk over a
// configuration follows bLength from descriptor to descriptor as a host
// does; one of length 0 is stepped over as two bytes so that what follows
// it is still seen, and one that runs past the end ends the walk.
#include "descriptors.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

namespace sim {

namespace {

constexpr uint8_t kDevice = 1, kConfiguration = 2, kInterface = 4, kEndpoint = 5;
constexpr uint8_t kAssociation = 0x0b, kCsInterface = 0x24;
constexpr uint8_t kClassCommunications = 0x02, kClassData = 0x0a;
constexpr uint8_t kUnion = 0x06;

struct Piece {
    size_t offset;
    size_t length; // what is there: less than bLength when it runs past the end
    uint8_t type;
    bool whole;
};

struct Walk {
    std::vector<Piece> pieces; // the header first
    std::vector<std::string> problems;
};

std::string Hex2(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", value & 0xff);
    return text;
}

unsigned Word(const std::vector<uint8_t>& b, size_t at) {
    return at + 1 < b.size() ? unsigned(b[at] | b[at + 1] << 8) : 0;
}

Walk WalkConfiguration(const std::vector<uint8_t>& b) {
    Walk walk;
    size_t n = b.size();
    if (n < 2)
        return walk;
    walk.pieces.push_back({0, std::min<size_t>(n, 9), b[1], n >= 9});
    size_t pos = b[0] >= 2 ? b[0] : 9;
    while (pos < n) {
        if (n - pos < 2) {
            walk.problems.push_back("a lone byte at offset " + std::to_string(pos) +
                                    " after the last descriptor");
            break;
        }
        uint8_t length = b[pos];
        if (length < 2) {
            walk.problems.push_back("a descriptor of bLength " + std::to_string(length) +
                                    " at offset " + std::to_string(pos) +
                                    " (stepped over as two bytes)");
            walk.pieces.push_back({pos, 2, b[pos + 1], false});
            pos += 2;
            continue;
        }
        if (pos + length > n) {
            walk.problems.push_back("the descriptor at offset " + std::to_string(pos) + " (type " +
                                    Hex2(b[pos + 1]) + ") has bLength " + std::to_string(length) +
                                    ", past the end at " + std::to_string(n));
            walk.pieces.push_back({pos, n - pos, b[pos + 1], false});
            break;
        }
        walk.pieces.push_back({pos, length, b[pos + 1], true});
        pos += length;
    }
    return walk;
}

// Oddities of one configuration's bytes; where says which one.
void CheckConfiguration(const std::vector<uint8_t>& b, const std::string& where,
                        std::vector<std::string>& out) {
    auto odd = [&](const std::string& text) { out.push_back(where + ": " + text); };
    if (b.size() < 9) {
        odd("only " + std::to_string(b.size()) + " bytes, shorter than its 9-byte header");
        if (b.size() < 2)
            return;
    }
    if (b[0] != 9)
        odd("bLength is " + std::to_string(b[0]) + ", not 9");
    if (b[1] != kConfiguration)
        odd("bDescriptorType is " + Hex2(b[1]) + ", not 0x02");
    if (b.size() >= 4 && Word(b, 2) != b.size())
        odd("wTotalLength says " + std::to_string(Word(b, 2)) + " bytes, but it has " +
            std::to_string(b.size()));
    if (b.size() >= 8 && !(b[7] & 0x80))
        odd("bmAttributes " + Hex2(b[7]) + " lacks bit 7, which every USB 1.1 device sets");
    Walk walk = WalkConfiguration(b);
    for (const std::string& problem : walk.problems)
        odd(problem);
    for (const Piece& piece : walk.pieces) {
        if (!piece.whole || piece.offset == 0)
            continue;
        size_t need = piece.type == kInterface     ? 9
                      : piece.type == kEndpoint    ? 7
                      : piece.type == kAssociation ? 8
                                                   : 0;
        if (piece.length < need)
            odd("the descriptor at offset " + std::to_string(piece.offset) + " (type " +
                Hex2(piece.type) + ") is " + std::to_string(piece.length) +
                " bytes, shorter than " + std::to_string(need));
    }
    sm::ConfigurationTable table = ParseConfiguration(b);
    if (b.size() >= 5 && b[4] != table.interfaces.size())
        odd("bNumInterfaces says " + std::to_string(b[4]) + ", but it has " +
            std::to_string(table.interfaces.size()));
    // bNumEndpoints against the endpoints that follow each interface.
    std::map<uint8_t, size_t> announced;
    for (const Piece& piece : walk.pieces)
        if (piece.whole && piece.type == kInterface && piece.length >= 9 &&
            b[piece.offset + 3] == 0)
            announced[b[piece.offset + 2]] = b[piece.offset + 4];
    std::set<uint8_t> numbers;
    bool bulk_in = false, bulk_out = false;
    for (const sm::InterfaceTable& interface : table.interfaces) {
        numbers.insert(interface.number);
        std::string name = "interface " + std::to_string(interface.number);
        if (announced[interface.number] != interface.endpoints.size())
            odd(name + " announces " + std::to_string(announced[interface.number]) +
                " endpoints, but has " + std::to_string(interface.endpoints.size()));
        for (const sm::EndpointTable& endpoint : interface.endpoints) {
            if (endpoint.max_packet == 0)
                odd(name + ": endpoint " + Hex2(endpoint.address) + " has wMaxPacketSize 0");
            if (endpoint.attributes == USB_ENDPOINT_TYPE_BULK) {
                bool in = endpoint.address & USB_ENDPOINT_DIRECTION_MASK;
                (in ? bulk_in : bulk_out) = true;
            }
        }
    }
    for (const sm::InterfaceTable& interface : table.interfaces) {
        if (interface.cls != kClassCommunications)
            continue;
        std::string name = "communication interface " + std::to_string(interface.number);
        const std::vector<uint8_t>* found = nullptr;
        for (const auto& functional : interface.functional)
            if (functional.size() >= 3 && functional[2] == kUnion)
                found = &functional;
        if (!found) {
            odd(name + " has no CDC union descriptor");
            continue;
        }
        for (size_t i = 4; i < found->size(); ++i)
            if (!numbers.count((*found)[i]))
                odd(name + ": its union names interface " + std::to_string((*found)[i]) +
                    ", which the configuration does not have");
    }
    if (!bulk_in)
        odd("no bulk-in endpoint");
    if (!bulk_out)
        odd("no bulk-out endpoint");
}

// lsusb's field layout: the name in 19 columns, the value right-aligned in
// 6, then its meaning.
struct Printer {
    std::string text;
    void Line(int indent, const std::string& line) {
        text += std::string(indent, ' ') + line + "\n";
    }
    void Field(int indent, const char* name, const std::string& value,
               const std::string& meaning = "") {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%-19s%6s", name, value.c_str());
        Line(indent, buffer + (meaning.empty() ? std::string() : " " + meaning));
    }
    void Number(int indent, const char* name, unsigned value, const std::string& meaning = "") {
        Field(indent, name, std::to_string(value), meaning);
    }
    void Hex(int indent, const char* name, unsigned value, int digits,
             const std::string& meaning = "") {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "0x%0*x", digits, value);
        Field(indent, name, buffer, meaning);
    }
    void Bcd(int indent, const char* name, unsigned value) {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%2x.%02x", value >> 8, value & 0xff);
        Field(indent, name, buffer);
    }
    void Bytes(int indent, const std::vector<uint8_t>& b, size_t from, size_t length) {
        std::string line = "** UNRECOGNIZED: ";
        for (size_t i = from; i < from + length && i < b.size(); ++i) {
            char hex[4];
            std::snprintf(hex, sizeof hex, " %02x", b[i]);
            line += hex;
        }
        Line(indent, line);
    }
};

std::string ClassName(uint8_t cls) {
    switch (cls) {
    case 0x00:
        return "(Defined at Interface level)";
    case kClassCommunications:
        return "Communications";
    case kClassData:
        return "CDC Data";
    case 0xef:
        return "Miscellaneous Device";
    case 0xff:
        return "Vendor Specific Class";
    default:
        return "";
    }
}

std::string SubclassName(uint8_t cls, uint8_t subclass) {
    if (cls == kClassCommunications && subclass == 0x02)
        return "Abstract (modem)";
    if (cls == 0xef && subclass == 0x02)
        return "?";
    return "";
}

std::string ProtocolName(uint8_t cls, uint8_t subclass, uint8_t protocol) {
    if (cls == kClassCommunications && subclass == 0x02 && protocol == 0x01)
        return "AT-commands (v.25ter)";
    if (cls == 0xef && subclass == 0x02 && protocol == 0x01)
        return "Interface Association";
    return "";
}

std::string StringOf(const sm::Profile& profile, uint8_t index) {
    sm::StringIndices strings = sm::StringIndicesOf(profile);
    if (index == 0)
        return "";
    if (index == strings.manufacturer)
        return profile.manufacturer;
    if (index == strings.product)
        return profile.product;
    if (index == strings.serial && profile.serial)
        return *profile.serial;
    return "(none)";
}

void PrintFunctional(Printer& p, const std::vector<uint8_t>& b, const Piece& piece) {
    const uint8_t* d = &b[piece.offset];
    size_t n = piece.length;
    uint8_t subtype = n >= 3 ? d[2] : 0xff;
    if (subtype == 0x00 && n >= 5) {
        p.Line(6, "CDC Header:");
        p.Bcd(8, "bcdCDC", unsigned(d[3] | d[4] << 8));
    } else if (subtype == 0x01 && n >= 5) {
        p.Line(6, "CDC Call Management:");
        p.Hex(8, "bmCapabilities", d[3], 2);
        if (d[3] & 0x01)
            p.Line(10, "call management");
        if (d[3] & 0x02)
            p.Line(10, "use DataInterface");
        p.Number(8, "bDataInterface", d[4]);
    } else if (subtype == 0x02 && n >= 4) {
        p.Line(6, "CDC ACM:");
        p.Hex(8, "bmCapabilities", d[3], 2);
        if (d[3] & 0x08)
            p.Line(10, "connection notifications");
        if (d[3] & 0x04)
            p.Line(10, "sends break");
        if (d[3] & 0x02)
            p.Line(10, "line coding and serial state");
        if (d[3] & 0x01)
            p.Line(10, "get/set/clear comm features");
    } else if (subtype == kUnion && n >= 5) {
        p.Line(6, "CDC Union:");
        p.Number(8, "bMasterInterface", d[3]);
        std::string slaves;
        for (size_t i = 4; i < n; ++i)
            slaves += std::to_string(d[i]) + " ";
        p.Field(8, "bSlaveInterface", slaves.substr(0, slaves.find(' ')),
                slaves.substr(slaves.find(' ') + 1));
    } else {
        p.Bytes(6, b, piece.offset, piece.length);
    }
}

void PrintEndpoint(Printer& p, const uint8_t* d) {
    static const char* const kTypes[] = {"Control", "Isochronous", "Bulk", "Interrupt"};
    p.Line(6, "Endpoint Descriptor:");
    p.Number(8, "bLength", d[0]);
    p.Number(8, "bDescriptorType", d[1]);
    p.Hex(8, "bEndpointAddress", d[2], 2,
          " EP " + std::to_string(d[2] & 0x0f) + ((d[2] & 0x80) ? " IN" : " OUT"));
    p.Number(8, "bmAttributes", d[3]);
    p.Line(10, std::string("Transfer Type            ") + kTypes[d[3] & 3]);
    p.Line(10, "Synch Type               None");
    p.Line(10, "Usage Type               Data");
    unsigned size = unsigned(d[4] | d[5] << 8);
    p.Hex(8, "wMaxPacketSize", size, 4,
          " " + std::to_string(1 + ((size >> 11) & 3)) + "x " + std::to_string(size & 0x7ff) +
              " bytes");
    p.Number(8, "bInterval", d[6]);
}

void PrintConfiguration(Printer& p, const sm::Profile& profile, const std::vector<uint8_t>& b) {
    p.Line(2, "Configuration Descriptor:");
    if (b.size() < 9) {
        p.Bytes(4, b, 0, b.size());
        return;
    }
    p.Number(4, "bLength", b[0]);
    p.Number(4, "bDescriptorType", b[1]);
    p.Hex(4, "wTotalLength", Word(b, 2), 4);
    p.Number(4, "bNumInterfaces", b[4]);
    p.Number(4, "bConfigurationValue", b[5]);
    p.Field(4, "iConfiguration", std::to_string(b[6]), StringOf(profile, b[6]));
    p.Hex(4, "bmAttributes", b[7], 2);
    if (b[7] & 0x40)
        p.Line(6, "Self Powered");
    else
        p.Line(6, "(Bus Powered)");
    if (b[7] & 0x20)
        p.Line(6, "Remote Wakeup");
    char power[48];
    std::snprintf(power, sizeof power, "%-19s%6umA", "MaxPower", unsigned(b[8]) * 2);
    p.Line(4, power);
    Walk walk = WalkConfiguration(b);
    int indent = 4;
    for (const Piece& piece : walk.pieces) {
        if (piece.offset == 0)
            continue;
        const uint8_t* d = &b[piece.offset];
        if (!piece.whole) {
            p.Bytes(indent, b, piece.offset, piece.length);
        } else if (piece.type == kInterface && piece.length >= 9) {
            p.Line(4, "Interface Descriptor:");
            p.Number(6, "bLength", d[0]);
            p.Number(6, "bDescriptorType", d[1]);
            p.Number(6, "bInterfaceNumber", d[2]);
            p.Number(6, "bAlternateSetting", d[3]);
            p.Number(6, "bNumEndpoints", d[4]);
            p.Number(6, "bInterfaceClass", d[5], ClassName(d[5]));
            p.Number(6, "bInterfaceSubClass", d[6], SubclassName(d[5], d[6]));
            p.Number(6, "bInterfaceProtocol", d[7], ProtocolName(d[5], d[6], d[7]));
            p.Field(6, "iInterface", std::to_string(d[8]), StringOf(profile, d[8]));
            indent = 6;
        } else if (piece.type == kAssociation && piece.length >= 8) {
            p.Line(4, "Interface Association:");
            p.Number(6, "bLength", d[0]);
            p.Number(6, "bDescriptorType", d[1]);
            p.Number(6, "bFirstInterface", d[2]);
            p.Number(6, "bInterfaceCount", d[3]);
            p.Number(6, "bFunctionClass", d[4], ClassName(d[4]));
            p.Number(6, "bFunctionSubClass", d[5], SubclassName(d[4], d[5]));
            p.Number(6, "bFunctionProtocol", d[6], ProtocolName(d[4], d[5], d[6]));
            p.Field(6, "iFunction", std::to_string(d[7]), StringOf(profile, d[7]));
        } else if (piece.type == kCsInterface && indent == 6) {
            PrintFunctional(p, b, piece);
        } else if (piece.type == kEndpoint && piece.length >= 7) {
            PrintEndpoint(p, d);
        } else {
            p.Bytes(indent, b, piece.offset, piece.length);
        }
    }
}

} // namespace

sm::ConfigurationTable ParseConfiguration(const std::vector<uint8_t>& b) {
    sm::ConfigurationTable table{};
    table.raw = b;
    if (b.size() >= 9) {
        table.value = b[5];
        table.attributes = b[7];
        table.max_power = b[8];
    }
    sm::InterfaceTable* current = nullptr;
    for (const Piece& piece : WalkConfiguration(b).pieces) {
        if (piece.offset == 0 || !piece.whole)
            continue;
        const uint8_t* d = &b[piece.offset];
        if (piece.type == kInterface && piece.length >= 9) {
            current = nullptr;
            if (d[3] != 0)
                continue; // alternate settings are not the modem's concern
            table.interfaces.push_back({d[2], d[5], d[6], d[7], {}, {}});
            current = &table.interfaces.back();
        } else if (current && piece.type == kCsInterface) {
            current->functional.emplace_back(d, d + piece.length);
        } else if (current && piece.type == kEndpoint && piece.length >= 7) {
            current->endpoints.push_back(
                {d[2], uint8_t(d[3] & 0x03), uint16_t(d[4] | d[5] << 8), d[6]});
        }
    }
    return table;
}

std::vector<std::vector<uint8_t>> FunctionsOf(const std::vector<uint8_t>& b) {
    std::vector<std::vector<uint8_t>> functions;
    for (const Piece& piece : WalkConfiguration(b).pieces) {
        if (!piece.whole || piece.type != kAssociation || piece.length < 8)
            continue;
        std::vector<uint8_t> numbers;
        for (unsigned i = 0; i < b[piece.offset + 3]; ++i)
            numbers.push_back(uint8_t(b[piece.offset + 2] + i));
        functions.push_back(numbers);
    }
    return functions;
}

std::vector<std::string> Oddities(const sm::Profile& profile) {
    std::vector<std::string> out;
    std::vector<uint8_t> d = sm::DeviceDescriptorBytes(profile);
    auto odd = [&](const std::string& text) { out.push_back("device descriptor: " + text); };
    if (d.size() != 18 || d[0] != 18)
        odd(std::to_string(d.size()) + " bytes" +
            (d.empty() ? std::string() : " with bLength " + std::to_string(d[0])) +
            ", where 18 are due");
    if (d.size() >= 2 && d[1] != kDevice)
        odd("bDescriptorType is " + Hex2(d[1]) + ", not 0x01");
    if (d.size() >= 8 && d[7] != 8 && d[7] != 16 && d[7] != 32 && d[7] != 64)
        odd("bMaxPacketSize0 is " + std::to_string(d[7]) + ", not 8, 16, 32 or 64");
    if (d.size() >= 18 && d[17] != profile.configurations.size())
        odd("bNumConfigurations says " + std::to_string(d[17]) + ", but the device answers " +
            std::to_string(profile.configurations.size()));
    sm::StringIndices strings = sm::StringIndicesOf(profile);
    if (strings.serial != 0 && !profile.serial)
        odd("iSerialNumber is " + std::to_string(strings.serial) +
            ", but the device has no serial number string");
    if (strings.serial == 0 && profile.serial)
        odd("iSerialNumber is 0: the serial number string is never asked for");
    for (size_t i = 0; i < profile.configurations.size(); ++i)
        CheckConfiguration(sm::ConfigurationBytes(profile.configurations[i]),
                           "configuration index " + std::to_string(i), out);
    return out;
}

std::string LsusbText(const sm::Profile& profile) {
    Printer p;
    std::vector<uint8_t> d = sm::DeviceDescriptorBytes(profile);
    p.Line(0, "Device Descriptor:");
    if (d.size() < 18) {
        p.Bytes(2, d, 0, d.size());
    } else {
        p.Number(2, "bLength", d[0]);
        p.Number(2, "bDescriptorType", d[1]);
        p.Bcd(2, "bcdUSB", Word(d, 2));
        p.Number(2, "bDeviceClass", d[4], ClassName(d[4]));
        p.Number(2, "bDeviceSubClass", d[5], SubclassName(d[4], d[5]));
        p.Number(2, "bDeviceProtocol", d[6], ProtocolName(d[4], d[5], d[6]));
        p.Number(2, "bMaxPacketSize0", d[7]);
        p.Hex(2, "idVendor", Word(d, 8), 4);
        p.Hex(2, "idProduct", Word(d, 10), 4);
        p.Bcd(2, "bcdDevice", Word(d, 12));
        p.Field(2, "iManufacturer", std::to_string(d[14]), StringOf(profile, d[14]));
        p.Field(2, "iProduct", std::to_string(d[15]), StringOf(profile, d[15]));
        p.Field(2, "iSerial", std::to_string(d[16]), StringOf(profile, d[16]));
        p.Number(2, "bNumConfigurations", d[17]);
    }
    for (const sm::ConfigurationTable& configuration : profile.configurations)
        PrintConfiguration(p, profile, sm::ConfigurationBytes(configuration));
    return p.text;
}

} // namespace sim
