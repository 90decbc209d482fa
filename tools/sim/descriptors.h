// Descriptor bytes as a support engineer reads them: what a modem's
// configuration says once parsed (so that a modem given only the bytes
// knows its pipes), what is odd about the bytes a modem sends, and the
// layout `lsusb -v` prints them in.
//
// Environment: host code of the tool; no kernel, no machine.
#pragma once

#include "simmodem/simmodem.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

// What can be parsed from a configuration descriptor and what follows it:
// value, attributes, power, the interfaces of alternate setting 0 with
// their class-specific descriptors and endpoints. Keeps the bytes as raw.
sm::ConfigurationTable ParseConfiguration(const std::vector<uint8_t>& bytes);

// The functions that interface associations in the configuration bound
// (first interface, count each); empty when it has none.
std::vector<std::vector<uint8_t>> FunctionsOf(const std::vector<uint8_t>& bytes);

// One line per thing a careful host would find odd in the descriptors the
// profile's modem sends (device and every configuration); empty when none.
std::vector<std::string> Oddities(const sm::Profile& profile);

// The device descriptor, every configuration and what follows it, laid out
// as `lsusb -v` lays them out.
std::string LsusbText(const sm::Profile& profile);

} // namespace sim
