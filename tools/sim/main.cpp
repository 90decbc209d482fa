// cdcacm-sim: the driver on a simulated machine for its users. Subcommands:
// demo (a narrated session of a modem's whole life) and script (a scenario
// file, checked whole before it runs). Every subcommand takes the common options: --seed, --trace,
// --capture, --timeline and --log.
#include "demo.h"
#include "machine.h"
#include "profiles.h"
#include "script_parse.h"
#include "script_run.h"
#include "transcript.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace {

struct Common {
    uint64_t seed = 1;
    std::string trace;
    std::string capture;
    std::string timeline;
    std::string log;
    std::string interleave;
};

void AddCommon(CLI::App& command, Common& common) {
    command.add_option("--seed", common.seed, "seed of every random choice of the machine")
        ->capture_default_str();
    command
        .add_option("--trace", common.trace,
                    "print the driver's trace lines: its TraceMask, as a number (0x... for "
                    "hex) or 'all'")
        ->type_name("MASK");
    command
        .add_option("--capture", common.capture,
                    "write the USB bus capture (USBPcap format, for Wireshark) to FILE")
        ->type_name("FILE");
    command
        .add_option("--timeline", common.timeline,
                    "write the run as a trace-event file (Perfetto, chrome://tracing) to FILE")
        ->type_name("FILE");
    command.add_option("--log", common.log, "also write the transcript to FILE")->type_name("FILE");
    command
        .add_option("--interleave", common.interleave,
                    "run on the interleaving machine that makes races reachable: on, or "
                    "cpus=1|2,workers=N,jump_us=N")
        ->type_name("MODE");
}

// The machine the common options ask for; nullopt (with a message) when
// one is malformed.
std::optional<sim::MachineOptions> MachineFrom(const Common& common, sim::Transcript& transcript) {
    sim::MachineOptions options;
    options.seed = common.seed;
    options.capture_file = common.capture;
    options.timeline_file = common.timeline;
    std::string error;
    std::optional<hk::InterleaveOptions> interleave =
        hk::InterleaveOptions::Parse(common.interleave, &error);
    if (!interleave) {
        std::fprintf(stderr, "--interleave: %s\n", error.c_str());
        return std::nullopt;
    }
    options.interleave = *interleave;
    if (!common.trace.empty()) {
        options.print_trace = true;
        if (common.trace == "all") {
            options.trace_mask = 0xffffffff;
        } else {
            try {
                size_t used = 0;
                unsigned long long mask = std::stoull(common.trace, &used, 0);
                if (used != common.trace.size() || mask > 0xffffffffull)
                    throw std::invalid_argument(common.trace);
                options.trace_mask = uint32_t(mask) | 0x1; // assertions are always seen
            } catch (const std::exception&) {
                std::fprintf(stderr, "--trace: \"%s\" is not a mask (a number or 'all')\n",
                             common.trace.c_str());
                return std::nullopt;
            }
        }
    }
    if (!common.capture.empty()) {
        // The bus writes the capture as it runs; a path it cannot create is
        // refused before anything runs.
        std::FILE* file = std::fopen(common.capture.c_str(), "wb");
        if (!file) {
            std::fprintf(stderr, "--capture: cannot create %s\n", common.capture.c_str());
            return std::nullopt;
        }
        std::fclose(file);
    }
    if (!common.timeline.empty()) {
        // The timeline is written when the machine shuts down; a path that
        // cannot be created is refused before anything runs.
        std::FILE* file = std::fopen(common.timeline.c_str(), "wb");
        if (!file) {
            std::fprintf(stderr, "--timeline: cannot create %s\n", common.timeline.c_str());
            return std::nullopt;
        }
        std::fclose(file);
    }
    if (!common.log.empty() && !transcript.OpenLog(common.log, &error)) {
        std::fprintf(stderr, "--log: %s\n", error.c_str());
        return std::nullopt;
    }
    return options;
}

// The scenario file's text, bounded; nullopt (with a message) when it
// cannot be read or is too long.
std::optional<std::string> ReadScenario(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "%s: cannot read the scenario file\n", file.c_str());
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        text.append(buffer, size_t(in.gcount()));
        if (text.size() > sim::script::kMaxFileBytes) {
            std::fprintf(stderr, "%s: longer than %zu bytes\n", file.c_str(),
                         sim::script::kMaxFileBytes);
            return std::nullopt;
        }
    }
    if (in.bad()) {
        std::fprintf(stderr, "%s: cannot read the scenario file\n", file.c_str());
        return std::nullopt;
    }
    return text;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"cdcacm-sim: the cdcacm USB modem driver on a simulated machine"};
    app.require_subcommand(1);

    Common common;
    sim::DemoOptions demo_options;
    std::string speed = "full";
    CLI::App* demo = app.add_subcommand(
        "demo", "a narrated session in virtual time: plug a modem, open its COM port, dial, "
                "PPP and pings through the driver, hang up, re-plug with the port open, "
                "sleep and resume, close, unplug and unload");
    AddCommon(*demo, common);
    std::string profile_help = "the modem profile:";
    for (const sim::ProfileInfo& info : sim::ProfileNames())
        profile_help += " " + info.name;
    demo->add_option("--profile", demo_options.profile, profile_help)
        ->type_name("NAME")
        ->capture_default_str();
    demo->add_option("--speed", speed, "the bus speed: full or high")
        ->check(CLI::IsMember({"full", "high"}))
        ->capture_default_str();
    demo->add_option("--pings", demo_options.pings, "how many pings")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();

    std::string scenario;
    CLI::App* script = app.add_subcommand(
        "script", "run a scenario file (tools/sim/SCENARIOS.md): plug modems, open ports, write, "
                  "read and expect bytes, inject faults, sleep and wake, all in virtual time; "
                  "exit status 0 when every expectation held and the machine ended clean, 1 "
                  "when one failed or the machine did not end clean, 2 for a file that cannot "
                  "be read or is malformed");
    AddCommon(*script, common);
    script->add_option("FILE", scenario, "the scenario file")->required();

    CLI11_PARSE(app, argc, argv);

    sim::Transcript transcript;
    std::optional<sim::MachineOptions> machine_options = MachineFrom(common, transcript);
    if (!machine_options)
        return 2;
    if (demo->parsed()) {
        demo_options.speed = *sim::ParseSpeed(speed);
        if (!sim::FindProfile(demo_options.profile, demo_options.speed)) {
            std::fprintf(stderr, "--profile: no profile named \"%s\"\n",
                         demo_options.profile.c_str());
            return 2;
        }
        sim::Machine machine(*machine_options, transcript);
        return sim::RunDemo(demo_options, machine, transcript);
    }
    if (script->parsed()) {
        // The whole file is read and checked before anything runs.
        std::optional<std::string> text = ReadScenario(scenario);
        if (!text)
            return 2;
        sim::script::Parsed parsed = sim::script::Parse(*text, sim::ScriptVocabulary());
        if (parsed.error) {
            std::string where = scenario;
            if (parsed.error->line != 0)
                where += ":" + std::to_string(parsed.error->line);
            std::fprintf(stderr, "%s: %s\n", where.c_str(), parsed.error->message.c_str());
            return 2;
        }
        sim::Machine machine(*machine_options, transcript);
        return sim::RunScript(scenario, parsed.commands, machine, transcript);
    }
    return 2;
}
