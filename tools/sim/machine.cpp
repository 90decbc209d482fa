// The simulated machine of a cdcacm-sim session.
#include "machine.h"

#include "entry.h"
#include "wdmkrnl.h"

#include <algorithm>

namespace sim {

namespace {
const std::string kService = std::string(hk::Registry::kServicesPath) + "\\cdcacm";
} // namespace

Machine::Machine(MachineOptions options, Transcript& transcript)
    : options_(std::move(options)), transcript_(transcript) {
    hk::KernelOptions kernel_options;
    kernel_options.seed = options_.seed;
    kernel_options.interleave = options_.interleave;
    kernel_options.real_time = options_.real_time;
    kernel_ = std::make_unique<hk::Kernel>(kernel_options);
    if (!options_.timeline_file.empty()) {
        timeline_ =
            std::make_unique<hk::Timeline>("cdcacm-sim, seed " + std::to_string(options_.seed));
        kernel_->SetTimeline(timeline_.get());
    }
    transcript_.SetClock([this] { return kernel_ ? kernel_->NowMs() : final_ms_; });
    kernel_->verifier().SetHandler([this](const std::string& rule, const std::string& message) {
        verifier_reports_.push_back(message);
        transcript_.Problem(message);
        if (rule == hk::rule::kPowerIrpBlocked) // the machine stops
            ShowLastDriverErrors();
    });
    SetTrace(options_.trace_mask, options_.print_trace);
    std::string error;
    if (!pnp().LoadInf(CDCACM_INF, &error)) {
        transcript_.Problem("cannot read the driver's INF: " + error);
        verifier_reports_.push_back(error);
    }
    pnp().RegisterDriverEntry("cdcacm", DriverEntry);
    hu::BusOptions bus_options;
    bus_options.capture_file = options_.capture_file;
    bus_ = std::make_unique<hu::Bus>(bus_options);
    ArmFaults({});
    if (!options_.real_time) {
        KeInitializeTimer(&hang_timer_);
        KeInitializeDpc(&hang_dpc_, HangDpc, this);
        LARGE_INTEGER due;
        due.QuadPart = -kHangMs * 10000;
        KeSetTimer(&hang_timer_, due, &hang_dpc_);
    }
}

VOID NTAPI Machine::HangDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* machine = static_cast<Machine*>(context);
    machine->transcript_.Problem("the session has not ended after " +
                                 std::to_string(kHangMs / 60000) +
                                 " minutes of virtual time: it hangs");
    machine->ShowLastDriverErrors();
    hk::StopMachine("the session hangs");
}

void Machine::ShowLastDriverErrors() {
    std::vector<std::string> errors;
    for (const std::string& line : kernel_->Dbg().Lines())
        if (line.find("failed") != std::string::npos || line.find("ASSERT") != std::string::npos)
            errors.push_back(line);
    for (size_t i = errors.size() > 3 ? errors.size() - 3 : 0; i < errors.size(); ++i)
        transcript_.Detail("the driver's error line: " + errors[i]);
    transcript_.Flush();
}

// Knobs that never fire count each site's calls; the session's fault
// point fires on its call, counted from the start of the session.
void Machine::ArmFaults(FaultSites seen) {
    sites_before_ = seen;
    knobs_.pool = &kernel_->pool().Faults().Add("fault sites", {});
    knobs_.requests = &bus_->AddFault(hu::Fault::kStall, {});
    knobs_.urbs = &bus_->AddFault(hu::Fault::kUnplug, {});
    knobs_.fault = nullptr;
    if (!options_.fault || fault_fired_)
        return;
    uint64_t nth = options_.fault->nth - fault_calls_before_;
    if (options_.fault->kind == FaultKind::kPool) {
        knobs_.fault = &kernel_->pool().Faults().Add(FaultPointText(*options_.fault), {nth});
        return;
    }
    static const std::map<FaultKind, hu::Fault> kBusFaults = {
        {FaultKind::kStall, hu::Fault::kStall},
        {FaultKind::kGone, hu::Fault::kDeviceGone},
        {FaultKind::kError, hu::Fault::kError},
        {FaultKind::kNoAnswer, hu::Fault::kNoAnswer},
        {FaultKind::kRemoval, hu::Fault::kUnplug}};
    knobs_.fault = &bus_->AddFault(kBusFaults.at(options_.fault->kind), {{nth}});
}

void Machine::ClearFaults() {
    FaultSites seen = Sites();
    if (knobs_.fault) {
        fault_fired_ = fault_fired_ || knobs_.fault->fired != 0;
        fault_calls_before_ += knobs_.fault->calls;
    }
    kernel_->pool().Faults().Clear();
    bus_->ClearFaults();
    ArmFaults(seen);
}

bool Machine::FaultFired() const {
    return fault_fired_ || (knobs_.fault && knobs_.fault->fired != 0);
}

FaultSites Machine::Sites() const {
    if (!kernel_)
        return sites_before_;
    FaultSites sites = sites_before_;
    sites.pool += knobs_.pool->calls;
    sites.requests += knobs_.requests->calls;
    sites.urbs += knobs_.urbs->calls;
    return sites;
}

Machine::~Machine() {
    if (!IsShutDown())
        Shutdown();
    transcript_.SetClock({});
}

void Machine::SetTrace(uint32_t mask, bool print) {
    options_.trace_mask = mask;
    options_.print_trace = print;
    kernel_->registry().SetDword(kService, "TraceMask", mask);
    if (print)
        kernel_->Dbg().SetSink([this](std::string_view text) { transcript_.Trace(text); });
    else
        kernel_->Dbg().SetSink({});
}

int Machine::Plug(const sm::Profile& profile, sm::Modem::DataMode mode, hu::Speed speed) {
    auto modem = std::make_shared<sm::Modem>(profile, mode);
    modem->RecordToHost(options_.check_delivery);
    int port = bus_->Plug(modem, speed);
    urbs_at_plug_[port] = bus_->UrbsSubmitted(port);
    modems_[port] = modem;
    ++counters_.plugs;
    pnp().Settle();
    kernel_->Sleep(100);
    Plugged plugged{modem, {}};
    for (size_t function = 0; function < modem->Functions().size(); ++function)
        plugged.com_names.push_back(ComNameOf(port, function));
    plugged_.push_back(std::move(plugged));
    return port;
}

// The bus counts a port's URBs over every device it held, so a modem's
// share is what the count grew by while it was plugged.
void Machine::CountUrbs(int port) {
    counters_.urbs += bus_->UrbsSubmitted(port) - urbs_at_plug_[port];
}

void Machine::Unplug(int port) {
    CountUrbs(port);
    bus_->Unplug(port);
    pnp().Settle();
    kernel_->Sleep(10);
    // The modem object lives on while the bus may still call it.
    modems_.erase(port);
}

sm::Modem* Machine::ModemOn(int port) {
    auto it = modems_.find(port);
    return it == modems_.end() ? nullptr : it->second.get();
}

std::vector<int> Machine::Ports() const {
    std::vector<int> ports;
    for (const auto& [port, modem] : modems_)
        ports.push_back(port);
    return ports;
}

std::string Machine::InstanceOf(int port, size_t function) const {
    PDEVICE_OBJECT pdo = bus_->Pdo(port, function);
    const hk::PnpDevice* device = pdo ? kernel_->pnp().DeviceFor(pdo) : nullptr;
    return device ? device->instance : "";
}

std::string Machine::ComNameOf(int port, size_t function) const {
    std::string instance = InstanceOf(port, function);
    if (instance.empty())
        return "";
    return kernel_->registry()
        .GetString(std::string(hk::Registry::kEnumPath) + "\\" + instance + "\\Device Parameters",
                   "PortName")
        .value_or("");
}

bool Machine::DriverLoaded() const {
    return kernel_->pnp().LoadedDriver("cdcacm") != nullptr;
}

void Machine::Advance(int64_t ms) {
    kernel_->Sleep(ms);
}

size_t Machine::AssertionLines() const {
    return kernel_ ? kernel_->Dbg().Count("ASSERTION FAILED") : assertion_lines_at_shutdown_;
}

// Each COM port's reception against the streams of the modem functions
// that carried that name, in plug order.
std::optional<std::string> Machine::CheckReceptions() const {
    for (const auto& [com, reception] : receptions_) {
        std::vector<sm::Modem::ToHost> sent;
        for (const Plugged& plugged : plugged_)
            for (size_t function = 0; function < plugged.com_names.size(); ++function)
                if (plugged.com_names[function] == com)
                    sent.push_back(plugged.modem->SentToHost(function));
        if (std::optional<std::string> problem = CheckDelivery(reception, sent))
            return com + ": " + *problem;
    }
    return std::nullopt;
}

std::vector<std::string> Machine::Shutdown() {
    std::vector<std::string> problems;
    if (std::optional<std::string> problem = CheckReceptions())
        problems.push_back(*problem);
    plugged_.clear();
    for (int port : Ports())
        Unplug(port);
    pnp().Settle();
    kernel_->Sleep(100);
    if (DriverLoaded())
        problems.push_back("the driver is still loaded after its last modem left");
    if (MemoryCounter != 0)
        problems.push_back("the driver still counts " + std::to_string(MemoryCounter) +
                           " byte(s) of memory");
    assertion_lines_at_shutdown_ = kernel_->Dbg().Count("ASSERTION FAILED");
    fault_fired_ = FaultFired();
    sites_before_ = Sites();
    knobs_ = {};
    if (assertion_lines_at_shutdown_ != 0)
        problems.push_back(std::to_string(assertion_lines_at_shutdown_) + " assertion line(s)");
    if (!options_.real_time)
        KeCancelTimer(&hang_timer_);
    transcript_.Flush();
    bus_->CloseCapture();
    bus_.reset();
    final_ms_ = kernel_->NowMs();
    // The kernel's teardown reports pool, IRPs, timers, work items, threads
    // and handles still left to the verifier.
    kernel_.reset();
    problems.insert(problems.end(), verifier_reports_.begin(), verifier_reports_.end());
    std::string error;
    if (timeline_ && !timeline_->Write(options_.timeline_file, &error)) {
        transcript_.Problem("timeline: " + error);
        problems.push_back(error);
    }
    return problems;
}

} // namespace sim
