// The emulated processors: a deterministic scheduler that lets exactly one
// emulated context (thread, or in the interleaving mode a processor's DPC
// context) run at a time, each context's IRQL, the virtual clock with its
// queue of timed events, and the DPC queue. Internal to the stand-in.
#pragma once

#include "hostkernel/checks.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <vector>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace hk::detail {

struct EmuThread;

// One thread waiting on one dispatcher object, linked into its WaitListHead.
struct WaitBlock {
    LIST_ENTRY Entry;
    EmuThread* thread;
    DISPATCHER_HEADER* object;
};

struct EmuThread {
    enum class State { Ready, Running, Waiting, Finished };
    std::string name;
    std::condition_variable cv;
    State state = State::Ready;
    KIRQL irql = PASSIVE_LEVEL;
    WaitBlock wait{};
    bool waiting_on_object = false;
    bool has_timeout = false;
    std::pair<int64_t, uint64_t> timeout_key{};
    NTSTATUS timeout_status = STATUS_TIMEOUT;
    NTSTATUS wait_status = STATUS_SUCCESS;
    std::function<void()> body;
    std::thread os;
    KEVENT done{};
    int timeline_track = 0; // its track in the timeline; 0 until it records there
    // Interleaving mode.
    int64_t priority = 0;        // the highest ready context runs at a switch
    bool dpc_context = false;    // a processor's DPC context
    KDPC* running_dpc = nullptr; // the DPC it is running
    bool awaiting_dpcs = false;  // lowered its IRQL and waits for the DPCs to drain
    volatile KSPIN_LOCK* spinning_on = nullptr;
};

class Scheduler {
  public:
    Scheduler(Kernel& kernel, const KernelOptions& options);
    ~Scheduler();

    EmuThread* Current() const { return current_; }
    KIRQL Irql() const { return current_->irql; }
    void SetIrql(KIRQL irql) {
        current_->irql = irql;
        GuardPagedPool(irql);
    }
    int64_t Now() const { return now_; }
    // A due time as the kernel takes it (negative: relative) to absolute.
    int64_t Absolute(LONGLONG due) const { return due < 0 ? now_ - due : due - kSystemTimeEpoch; }
    static constexpr int64_t kSystemTimeEpoch =
        134116992000000000LL; // 2026-01-01, 100 ns since 1601

    // Threads.
    void Adopt(EmuThread* thread); // the calling OS thread, already running
    void Start(EmuThread* thread); // a new OS thread, ready to run
    void Forget(EmuThread* thread);
    void MakeReady(EmuThread* thread);
    // The current thread gives up the processor (it is waiting or finished);
    // returns once the scheduler hands it the processor again.
    void Block();

    // Waits on a dispatcher object (or none, for a delay).
    NTSTATUS Wait(DISPATCHER_HEADER* object, const LARGE_INTEGER* timeout, NTSTATUS on_timeout);
    // Satisfies waiters after the object's state changed.
    void Signal(DISPATCHER_HEADER* object);
    bool TrySatisfy(DISPATCHER_HEADER* object, EmuThread* thread);

    // Timers and DPCs.
    bool SetTimer(KTIMER* timer, LONGLONG due, LONG period_ms, KDPC* dpc);
    bool CancelTimer(KTIMER* timer);
    bool InsertDpc(KDPC* dpc, PVOID argument1, PVOID argument2);
    bool RemoveDpc(KDPC* dpc);
    void DeliverDpcs(); // runs queued DPCs when the IRQL is below DISPATCH_LEVEL

    void Post(std::function<void()> fn);

    // Interleaving mode (interleave.cpp); each is a no-op when it is off.
    bool Interleaving() const { return interleave_.enabled; }
    // A call from driver code into the platform: a seeded choice may fire a
    // timer that is nearly due, switch to another context or run a DPC.
    void PreemptionPoint();
    // The current context found the spin lock held by another context: it
    // spins, which here hands the processor to the holder until it releases.
    void SpinUntilReleased(volatile KSPIN_LOCK* lock);
    void StartDpcContexts();
    // Lets queued and running DPCs finish, then ends the DPC contexts.
    void StopDpcContexts();

    // Verifier hooks.
    void CheckFreed(const void* block, size_t bytes);
    void CheckTeardown(const EmuThread* main, const EmuThread* worker);

  private:
    enum class TimedKind { kTimer, kWaitTimeout };
    struct Timed {
        TimedKind kind;
        KTIMER* timer;
        EmuThread* thread;
    };
    using Key = std::pair<int64_t, uint64_t>;

    Key AddTimed(int64_t due, Timed entry);
    bool RunIdle();
    bool RunPosted();
    void Fire(const Timed& entry);
    void RunDpcQueue();
    void RunDpc(KDPC* dpc);
    void Expire(KTIMER* timer);
    void SwitchTo(EmuThread* self, EmuThread* next);
    EmuThread* TakeNextReady(); // FIFO, or the highest priority when interleaving
    // Interleaving mode.
    bool FitsOnProcessors(const EmuThread* next, bool current_keeps_processor) const;
    void Preempt(EmuThread* next);
    bool Chance();
    int64_t RandomPriority();
    void FireDue();
    void DpcContextLoop(EmuThread* self);
    void WakeDpcContext();
    void AwaitDpcs();
    bool DpcsIdle() const;
    [[noreturn]] void Deadlock();
    int64_t WallNow() const;

    Kernel& kernel_;
    bool real_time_;
    InterleaveOptions interleave_;
    std::mt19937_64 choices_;  // every interleaving decision, from the seed
    double switch_chance_ = 0; // drawn per run, so some runs switch rarely
    int64_t lowest_priority_ = 0;
    std::vector<std::unique_ptr<EmuThread>> dpc_contexts_;
    KEVENT dpc_work_{};
    bool dpc_stopping_ = false;
    std::mutex mutex_; // guards current_ during hand-offs and posted_
    std::condition_variable idle_cv_;
    EmuThread* current_ = nullptr;
    std::deque<EmuThread*> ready_;
    std::vector<EmuThread*> threads_;
    int64_t now_ = 0;
    uint64_t sequence_ = 0;
    std::map<Key, Timed> timed_;
    std::unordered_map<KTIMER*, Key> timer_keys_;
    LIST_ENTRY dpc_queue_;
    std::vector<std::function<void()>> posted_;
    std::chrono::steady_clock::time_point wall_start_;
};

Scheduler& Sched();

} // namespace hk::detail
