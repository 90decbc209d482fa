// Held locks and lock order: every spin lock and mutex a context takes is
// recorded with the locks it already held, so that an inverted order is
// reported the first time it is taken, a completion under a spin lock is
// seen, and a work item or thread that ends owning a mutex is caught.
// Runs wherever the lock calls run; takes no lock of its own (the emulated
// processors never run stand-in code at the same time).
#include "hostkernel/checks.h"

#include "hostkernel/scheduler.h"

namespace hk::detail {

namespace {
std::string Name(const void* lock) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", lock);
    return text;
}
} // namespace

LockOrder& Locks() {
    return Kernel::Current().locks();
}

const void* CurrentContext() {
    return Sched().Current();
}

bool LockOrder::Reaches(const void* from, const void* to, std::set<const void*>& seen) const {
    if (from == to)
        return true;
    if (!seen.insert(from).second)
        return false;
    auto it = after_.find(from);
    if (it == after_.end())
        return false;
    for (const void* next : it->second)
        if (Reaches(next, to, seen))
            return true;
    return false;
}

void LockOrder::Attempt(const void* lock, LockKind kind, const void* context) {
    (void)kind;
    auto it = held_.find(context);
    if (it == held_.end())
        return;
    for (const HeldLock& held : it->second) {
        if (held.lock == lock)
            continue; // recursion is reported by the lock's own rule
        // An order taken before was checked then: a cycle through it is
        // found when its last edge is added. Most takings repeat an order.
        if (!after_[held.lock].insert(lock).second)
            continue;
        std::set<const void*> seen;
        if (Reaches(lock, held.lock, seen) && reported_.emplace(held.lock, lock).second)
            Kernel::Current().verifier().Violation(
                rule::kLockOrderInversion,
                "lock " + Name(lock) + " taken while holding lock " + Name(held.lock) +
                    ", which was taken earlier while " + Name(lock) + " was held");
    }
}

void LockOrder::Acquired(const void* lock, LockKind kind, const void* context) {
    held_[context].push_back(HeldLock{lock, kind});
}

void LockOrder::Released(const void* lock, const void* context) {
    auto it = held_.find(context);
    if (it == held_.end())
        return;
    auto& locks = it->second;
    for (auto held = locks.rbegin(); held != locks.rend(); ++held) {
        if (held->lock == lock) {
            locks.erase(std::next(held).base());
            break;
        }
    }
    // An emptied list stays for the context's next lock, which then costs no
    // allocation; it goes when the context ends.
}

void LockOrder::Ended(const void* context) {
    held_.erase(context);
}

size_t LockOrder::Held(LockKind kind, const void* context) const {
    auto it = held_.find(context);
    if (it == held_.end())
        return 0;
    size_t count = 0;
    for (const HeldLock& held : it->second)
        count += held.kind == kind;
    return count;
}

void LockOrder::Forget(const void* block, size_t bytes) {
    auto inside = [&](const void* p) {
        auto a = reinterpret_cast<uintptr_t>(p);
        auto b = reinterpret_cast<uintptr_t>(block);
        return a >= b && a < b + bytes;
    };
    for (auto it = after_.begin(); it != after_.end();) {
        if (inside(it->first)) {
            it = after_.erase(it);
            continue;
        }
        for (auto next = it->second.begin(); next != it->second.end();)
            next = inside(*next) ? it->second.erase(next) : std::next(next);
        ++it;
    }
    for (auto it = reported_.begin(); it != reported_.end();)
        it = inside(it->first) || inside(it->second) ? reported_.erase(it) : std::next(it);
}

void SpinLockGiven(const void* lock) {
    Locks().Released(lock, CurrentContext());
}

void LockInitialized(const void* lock, size_t bytes) {
    Locks().Forget(lock, bytes);
}

void CheckNoMutexHeld(const char* what, bool context_ends) {
    size_t mutexes = Locks().Held(LockKind::kMutex, CurrentContext());
    if (mutexes != 0)
        Kernel::Current().verifier().Violation(rule::kMutexHeldAtExit,
                                               std::string(what) + " ended owning " +
                                                   std::to_string(mutexes) + " mutex(es)");
    if (context_ends)
        Locks().Ended(CurrentContext());
}

} // namespace hk::detail
