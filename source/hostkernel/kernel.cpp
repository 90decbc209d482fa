// One emulated machine: its lifetime, the system worker thread and the
// application threads, and the checks made when it is torn down.
#include "hostkernel/checks.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/scheduler.h"

#include <cstdlib>

namespace hk {

namespace {
Kernel* g_current = nullptr;
} // namespace

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
    scheduler_ = std::make_unique<detail::Scheduler>(*this, options.real_time);
    io_ = std::make_unique<detail::IoManager>(*this);
    locks_ = std::make_unique<detail::LockOrder>();
    main_ = std::make_unique<detail::EmuThread>();
    main_->name = "main";
    KeInitializeEvent(&main_->done, NotificationEvent, FALSE);
    scheduler_->Adopt(main_.get());
    KeInitializeEvent(&work_event_, SynchronizationEvent, FALSE);
    worker_ = std::make_unique<Thread>("system worker", [this] { WorkerLoop(); });
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
    worker_->Join();
    scheduler_->CheckTeardown(main_.get(), nullptr);
    io_->CheckTeardown();
    registry_->CheckTeardown();
    Pool::Usage leaked = pool_->Total();
    if (leaked.blocks != 0)
        verifier_.Violation(rule::kPoolLeak, std::to_string(leaked.blocks) + " block(s), " +
                                                 std::to_string(leaked.bytes) + " byte(s)\n" +
                                                 pool_->LeakReport());
    worker_.reset();
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
    work_.push_back(std::move(fn));
    KeSetEvent(&work_event_, 0, FALSE);
}

void Kernel::Post(std::function<void()> fn) {
    scheduler_->Post(std::move(fn));
}

void Kernel::WorkerLoop() {
    for (;;) {
        while (!work_.empty()) {
            std::function<void()> fn = std::move(work_.front());
            work_.pop_front();
            fn();
            if (scheduler_->Irql() != PASSIVE_LEVEL) {
                verifier_.Violation(rule::kIrqlNotRestored, "a work item returned at IRQL " +
                                                                std::to_string(scheduler_->Irql()));
                scheduler_->SetIrql(PASSIVE_LEVEL);
            }
        }
        if (stopping_)
            return;
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
