// The simulated machine a cdcacm-sim session runs on: one emulated kernel
// whose Plug and Play manager installs modems from the driver's INF and
// loads cdcacm through its entry, a USB bus (optionally captured), the
// simulated modems plugged into it, and the verdict at the end: verifier
// reports, assertion lines, memory the driver still counts, pool, IRPs and
// handles the kernel finds left.
//
// Environment: host code of the tool; the constructing thread is the
// kernel's first application thread and must call every member.
#pragma once

#include "delivery.h"
#include "fault_point.h"
#include "transcript.h"

#include "hostkernel/emu.h"
#include "hostkernel/pnp.h"
#include "hostkernel/timeline.h"
#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sim {

struct MachineOptions {
    uint64_t seed = 1;
    hk::InterleaveOptions interleave = {}; // off: one processor, no preemption
    bool real_time = false;                // the clock follows the wall clock
    // The driver's TraceMask (the service key's value); the trace lines
    // are printed only when asked for.
    uint32_t trace_mask = 0x3; // assertions and errors
    bool print_trace = false;
    std::string capture_file;        // empty: no capture
    std::string timeline_file;       // empty: no timeline
    std::optional<FaultPoint> fault; // one fault injected at a point of the session
    // Keeps what the modems send and the application reads, and checks one
    // against the other at shutdown (a long real-time session does not).
    bool check_delivery = true;
};

class Machine {
  public:
    Machine(MachineOptions options, Transcript& transcript);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    hk::Kernel& kernel() { return *kernel_; }
    hk::PnpManager& pnp() { return kernel_->pnp(); }
    hu::Bus& bus() { return *bus_; }

    // Plugs a modem and lets its start and first re-initialisation run;
    // returns the bus port.
    int Plug(const sm::Profile& profile, sm::Modem::DataMode mode, hu::Speed speed);
    void Unplug(int port);
    sm::Modem* ModemOn(int port); // null when the port is empty
    std::vector<int> Ports() const;
    // The instance the PnP manager gave the port's first function, and the
    // COM name kept for it ("" when the modem has none yet).
    std::string InstanceOf(int port, size_t function = 0) const;
    std::string ComNameOf(int port, size_t function = 0) const;
    bool DriverLoaded() const;

    // Lets the virtual clock run for ms.
    void Advance(int64_t ms);
    int64_t NowMs() const { return kernel_ ? kernel_->NowMs() : final_ms_; }
    // Sets the driver's TraceMask in its service key (read at load and at
    // every open) and whether its lines are printed.
    void SetTrace(uint32_t mask, bool print);
    bool PrintsTrace() const { return options_.print_trace; }
    uint32_t TraceMask() const { return options_.trace_mask; }

    // What the application reads from a COM port, over every handle opened
    // on it; checked at shutdown against what the modems sent toward it.
    Reception& ReceptionOf(const std::string& com) { return receptions_[com]; }

    // Takes every fault a session armed away; the session's own fault
    // point, when it has not fired yet, and the counts of fault sites stay.
    void ClearFaults();
    const std::optional<FaultPoint>& Fault() const { return options_.fault; }
    bool FaultFired() const;
    // The calls of each fault site so far (to the end, after shutdown).
    FaultSites Sites() const;

    // Verifier reports and assertion lines so far, printed as they come.
    size_t Problems() const { return verifier_reports_.size() + AssertionLines(); }
    const std::vector<std::string>& VerifierReports() const { return verifier_reports_; }
    size_t AssertionLines() const;

    // Unplugs every modem, lets the driver unload, tears the kernel down,
    // writes the timeline when one was asked for and returns the problems
    // found on the way (each also printed); empty when the machine ended
    // clean. Called once; the destructor calls it if no
    // one did.
    std::vector<std::string> Shutdown();
    bool IsShutDown() const { return kernel_ == nullptr; }

    struct Counters {
        uint64_t urbs = 0; // URBs the driver submitted
        uint64_t plugs = 0;
    };
    const Counters& counters() const { return counters_; }

  private:
    static VOID NTAPI HangDpc(PKDPC dpc, PVOID context, PVOID, PVOID);
    // The driver's last error lines, as details: what a stopped machine
    // was doing.
    void ShowLastDriverErrors();
    void CountUrbs(int port);
    void ArmFaults(FaultSites seen);
    std::optional<std::string> CheckReceptions() const;

    MachineOptions options_;
    Transcript& transcript_;
    std::unique_ptr<hk::Timeline> timeline_; // outlives the kernel it records
    std::unique_ptr<hk::Kernel> kernel_;
    std::unique_ptr<hu::Bus> bus_;
    std::map<int, std::shared_ptr<sm::Modem>> modems_;
    // Every modem plugged, in order, with the COM name of each function.
    struct Plugged {
        std::shared_ptr<sm::Modem> modem;
        std::vector<std::string> com_names;
    };
    std::vector<Plugged> plugged_;
    std::map<std::string, Reception> receptions_;
    // The fault knobs' calls are kept across ClearFaults.
    struct Knobs {
        hk::FaultKnob* pool = nullptr;
        hu::UsbFaultKnob* requests = nullptr;
        hu::UsbFaultKnob* urbs = nullptr;
        hk::FaultKnob* fault = nullptr;
    } knobs_;
    FaultSites sites_before_; // counted by knobs since cleared
    uint64_t fault_calls_before_ = 0;
    bool fault_fired_ = false;
    // A session in virtual time that has not ended after this long hangs:
    // the machine stops and says so.
    static constexpr int64_t kHangMs = 30 * 60 * 1000;
    KTIMER hang_timer_;
    KDPC hang_dpc_;
    std::vector<std::string> verifier_reports_;
    Counters counters_;
    std::map<int, uint64_t> urbs_at_plug_; // the bus's count for the port at the plug
    size_t assertion_lines_at_shutdown_ = 0;
    int64_t final_ms_ = 0;
};

} // namespace sim
