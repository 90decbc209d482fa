// The fault campaign over a scenario.
#include "campaign.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;

// One run of the campaign: the scenario with one fault point, or on the
// interleaving machine under one seed.
struct Run {
    size_t scenario = 0;
    std::string kind;  // a fault kind's name, or "interleave"
    std::string point; // "pool:37", "seed 5"
    std::vector<std::string> args;
};

enum class Outcome { kCompleted, kEndedEarly, kFailed, kKnown };

struct Result {
    Outcome outcome = Outcome::kFailed;
    std::string why;   // a failed run's lines
    std::string known; // why a known finding is known
};

struct Known {
    std::string kind; // a fault kind's name, "interleave" or "*"
    std::string text;
    std::string why;
};

// The known file's findings; nullopt (with a message) when malformed.
std::optional<std::vector<Known>> ReadKnown(const std::string& path) {
    std::vector<Known> known;
    if (path.empty())
        return known;
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "--known: cannot read %s\n", path.c_str());
        return std::nullopt;
    }
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        size_t hash = line.find('#');
        std::string why = hash == std::string::npos ? "" : line.substr(hash + 1);
        line = line.substr(0, hash);
        std::istringstream fields(line);
        Known entry;
        if (!(fields >> entry.kind))
            continue; // blank or a comment
        std::getline(fields >> std::ws, entry.text);
        while (!entry.text.empty() && entry.text.back() == ' ')
            entry.text.pop_back();
        entry.why = why.substr(std::min(why.find_first_not_of(' '), why.size()));
        bool kind_ok = entry.kind == "*" || entry.kind == "interleave" ||
                       ParseFaultKind(entry.kind).has_value();
        if (!kind_ok || entry.text.empty() || entry.why.empty()) {
            std::fprintf(stderr, "%s:%d: a known finding is KIND TEXT # why\n", path.c_str(),
                         number);
            return std::nullopt;
        }
        known.push_back(entry);
    }
    return known;
}

std::string Quoted(const std::string& arg) {
    if (arg.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                              "_-./:=,@") == std::string::npos &&
        !arg.empty())
        return arg;
    std::string quoted = "'";
    for (char c : arg)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string CommandLine(const std::string& program, const std::vector<std::string>& args) {
    std::string line = Quoted(program);
    for (const std::string& arg : args)
        line += " " + Quoted(arg);
    return line;
}

// A child running one command with its output in a file.
struct Child {
    pid_t pid = -1;
    size_t run = 0;
    std::string output;
    Clock::time_point started;
};

std::optional<Child> Start(const std::string& program, const std::vector<std::string>& args,
                           const std::string& output, size_t run) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    Child child;
    int error = posix_spawn(&child.pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        std::fprintf(stderr, "campaign: cannot run %s: %s\n", program.c_str(),
                     std::strerror(error));
        return std::nullopt;
    }
    child.run = run;
    child.output = output;
    child.started = Clock::now();
    return child;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The lines of a failed run's output that say why, at most a few.
std::string Why(const std::string& output) {
    static const char* const kMarks[] = {
        "PROBLEM:",  "expectation failed", "a step failed",
        "verdict:",  "ERROR: Address",     "runtime error:",
        "deadlock:", "ERROR: Leak",        "the driver's error line"};
    std::istringstream lines(output);
    std::string line, why;
    int kept = 0;
    while (std::getline(lines, line) && kept < 8)
        for (const char* mark : kMarks)
            if (line.find(mark) != std::string::npos) {
                why += "    " + line + "\n";
                ++kept;
                break;
            }
    if (why.empty()) { // the last lines, whatever they are
        std::vector<std::string> all;
        std::istringstream again(output);
        while (std::getline(again, line))
            all.push_back(line);
        for (size_t i = all.size() > 4 ? all.size() - 4 : 0; i < all.size(); ++i)
            why += "    " + all[i] + "\n";
    }
    return why;
}

Result Judge(int status, bool hung, unsigned timeout_s, const std::string& output) {
    Result result;
    if (hung) {
        result.why =
            "    no end within " + std::to_string(timeout_s) + " s (a hang)\n" + Why(output);
    } else if (WIFSIGNALED(status)) {
        result.why =
            std::string("    killed by signal ") + strsignal(WTERMSIG(status)) + "\n" + Why(output);
    } else if (WEXITSTATUS(status) == 0 && output.find(" never fired") != std::string::npos) {
        // The first run counted this point, so a run that does not reach it
        // is not the same run: something in the machine is not deterministic.
        result.why = "    the fault never fired, though the run without it counted the point\n";
    } else if (WEXITSTATUS(status) == 0) {
        result.outcome = output.find("under the fault the session ended early") != std::string::npos
                             ? Outcome::kEndedEarly
                             : Outcome::kCompleted;
    } else {
        result.why = Why(output);
    }
    return result;
}

// Runs every command, jobs at a time; the results in order.
class Children {
  public:
    Children(const CampaignOptions& options, std::string dir)
        : options_(options), dir_(std::move(dir)) {}

    std::vector<Result> RunAll(const std::vector<std::vector<std::string>>& commands,
                               const std::function<void(size_t done, size_t failed)>& progress) {
        std::vector<Result> results(commands.size());
        std::vector<Child> running;
        size_t next = 0, done = 0, failed = 0;
        while (done < commands.size()) {
            while (next < commands.size() && running.size() < std::max(1u, options_.jobs)) {
                std::string output = dir_ + "/run-" + std::to_string(next) + ".out";
                std::optional<Child> child = Start(options_.program, commands[next], output, next);
                if (!child) {
                    results[next].why = "    the run could not be started\n";
                    ++done, ++failed, ++next;
                    continue;
                }
                running.push_back(*child);
                ++next;
            }
            bool reaped = false;
            for (auto it = running.begin(); it != running.end();) {
                int status = 0;
                bool hung = Clock::now() - it->started > std::chrono::seconds(options_.timeout_s);
                if (hung) {
                    kill(it->pid, SIGKILL);
                    waitpid(it->pid, &status, 0);
                } else if (waitpid(it->pid, &status, WNOHANG) != it->pid) {
                    ++it;
                    continue;
                }
                results[it->run] = Judge(status, hung, options_.timeout_s, ReadFile(it->output));
                std::remove(it->output.c_str());
                failed += results[it->run].outcome == Outcome::kFailed;
                ++done;
                reaped = true;
                it = running.erase(it);
                progress(done, failed);
            }
            if (!reaped)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return results;
    }

  private:
    const CampaignOptions& options_;
    std::string dir_;
};

// count points from 1 to sites, or sample of them spread evenly.
std::vector<uint64_t> Points(uint64_t sites, uint64_t sample) {
    std::vector<uint64_t> points;
    if (sample == 0 || sample >= sites) {
        for (uint64_t n = 1; n <= sites; ++n)
            points.push_back(n);
        return points;
    }
    for (uint64_t k = 0; k < sample; ++k)
        points.push_back(1 + (sample == 1 ? 0 : k * (sites - 1) / (sample - 1)));
    points.erase(std::unique(points.begin(), points.end()), points.end());
    return points;
}

std::optional<FaultSites> ReadSites(const std::string& path) {
    std::ifstream in(path);
    FaultSites sites;
    std::string name;
    uint64_t count = 0;
    int seen = 0;
    while (in >> name >> count) {
        if (name == "pool")
            sites.pool = count, ++seen;
        else if (name == "requests")
            sites.requests = count, ++seen;
        else if (name == "urbs")
            sites.urbs = count, ++seen;
    }
    if (seen != 3)
        return std::nullopt;
    return sites;
}

} // namespace

int RunCampaign(const CampaignOptions& options) {
    auto wall_start = Clock::now();
    char dir_template[] = "/tmp/cdcacm-campaign.XXXXXX";
    if (!mkdtemp(dir_template)) {
        std::fprintf(stderr, "campaign: cannot make a temporary folder: %s\n",
                     std::strerror(errno));
        return 2;
    }
    std::string dir = dir_template;
    Children children(options, dir);
    bool tty = isatty(2) != 0;
    std::optional<std::vector<Known>> known = ReadKnown(options.known_file);
    if (!known) {
        std::filesystem::remove_all(dir);
        return 2;
    }

    // The first run of each scenario, without a fault, counts its points.
    std::vector<std::vector<std::string>> bases, counts;
    std::vector<FaultSites> sites;
    for (size_t s = 0; s < options.scenarios.size(); ++s) {
        const std::string& scenario = options.scenarios[s];
        std::vector<std::string> base;
        if (scenario == "demo") {
            base = {"demo"};
            base.insert(base.end(), options.demo_options.begin(), options.demo_options.end());
        } else {
            base = {"script", scenario};
        }
        base.insert(base.end(), options.common_options.begin(), options.common_options.end());
        bases.push_back(base);
        std::vector<std::string> count = base;
        count.insert(count.end(), {"--seed", std::to_string(options.seed), "--fault-sites",
                                   dir + "/sites-" + std::to_string(s)});
        counts.push_back(count);
    }
    std::vector<Result> first = children.RunAll(counts, [](size_t, size_t) {});
    for (size_t s = 0; s < options.scenarios.size(); ++s) {
        std::optional<FaultSites> counted = ReadSites(dir + "/sites-" + std::to_string(s));
        if (first[s].outcome != Outcome::kCompleted || !counted) {
            std::printf("campaign: %s does not pass without a fault; fix that first:\n%s"
                        "  replay: %s\n",
                        options.scenarios[s].c_str(), first[s].why.c_str(),
                        CommandLine(options.program, bases[s]).c_str());
            std::filesystem::remove_all(dir);
            return 2;
        }
        sites.push_back(*counted);
        std::printf("%s: %llu pool allocations, %llu USB transfers and control requests, %llu "
                    "URBs\n",
                    options.scenarios[s].c_str(), (unsigned long long)counted->pool,
                    (unsigned long long)counted->requests, (unsigned long long)counted->urbs);
    }

    std::vector<Run> runs;
    for (size_t s = 0; s < options.scenarios.size(); ++s) {
        for (FaultKind kind : options.kinds)
            for (uint64_t n : Points(sites[s].For(kind), options.sample)) {
                std::string point = FaultPointText({kind, n});
                std::vector<std::string> args = bases[s];
                args.insert(args.end(), {"--seed", std::to_string(options.seed), "--fault", point});
                runs.push_back({s, FaultKindName(kind), point, args});
            }
        for (uint64_t seed = 1; seed <= options.interleave_seeds; ++seed) {
            std::vector<std::string> args = bases[s];
            args.insert(args.end(), {"--seed", std::to_string(seed), "--interleave", "on"});
            runs.push_back({s, "interleave", "seed " + std::to_string(seed), args});
        }
    }
    std::vector<std::vector<std::string>> commands;
    for (const Run& run : runs)
        commands.push_back(run.args);
    size_t last_shown = 0;
    std::vector<Result> results = children.RunAll(commands, [&](size_t done, size_t failed) {
        if (tty) {
            std::fprintf(stderr, "\r[%5zu/%zu] %-10s %-16s failed or known %zu   ", done,
                         runs.size(), runs[done - 1].kind.c_str(), runs[done - 1].point.c_str(),
                         failed);
        } else if (done == runs.size() ||
                   done - last_shown >= std::max<size_t>(1, runs.size() / 10)) {
            std::fprintf(stderr, "[%5zu/%zu] failed or known %zu\n", done, runs.size(), failed);
            last_shown = done;
        }
    });
    if (tty)
        std::fprintf(stderr, "\n");
    std::filesystem::remove_all(dir);

    // The failed runs with their replay commands, then the table.
    size_t failed = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
        Result& result = results[i];
        if (result.outcome != Outcome::kFailed)
            continue;
        for (const Known& entry : *known)
            if ((entry.kind == "*" || entry.kind == runs[i].kind) &&
                result.why.find(entry.text) != std::string::npos) {
                result.outcome = Outcome::kKnown;
                result.known = entry.why;
                break;
            }
        std::string replay = CommandLine(options.program, runs[i].args);
        const char* scenario = options.scenarios[runs[i].scenario].c_str();
        if (result.outcome == Outcome::kKnown) {
            std::printf("KNOWN %s %s: %s\n    replay: %s\n", scenario, runs[i].point.c_str(),
                        result.known.c_str(), replay.c_str());
            continue;
        }
        ++failed;
        std::printf("FAILED %s %s\n%s    replay: %s\n", scenario, runs[i].point.c_str(),
                    result.why.c_str(), replay.c_str());
    }
    struct Row {
        size_t runs = 0, completed = 0, early = 0, failed = 0, known = 0;
    };
    std::printf("\n%-28s %-11s %7s %10s %12s %7s %6s\n", "scenario", "fault", "runs", "completed",
                "ended early", "failed", "known");
    for (size_t s = 0; s < options.scenarios.size(); ++s) {
        std::vector<std::pair<std::string, Row>> rows;
        for (size_t i = 0; i < runs.size(); ++i) {
            if (runs[i].scenario != s)
                continue;
            auto it = std::find_if(rows.begin(), rows.end(),
                                   [&](const auto& row) { return row.first == runs[i].kind; });
            if (it == rows.end())
                it = rows.insert(rows.end(), {runs[i].kind, Row{}});
            Row& row = it->second;
            ++row.runs;
            row.completed += results[i].outcome == Outcome::kCompleted;
            row.early += results[i].outcome == Outcome::kEndedEarly;
            row.failed += results[i].outcome == Outcome::kFailed;
            row.known += results[i].outcome == Outcome::kKnown;
        }
        std::string name = options.scenarios[s];
        if (name.size() > 28)
            name = "..." + name.substr(name.size() - 25);
        for (const auto& [kind, row] : rows)
            std::printf("%-28s %-11s %7zu %10zu %12zu %7zu %6zu\n", name.c_str(), kind.c_str(),
                        row.runs, row.completed, row.early, row.failed, row.known);
    }
    auto wall_s =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - wall_start).count();
    std::printf("\n%zu runs, %zu failed, %lld s wall with %u jobs\n", runs.size(), failed,
                (long long)wall_s, options.jobs);
    return failed == 0 ? 0 : 1;
}

} // namespace sim
