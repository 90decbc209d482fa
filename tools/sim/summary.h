// The end of every cdcacm-sim session: the machine shut down, its
// problems listed, a short summary (bytes each way, requests, URBs,
// virtual and wall time) and the exit status.
//
// Environment: host code of the tool.
#pragma once

#include "machine.h"
#include "transcript.h"

#include "comm/comm.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct AppTotals {
    uint64_t bytes_written = 0;
    uint64_t bytes_read = 0;
    uint64_t requests = 0;
};

// A step of the session that did not do what it should: a Win32 call that
// failed with error, or (error 0) an answer that did not come or differed.
struct StepFailure {
    std::string what;
    comm::DWORD error = 0;
};

// Whether a step may fail so when a fault was injected: with a status the
// driver completes requests with when memory fails, the device is gone or
// a transfer fails (and the Win32 error each maps to), or with an answer
// that did not come.
bool DefinedUnderFault(const StepFailure& failure);

// Shuts the machine down and prints the verdict; returns 0 when the
// machine ended clean and no step failed, or, under the session's fault
// point, every failed step failed as the driver defines.
int Conclude(Transcript& transcript, Machine& machine, const AppTotals& totals,
             std::chrono::steady_clock::time_point wall_start,
             const std::vector<StepFailure>& failures);

} // namespace sim
