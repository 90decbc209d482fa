// cdcacm-sim: the driver on a simulated machine for its users. Subcommands:
// demo (a narrated session of a modem's whole life), script (a scenario
// file, checked whole before it runs), run (the COM port as a
// pseudo-terminal, in real time) and modems (the modem profiles, and one's
// descriptors as lsusb lays them out). demo, script and run take the common
// options: --seed, --trace, --capture, --timeline, --log and --interleave
// (not run); every subcommand takes --profiles DIR.
#include "campaign.h"
#include "demo.h"
#include "descriptors.h"
#include "machine.h"
#include "profiles.h"
#include "run.h"
#include "script_parse.h"
#include "script_run.h"
#include "transcript.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

// The path children of a campaign run: this program's own, absolute, so
// that the replay commands work from any folder.
std::string ProgramPath(const char* argv0) {
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return argv0;
    return std::string(path, size_t(length));
}

struct Common {
    std::string profiles; // a folder of profile files beside the built-in ones
    uint64_t seed = 1;
    std::string trace;
    std::string capture;
    std::string timeline;
    std::string log;
    std::string interleave;
    std::string fault;
    std::string sites_file;
};

void AddProfilesOption(CLI::App& command, Common& common) {
    command
        .add_option("--profiles", common.profiles,
                    "also offer the profile files (*.json) of DIR, beside the built-in ones")
        ->type_name("DIR");
}

void AddCommon(CLI::App& command, Common& common) {
    AddProfilesOption(command, common);
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

// The options a session run by a campaign takes: its fault point, and the
// file its count of fault sites goes to.
void AddFaultOptions(CLI::App& command, Common& common) {
    command
        .add_option("--fault", common.fault,
                    "inject one fault: KIND:N fails the N-th call of its kind (pool: pool "
                    "allocations; stall, error, no-answer: USB transfers and control requests; "
                    "gone, removal: the device stops answering, or is pulled out, as the N-th "
                    "URB arrives); campaign prints these in its replay commands")
        ->type_name("KIND:N");
    command
        .add_option("--fault-sites", common.sites_file,
                    "write how many calls each kind of fault could fail to FILE (campaign uses it)")
        ->type_name("FILE");
}

// Writes the session's count of fault sites where --fault-sites asked.
bool WriteSites(const std::string& file, const sim::FaultSites& sites) {
    if (file.empty())
        return true;
    std::ofstream out(file);
    out << "pool " << sites.pool << "\nrequests " << sites.requests << "\nurbs " << sites.urbs
        << "\n";
    return bool(out);
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
    if (!common.fault.empty()) {
        options.fault = sim::ParseFaultPoint(common.fault, &error);
        if (!options.fault) {
            std::fprintf(stderr, "--fault: %s\n", error.c_str());
            return std::nullopt;
        }
    }
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

// The oddities of the descriptors a profile's modem sends, a line each.
void PrintOddities(const std::string& name, const sm::Profile& tables, sim::Transcript& out) {
    std::vector<std::string> oddities = sim::Oddities(tables);
    if (oddities.empty())
        return;
    out.Plain("profile " + name + ": the modem sends its descriptors as they are; odd in them:");
    for (const std::string& oddity : oddities)
        out.Plain("  " + oddity);
}

// cdcacm-sim modems [NAME]: the list, or one profile's descriptors,
// behaviour and oddities.
// The modem a session plugs: its profile by name or file and the speed
// asked for (the profile's own when none was), with the oddities of its
// descriptors printed; nullopt (with a message) when either is refused.
std::optional<hu::Speed> ChooseModem(const std::string& name, const std::string& speed_text,
                                     sim::Transcript& transcript) {
    std::string error;
    const sim::ModemProfile* profile = sim::FindModemProfile(name, &error);
    if (!profile) {
        std::fprintf(stderr, "--profile: %s\n", error.c_str());
        return std::nullopt;
    }
    hu::Speed speed = speed_text.empty() ? profile->default_speed : *sim::ParseSpeed(speed_text);
    if (!profile->Supports(speed)) {
        std::fprintf(stderr, "--speed: the profile %s has no %s-speed descriptors\n",
                     profile->name.c_str(), sim::SpeedName(speed));
        return std::nullopt;
    }
    PrintOddities(profile->name, profile->At(speed), transcript);
    return speed;
}

int Modems(const std::string& name, const std::string& speed_text) {
    if (name.empty()) {
        for (const sim::ProfileInfo& info : sim::ProfileNames()) {
            std::string line = info.name;
            line.resize(std::max<size_t>(line.size() + 1, 24), ' ');
            std::printf("%s%s%s\n", line.c_str(), info.description.c_str(),
                        info.built_in ? "" : (" (" + info.file + ")").c_str());
        }
        return 0;
    }
    std::string error;
    const sim::ModemProfile* profile = sim::FindModemProfile(name, &error);
    if (!profile) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    hu::Speed speed = speed_text.empty() ? profile->default_speed : *sim::ParseSpeed(speed_text);
    if (!profile->Supports(speed)) {
        std::fprintf(stderr, "--speed: the profile %s has no %s-speed descriptors\n",
                     profile->name.c_str(), sim::SpeedName(speed));
        return 2;
    }
    const sm::Profile& tables = profile->At(speed);
    std::printf("%s: %s (%s, %s speed)\n\n", profile->name.c_str(), profile->description.c_str(),
                profile->file.c_str(), sim::SpeedName(speed));
    std::printf("%s\nBehaviour:\n", sim::LsusbText(tables).c_str());
    for (const std::string& line : sim::BehaviourLines(*profile, speed))
        std::printf("  %s\n", line.c_str());
    std::vector<std::string> oddities = sim::Oddities(tables);
    std::printf("\nOddities:%s\n", oddities.empty() ? " none" : "");
    for (const std::string& oddity : oddities)
        std::printf("  %s\n", oddity.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    // The built-in profiles are read first: the help lists them.
    std::string profiles_error;
    if (!sim::LoadProfiles(sim::BuiltInProfilesDir(), true, &profiles_error)) {
        std::fprintf(stderr, "%s\n", profiles_error.c_str());
        return 2;
    }

    CLI::App app{"cdcacm-sim: the cdcacm USB modem driver on a simulated machine"};
    app.require_subcommand(1);

    Common common;
    sim::DemoOptions demo_options;
    std::string speed; // empty: the profile's default
    CLI::App* demo = app.add_subcommand(
        "demo", "a narrated session in virtual time: plug a modem, open its COM port, dial, "
                "PPP and pings through the driver, hang up, re-plug with the port open, "
                "sleep and resume, close, unplug and unload");
    AddCommon(*demo, common);
    AddFaultOptions(*demo, common);
    std::string profile_help = "the modem profile, a profile file's path or one of:";
    for (const sim::ProfileInfo& info : sim::ProfileNames())
        profile_help += " " + info.name;
    demo->add_option("--profile", demo_options.profile, profile_help)
        ->type_name("NAME|FILE")
        ->capture_default_str();
    demo->add_option("--speed", speed, "the bus speed: full or high (default: the profile's)")
        ->check(CLI::IsMember({"full", "high"}));
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
    AddFaultOptions(*script, common);
    script->add_option("FILE", scenario, "the scenario file")->required();

    sim::RunOptions run_options;
    std::string run_modem = "command";
    CLI::App* run = app.add_subcommand(
        "run", "in real time: plug a modem and offer its COM port as a pseudo-terminal to the "
               "host's programs (picocom, minicom, pyserial, pppd) until Ctrl-C or SIGTERM");
    AddCommon(*run, common);
    run->add_option("--profile", run_options.profile, profile_help)
        ->type_name("NAME")
        ->capture_default_str();
    run->add_option("--speed", speed, "the bus speed: full or high (default: the profile's)")
        ->check(CLI::IsMember({"full", "high"}));
    run->add_option("--modem", run_modem,
                    "what the modem does with the bytes: command (AT commands, dialling, PPP) "
                    "or loopback (every byte comes back)")
        ->check(CLI::IsMember({"command", "loopback"}))
        ->capture_default_str();
    run->add_option("--link", run_options.link, "also make a symbolic link PATH to the terminal")
        ->type_name("PATH");

    sim::CampaignOptions campaign_options;
    campaign_options.jobs = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::string> campaign_kinds;
    CLI::App* campaign = app.add_subcommand(
        "campaign",
        "run a scenario once per fault point: every pool allocation failed in turn, every USB "
        "transfer and control request stalled, failed, left unanswered in turn, the device gone "
        "or pulled out at every URB, and the interleaving machine under many seeds; a failing "
        "run prints the command that replays it; exit status 0 when every run passed");
    campaign
        ->add_option("SCENARIO", campaign_options.scenarios,
                     "demo, or scenario files (default: demo)")
        ->type_name("demo|FILE");
    AddProfilesOption(*campaign, common);
    campaign->add_option("--profile", demo_options.profile, "the demo's modem profile")
        ->type_name("NAME|FILE");
    campaign
        ->add_option("--kinds", campaign_kinds,
                     "the kinds of faults (default: all): pool, stall, gone, error, "
                     "no-answer, removal")
        ->delimiter(',')
        ->check(CLI::IsMember({"pool", "stall", "gone", "error", "no-answer", "removal"}));
    campaign
        ->add_option("--interleave-seeds", campaign_options.interleave_seeds,
                     "runs on the interleaving machine, one per seed from 1 (0: none)")
        ->capture_default_str();
    campaign
        ->add_option("--sample", campaign_options.sample,
                     "run at most N points of each kind, spread evenly (0: every point)")
        ->type_name("N")
        ->capture_default_str();
    campaign->add_option("--jobs", campaign_options.jobs, "runs at once")
        ->check(CLI::Range(1, 256));
    campaign->add_option("--seed", campaign_options.seed, "the seed of the fault runs")
        ->capture_default_str();
    campaign
        ->add_option("--known", campaign_options.known_file,
                     "findings already known: lines of KIND TEXT # why; a failed run of that "
                     "kind whose report contains TEXT is listed as known and does not fail")
        ->type_name("FILE");
    campaign
        ->add_option("--timeout", campaign_options.timeout_s,
                     "seconds of wall time after which a run counts as hung")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();

    std::string modem_name;
    CLI::App* modems = app.add_subcommand(
        "modems", "list the modem profiles, or print one's descriptors as lsusb -v lays them "
                  "out, its behaviour and what is odd in its descriptors; exit status 2 for an "
                  "unknown name or a bad profile file");
    AddProfilesOption(*modems, common);
    modems->add_option("NAME", modem_name, "a profile's name or a profile file's path")
        ->type_name("NAME|FILE");
    modems->add_option("--speed", speed, "the bus speed whose descriptors to print")
        ->check(CLI::IsMember({"full", "high"}));

    CLI11_PARSE(app, argc, argv);

    if (!common.profiles.empty() && !sim::LoadProfiles(common.profiles, false, &profiles_error)) {
        std::fprintf(stderr, "--profiles: %s\n", profiles_error.c_str());
        return 2;
    }
    if (modems->parsed())
        return Modems(modem_name, speed);
    if (campaign->parsed()) {
        campaign_options.program = ProgramPath(argv[0]);
        if (campaign_options.scenarios.empty())
            campaign_options.scenarios = {"demo"};
        if (!campaign_kinds.empty()) {
            campaign_options.kinds.clear();
            for (const std::string& kind : campaign_kinds)
                campaign_options.kinds.push_back(*sim::ParseFaultKind(kind));
        }
        if (campaign->count("--profile"))
            campaign_options.demo_options = {"--profile", demo_options.profile};
        if (!common.profiles.empty())
            campaign_options.common_options = {"--profiles", common.profiles};
        return sim::RunCampaign(campaign_options);
    }
    sim::Transcript transcript;
    std::optional<sim::MachineOptions> machine_options = MachineFrom(common, transcript);
    if (!machine_options)
        return 2;
    if (run->parsed()) {
        if (machine_options->interleave.enabled) {
            std::fprintf(stderr, "--interleave: the interleaving machine runs in virtual time "
                                 "only, and run is real time\n");
            return 2;
        }
        std::optional<hu::Speed> chosen = ChooseModem(run_options.profile, speed, transcript);
        if (!chosen)
            return 2;
        run_options.speed = *chosen;
        run_options.mode = run_modem == "loopback" ? sm::Modem::DataMode::kLoopback
                                                   : sm::Modem::DataMode::kCommand;
        machine_options->real_time = true;
        machine_options->check_delivery = false;
        sim::Machine machine(*machine_options, transcript);
        return sim::RunBridge(run_options, machine, transcript);
    }
    if (demo->parsed()) {
        std::optional<hu::Speed> chosen = ChooseModem(demo_options.profile, speed, transcript);
        if (!chosen)
            return 2;
        demo_options.speed = *chosen;
        sim::Machine machine(*machine_options, transcript);
        int status = sim::RunDemo(demo_options, machine, transcript);
        return WriteSites(common.sites_file, machine.Sites()) ? status : 2;
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
        int status = sim::RunScript(scenario, parsed.commands, machine, transcript);
        return WriteSites(common.sites_file, machine.Sites()) ? status : 2;
    }
    return 2;
}
