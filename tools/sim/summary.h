// The end of every cdcacm-sim session: the machine shut down, its
// problems listed, a short summary (bytes each way, requests, URBs,
// virtual and wall time) and the exit status.
//
// Environment: host code of the tool.
#pragma once

#include "machine.h"
#include "transcript.h"

#include <chrono>
#include <cstdint>

namespace sim {

struct AppTotals {
    uint64_t bytes_written = 0;
    uint64_t bytes_read = 0;
    uint64_t requests = 0;
};

// Shuts the machine down and prints the verdict; returns 0 when nothing
// failed (failed_steps counts the session's own failed checks).
int Conclude(Transcript& transcript, Machine& machine, const AppTotals& totals,
             std::chrono::steady_clock::time_point wall_start, size_t failed_steps);

} // namespace sim
