// cdcacm-sim run: the driver's COM port offered to the host's own programs
// as a pseudo-terminal, in real time, until Ctrl-C or SIGTERM.
//
// Environment: host code of the tool; the machine runs in real time.
#pragma once

#include "machine.h"
#include "transcript.h"

#include <string>

namespace sim {

struct RunOptions {
    std::string profile = "ordinary";
    hu::Speed speed = hu::Speed::kFull;
    sm::Modem::DataMode mode = sm::Modem::DataMode::kCommand;
    std::string link; // a symbolic link to the terminal; empty: none
};

// Plugs the modem, bridges its COM port and the terminal until a signal
// ends the run, then concludes like the other subcommands; returns the exit
// status (2 when the terminal or its link cannot be made).
int RunBridge(const RunOptions& options, Machine& machine, Transcript& transcript);

} // namespace sim
