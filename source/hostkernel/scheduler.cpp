// The deterministic scheduler. Emulated threads are real OS threads, but only
// the one in current_ runs; the others sleep on their condition variable. By
// default a switch happens only when the running thread waits, delays or
// finishes (the interleaving mode, interleave.cpp, adds preemption points).
// When no thread is ready, the blocking thread itself plays the idle loop:
// it moves the clock to the next timed event, fires what is due and runs the
// DPCs at DISPATCH_LEVEL (in the interleaving mode the processors' DPC
// contexts run them), then looks for a ready thread again.
#include "hostkernel/scheduler.h"

#include "hostkernel/checks.h"
#include "hostkernel/timeline.h"

#include <cstdlib>
#include <sstream>

namespace hk::detail {

Scheduler& Sched() {
    return Kernel::Current().scheduler();
}

Scheduler::Scheduler(Kernel& kernel, const KernelOptions& options)
    : kernel_(kernel), real_time_(options.real_time), interleave_(options.interleave),
      choices_(options.seed * 0x9E3779B97F4A7C15ULL + 1),
      wall_start_(std::chrono::steady_clock::now()) {
    InitializeListHead(&dpc_queue_);
    if (interleave_.enabled) {
        if (real_time_ || interleave_.processors < 1 || interleave_.processors > 2) {
            std::fputs("hostkernel: the interleaving mode takes 1 or 2 processors and virtual "
                       "time\n",
                       stderr);
            std::abort();
        }
        // Some runs switch rarely and reach deep into one order, others often.
        static constexpr double kSwitchChances[] = {0.02, 0.1, 0.35};
        switch_chance_ = kSwitchChances[choices_() % 3];
    }
}

Scheduler::~Scheduler() = default;

int64_t Scheduler::WallNow() const {
    auto elapsed = std::chrono::steady_clock::now() - wall_start_;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100;
}

void Scheduler::Adopt(EmuThread* thread) {
    thread->state = EmuThread::State::Running;
    if (interleave_.enabled)
        thread->priority = RandomPriority();
    threads_.push_back(thread);
    current_ = thread;
}

void Scheduler::Start(EmuThread* thread) {
    threads_.push_back(thread);
    if (interleave_.enabled)
        thread->priority = RandomPriority();
    MakeReady(thread);
    thread->os = std::thread([this, thread] {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            thread->cv.wait(lock, [&] { return current_ == thread; });
        }
        thread->body();
        if (thread->irql != PASSIVE_LEVEL) {
            kernel_.verifier().Violation(rule::kIrqlNotRestored, "thread '" + thread->name +
                                                                     "' ended at IRQL " +
                                                                     std::to_string(thread->irql));
            SetIrql(PASSIVE_LEVEL);
        }
        CheckNoMutexHeld(("thread '" + thread->name + "'").c_str(), true);
        KeSetEvent(&thread->done, 0, FALSE);
        thread->state = EmuThread::State::Finished;
        Block();
    });
}

void Scheduler::Forget(EmuThread* thread) {
    for (auto it = threads_.begin(); it != threads_.end(); ++it) {
        if (*it == thread) {
            threads_.erase(it);
            return;
        }
    }
}

void Scheduler::MakeReady(EmuThread* thread) {
    thread->state = EmuThread::State::Ready;
    ready_.push_back(thread);
}

EmuThread* Scheduler::TakeNextReady() {
    auto chosen = ready_.begin();
    if (interleave_.enabled) {
        for (auto it = ready_.begin(); it != ready_.end(); ++it)
            if ((*it)->priority > (*chosen)->priority && FitsOnProcessors(*it, false))
                chosen = it;
    }
    EmuThread* next = *chosen;
    ready_.erase(chosen);
    return next;
}

void Scheduler::Block() {
    EmuThread* self = current_;
    for (;;) {
        if (!ready_.empty()) {
            EmuThread* next = TakeNextReady();
            if (next == self) {
                self->state = EmuThread::State::Running;
                return;
            }
            SwitchTo(self, next);
            return;
        }
        if (!RunIdle())
            Deadlock();
    }
}

void Scheduler::SwitchTo(EmuThread* self, EmuThread* next) {
    std::unique_lock<std::mutex> lock(mutex_);
    next->state = EmuThread::State::Running;
    GuardPagedPool(next->irql);
    current_ = next;
    next->cv.notify_one();
    if (self->state == EmuThread::State::Finished)
        return;
    self->cv.wait(lock, [&] { return current_ == self; });
}

void Scheduler::Deadlock() {
    std::ostringstream text;
    text << "deadlock: every emulated thread waits and no timer is pending (replay: "
         << kernel_.Options().Replay() << ", virtual time " << now_ / 10000 << " ms)\n";
    for (const EmuThread* thread : threads_) {
        const char* state = thread->state == EmuThread::State::Waiting    ? "waiting"
                            : thread->state == EmuThread::State::Finished ? "finished"
                                                                          : "ready";
        text << "  thread '" << thread->name << "': " << state << "\n";
    }
    std::fputs(text.str().c_str(), stderr);
    std::abort();
}

Scheduler::Key Scheduler::AddTimed(int64_t due, Timed entry) {
    Key key{due, sequence_++};
    timed_.emplace(key, entry);
    return key;
}

bool Scheduler::RunPosted() {
    // Most calls find nothing: they allocate nothing either.
    std::vector<std::function<void()>> work;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (posted_.empty())
            return false;
        work.swap(posted_);
    }
    KIRQL saved = current_->irql;
    SetIrql(DISPATCH_LEVEL);
    for (auto& fn : work) {
        fn();
        if (!interleave_.enabled)
            RunDpcQueue();
    }
    SetIrql(saved);
    return true;
}

void Scheduler::Post(std::function<void()> fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    posted_.push_back(std::move(fn));
    idle_cv_.notify_all();
}

bool Scheduler::RunIdle() {
    if (RunPosted())
        return true;
    if (real_time_) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (timed_.empty()) {
            idle_cv_.wait(lock, [&] { return !posted_.empty(); });
            return true;
        }
        int64_t due = timed_.begin()->first.first;
        auto wall_due = wall_start_ + std::chrono::nanoseconds((due > 0 ? due : 0) * 100);
        if (idle_cv_.wait_until(lock, wall_due, [&] { return !posted_.empty(); })) {
            now_ = std::max(now_, WallNow());
            return true;
        }
    } else if (timed_.empty()) {
        return false;
    }
    now_ = std::max(now_, timed_.begin()->first.first);
    FireDue();
    return true;
}

void Scheduler::FireDue() {
    KIRQL saved = current_->irql;
    SetIrql(DISPATCH_LEVEL);
    // Everything due at this instant expires before the DPCs run, as in one
    // clock interrupt.
    while (!timed_.empty() && timed_.begin()->first.first <= now_) {
        Timed entry = timed_.begin()->second;
        timed_.erase(timed_.begin());
        Fire(entry);
    }
    if (!interleave_.enabled)
        RunDpcQueue();
    SetIrql(saved);
}

void Scheduler::Fire(const Timed& entry) {
    if (entry.kind == TimedKind::kWaitTimeout) {
        EmuThread* thread = entry.thread;
        thread->has_timeout = false;
        if (thread->waiting_on_object) {
            RemoveEntryList(&thread->wait.Entry);
            thread->waiting_on_object = false;
        }
        thread->wait_status = thread->timeout_status;
        MakeReady(thread);
        return;
    }
    KTIMER* timer = entry.timer;
    Timeline* timeline = kernel_.timeline();
    if (timeline)
        timeline->Begin(timer->Dpc ? "timer " + Timeline::Symbol(reinterpret_cast<const void*>(
                                                    timer->Dpc->DeferredRoutine))
                                   : std::string("timer"),
                        "timer", {{"period_ms", int64_t(timer->Period)}});
    Expire(timer);
    if (timeline)
        timeline->End();
}

// A timer's expiry: it is signalled, set again when periodic, and its DPC
// is queued.
void Scheduler::Expire(KTIMER* timer) {
    timer_keys_.erase(timer);
    timer->Header.Inserted = FALSE;
    timer->Header.SignalState = 1;
    Signal(&timer->Header);
    if (timer->Period > 0) {
        int64_t due = now_ + int64_t(timer->Period) * 10000;
        timer->DueTime.QuadPart = uint64_t(due);
        timer_keys_[timer] = AddTimed(due, Timed{TimedKind::kTimer, timer, nullptr});
        timer->Header.Inserted = TRUE;
    }
    if (timer->Dpc)
        InsertDpc(timer->Dpc, reinterpret_cast<PVOID>(uintptr_t(now_)), nullptr);
}

bool Scheduler::TrySatisfy(DISPATCHER_HEADER* object, EmuThread* thread) {
    switch (object->Type) {
    case EventNotificationObject:
    case TimerNotificationObject:
        return object->SignalState > 0;
    case EventSynchronizationObject:
    case TimerSynchronizationObject:
        if (object->SignalState <= 0)
            return false;
        object->SignalState = 0;
        return true;
    case MutantObject: {
        auto* mutex = CONTAINING_RECORD(object, KMUTEX, Header);
        if (object->SignalState <= 0 && mutex->OwnerThread != reinterpret_cast<PKTHREAD>(thread))
            return false;
        object->SignalState--;
        mutex->OwnerThread = reinterpret_cast<PKTHREAD>(thread);
        return true;
    }
    default:
        std::fprintf(stderr, "hostkernel: wait on an unknown dispatcher object type %u\n",
                     object->Type);
        std::abort();
    }
}

void Scheduler::Signal(DISPATCHER_HEADER* object) {
    while (!IsListEmpty(&object->WaitListHead)) {
        auto* block = CONTAINING_RECORD(object->WaitListHead.Flink, WaitBlock, Entry);
        EmuThread* thread = block->thread;
        if (!TrySatisfy(object, thread))
            return;
        RemoveEntryList(&block->Entry);
        thread->waiting_on_object = false;
        if (thread->has_timeout) {
            timed_.erase(thread->timeout_key);
            thread->has_timeout = false;
        }
        thread->wait_status = STATUS_SUCCESS;
        MakeReady(thread);
    }
}

NTSTATUS Scheduler::Wait(DISPATCHER_HEADER* object, const LARGE_INTEGER* timeout,
                         NTSTATUS on_timeout) {
    EmuThread* self = current_;
    bool poll = timeout && timeout->QuadPart == 0;
    if (self->irql >= DISPATCH_LEVEL && !poll) {
        kernel_.verifier().Violation(rule::kBlockingAtDispatch, "thread '" + self->name +
                                                                    "' waits at IRQL " +
                                                                    std::to_string(self->irql));
        return on_timeout;
    }
    if (object && TrySatisfy(object, self))
        return STATUS_SUCCESS;
    if (poll)
        return on_timeout;
    if (object) {
        self->wait.thread = self;
        self->wait.object = object;
        InsertTailList(&object->WaitListHead, &self->wait.Entry);
        self->waiting_on_object = true;
    }
    if (timeout) {
        self->timeout_key =
            AddTimed(Absolute(timeout->QuadPart), Timed{TimedKind::kWaitTimeout, nullptr, self});
        self->has_timeout = true;
        self->timeout_status = on_timeout;
    }
    self->state = EmuThread::State::Waiting;
    Block();
    // A thread woken by the clock interrupt resumes after the DPCs it queued.
    if (interleave_.enabled && self->irql < DISPATCH_LEVEL)
        AwaitDpcs();
    return self->wait_status;
}

bool Scheduler::SetTimer(KTIMER* timer, LONGLONG due, LONG period_ms, KDPC* dpc) {
    bool was_set = CancelTimer(timer);
    int64_t absolute = Absolute(due);
    if (absolute < now_)
        absolute = now_;
    timer->Header.SignalState = 0;
    timer->Header.Inserted = TRUE;
    timer->DueTime.QuadPart = uint64_t(absolute);
    timer->Dpc = dpc;
    timer->Period = period_ms;
    timer_keys_[timer] = AddTimed(absolute, Timed{TimedKind::kTimer, timer, nullptr});
    return was_set;
}

bool Scheduler::CancelTimer(KTIMER* timer) {
    auto it = timer_keys_.find(timer);
    if (it == timer_keys_.end())
        return false;
    timed_.erase(it->second);
    timer_keys_.erase(it);
    timer->Header.Inserted = FALSE;
    return true;
}

bool Scheduler::InsertDpc(KDPC* dpc, PVOID argument1, PVOID argument2) {
    if (dpc->DpcData)
        return false;
    dpc->DpcData = &dpc_queue_;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    InsertTailList(&dpc_queue_, &dpc->DpcListEntry);
    if (interleave_.enabled)
        WakeDpcContext();
    DeliverDpcs();
    return true;
}

bool Scheduler::RemoveDpc(KDPC* dpc) {
    if (!dpc->DpcData)
        return false;
    RemoveEntryList(&dpc->DpcListEntry);
    dpc->DpcData = nullptr;
    return true;
}

void Scheduler::DeliverDpcs() {
    if (interleave_.enabled) {
        if (current_->irql < DISPATCH_LEVEL)
            AwaitDpcs();
        return;
    }
    if (current_->irql >= DISPATCH_LEVEL || IsListEmpty(&dpc_queue_))
        return;
    KIRQL saved = current_->irql;
    SetIrql(DISPATCH_LEVEL);
    RunDpcQueue();
    SetIrql(saved);
}

void Scheduler::RunDpcQueue() {
    while (!IsListEmpty(&dpc_queue_)) {
        auto* dpc = CONTAINING_RECORD(RemoveHeadList(&dpc_queue_), KDPC, DpcListEntry);
        dpc->DpcData = nullptr;
        RunDpc(dpc);
        if (current_->irql != DISPATCH_LEVEL) {
            std::ostringstream text;
            text << "DPC routine " << reinterpret_cast<void*>(dpc->DeferredRoutine)
                 << " returned at IRQL " << int(current_->irql) << " instead of DISPATCH_LEVEL";
            kernel_.verifier().Violation(rule::kIrqlNotRestored, text.str());
            SetIrql(DISPATCH_LEVEL);
        }
    }
}

// One DPC routine, a span of the timeline when one records.
void Scheduler::RunDpc(KDPC* dpc) {
    Timeline* timeline = kernel_.timeline();
    if (timeline)
        timeline->Begin(
            "DPC " + Timeline::Symbol(reinterpret_cast<const void*>(dpc->DeferredRoutine)), "dpc");
    dpc->DeferredRoutine(dpc, dpc->DeferredContext, dpc->SystemArgument1, dpc->SystemArgument2);
    if (timeline)
        timeline->End();
}

void Scheduler::CheckFreed(const void* block, size_t bytes) {
    auto inside = [&](const void* p) {
        auto a = reinterpret_cast<uintptr_t>(p);
        auto b = reinterpret_cast<uintptr_t>(block);
        return a >= b && a < b + bytes;
    };
    for (PLIST_ENTRY e = dpc_queue_.Flink; e != &dpc_queue_; e = e->Flink) {
        if (inside(e))
            kernel_.verifier().Violation(rule::kQueuedInFreedPool,
                                         "a queued DPC lies in the block");
    }
    for (const auto& [timer, key] : timer_keys_) {
        if (inside(timer))
            kernel_.verifier().Violation(rule::kQueuedInFreedPool, "a set timer lies in the block");
    }
    for (const EmuThread* thread : threads_) {
        if (thread->waiting_on_object && inside(thread->wait.object))
            kernel_.verifier().Violation(rule::kWaitInFreedPool,
                                         "thread '" + thread->name + "' waits on it");
    }
}

void Scheduler::CheckTeardown(const EmuThread* main, const EmuThread* worker) {
    if (!IsListEmpty(&dpc_queue_))
        kernel_.verifier().Violation(rule::kTimerLeak, "a DPC is still queued");
    if (!timer_keys_.empty())
        kernel_.verifier().Violation(rule::kTimerLeak,
                                     std::to_string(timer_keys_.size()) + " timer(s) still set");
    for (const EmuThread* thread : threads_) {
        if (thread != main && thread != worker && thread->state != EmuThread::State::Finished)
            kernel_.verifier().Violation(rule::kThreadLeak, "thread '" + thread->name + "'");
    }
}

} // namespace hk::detail

namespace hk {

void StopMachine(const std::string& why) {
    std::fflush(stdout);
    std::fprintf(stderr, "machine stopped: %s (replay: %s, virtual time %lld ms)\n", why.c_str(),
                 Kernel::Current().Options().Replay().c_str(),
                 static_cast<long long>(Kernel::Current().NowMs()));
    std::abort();
}

} // namespace hk
