// The verifier's reporting, and the fault knobs shared by pool and bus.
#include "hostkernel/emu.h"
#include "hostkernel/timeline.h"

#include <cstdlib>

namespace hk {

Verifier::Verifier() {
    handler_ = [](const std::string&, const std::string& message) {
        std::fprintf(stderr, "%s\n", message.c_str());
        std::abort();
    };
}

void Verifier::Violation(const char* rule_name, const std::string& detail) {
    counts_[rule_name]++;
    if (Timeline* timeline = Kernel::Exists() ? Kernel::Current().timeline() : nullptr)
        timeline->Instant(std::string("verifier: ") + rule_name, "verifier", {{"detail", detail}});
    for (auto it = expected_.rbegin(); it != expected_.rend(); ++it) {
        if (it->first == rule_name) {
            ++*it->second;
            return;
        }
    }
    std::string message = std::string("driver verifier: ") + rule_name + ": " + detail;
    if (Kernel::Exists())
        message += " (replay: " + Kernel::Current().Options().Replay() + ")";
    handler_(rule_name, message);
}

uint64_t Verifier::Count(std::string_view rule_name) const {
    auto it = counts_.find(rule_name);
    return it == counts_.end() ? 0 : it->second;
}

ExpectViolation::ExpectViolation(const char* rule_name) {
    Kernel::Current().verifier().expected_.emplace_back(rule_name, &count_);
}

ExpectViolation::~ExpectViolation() {
    auto& expected = Kernel::Current().verifier().expected_;
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        if (it->second == &count_) {
            expected.erase(it);
            break;
        }
    }
}

FaultKnob& FaultSet::Add(std::string name, FaultKnob knob) {
    knobs_.emplace_back(std::move(name), knob);
    return knobs_.back().second;
}

FaultKnob* FaultSet::Find(std::string_view name) {
    for (auto& [knob_name, knob] : knobs_)
        if (knob_name == name)
            return &knob;
    return nullptr;
}

bool FaultSet::ShouldFail(uint32_t key) {
    bool fail = false;
    for (auto& [name, knob] : knobs_) {
        if ((knob.match != 0 && knob.match != key) || (knob.except != 0 && knob.except == key))
            continue;
        ++knob.calls;
        if (knob.fired >= knob.max_fires)
            continue;
        bool fire = (knob.nth != 0 && knob.calls == knob.nth) ||
                    (knob.every != 0 && knob.calls % knob.every == 0);
        if (!fire && knob.probability > 0)
            fire = std::uniform_real_distribution<double>(0.0, 1.0)(rng_) < knob.probability;
        if (fire) {
            ++knob.fired;
            fail = true;
            if (Timeline* timeline = Kernel::Exists() ? Kernel::Current().timeline() : nullptr)
                timeline->Instant(std::string("fault ") + site_ + ": " + name, "fault",
                                  {{"key", int64_t(key)}});
        }
    }
    return fail;
}

} // namespace hk
