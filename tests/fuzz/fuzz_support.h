// What every fuzzer of the driver shares: an emulated kernel per input, a
// reader of the input's fields, and the checks that turn a broken
// invariant or an assertion line in the trace output into a crash.
#pragma once

#include "fuzz_check.h"

#include "hostkernel/emu.h"
#include "trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

// Each input runs in a kernel of its own, made and taken apart with it.
// A kernel that outlived its inputs would keep what the stand-in remembers
// of every IRP it has seen, and memory an input leaves allocated makes
// libFuzzer run that input again under the leak checker, which costs far
// more than the kernel.
inline hk::Kernel* kernel = nullptr;

// The driver traces only its assertions (which CheckTrace looks for) unless
// the input's option bit turns the target's own levels on too: formatting
// trace lines costs more than most inputs, and only some need them.
constexpr uint8_t kOptionTrace = 0x01;
inline ULONG TraceMaskFor(uint8_t options, ULONG levels) {
    return TL_ASSERT | ((options & kOptionTrace) ? levels : 0);
}

// Trace lines of the current input already checked.
inline size_t checked_lines = 0;

// Brackets one input: its kernel, and the trace lines checked so far.
class Input {
  public:
    Input() {
        kernel = new hk::Kernel();
        TraceInit();
        checked_lines = 0;
    }
    ~Input() {
        delete kernel;
        kernel = nullptr;
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
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
