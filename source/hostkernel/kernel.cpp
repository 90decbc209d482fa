// One emulated machine: its options, its lifetime, the system worker threads
// and the application threads, and the checks made when it is torn down.
#include "hostkernel/checks.h"
#include "hostkernel/errorlog.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"
#include "hostkernel/power.h"
#include "hostkernel/scheduler.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace hk {

namespace {
Kernel* g_current = nullptr;
} // namespace

std::optional<InterleaveOptions> InterleaveOptions::Parse(std::string_view text,
                                                          std::string* error) {
    InterleaveOptions options;
    if (text.empty() || text == "off")
        return options;
    options.enabled = true;
    if (text == "on")
        return options;
    auto number = [](const std::string& value, uint64_t* out) {
        try {
            size_t used = 0;
            *out = std::stoull(value, &used);
            return used == value.size() && !value.empty() && value[0] != '-';
        } catch (const std::exception&) {
            return false;
        }
    };
    std::stringstream fields{std::string(text)};
    std::string field;
    while (std::getline(fields, field, ',')) {
        auto equals = field.find('=');
        std::string key = field.substr(0, equals);
        std::string value = equals == std::string::npos ? "" : field.substr(equals + 1);
        uint64_t n = 0;
        bool known = key == "cpus" || key == "workers" || key == "jump_us";
        if (!known || !number(value, &n)) {
            *error = "the interleaving mode takes on, off or cpus=N,workers=N,jump_us=N; not '" +
                     field + "'";
            return std::nullopt;
        }
        if (key == "cpus")
            options.processors = unsigned(n);
        else if (key == "workers")
            options.worker_threads = unsigned(n);
        else
            options.max_jump_us = int64_t(n);
    }
    if (options.processors < 1 || options.processors > 2 || options.worker_threads < 1 ||
        options.worker_threads > 16) {
        *error = "the interleaving mode wants 1 or 2 cpus and 1 to 16 workers";
        return std::nullopt;
    }
    return options;
}

KernelOptions KernelOptions::FromEnvironment() {
    KernelOptions options;
    auto fail = [](const std::string& what) {
        std::fprintf(stderr, "hostkernel: %s\n", what.c_str());
        std::exit(2);
    };
    if (const char* seed = std::getenv("HK_SEED"); seed && *seed) {
        try {
            size_t used = 0;
            options.seed = std::stoull(seed, &used);
            if (used != std::strlen(seed))
                fail(std::string("HK_SEED wants a number, not '") + seed + "'");
        } catch (const std::exception&) {
            fail(std::string("HK_SEED wants a number, not '") + seed + "'");
        }
    }
    const char* mode = std::getenv("HK_INTERLEAVE");
    std::string error;
    std::optional<InterleaveOptions> interleave =
        InterleaveOptions::Parse(mode ? mode : "", &error);
    if (!interleave)
        fail("HK_INTERLEAVE: " + error);
    options.interleave = *interleave;
    return options;
}

std::string KernelOptions::Replay() const {
    std::string text = "HK_SEED=" + std::to_string(seed);
    if (interleave.enabled)
        text += " HK_INTERLEAVE=cpus=" + std::to_string(interleave.processors) +
                ",workers=" + std::to_string(interleave.worker_threads) +
                ",jump_us=" + std::to_string(interleave.max_jump_us);
    return text;
}

Kernel& Kernel::Current() {
    if (!g_current) {
        std::fputs("hostkernel: a kernel call was made with no emulated kernel running\n", stderr);
        std::abort();
    }
    return *g_current;
}

bool Kernel::Exists() {
    return g_current != nullptr;
}

Kernel::Kernel(KernelOptions options) : options_(options), rng_(options.seed) {
    if (g_current) {
        std::fputs("hostkernel: only one emulated kernel may run at a time\n", stderr);
        std::abort();
    }
    g_current = this;
    pool_ = std::make_unique<Pool>(rng_);
    registry_ = std::make_unique<Registry>(rng_);
    errorlog_ = std::make_unique<ErrorLog>();
    pnp_ = std::make_unique<PnpManager>();
    power_ = std::make_unique<PowerManager>(*pnp_);
    scheduler_ = std::make_unique<detail::Scheduler>(*this, options);
    io_ = std::make_unique<detail::IoManager>(*this);
    locks_ = std::make_unique<detail::LockOrder>();
    main_ = std::make_unique<detail::EmuThread>();
    main_->name = "main";
    KeInitializeEvent(&main_->done, NotificationEvent, FALSE);
    scheduler_->Adopt(main_.get());
    KeInitializeEvent(&work_event_, SynchronizationEvent, FALSE);
    KeInitializeEvent(&work_idle_, NotificationEvent, TRUE);
    unsigned workers = options.interleave.enabled ? options.interleave.worker_threads : 1;
    for (unsigned n = 0; n < workers; ++n)
        workers_.push_back(std::make_unique<Thread>(
            n == 0 ? "system worker" : "system worker " + std::to_string(n + 1),
            [this] { WorkerLoop(); }));
    scheduler_->StartDpcContexts();
}

Kernel::~Kernel() {
    if (scheduler_->Current() != main_.get()) {
        std::fputs("hostkernel: the kernel must be torn down by the thread that created it\n",
                   stderr);
        std::abort();
    }
    if (scheduler_->Irql() != PASSIVE_LEVEL) {
        verifier_.Violation(rule::kIrqlNotRestored, "the main thread is at IRQL " +
                                                        std::to_string(scheduler_->Irql()) +
                                                        " at teardown");
        scheduler_->SetIrql(PASSIVE_LEVEL);
    }
    stopping_ = true;
    KeSetEvent(&work_event_, 0, FALSE);
    for (auto& worker : workers_)
        worker->Join();
    scheduler_->StopDpcContexts();
    scheduler_->CheckTeardown(main_.get(), nullptr);
    io_->CheckTeardown();
    registry_->CheckTeardown();
    Pool::Usage leaked = pool_->Total();
    if (leaked.blocks != 0)
        verifier_.Violation(rule::kPoolLeak, std::to_string(leaked.blocks) + " block(s), " +
                                                 std::to_string(leaked.bytes) + " byte(s)\n" +
                                                 pool_->LeakReport());
    workers_.clear();
    io_.reset();
    pool_.reset();
    g_current = nullptr;
}

int64_t Kernel::Now() const {
    return scheduler_->Now();
}

void Kernel::Sleep(int64_t ms) {
    LARGE_INTEGER interval;
    interval.QuadPart = -ms * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

void Kernel::QueueSystemWork(std::function<void()> fn) {
    work_queued_++;
    work_.push_back(std::move(fn));
    KeClearEvent(&work_idle_);
    KeSetEvent(&work_event_, 0, FALSE);
}

void Kernel::WaitSystemWorkIdle() {
    KeWaitForSingleObject(&work_idle_, Executive, KernelMode, FALSE, nullptr);
}

void Kernel::Post(std::function<void()> fn) {
    scheduler_->Post(std::move(fn));
}

void Kernel::WorkerLoop() {
    for (;;) {
        while (!work_.empty()) {
            std::function<void()> fn = std::move(work_.front());
            work_.pop_front();
            work_running_++;
            fn();
            fn = nullptr;
            // Set in the same step as the test: KeSetEvent's preemption
            // point could let new work in between and leave it set.
            if (--work_running_ == 0 && work_.empty()) {
                work_idle_.Header.SignalState = 1;
                scheduler_->Signal(&work_idle_.Header);
            }
            if (scheduler_->Irql() != PASSIVE_LEVEL) {
                verifier_.Violation(rule::kIrqlNotRestored, "a work item returned at IRQL " +
                                                                std::to_string(scheduler_->Irql()));
                scheduler_->SetIrql(PASSIVE_LEVEL);
            }
        }
        if (stopping_) {
            KeSetEvent(&work_event_, 0, FALSE); // wakes the next worker to end
            return;
        }
        KeWaitForSingleObject(&work_event_, Executive, KernelMode, FALSE, nullptr);
    }
}

Thread::Thread(std::string name, std::function<void()> body)
    : thread_(std::make_unique<detail::EmuThread>()) {
    thread_->name = std::move(name);
    thread_->body = std::move(body);
    KeInitializeEvent(&thread_->done, NotificationEvent, FALSE);
    Kernel::Current().scheduler().Start(thread_.get());
}

Thread::~Thread() {
    if (!joined_)
        Join();
}

void Thread::Join() {
    if (joined_)
        return;
    KeWaitForSingleObject(&thread_->done, Executive, KernelMode, FALSE, nullptr);
    thread_->os.join();
    Kernel::Current().scheduler().Forget(thread_.get());
    joined_ = true;
}

bool Thread::Finished() const {
    return thread_->state == detail::EmuThread::State::Finished;
}

} // namespace hk
