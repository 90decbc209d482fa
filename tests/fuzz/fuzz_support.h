// What every fuzzer of the driver shares: one emulated kernel for the whole
// run, a reader of the input's fields, and the checks that turn a broken
// invariant or an assertion line in the trace output into a crash.
#pragma once

#include "hostkernel/emu.h"
#include "trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#define FUZZ_CHECK(Cond)                                                                           \
    do {                                                                                           \
        if (!(Cond)) {                                                                             \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #Cond, __FILE__, __LINE__);    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

namespace fuzz {

// The kernel lives as long as the process: creating one per input would
// cost more than the input itself.
inline hk::Kernel* kernel = nullptr;

inline void Init(ULONG trace_mask) {
    kernel = new hk::Kernel();
    TraceInit();
    TraceMask = trace_mask;
}

// Trace lines of the current input already checked.
inline size_t checked_lines = 0;

inline void BeginInput() {
    kernel->Dbg().Clear();
    checked_lines = 0;
}

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
