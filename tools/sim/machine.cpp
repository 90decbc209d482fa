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
    kernel_->verifier().SetHandler([this](const std::string&, const std::string& message) {
        verifier_reports_.push_back(message);
        transcript_.Problem(message);
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
    int port = bus_->Plug(modem, speed);
    urbs_at_plug_[port] = bus_->UrbsSubmitted(port);
    modems_[port] = modem;
    ++counters_.plugs;
    pnp().Settle();
    kernel_->Sleep(100);
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

std::string Machine::InstanceOf(int port) const {
    const hk::PnpDevice* device = kernel_->pnp().DeviceFor(bus_->Pdo(port));
    return device ? device->instance : "";
}

std::string Machine::ComNameOf(int port) const {
    std::string instance = InstanceOf(port);
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

std::vector<std::string> Machine::Shutdown() {
    std::vector<std::string> problems;
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
    if (assertion_lines_at_shutdown_ != 0)
        problems.push_back(std::to_string(assertion_lines_at_shutdown_) + " assertion line(s)");
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
