// The verdict and summary of a cdcacm-sim session.
#include "summary.h"

#include <algorithm>
#include <string>

namespace sim {

bool DefinedUnderFault(const StepFailure& failure) {
    switch (failure.error) {
    case comm::ERROR_SUCCESS:             // an answer that did not come in time
    case comm::ERROR_GEN_FAILURE:         // STATUS_UNSUCCESSFUL: a transfer failed
    case comm::ERROR_NOT_ENOUGH_MEMORY:   // STATUS_NO_MEMORY
    case comm::ERROR_NO_SYSTEM_RESOURCES: // STATUS_INSUFFICIENT_RESOURCES
    case comm::ERROR_OPERATION_ABORTED:   // STATUS_CANCELLED
    case comm::ERROR_SEM_TIMEOUT:         // STATUS_IO_TIMEOUT
    case comm::ERROR_DEVICE_REMOVED:      // STATUS_DEVICE_REMOVED
    case comm::ERROR_FILE_NOT_FOUND:      // STATUS_NO_SUCH_DEVICE: the port went with its modem
    case comm::ERROR_ACCESS_DENIED:       // STATUS_DELETE_PENDING: a removed port
    case comm::ERROR_MR_MID_NOT_FOUND:    // a USB status folded into 0xE...: no Win32 error has it
        return true;
    default:
        return false;
    }
}

int Conclude(Transcript& transcript, Machine& machine, const AppTotals& totals,
             std::chrono::steady_clock::time_point wall_start,
             const std::vector<StepFailure>& failures) {
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
    const std::optional<FaultPoint>& fault = machine.Fault();
    if (fault)
        transcript.Plain("  fault: " + FaultPointText(*fault) +
                         (machine.FaultFired() ? " fired" : " never fired"));
    bool excused = fault && machine.FaultFired() &&
                   std::all_of(failures.begin(), failures.end(), DefinedUnderFault);
    if (problems.empty() && (failures.empty() || excused)) {
        std::string verdict = "  verdict: clean (no verifier report, no assertion, nothing leaked)";
        if (!failures.empty())
            verdict += "; under the fault the session ended early as the driver defines: " +
                       failures.front().what;
        transcript.Plain(verdict);
        return 0;
    }
    std::snprintf(line, sizeof line, "  verdict: FAILED (%zu failed step(s), %zu problem(s))",
                  failures.size(), problems.size());
    transcript.Plain(line);
    for (const StepFailure& failure : failures)
        if (fault && machine.FaultFired() && !DefinedUnderFault(failure))
            transcript.Plain("  a step failed with a status the driver does not define for "
                             "the fault: " +
                             failure.what);
    return 1;
}

} // namespace sim
