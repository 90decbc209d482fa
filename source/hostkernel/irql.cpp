// IRQL and spin locks of the emulated processors. A spin lock's value is the
// context holding it (0 when free), so misuse is caught without a side table;
// in the interleaving mode a context that finds a lock held by another spins
// until the holder releases it. Acquire and release are preemption points.
#include "hostkernel/checks.h"
#include "hostkernel/scheduler.h"

using hk::detail::Sched;

namespace {
void Violation(const char* rule_name, const std::string& detail) {
    hk::Kernel::Current().verifier().Violation(rule_name, detail);
}

void SetIrqlLower(KIRQL new_irql) {
    Sched().SetIrql(new_irql);
    if (new_irql < DISPATCH_LEVEL)
        Sched().DeliverDpcs();
}
} // namespace

KIRQL KeGetCurrentIrql(void) {
    return Sched().Irql();
}

void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
    KIRQL current = Sched().Irql();
    *OldIrql = current;
    if (NewIrql < current) {
        Violation(hk::rule::kIrqlDirection,
                  "KeRaiseIrql from " + std::to_string(current) + " to " + std::to_string(NewIrql));
        return;
    }
    Sched().SetIrql(NewIrql);
}

void KeLowerIrql(KIRQL NewIrql) {
    KIRQL current = Sched().Irql();
    if (NewIrql > current) {
        Violation(hk::rule::kIrqlDirection,
                  "KeLowerIrql from " + std::to_string(current) + " to " + std::to_string(NewIrql));
        return;
    }
    SetIrqlLower(NewIrql);
}

KIRQL KeRaiseIrqlToDpcLevel(void) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return old;
}

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    hk::detail::CheckNonPaged(SpinLock, "a spin lock");
    hk::detail::LockInitialized(SpinLock, sizeof *SpinLock);
    *SpinLock = 0;
}

static void MarkHeld(PKSPIN_LOCK SpinLock) {
    auto self = KSPIN_LOCK(Sched().Current());
    // The order is checked before spinning: an inverted order is reported
    // even when this run happens not to deadlock.
    hk::detail::Locks().Attempt(SpinLock, hk::detail::LockKind::kSpinLock,
                                hk::detail::CurrentContext());
    if (*SpinLock == self)
        Violation(hk::rule::kSpinLockRecursive, "the holder spins on it forever (lock " +
                                                    std::to_string(uintptr_t(SpinLock)) + ")");
    else if (*SpinLock != 0 && Sched().Interleaving())
        Sched().SpinUntilReleased(SpinLock);
    else if (*SpinLock != 0)
        Violation(hk::rule::kSpinLockRecursive, "on one processor this deadlocks (lock " +
                                                    std::to_string(uintptr_t(SpinLock)) + ")");
    hk::detail::Locks().Acquired(SpinLock, hk::detail::LockKind::kSpinLock,
                                 hk::detail::CurrentContext());
    *SpinLock = self;
}

static void MarkReleased(PKSPIN_LOCK SpinLock) {
    if (*SpinLock == 0)
        Violation(hk::rule::kSpinLockNotHeld, "lock " + std::to_string(uintptr_t(SpinLock)));
    hk::detail::SpinLockGiven(SpinLock);
    *SpinLock = 0;
}

KIRQL FASTCALL KfAcquireSpinLock(PKSPIN_LOCK SpinLock) {
    Sched().PreemptionPoint();
    KIRQL old = Sched().Irql();
    if (old > DISPATCH_LEVEL)
        Violation(hk::rule::kSpinLockIrql, "at IRQL " + std::to_string(old));
    else
        Sched().SetIrql(DISPATCH_LEVEL);
    MarkHeld(SpinLock);
    return old;
}

void FASTCALL KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    MarkReleased(SpinLock);
    KeLowerIrql(NewIrql);
    Sched().PreemptionPoint();
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    Sched().PreemptionPoint();
    if (Sched().Irql() != DISPATCH_LEVEL)
        Violation(hk::rule::kSpinLockAtDpcLevel, "at IRQL " + std::to_string(Sched().Irql()));
    MarkHeld(SpinLock);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    MarkReleased(SpinLock);
    Sched().PreemptionPoint();
}

void HkPreemptionPoint(void) {
    if (hk::Kernel::Exists())
        Sched().PreemptionPoint();
}

void HkCheckPagedCode(const char* File, int Line) {
    if (Sched().Irql() > APC_LEVEL)
        Violation(hk::rule::kPagedCode, std::string(File) + "(" + std::to_string(Line) +
                                            ") at IRQL " + std::to_string(Sched().Irql()));
}
