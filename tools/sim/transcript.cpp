// The tool's transcript on standard output and in the log file.
#include "transcript.h"

namespace sim {

Transcript::Transcript() = default;

Transcript::~Transcript() {
    Flush();
    if (log_)
        std::fclose(log_);
}

bool Transcript::OpenLog(const std::string& path, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) {
        *error = "cannot create the log file " + path;
        return false;
    }
    if (log_)
        std::fclose(log_);
    log_ = file;
    return true;
}

std::string Transcript::Stamp() const {
    if (!now_ms_)
        return "[          ]";
    int64_t ms = now_ms_();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%6lld.%03lld s]", static_cast<long long>(ms / 1000),
                  static_cast<long long>(ms % 1000));
    return stamp;
}

void Transcript::Emit(const std::string& line, bool always) {
    if (always || !quiet_) {
        std::fputs(line.c_str(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout); // a program reading the transcript sees each line at once
    }
    if (log_) {
        std::fputs(line.c_str(), log_);
        std::fputc('\n', log_);
    }
}

void Transcript::Step(std::string_view text) {
    Flush();
    Emit(Stamp() + " " + std::string(text), false);
}

void Transcript::Detail(std::string_view text) {
    Flush();
    Emit(std::string(Stamp().size(), ' ') + "   " + std::string(text), false);
}

void Transcript::Problem(std::string_view text) {
    Flush();
    Emit(Stamp() + " PROBLEM: " + std::string(text), true);
    std::fflush(stdout);
}

void Transcript::Plain(std::string_view text) {
    Flush();
    Emit(std::string(text), true);
}

void Transcript::Trace(std::string_view text) {
    for (char c : text) {
        if (c != '\n') {
            partial_trace_ += c;
            continue;
        }
        if (!partial_trace_.empty())
            Emit(Stamp() + "   " + partial_trace_, false);
        partial_trace_.clear();
    }
}

void Transcript::Flush() {
    if (partial_trace_.empty())
        return;
    Emit(Stamp() + "   " + partial_trace_, false);
    partial_trace_.clear();
}

} // namespace sim
