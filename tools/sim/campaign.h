// cdcacm-sim campaign: a scenario (the demo, or a scenario file) run once
// per fault point: every pool allocation failed in turn; every USB
// transfer and control request stalled, failed with a USBD error, or left
// unanswered in turn; the device gone, or pulled out, at every URB; and
// the scenario on the interleaving machine under K seeds. A first run
// without faults counts the points. Every run is this program run again
// with --fault (or --interleave) in a child process, so the command a
// failing run prints replays it exactly; a run passes when the machine
// ends clean, what the application read could have come from what the
// modems sent, and the scenario completed or failed only as the driver
// defines for the fault. A progress line while it runs, a table at the
// end.
//
// Environment: host code of the tool; children run in parallel, each in
// a process of its own.
#pragma once

#include "fault_point.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct CampaignOptions {
    std::string program; // this program's path, for the children and the replay commands
    std::vector<std::string> scenarios; // "demo" or scenario files
    std::vector<FaultKind> kinds = {std::begin(kFaultKinds), std::end(kFaultKinds)};
    uint64_t interleave_seeds = 20; // 0: no interleaving runs
    uint64_t sample = 0;            // 0: every point; N: N points per kind, spread evenly
    unsigned jobs = 1;
    uint64_t seed = 1;
    std::vector<std::string> demo_options;   // what the demo's runs get (--profile, --speed)
    std::vector<std::string> common_options; // what every run gets (--profiles)
    unsigned timeout_s = 300;                // a child that runs longer hangs
    // Findings already known: a file of lines "KIND TEXT # why"; a failed
    // run of that kind (or any, for *) whose report contains TEXT counts as
    // known, is listed with its why, and does not fail the campaign.
    std::string known_file;
};

// Prints progress and the table; the exit status: 0 when every run
// passed (or failed as known), 1 when one failed, 2 when the scenario
// fails without a fault or the known file is malformed.
int RunCampaign(const CampaignOptions& options);

} // namespace sim
