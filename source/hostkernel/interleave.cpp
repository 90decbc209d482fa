// The scheduler's interleaving mode. Contexts are the emulated threads plus
// one DPC context per processor. A context paused at DISPATCH_LEVEL or above
// keeps its processor, so at most `processors` contexts are ever inside
// DISPATCH_LEVEL code at once; a context below it can be paused anywhere.
// At a preemption point a seeded choice may first let a timer that is due
// within the jump fire (a clock interrupt), then switch to the ready context
// of highest priority that fits on the processors, lowering the preempted
// context's priority below all others (a priority change point, as in
// probabilistic concurrency testing). A context that drops below
// DISPATCH_LEVEL waits until every queued and running DPC has finished, as
// its processor would run the DPCs queued to it before returning to it; this
// is stricter than Windows for a DPC on another processor, and keeps what a
// thread sees after a call deterministic while DPCs still race with
// DISPATCH_LEVEL code and with other threads. One host thread runs at a
// time, so there are no host locks.
#include "hostkernel/scheduler.h"

#include <cstdlib>

namespace hk::detail {

bool Scheduler::Chance() {
    return std::uniform_real_distribution<double>(0.0, 1.0)(choices_) < switch_chance_;
}

int64_t Scheduler::RandomPriority() {
    return int64_t(choices_() >> 2);
}

bool Scheduler::FitsOnProcessors(const EmuThread* next, bool current_keeps_processor) const {
    unsigned busy = current_keeps_processor ? 1 : 0;
    for (const EmuThread* thread : ready_)
        if (thread != next && thread->irql >= DISPATCH_LEVEL)
            ++busy;
    return busy + 1 <= interleave_.processors;
}

void Scheduler::Preempt(EmuThread* next) {
    EmuThread* self = current_;
    for (auto it = ready_.begin(); it != ready_.end(); ++it) {
        if (*it == next) {
            ready_.erase(it);
            break;
        }
    }
    MakeReady(self);
    SwitchTo(self, next);
}

void Scheduler::PreemptionPoint() {
    if (!interleave_.enabled)
        return;
    EmuThread* self = current_;
    if (self->state != EmuThread::State::Running)
        return; // the idle loop or a finishing thread, not driver code
    if (!timed_.empty() && Chance()) {
        int64_t due = timed_.begin()->first.first;
        if (due - now_ <= interleave_.max_jump_us * 10) {
            now_ = std::max(now_, due);
            FireDue();
        }
    }
    DeliverDpcs();
    if (!Chance())
        return;
    bool keeps_processor = self->irql >= DISPATCH_LEVEL;
    EmuThread* best = nullptr;
    for (EmuThread* thread : ready_)
        if (FitsOnProcessors(thread, keeps_processor) &&
            (!best || thread->priority > best->priority))
            best = thread;
    if (!best)
        return;
    self->priority = --lowest_priority_;
    Preempt(best);
}

void Scheduler::SpinUntilReleased(volatile KSPIN_LOCK* lock) {
    EmuThread* self = current_;
    for (;;) {
        auto* holder = reinterpret_cast<EmuThread*>(*lock);
        if (!holder) {
            self->spinning_on = nullptr;
            return;
        }
        self->spinning_on = lock;
        // A holder spinning, transitively, on a lock this context holds
        // never releases its own: report the cycle instead of spinning forever.
        for (EmuThread* link = holder; link && link->spinning_on;
             link = reinterpret_cast<EmuThread*>(*link->spinning_on)) {
            if (reinterpret_cast<EmuThread*>(*link->spinning_on) == self) {
                kernel_.verifier().Violation(rule::kSpinDeadlock,
                                             "'" + self->name + "' and '" + holder->name +
                                                 "' each spin on a lock the other holds");
                std::abort();
            }
        }
        bool holder_ready = false;
        for (const EmuThread* thread : ready_)
            holder_ready = holder_ready || thread == holder;
        if (!holder_ready) {
            kernel_.verifier().Violation(rule::kSpinDeadlock,
                                         "'" + self->name + "' spins on a lock held by '" +
                                             holder->name + "', which is not running");
            self->spinning_on = nullptr;
            return;
        }
        Preempt(holder);
    }
}

bool Scheduler::DpcsIdle() const {
    if (!IsListEmpty(&dpc_queue_))
        return false;
    for (const auto& context : dpc_contexts_)
        if (context->running_dpc)
            return false;
    return true;
}

void Scheduler::WakeDpcContext() {
    dpc_work_.Header.SignalState = 1;
    Signal(&dpc_work_.Header);
}

void Scheduler::AwaitDpcs() {
    EmuThread* self = current_;
    if (self->dpc_context || self->state != EmuThread::State::Running || DpcsIdle())
        return;
    self->awaiting_dpcs = true;
    self->state = EmuThread::State::Waiting;
    Block();
}

void Scheduler::DpcContextLoop(EmuThread* self) {
    for (;;) {
        while (!IsListEmpty(&dpc_queue_)) {
            auto* dpc = CONTAINING_RECORD(RemoveHeadList(&dpc_queue_), KDPC, DpcListEntry);
            dpc->DpcData = nullptr;
            self->running_dpc = dpc;
            SetIrql(DISPATCH_LEVEL);
            RunDpc(dpc);
            if (self->irql != DISPATCH_LEVEL) {
                kernel_.verifier().Violation(rule::kIrqlNotRestored,
                                             "a DPC routine returned at IRQL " +
                                                 std::to_string(self->irql) +
                                                 " instead of DISPATCH_LEVEL");
            }
            SetIrql(PASSIVE_LEVEL);
            self->running_dpc = nullptr;
        }
        if (DpcsIdle()) {
            for (EmuThread* thread : threads_) {
                if (thread->awaiting_dpcs) {
                    thread->awaiting_dpcs = false;
                    MakeReady(thread);
                }
            }
        }
        if (dpc_stopping_) {
            WakeDpcContext(); // the next context ends too
            return;
        }
        Wait(&dpc_work_.Header, nullptr, STATUS_SUCCESS);
    }
}

void Scheduler::StartDpcContexts() {
    if (!interleave_.enabled)
        return;
    KeInitializeEvent(&dpc_work_, SynchronizationEvent, FALSE);
    for (unsigned cpu = 0; cpu < interleave_.processors; ++cpu) {
        auto context = std::make_unique<EmuThread>();
        context->name = "DPC context of processor " + std::to_string(cpu);
        context->dpc_context = true;
        EmuThread* raw = context.get();
        context->body = [this, raw] { DpcContextLoop(raw); };
        KeInitializeEvent(&context->done, NotificationEvent, FALSE);
        dpc_contexts_.push_back(std::move(context));
        Start(raw);
    }
}

void Scheduler::StopDpcContexts() {
    if (dpc_contexts_.empty())
        return;
    dpc_stopping_ = true;
    WakeDpcContext();
    for (auto& context : dpc_contexts_) {
        Wait(&context->done.Header, nullptr, STATUS_SUCCESS);
        context->os.join();
        Forget(context.get());
    }
    dpc_contexts_.clear();
}

} // namespace hk::detail
