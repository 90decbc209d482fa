// What every fuzzer of the driver shares: one emulated kernel for all inputs, a
// reader of the input's fields, and the checks that turn a broken
// invariant or an assertion line in the trace output into a crash.
#pragma once

#include "fuzz_check.h"

#include "hostkernel/emu.h"
#include "dpool.h"
#include "trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

// One kernel serves every input of the process: made at the first input,
// taken apart at the end. Making a kernel (its threads, its pool) cost more
// than most inputs. The stand-in forgets an IRP when its memory is freed,
// so the kernel's records stay as small as what is live. Each input is
// checked on its own: no assertion line, no verifier report (the default
// handler aborts), no pool block and no IRP more at its end than at its
// start. What the kernel finds left at the end (timers, DPCs, threads,
// handles, pool) it reports through the verifier, which aborts.
inline hk::Kernel* kernel = nullptr;

// What is taken apart at the end, last made first: the kernel, then what
// the targets built in it (OnTearDown).
inline std::vector<void (*)()>& TearDowns() {
    static std::vector<void (*)()> steps;
    return steps;
}
inline void OnTearDown(void (*step)()) {
    TearDowns().push_back(step);
}
inline void TearDownAll() {
    std::vector<void (*)()>& steps = TearDowns();
    while (!steps.empty()) {
        void (*step)() = steps.back();
        steps.pop_back();
        step();
    }
}

inline hk::Kernel& SharedKernel() {
    if (kernel == nullptr) {
        kernel = new hk::Kernel();
        OnTearDown([] {
            delete kernel;
            kernel = nullptr;
        });
    }
    return *kernel;
}

// The driver traces only its assertions (which CheckTrace looks for) unless
// the input's option bit turns the target's own levels on too: formatting
// trace lines costs more than most inputs, and only some need them.
constexpr uint8_t kOptionTrace = 0x01;
inline ULONG TraceMaskFor(uint8_t options, ULONG levels) {
    return TL_ASSERT | ((options & kOptionTrace) ? levels : 0);
}

// Pool blocks an input must give back: all but the data request pool's,
// which grows in blocks when it runs dry and keeps them (up to its bound)
// until its port is deleted; its records handed out are what the targets
// check instead.
inline uint64_t InputBlocks() {
    return kernel->pool().Total().blocks - kernel->pool().ForTag(DPOOL_TAG).blocks;
}

// Trace lines of the current input already checked.
inline size_t checked_lines = 0;

inline void CheckTrace();

// Brackets one input: the debugger's lines and the random choices start
// afresh (the same input runs the same way again), and at its end the
// trace is checked and the pool and the IRPs are back where they were.
class Input {
  public:
    Input() {
        hk::Kernel& k = SharedKernel();
        k.Dbg().Clear();
        k.Random().seed(k.Seed());
        checked_lines = 0;
        blocks_ = InputBlocks();
        irps_ = hk::LiveIrps();
    }
    ~Input() {
        // At exit the teardown must run before the stand-in's own
        // function-local statics go, which the first input has made: exit
        // destroys in the reverse order of registration.
        static bool registered = false;
        if (!registered) {
            std::atexit(TearDownAll);
            registered = true;
        }
        CheckTrace();
        if (InputBlocks() != blocks_ || hk::LiveIrps() != irps_) {
            std::fprintf(stderr, "the input left %lld pool block(s) and %lld IRP(s) more:\n%s",
                         (long long)(InputBlocks() - blocks_),
                         (long long)hk::LiveIrps() - (long long)irps_,
                         kernel->pool().LeakReport().c_str());
            std::abort();
        }
        kernel->Dbg().Clear();
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

  private:
    uint64_t blocks_ = 0;
    size_t irps_ = 0;
};

// The driver reports broken invariants as assertion lines and carries on;
// for a fuzzer each one is a crash. Only a line that starts like one counts:
// hex dumps of fuzzed bytes may spell the words anywhere else.
inline void CheckTrace() {
    const std::vector<std::string>& lines = kernel->Dbg().Lines();
    for (; checked_lines < lines.size(); checked_lines++) {
        if (lines[checked_lines].rfind("ACM:ASSERTION FAILED: (", 0) == 0) {
            std::fprintf(stderr, "assertion in the trace output:\n%s\n",
                         kernel->Dbg().Text().c_str());
            std::abort();
        }
    }
}

// Reads the input field by field; past its end every field reads as zero.
class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Empty() const { return at_ == size_; }
    uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::vector<uint8_t> Take(size_t count) {
        count = count < size_ - at_ ? count : size_ - at_;
        std::vector<uint8_t> bytes(data_ + at_, data_ + at_ + count);
        at_ += count;
        return bytes;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

} // namespace fuzz

// The small driver of the ordinary builds (run_inputs.cpp) calls this after
// the last input, before any static goes. Each target has one source file
// that includes this header.
extern "C" void FuzzTearDown() {
    fuzz::TearDownAll();
}
