// What cdcacm-sim prints: one line per step with the virtual time it
// happened at, the driver's trace lines (when asked for) with theirs, and
// problems; everything also goes to the log file when there is one.
//
// Environment: host code of the tool. The driver's trace text arrives from
// whichever emulated context prints it; the scheduler runs one at a time,
// so the transcript needs no lock.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

namespace sim {

class Transcript {
  public:
    Transcript();
    ~Transcript();
    Transcript(const Transcript&) = delete;
    Transcript& operator=(const Transcript&) = delete;

    // Also writes everything to this file; false (with the reason) when it
    // cannot be created.
    bool OpenLog(const std::string& path, std::string* error);
    // Where the virtual time of each line comes from (ms); none: no stamp.
    void SetClock(std::function<int64_t()> now_ms) { now_ms_ = std::move(now_ms); }
    // Silences the step lines (the summary and problems still print).
    void SetQuiet(bool quiet) { quiet_ = quiet; }

    void Step(std::string_view text);    // "[   1.234 s] text"
    void Detail(std::string_view text);  // an indented line under the last step
    void Problem(std::string_view text); // "[   1.234 s] PROBLEM: text", always printed
    void Plain(std::string_view text);   // a line as it stands (summaries, headers)
    // Driver trace text as DbgPrint prints it, in pieces; each complete line
    // is printed with its time.
    void Trace(std::string_view text);
    void Flush(); // the unfinished trace line, if any

  private:
    void Emit(const std::string& line, bool always);
    std::string Stamp() const;
    std::function<int64_t()> now_ms_;
    std::FILE* log_ = nullptr;
    bool quiet_ = false;
    std::string partial_trace_;
};

} // namespace sim
