// The pages of paged pool, in the host process. Every paged-pool block lies
// on pages of its own, which are inaccessible (PROT_NONE) while the running
// emulated context is at DISPATCH_LEVEL or above and accessible below it,
// as when the verifier pages pageable memory out at every raise of the IRQL.
// A SIGSEGV handler turns a touch of such a page into a verifier report,
// makes the block accessible and lets the access complete; the next IRQL
// change or switch of context protects it again. Below DISPATCH_LEVEL a
// block may still be closed from the last raise: a touch then only opens it. Faults anywhere else
// go to the handler that was installed before (AddressSanitizer's), or kill the process as they
// would have. Runs on the context holding the emulated processor; the scheduler runs one at a time,
// so no host locks.
#include "hostkernel/checks.h"
#include "hostkernel/scheduler.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace hk::detail {

namespace {
struct PagedBlock {
    size_t length; // whole pages
    ULONG tag;
    bool accessible;
};

// By start address; the fault handler looks an address up here.
std::map<uintptr_t, PagedBlock>& Blocks() {
    static std::map<uintptr_t, PagedBlock> blocks;
    return blocks;
}

struct sigaction g_previous_handler;

void SetAccess(uintptr_t start, PagedBlock& block, bool accessible) {
    if (block.accessible == accessible)
        return;
    if (mprotect(reinterpret_cast<void*>(start), block.length,
                 accessible ? PROT_READ | PROT_WRITE : PROT_NONE) != 0) {
        std::perror("hostkernel: mprotect of a paged-pool block");
        std::abort();
    }
    block.accessible = accessible;
}

std::map<uintptr_t, PagedBlock>::iterator Find(uintptr_t address) {
    auto& blocks = Blocks();
    auto it = blocks.upper_bound(address);
    if (it == blocks.begin())
        return blocks.end();
    --it;
    return address < it->first + it->second.length ? it : blocks.end();
}

void OnSegv(int signal, siginfo_t* info, void* context) {
    auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    auto it = Find(address);
    if (it != Blocks().end() && !it->second.accessible) {
        SetAccess(it->first, it->second, true);
        // Below DISPATCH_LEVEL the block was only left closed (see
        // GuardPagedPool): the access goes on.
        if (Sched().Irql() < DISPATCH_LEVEL)
            return;
        Kernel::Current().verifier().Violation(
            rule::kPagedPoolAtDispatch, "block '" + TagText(it->second.tag) + "' at offset " +
                                            std::to_string(address - it->first) + ", IRQL " +
                                            std::to_string(Sched().Irql()));
        return; // the access completes
    }
    if (g_previous_handler.sa_flags & SA_SIGINFO) {
        g_previous_handler.sa_sigaction(signal, info, context);
        return;
    }
    if (g_previous_handler.sa_handler != SIG_DFL && g_previous_handler.sa_handler != SIG_IGN) {
        g_previous_handler.sa_handler(signal);
        return;
    }
    // Returning re-runs the faulting access, which now ends the process.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &fallback, nullptr);
}

void InstallHandlerOnce() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_sigaction = OnSegv;
        // On the alternate stack where the thread has one, so that a stack
        // overflow still reaches the previous handler.
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        return sigaction(SIGSEGV, &action, &g_previous_handler) == 0;
    }();
    if (!installed) {
        std::perror("hostkernel: installing the paged-pool fault handler");
        std::abort();
    }
}
} // namespace

void* MapPagedBlock(size_t bytes, ULONG tag) {
    InstallHandlerOnce();
    static const size_t page = size_t(sysconf(_SC_PAGESIZE));
    size_t length = (bytes + page - 1) / page * page;
    if (length == 0)
        length = page;
    void* block = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED)
        return nullptr;
    Blocks()[reinterpret_cast<uintptr_t>(block)] = PagedBlock{length, tag, true};
    return block;
}

void OpenPagedBlock(void* block) {
    auto it = Blocks().find(reinterpret_cast<uintptr_t>(block));
    SetAccess(it->first, it->second, true);
}

void UnmapPagedBlock(void* block) {
    auto it = Blocks().find(reinterpret_cast<uintptr_t>(block));
    munmap(block, it->second.length);
    Blocks().erase(it);
}

// Closing the blocks is what a raise to DISPATCH_LEVEL must do; opening
// them again below it waits until a block is touched (the fault handler
// opens it without a report), since an mprotect per block at every IRQL
// change was most of what a long run of the driver cost. Blocks that lie
// next to each other are closed in one call.
void GuardPagedPool(KIRQL irql) {
    auto& blocks = Blocks();
    if (blocks.empty() || irql < DISPATCH_LEVEL)
        return;
    const bool accessible = false;
    uintptr_t run_start = 0, run_end = 0;
    auto flush = [&] {
        if (run_end != run_start &&
            mprotect(reinterpret_cast<void*>(run_start), run_end - run_start,
                     accessible ? PROT_READ | PROT_WRITE : PROT_NONE) != 0) {
            std::perror("hostkernel: mprotect of paged-pool blocks");
            std::abort();
        }
        run_start = run_end = 0;
    };
    for (auto& [start, block] : blocks) {
        if (block.accessible == accessible) {
            flush();
            continue;
        }
        if (start != run_end) {
            flush();
            run_start = start;
        }
        run_end = start + block.length;
        block.accessible = accessible;
    }
    flush();
}

} // namespace hk::detail
