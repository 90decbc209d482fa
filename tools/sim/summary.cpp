// The verdict and summary of a cdcacm-sim session.
#include "summary.h"

#include <string>

namespace sim {

int Conclude(Transcript& transcript, Machine& machine, const AppTotals& totals,
             std::chrono::steady_clock::time_point wall_start, size_t failed_steps) {
    std::vector<std::string> problems = machine.Shutdown();
    for (const std::string& problem : problems)
        if (problem.rfind("driver verifier: ", 0) != 0) // those were printed as they came
            transcript.Problem(problem);
    auto wall_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - wall_start)
                       .count();
    int64_t virtual_ms = machine.NowMs();
    char line[200];
    transcript.Plain("");
    transcript.Plain("summary:");
    std::snprintf(line, sizeof line,
                  "  application: %llu bytes written, %llu bytes read, %llu requests",
                  static_cast<unsigned long long>(totals.bytes_written),
                  static_cast<unsigned long long>(totals.bytes_read),
                  static_cast<unsigned long long>(totals.requests));
    transcript.Plain(line);
    std::snprintf(line, sizeof line, "  bus: %llu modem(s) plugged, %llu URBs submitted",
                  static_cast<unsigned long long>(machine.counters().plugs),
                  static_cast<unsigned long long>(machine.counters().urbs));
    transcript.Plain(line);
    std::snprintf(line, sizeof line, "  time: %lld.%03lld s virtual, %lld.%03lld s wall",
                  static_cast<long long>(virtual_ms / 1000),
                  static_cast<long long>(virtual_ms % 1000), static_cast<long long>(wall_ms / 1000),
                  static_cast<long long>(wall_ms % 1000));
    transcript.Plain(line);
    bool clean = problems.empty() && failed_steps == 0;
    if (clean) {
        transcript.Plain("  verdict: clean (no verifier report, no assertion, nothing leaked)");
        return 0;
    }
    std::snprintf(line, sizeof line, "  verdict: FAILED (%zu failed step(s), %zu problem(s))",
                  failed_steps, problems.size());
    transcript.Plain(line);
    return 1;
}

} // namespace sim
