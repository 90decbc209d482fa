// Verifier hooks shared by the kernel's calls, internal to the stand-in:
// the locks each emulated context holds and the order they were taken in
// (lockorder.cpp), the check that a kernel object lies outside paged pool
// (pool.cpp) and the pages of paged pool, out of reach at DISPATCH_LEVEL
// (pagedpool.cpp). A context is the emulated thread the scheduler runs,
// Sched().Current(); DPCs run in the context they interrupt.
#pragma once

#include "hostkernel/emu.h"

#include <map>
#include <set>
#include <vector>

namespace hk::detail {

enum class LockKind { kSpinLock, kMutex };

// Held locks per context, and a graph with an edge A -> B whenever B was
// taken while A was held. Taking A while holding B when a path A ->* B
// exists is an inverted order: on two processors (or two threads) it is a
// deadlock waiting to happen, so it is reported the first time, not when
// it finally deadlocks.
class LockOrder {
  public:
    // Before the context waits for the lock: checks the order, adds edges.
    void Attempt(const void* lock, LockKind kind, const void* context);
    void Acquired(const void* lock, LockKind kind, const void* context);
    void Released(const void* lock, const void* context);
    size_t Held(LockKind kind, const void* context) const;
    void Ended(const void* context); // a thread's context goes away
    // A lock initialised again, or memory freed: its old edges no longer
    // describe the lock that will live there.
    void Forget(const void* block, size_t bytes);

  private:
    struct HeldLock {
        const void* lock;
        LockKind kind;
    };
    bool Reaches(const void* from, const void* to, std::set<const void*>& seen) const;
    std::map<const void*, std::vector<HeldLock>> held_;
    std::map<const void*, std::set<const void*>> after_;
    std::set<std::pair<const void*, const void*>> reported_;
};

LockOrder& Locks();
const void* CurrentContext();

// Spin lock and mutex hooks of the kernel calls.
void SpinLockGiven(const void* lock);
void LockInitialized(const void* lock, size_t bytes);
// Reports a work item or thread that ends owning a mutex; a thread's
// context is forgotten then.
void CheckNoMutexHeld(const char* what, bool context_ends);

// Reports a dispatcher object, DPC or spin lock that lies in paged pool.
void CheckNonPaged(const void* object, const char* what);
std::string TagText(ULONG tag); // a pool tag as its four characters

// Paged-pool blocks on pages of their own. A new block is accessible; the
// pool makes it accessible again for its own work on it before it unmaps it.
void* MapPagedBlock(size_t bytes, ULONG tag);
void OpenPagedBlock(void* block);
void UnmapPagedBlock(void* block);
// Called wherever the running context's IRQL changes or another context
// starts running: at DISPATCH_LEVEL or above every paged block becomes
// inaccessible, below it accessible. Nearly free while no paged block exists.
void GuardPagedPool(KIRQL irql);

} // namespace hk::detail
