// Pool: host allocations behind the kernel's pool calls, with their pool
// type, a byte and block count per tag, a leak report and fault injection.
// New blocks are filled with a pattern so that uninitialised use shows;
// freed blocks are overwritten with another and go back to the host at
// once, with the I/O manager's records of the IRPs they held, so
// AddressSanitizer catches any later touch (a paged block's pages
// are unmapped, so a later touch faults). Paged pool may not be freed at
// DISPATCH_LEVEL nor hold objects the kernel touches there; its pages are
// out of reach at DISPATCH_LEVEL (pagedpool.cpp), and the pool opens a
// block's pages before its own work on them.
#include "hostkernel/checks.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/scheduler.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace hk {

using detail::TagText;

Pool::~Pool() {
    for (auto& [block, info] : blocks_) {
        if (info.paged)
            detail::UnmapPagedBlock(block);
        else
            std::free(block);
    }
}

void* Pool::Allocate(POOL_TYPE type, size_t bytes, ULONG tag) {
    KIRQL irql = detail::Sched().Irql();
    bool paged = type == PagedPool || type == PagedPoolCacheAligned;
    if (irql > DISPATCH_LEVEL || (paged && irql >= DISPATCH_LEVEL)) {
        Kernel::Current().verifier().Violation(rule::kPoolIrql,
                                               std::string(paged ? "paged" : "non-paged") +
                                                   " allocation at IRQL " + std::to_string(irql));
    }
    ++allocations_;
    if (exempt_ == 0 && faults_.ShouldFail(tag))
        return nullptr;
    void* block = paged ? detail::MapPagedBlock(bytes, tag) : std::malloc(bytes ? bytes : 1);
    if (!block)
        return nullptr;
    std::memset(block, kNewFill, bytes);
    if (paged)
        detail::GuardPagedPool(irql);
    blocks_[block] = Block{bytes, tag, paged};
    Usage& usage = tags_[tag];
    usage.bytes += bytes;
    usage.blocks += 1;
    return block;
}

size_t Pool::Free(void* block, ULONG tag, bool check_tag) {
    KIRQL irql = detail::Sched().Irql();
    if (irql > DISPATCH_LEVEL)
        Kernel::Current().verifier().Violation(rule::kPoolIrql, "free above DISPATCH_LEVEL");
    auto it = blocks_.find(block);
    if (it == blocks_.end()) {
        std::ostringstream text;
        text << "block " << block << " (freed twice, or never allocated)";
        Kernel::Current().verifier().Violation(rule::kBadFree, text.str());
        return 0;
    }
    Block info = it->second;
    if (info.paged && irql >= DISPATCH_LEVEL)
        Kernel::Current().verifier().Violation(rule::kPoolIrql,
                                               "paged block freed at IRQL " + std::to_string(irql));
    if (check_tag && tag != info.tag)
        Kernel::Current().verifier().Violation(rule::kFreeTagMismatch,
                                               "allocated as '" + TagText(info.tag) +
                                                   "', freed as '" + TagText(tag) + "'");
    detail::Sched().CheckFreed(block, info.bytes);
    detail::Locks().Forget(block, info.bytes);
    detail::Io().ForgetIrpsIn(block, info.bytes);
    if (info.paged)
        detail::OpenPagedBlock(block);
    if (free_observer_)
        free_observer_(block, info.bytes, info.tag);
    std::memset(block, kFreedFill, info.bytes);
    Usage& usage = tags_[info.tag];
    usage.bytes -= info.bytes;
    usage.blocks -= 1;
    if (usage.blocks == 0)
        tags_.erase(info.tag);
    blocks_.erase(it);
    if (info.paged)
        detail::UnmapPagedBlock(block);
    else
        std::free(block);
    return info.bytes;
}

bool Pool::IsPaged(const void* address) const {
    auto it = blocks_.upper_bound(const_cast<void*>(address));
    if (it == blocks_.begin())
        return false;
    --it;
    auto start = reinterpret_cast<uintptr_t>(it->first);
    return it->second.paged && reinterpret_cast<uintptr_t>(address) < start + it->second.bytes;
}

Pool::Usage Pool::ForTag(ULONG tag) const {
    auto it = tags_.find(tag);
    return it == tags_.end() ? Usage{} : it->second;
}

Pool::Usage Pool::Total() const {
    Usage total;
    for (const auto& [tag, usage] : tags_) {
        total.bytes += usage.bytes;
        total.blocks += usage.blocks;
    }
    return total;
}

std::string Pool::LeakReport() const {
    std::ostringstream text;
    for (const auto& [tag, usage] : tags_)
        text << "  tag '" << TagText(tag) << "': " << usage.blocks << " block(s), " << usage.bytes
             << " byte(s)\n";
    return text.str();
}

namespace detail {
std::string TagText(ULONG tag) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = char((tag >> (8 * i)) & 0xFF);
        text += (c >= 32 && c < 127) ? c : '.';
    }
    return text;
}

void CheckNonPaged(const void* object, const char* what) {
    if (Kernel::Current().pool().IsPaged(object))
        Kernel::Current().verifier().Violation(
            rule::kObjectInPagedPool, std::string(what) +
                                          " lies in paged pool, which the kernel may not touch at "
                                          "DISPATCH_LEVEL");
}
} // namespace detail

} // namespace hk

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    hk::detail::Sched().PreemptionPoint();
    return hk::Kernel::Current().pool().Allocate(PoolType, NumberOfBytes, Tag);
}

void ExFreePool(PVOID P) {
    hk::detail::Sched().PreemptionPoint();
    hk::Kernel::Current().pool().Free(P, 0, false);
}

void ExFreePoolWithTag(PVOID P, ULONG Tag) {
    hk::detail::Sched().PreemptionPoint();
    hk::Kernel::Current().pool().Free(P, Tag, true);
}
