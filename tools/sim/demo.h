// cdcacm-sim demo: a modem's whole life with the driver, narrated step by
// step in virtual time.
//
// Environment: host code of the tool; runs on the machine's application
// thread.
#pragma once

#include "machine.h"
#include "transcript.h"

#include <string>

namespace sim {

struct DemoOptions {
    std::string profile = "ordinary";
    hu::Speed speed = hu::Speed::kFull;
    int pings = 3;
};

// Runs the demo on the machine (which it shuts down) and returns the
// process's exit status: 0 when every step did what it should and the
// machine ended clean.
int RunDemo(const DemoOptions& options, Machine& machine, Transcript& transcript);

} // namespace sim
