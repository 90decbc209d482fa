// The emulated machine as tests and tools see it: one kernel instance with
// its deterministic scheduler and virtual clock, pool, debugger sink,
// verifier and fault knobs. Driver code never includes this header.
#pragma once

#include "hostkernel/wdk.h"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace hk {

// A fault that fires on chosen calls of one site (pool allocations, USB
// requests, ...). Every knob counts the calls it saw and the faults it caused,
// so a test can prove that its fault really happened.
struct FaultKnob {
    uint64_t nth = 0;       // fire on this matching call (1-based), once
    uint64_t every = 0;     // fire on every n-th matching call
    double probability = 0; // fire with this probability on each matching call
    uint64_t max_fires = UINT64_MAX;
    uint32_t match = 0;  // only calls with this key (a pool tag, an endpoint); 0: all
    uint32_t except = 0; // never calls with this key; 0: none excepted
    uint64_t calls = 0;  // matching calls seen
    uint64_t fired = 0;  // faults caused
};

class FaultSet {
  public:
    // site names the calls it judges ("pool") on the timeline.
    FaultSet(std::mt19937_64& rng, const char* site) : rng_(rng), site_(site) {}
    // Adds a named knob; the reference stays valid until Clear.
    FaultKnob& Add(std::string name, FaultKnob knob);
    FaultKnob* Find(std::string_view name);
    void Clear() { knobs_.clear(); }
    // Asks every knob about one call with the given key; true when one fires.
    bool ShouldFail(uint32_t key);

  private:
    std::mt19937_64& rng_;
    const char* site_;
    std::list<std::pair<std::string, FaultKnob>> knobs_;
};

// DbgPrint output, kept line by line for tests and echoed for tools.
class Debugger {
  public:
    // Receives every piece of text as it is printed (a tool's transcript).
    using Sink = std::function<void(std::string_view text)>;
    void Write(std::string_view text);
    const std::vector<std::string>& Lines() const { return lines_; }
    std::string Text() const;                    // every byte printed, the unfinished line included
    size_t Count(std::string_view needle) const; // lines containing needle
    bool Contains(std::string_view needle) const { return Count(needle) != 0; }
    void Clear();
    void SetEcho(std::FILE* stream);
    void SetSink(Sink sink) { sink_ = std::move(sink); }

  private:
    std::vector<std::string> lines_;
    std::string partial_;
    Sink sink_;
};

// Non-paged and paged pool with per-tag accounting and fault injection. As
// on Windows, a new block holds whatever was there before (here the pattern
// kNewFill), and a freed block is overwritten with kFreedFill before it
// goes back, so a driver that reads either sees garbage, not zeros. Paged
// blocks lie on pages of their own that are out of reach while the running
// context is at DISPATCH_LEVEL or above.
class Pool {
  public:
    struct Usage {
        uint64_t bytes = 0;
        uint64_t blocks = 0;
    };
    static constexpr uint8_t kNewFill = 0xCD;
    static constexpr uint8_t kFreedFill = 0xDD;
    explicit Pool(std::mt19937_64& rng) : faults_(rng, "pool") {}
    ~Pool();
    void* Allocate(POOL_TYPE type, size_t bytes, ULONG tag);
    // Returns the size of the freed block; 0 when the block was not ours.
    size_t Free(void* block, ULONG tag, bool check_tag);
    bool IsPaged(const void* address) const; // inside a paged-pool block
    Usage ForTag(ULONG tag) const;
    Usage Total() const;
    std::string LeakReport() const; // one line per tag still holding memory
    FaultSet& Faults() { return faults_; }
    uint64_t Allocations() const { return allocations_; }
    // While one lives, allocations are not judged by the fault knobs: the
    // system's own that cannot fail (the PnP manager's requests).
    class Exempt {
      public:
        explicit Exempt(Pool& pool) : pool_(pool) { ++pool_.exempt_; }
        ~Exempt() { --pool_.exempt_; }
        Exempt(const Exempt&) = delete;
        Exempt& operator=(const Exempt&) = delete;

      private:
        Pool& pool_;
    };
    // Called with every block just before it goes back to the host, so a
    // test can look at what a driver left in memory it freed.
    using FreeObserver = std::function<void(const void* block, size_t bytes, ULONG tag)>;
    void SetFreeObserver(FreeObserver observer) { free_observer_ = std::move(observer); }

  private:
    struct Block {
        size_t bytes;
        ULONG tag;
        bool paged;
    };
    std::map<void*, Block> blocks_;
    std::map<ULONG, Usage> tags_;
    FaultSet faults_;
    uint64_t allocations_ = 0;
    int exempt_ = 0;
    FreeObserver free_observer_;
};

// The rules a driver verifier checks. A violation is reported to the
// handler (tests turn it into a failure; the default prints and aborts)
// unless an ExpectViolation for that rule is active, which counts it.
namespace rule {
inline constexpr const char* kBlockingAtDispatch = "blocking wait at DISPATCH_LEVEL";
inline constexpr const char* kSpinLockIrql = "spin lock acquired above DISPATCH_LEVEL";
inline constexpr const char* kSpinLockAtDpcLevel =
    "spin lock at DPC level acquired below DISPATCH_LEVEL";
inline constexpr const char* kSpinLockNotHeld = "spin lock released while not held";
inline constexpr const char* kSpinLockRecursive = "spin lock acquired while already held";
inline constexpr const char* kSpinDeadlock =
    "spin lock held by a context that cannot release it: the processors deadlock";
inline constexpr const char* kIrqlNotRestored = "IRQL not restored by a callback";
inline constexpr const char* kIrqlDirection =
    "KeRaiseIrql to a lower or KeLowerIrql to a higher IRQL";
inline constexpr const char* kPagedCode = "paged code run at DISPATCH_LEVEL";
inline constexpr const char* kPoolIrql = "pool allocated or freed at a forbidden IRQL";
inline constexpr const char* kPagedPoolAtDispatch = "paged pool touched at DISPATCH_LEVEL or above";
inline constexpr const char* kBadFree = "pool block freed that is not allocated";
inline constexpr const char* kFreeTagMismatch = "pool block freed with another tag";
inline constexpr const char* kQueuedInFreedPool = "timer or DPC still queued inside freed pool";
inline constexpr const char* kPoolLeak = "pool leaked at teardown";
inline constexpr const char* kTimerLeak = "timer or DPC still queued at teardown";
inline constexpr const char* kThreadLeak = "emulated thread still running at teardown";
inline constexpr const char* kMutexNotOwned = "mutex released by a thread that does not own it";
inline constexpr const char* kWaitInFreedPool = "thread waits on an object inside freed pool";
inline constexpr const char* kRegistryIrql = "registry call above PASSIVE_LEVEL";
inline constexpr const char* kBadHandle = "handle closed or used that is not open";
inline constexpr const char* kHandleLeak = "registry key handle still open at teardown";
inline constexpr const char* kIoIrql = "I/O manager call at a forbidden IRQL";
inline constexpr const char* kPowerStateType =
    "PoSetPowerState with a type other than DevicePowerState";
inline constexpr const char* kPowerIrpNotStarted =
    "query- or set-power IRP passed on or completed without PoStartNextPowerIrp";
inline constexpr const char* kPowerIrpStartMisuse =
    "PoStartNextPowerIrp on an IRP that is not a power IRP at the caller's stack location";
inline constexpr const char* kPowerIrpIoCallDriver =
    "power IRP passed on with IoCallDriver instead of PoCallDriver";
inline constexpr const char* kPowerIrpNotRequested =
    "power IRP sent that the power manager did not allocate";
inline constexpr const char* kPowerIrpBlocked =
    "a device object has been blocking a system power IRP for too long a time (the machine "
    "stops: DRIVER_POWER_STATE_FAILURE)";
inline constexpr const char* kIrpUnknown = "IRP used that is not allocated or was freed";
inline constexpr const char* kIrpCompletedTwice = "IRP completed twice";
inline constexpr const char* kIrpCompletedPending = "IRP completed with STATUS_PENDING";
inline constexpr const char* kIrpCompletedWithCancelRoutine =
    "IRP completed while its cancel routine is still set";
inline constexpr const char* kPendingMismatch =
    "dispatch status disagrees with the IRP's pending mark";
inline constexpr const char* kIrpNoStackLocation = "IRP sent with no stack location left";
inline constexpr const char* kIrpNoOriginator =
    "IRP without an originator completed past its last completion routine";
inline constexpr const char* kIrpBadFree =
    "IRP freed that IoAllocateIrp did not allocate, or with a cancel routine set";
inline constexpr const char* kCancelLockHeld =
    "cancel routine returned holding the cancel spin lock";
inline constexpr const char* kIrpLeak = "IRP still allocated or pending at teardown";
inline constexpr const char* kWorkItemMisuse = "work item queued twice or freed while queued";
inline constexpr const char* kWorkItemLeak = "work item still allocated at teardown";
inline constexpr const char* kDeviceDeletedAttached = "device object deleted while attached";
inline constexpr const char* kDeviceLeak =
    "device object not deleted or still referenced at teardown";
inline constexpr const char* kDispatchStatusMismatch =
    "dispatch routine returned a status other than the one it completed the IRP with";
inline constexpr const char* kDispatchNotCompleted =
    "dispatch routine returned without completing the IRP or returning STATUS_PENDING";
inline constexpr const char* kForwardStatus =
    "dispatch routine forwarded the IRP but returned another status than the lower driver's";
inline constexpr const char* kInformationOverflow =
    "IoStatus.Information larger than the output buffer of a buffered request";
inline constexpr const char* kIrpSentWithCancelRoutine =
    "IRP sent to a driver with its cancel routine still set";
inline constexpr const char* kIrpOwnedByLower =
    "IRP freed, reinitialized or given a cancel routine while a lower driver owns it";
inline constexpr const char* kIrpInitializeAllocated =
    "IoInitializeIrp on an IRP from IoAllocateIrp";
inline constexpr const char* kIrpReusedInFlight = "IRP reused or sent again before it came back";
inline constexpr const char* kIrpReuseNotOwn =
    "IoReuseIrp on an IRP that IoAllocateIrp or IoInitializeIrp did not make";
inline constexpr const char* kMutexHeldAtExit = "work item or thread ended owning a mutex";
inline constexpr const char* kObjectInPagedPool =
    "timer, DPC, event or spin lock inside paged pool";
inline constexpr const char* kLockOrderInversion = "locks taken in inverted order (deadlock)";
inline constexpr const char* kErrorLogEntryUnknown =
    "error log entry written or freed that IoAllocateErrorLogEntry did not hand out";
inline constexpr const char* kErrorLogEntryOverrun =
    "error log entry whose strings or dump data run past its end";
inline constexpr const char* kCompletedUnderSpinLock =
    "IRP completed while the completing context holds a spin lock";
} // namespace rule

class Verifier {
  public:
    using Handler = std::function<void(const std::string& rule, const std::string& message)>;
    Verifier();
    void SetHandler(Handler handler) { handler_ = std::move(handler); }
    void Violation(const char* rule_name, const std::string& detail);
    uint64_t Count(std::string_view rule_name) const;

  private:
    friend class ExpectViolation;
    Handler handler_;
    std::vector<std::pair<std::string, uint64_t*>> expected_;
    std::map<std::string, uint64_t, std::less<>> counts_;
};

// While alive, violations of one rule are counted instead of reported.
class ExpectViolation {
  public:
    explicit ExpectViolation(const char* rule_name);
    ~ExpectViolation();
    uint64_t Count() const { return count_; }
    ExpectViolation(const ExpectViolation&) = delete;
    ExpectViolation& operator=(const ExpectViolation&) = delete;

  private:
    uint64_t count_ = 0;
};

// The emulated registry: a tree of keys under \Registry holding typed
// values, the kernel handles open on it, the device instance keys bound to
// physical device objects, and fault knobs for the registry calls. Paths and
// names are UTF-8 here (UTF-16 in the kernel calls); like the real registry,
// every comparison ignores case.
class Registry {
  public:
    struct Value {
        std::string name;
        ULONG type = REG_NONE;
        std::vector<uint8_t> data;
    };
    // The match keys of Faults(): a knob with one of them fails only that call.
    enum Op : uint32_t { kOpen = 1, kQuery = 2, kSet = 3, kDelete = 4 };
    static constexpr const char* kServicesPath =
        "\\Registry\\Machine\\System\\CurrentControlSet\\Services";
    static constexpr const char* kEnumPath = "\\Registry\\Machine\\System\\CurrentControlSet\\Enum";
    static constexpr const char* kDeviceMapPath = "\\Registry\\Machine\\Hardware\\DeviceMap";

    explicit Registry(std::mt19937_64& rng);
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    void CreateKey(std::string_view path); // with every missing parent
    bool KeyExists(std::string_view path) const;
    // Removes a key and its subkeys; handles open on them then fail with
    // STATUS_KEY_DELETED.
    bool DeleteKey(std::string_view path);
    // The setters create the key when it is missing.
    void SetValue(std::string_view path, std::string_view name, ULONG type,
                  std::vector<uint8_t> data);
    void SetDword(std::string_view path, std::string_view name, ULONG value);
    // Stored as UTF-16 with its terminator.
    void SetString(std::string_view path, std::string_view name, std::string_view text,
                   ULONG type = REG_SZ);
    void SetMultiString(std::string_view path, std::string_view name,
                        const std::vector<std::string>& strings);
    std::optional<Value> GetValue(std::string_view path, std::string_view name) const;
    // A REG_DWORD of 4 bytes.
    std::optional<ULONG> GetDword(std::string_view path, std::string_view name) const;
    // A REG_SZ or REG_EXPAND_SZ up to its first terminator.
    std::optional<std::string> GetString(std::string_view path, std::string_view name) const;
    bool DeleteValue(std::string_view path, std::string_view name);
    std::vector<std::string> ValueNames(std::string_view path) const;
    std::vector<std::string> SubkeyNames(std::string_view path) const;

    // Creates a driver's service key and returns its path, which is what
    // driver entry receives as its registry path.
    std::string CreateServiceKey(std::string_view driver);
    // Creates Enum\<instance_id>\Device Parameters, binds it to the physical
    // device object as its PLUGPLAY_REGKEY_DEVICE key and returns its path.
    std::string CreateHardwareKey(PDEVICE_OBJECT pdo, std::string_view instance_id);
    std::optional<std::string> HardwareKeyFor(PDEVICE_OBJECT pdo) const;
    void ForgetDevice(PDEVICE_OBJECT pdo); // when the device object goes away

    // Text form, one "[key path]" line per key followed by its values:
    // "name"=dword:0000000a, "name"=sz:"text", "name"=hex(type):01,02 ...
    // (@ names the default value). Load merges into the tree.
    std::string Dump(std::string_view path = "\\Registry") const;
    bool Load(std::string_view text, std::string* error = nullptr);
    bool SaveFile(const std::string& file) const;
    bool LoadFile(const std::string& file, std::string* error = nullptr);

    size_t OpenHandles() const;
    FaultSet& Faults();
    // Reports handles still open (a verifier violation) and closes them.
    void CheckTeardown();

    struct Impl; // the tree and the handle table, used by the kernel calls
    Impl& impl() { return *impl_; }

  private:
    std::unique_ptr<Impl> impl_;
};

// The interleaving mode: instead of one processor that switches threads
// only where they block, up to `processors` contexts run at DISPATCH_LEVEL at
// once, and every call of driver code into the platform (locks, interlocked
// operations, IoCallDriver, IoCompleteRequest, events, timers, pool, ...) is a
// preemption point where a seeded choice may switch to another context, run a
// queued DPC beside a spin-lock holder or let a timer due within `max_jump_us`
// fire as an interrupt. Several system worker threads run work items. The
// choices follow random context priorities that drop at each switch
// (probabilistic concurrency testing), so rare orders come up in few runs;
// one seed replays one interleaving exactly.
struct InterleaveOptions {
    bool enabled = false;
    unsigned processors = 2;     // 1 or 2
    unsigned worker_threads = 3; // system worker threads
    int64_t max_jump_us = 100;   // how far a preemption point may move the clock

    // "on", "off" or "cpus=N,workers=N,jump_us=N" (any of the three); nullopt
    // with the reason for anything else.
    static std::optional<InterleaveOptions> Parse(std::string_view text, std::string* error);
};

struct KernelOptions {
    uint64_t seed = 1;
    bool real_time = false; // wait for the wall clock instead of jumping to the next deadline
    InterleaveOptions interleave = {};

    // HK_SEED=<n> and HK_INTERLEAVE=on|cpus=<1|2>,workers=<n>,jump_us=<n>;
    // the defaults where they are unset. A malformed value aborts with its text.
    static KernelOptions FromEnvironment();
    // The environment assignments that reproduce this machine.
    std::string Replay() const;
};

// A bug check: the machine stops at once (the process aborts), saying why
// with the replay line.
[[noreturn]] void StopMachine(const std::string& why);

namespace detail {
class Scheduler;
struct EmuThread;
class IoManager;
class LockOrder;
} // namespace detail
class ErrorLog;
class PnpManager;
class Timeline;
class PowerManager;

// One emulated machine. The constructing OS thread becomes the first
// application thread; the destructor stops the system worker thread and
// reports leaked pool, timers, DPCs and threads to the verifier.
class Kernel {
  public:
    explicit Kernel(KernelOptions options = {});
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;
    static Kernel& Current();
    static bool Exists();

    Debugger& Dbg() { return debugger_; }
    Pool& pool() { return *pool_; }
    Verifier& verifier() { return verifier_; }
    Registry& registry() { return *registry_; }
    ErrorLog& errorlog() { return *errorlog_; }
    PnpManager& pnp() { return *pnp_; }
    PowerManager& power() { return *power_; }
    detail::Scheduler& scheduler() { return *scheduler_; }
    detail::IoManager& io() { return *io_; }
    detail::LockOrder& locks() { return *locks_; }
    std::mt19937_64& Random() { return rng_; }
    uint64_t Seed() const { return options_.seed; }
    const KernelOptions& Options() const { return options_; }
    // The recorder of the run's timeline (timeline.h); null, the default,
    // records nothing. The caller keeps it alive while it is attached.
    Timeline* timeline() const { return timeline_; }
    void SetTimeline(Timeline* timeline) { timeline_ = timeline; }

    // Virtual time since the kernel started, in 100 ns units and in ms.
    int64_t Now() const;
    int64_t NowMs() const { return Now() / 10000; }
    // The calling application thread sleeps for ms of (virtual) time.
    void Sleep(int64_t ms);
    // Runs fn on a system worker thread at PASSIVE_LEVEL: in queue order,
    // one at a time, unless the interleaving mode runs several workers.
    void QueueSystemWork(std::function<void()> fn);
    uint64_t SystemWorkQueued() const { return work_queued_; } // ever, for waiting it out
    // Waits until no system work is queued or running (on any worker).
    void WaitSystemWorkIdle();
    // From any OS thread: fn runs on the emulated processor at DISPATCH_LEVEL
    // as soon as it is idle (external input such as a pty or a signal).
    void Post(std::function<void()> fn);

  private:
    void WorkerLoop();
    KernelOptions options_;
    std::mt19937_64 rng_;
    Debugger debugger_;
    Verifier verifier_;
    std::unique_ptr<Pool> pool_;
    std::unique_ptr<Registry> registry_;
    std::unique_ptr<ErrorLog> errorlog_;
    std::unique_ptr<PnpManager> pnp_;
    std::unique_ptr<PowerManager> power_;
    std::unique_ptr<detail::Scheduler> scheduler_;
    std::unique_ptr<detail::IoManager> io_;
    std::unique_ptr<detail::LockOrder> locks_;
    std::unique_ptr<detail::EmuThread> main_;
    std::vector<std::unique_ptr<class Thread>> workers_;
    std::list<std::function<void()>> work_;
    uint64_t work_queued_ = 0;
    KEVENT work_event_;
    KEVENT work_idle_; // set while no system work is queued or running
    unsigned work_running_ = 0;
    bool stopping_ = false;
    Timeline* timeline_ = nullptr;
};

// An emulated application thread: a real OS thread that runs only when the
// scheduler hands it the processor. The destructor joins it.
class Thread {
  public:
    Thread(std::string name, std::function<void()> body);
    ~Thread();
    void Join(); // a blocking point of the calling emulated thread
    bool Finished() const;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

  private:
    std::unique_ptr<detail::EmuThread> thread_;
    bool joined_ = false;
};

// A driver object as the I/O manager hands it to a driver entry: every
// MajorFunction entry completes its request with
// STATUS_INVALID_DEVICE_REQUEST until the driver installs its own routine.
class Driver {
  public:
    explicit Driver(std::u16string name = u"\\Driver\\test");
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;
    PDRIVER_OBJECT Object() { return &object_; }
    // Calls the entry with the driver's service key path as registry path.
    NTSTATUS Initialize(PDRIVER_INITIALIZE entry, std::u16string registry_path);
    // Calls DriverUnload, when the driver installed one.
    void Unload();

  private:
    DRIVER_OBJECT object_{};
    DRIVER_EXTENSION extension_{};
    std::u16string name_;
    std::u16string registry_path_;
};

// The result of one application request: its final status and byte count.
struct IoResult {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

// One overlapped application request: the originator its IRP completes to.
class PendingIo {
  public:
    PendingIo();
    PendingIo(const PendingIo&) = delete;
    PendingIo& operator=(const PendingIo&) = delete;
    bool Done() const { return done_; }
    // Waits for the completion: a blocking point of the calling thread.
    IoResult Wait();
    IoResult Result() const { return result_; }
    // The buffer the request returns into (reads, control outputs); its first
    // Result().information bytes are the answer.
    const std::vector<uint8_t>& Output() const { return output_; }
    PIRP Irp() const { return irp_; } // null once completed

  private:
    friend class File;
    KEVENT event_;
    bool done_ = false;
    IoResult result_;
    std::vector<uint8_t> input_;
    std::vector<uint8_t> output_;
    PIRP irp_ = nullptr;
    std::function<void(const PendingIo&)> notice_;
};

// An application's handle on a device, building IRPs as the I/O manager
// does for a file handle: IRP_MJ_CREATE on open, buffered or neither I/O
// for reads and writes as the device's flags ask, METHOD_BUFFERED and
// METHOD_NEITHER controls, IRP_MJ_CLEANUP and IRP_MJ_CLOSE on close.
// Requests go to the top of the opened device's stack.
class File {
  public:
    File() = default;
    ~File(); // closes the file if it is still open
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    NTSTATUS Open(PDEVICE_OBJECT device);
    NTSTATUS Open(std::u16string_view name); // a device name or a symbolic link
    bool IsOpen() const { return file_ != nullptr; }
    PFILE_OBJECT Object() const { return file_; }

    // Synchronous requests: they wait when the driver pends the IRP.
    IoResult Read(void* buffer, ULONG length);
    IoResult Write(const void* data, ULONG length);
    IoResult DeviceIoControl(ULONG code, const void* input, ULONG input_length, void* output,
                             ULONG output_length);
    IoResult InternalDeviceIoControl(ULONG code, const void* input, ULONG input_length,
                                     void* output, ULONG output_length);

    // Overlapped requests: sent at once, completed whenever the driver does.
    std::shared_ptr<PendingIo> ReadAsync(ULONG length);
    std::shared_ptr<PendingIo> WriteAsync(const void* data, ULONG length);
    std::shared_ptr<PendingIo> DeviceIoControlAsync(ULONG code, const void* input,
                                                    ULONG input_length, ULONG output_length,
                                                    bool internal = false);
    // IoCancelIrp on a request still pending; false when it was not cancelled.
    bool Cancel(PendingIo& request);
    // The next request sent calls notice when it completes, in the context
    // that completes it (possibly inside the call that sends it): where the
    // I/O manager copies an overlapped request's results and sets its event.
    void NotifyNextCompletion(std::function<void(const PendingIo&)> notice);

    // The handle is closed: IRP_MJ_CLEANUP. Close waits for the file's
    // outstanding requests, then sends IRP_MJ_CLOSE and frees the file object.
    NTSTATUS Cleanup();
    NTSTATUS Close();

  private:
    std::shared_ptr<PendingIo> Send(UCHAR major, ULONG code, const void* input, ULONG input_length,
                                    ULONG output_length);
    NTSTATUS SendSimple(UCHAR major);
    PFILE_OBJECT file_ = nullptr;
    bool cleaned_up_ = false;
    std::vector<std::shared_ptr<PendingIo>> outstanding_;
    std::function<void(const PendingIo&)> next_notice_;
};

// The object namespace as tests see it.
PDEVICE_OBJECT FindDevice(std::u16string_view name); // follows symbolic links
bool SymbolicLinkExists(std::u16string_view link);
std::u16string SymbolicLinkTarget(std::u16string_view link); // empty when there is none
// Open files and queued work items holding a device object.
LONG DeviceReferences(PDEVICE_OBJECT device);
bool DeviceExists(PDEVICE_OBJECT device); // not yet freed
// IRPs the I/O manager knows of: allocated, initialized or in flight.
size_t LiveIrps();

// How the lower drivers of tests answer an IRP, since real ones do both: by
// a choice drawn from the kernel's seed the IRP is either completed inside
// the dispatch routine (its status is returned), or marked pending and
// completed from a DPC once the processor is next idle, at DISPATCH_LEVEL
// (STATUS_PENDING is returned). A dispatch routine returns what this returns.
NTSTATUS CompleteAsLowerDriver(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
// A lower driver of the stand-in (the bus) completing an IRP inside the
// caller's IoCallDriver: the spin locks held then are the caller's, which
// Windows allows; the completed-under-a-spin-lock rule is the driver's own
// and judges only the driver's completions.
void CompleteInsideCall(PIRP irp);

} // namespace hk
