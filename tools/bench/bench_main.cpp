// Runs every benchmark inside one emulated kernel, with the driver's trace
// mask at its value before driver entry (assertions and errors only). After
// the usual report, a table states the data path's ratios against their
// goals, from the medians of this run (or its single runs without
// repetitions), so that a reader sees at a glance what passes.
#include "hostkernel/emu.h"
#include "trace.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include <unistd.h>

namespace {

struct Goal {
    const char* what;
    const char* measured;  // benchmark name
    const char* yardstick; // benchmark name
    double at_least;
};

const Goal kGoals[] = {
    {"framer / table-FCS loop", "BM_PppFramer", "BM_PppFcsTableLoop", 0.9},
    {"deframer / reference decoder", "BM_PppDeFramer", "BM_PppReferenceDecoder", 1.0},
    {"receive path / framer", "BM_PppReceivePath", "BM_PppFramer", 0.8},
    {"send path / deframer", "BM_PppSendPath", "BM_PppDeFramer", 0.8},
    {"circular buffer / memcpy, 64-byte chunks", "BM_CircBufWriteRead/64", "BM_MemcpyWriteRead/64",
     0.5},
    // For information: against the plain encoder, which has no packet
    // headers to parse.
    {"framer / reference encoder (no goal)", "BM_PppFramer", "BM_PppReferenceEncoder", 0.0},
};

// The console report, keeping each benchmark's bytes per second.
class GoalReporter : public benchmark::ConsoleReporter {
  public:
    GoalReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Color : OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            auto rate = run.counters.find("bytes_per_second");
            if ((median || single) && rate != run.counters.end())
                rates_[run.run_name.str()] = rate->second.value;
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        bool header = false;
        for (const Goal& goal : kGoals) {
            auto measured = rates_.find(goal.measured);
            auto yardstick = rates_.find(goal.yardstick);
            if (measured == rates_.end() || yardstick == rates_.end() || yardstick->second <= 0)
                continue;
            if (!header) {
                std::printf("\n%-44s %10s %10s %6s %6s\n", "ratio (bytes per CPU second)", "MB/s",
                            "yardstick", "ratio", "goal");
                header = true;
            }
            double ratio = measured->second / yardstick->second;
            if (goal.at_least <= 0) {
                std::printf("%-44s %10.1f %10.1f %6.2f %6s\n", goal.what, measured->second / 1e6,
                            yardstick->second / 1e6, ratio, "-");
                continue;
            }
            std::printf("%-44s %10.1f %10.1f %6.2f >=%-4.2f %s\n", goal.what,
                        measured->second / 1e6, yardstick->second / 1e6, ratio, goal.at_least,
                        ratio >= goal.at_least ? "pass" : "FAIL");
        }
        std::fflush(stdout);
    }

  private:
    std::map<std::string, double> rates_;
};

} // namespace

int main(int argc, char** argv) {
    hk::Kernel kernel;
    TraceInit();
    TraceMask = TL_ASSERT | TL_ERROR;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    GoalReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
