// The run as a timeline: a recorder of what the emulated machine did, kept
// in memory and written as a trace-event JSON file (the object form with
// "traceEvents") that Perfetto and chrome://tracing open. Off unless a
// tool attaches one to the kernel (Kernel::SetTimeline); every hook in the
// stand-in then costs one pointer test.
//
// Tracks: one per emulated context (application threads, system worker
// threads, the processors' DPC contexts of the interleaving mode), named
// after the context; an event lands on the track of the context that is
// running. Spans (B/E) nest because each is opened and closed by the same
// call on one context's stack. USB transfers are async spans (b/e, one id
// each), since several are outstanding at once. Flows (s/f) join an IRP's
// dispatch to its completion and a URB's submission to its completion.
//
// Timestamps are the virtual clock in microseconds. Code runs in no virtual
// time, so the events of one virtual instant are spread 1 ns apart in the
// order they happened: otherwise a viewer cannot tell which zero-length span
// holds which. The file's metadata says so.
#pragma once

#include "hostkernel/wdk.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace hk {

class Timeline {
  public:
    using Value = std::variant<int64_t, std::string>;
    using Args = std::vector<std::pair<std::string, Value>>;

    // At most about max_events events are kept (what was open when the
    // bound was reached still closes); the file says when it was reached.
    static constexpr size_t kMaxEvents = 1'000'000;
    explicit Timeline(std::string process_name, size_t max_events = kMaxEvents);
    ~Timeline();
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    // A span on the running context's track; End closes its innermost one.
    void Begin(std::string name, const char* category, Args args = {});
    void End();
    void Instant(std::string name, const char* category, Args args = {});
    // An async span (several may overlap); returns its id for AsyncEnd.
    uint64_t AsyncBegin(std::string name, const char* category, Args args = {});
    void AsyncEnd(uint64_t id, Args args = {});
    // A flow arrow: its start and end bind to the span open where each is
    // recorded. Returns the id FlowEnd takes.
    uint64_t FlowStart(const char* category);
    void FlowEnd(uint64_t id);

    // IRPs: the first dispatch of a trip starts the IRP's flow, its
    // completion ends it.
    void IrpDispatched(const void* irp);
    void IrpCompleted(const void* irp);

    size_t Events() const;
    // The whole file's text. A flow whose end never came (an IRP still
    // pending when the kernel went down) keeps its start, which viewers
    // leave undrawn.
    std::string Json() const;
    bool Write(const std::string& file, std::string* error) const;

    // The name of the function at a routine's address ("CompletionRoutine"),
    // from the symbol table of the file it lies in; its address in hex when
    // the file has no symbols (stripped).
    static std::string Symbol(const void* address);
    // "IRP_MJ_READ", "IRP_MJ_PNP IRP_MN_START_DEVICE", ...
    static std::string IrpName(UCHAR major, UCHAR minor);
    // The last part of the driver object's name ("cdcacm" of \Driver\cdcacm).
    static std::string DriverName(const DRIVER_OBJECT* driver);

  private:
    struct Event;
    struct Flow {
        std::string category;
        bool ended = false;
    };
    int Track();
    bool Full();
    int64_t Stamp(); // ns: the virtual clock, strictly increasing
    Event& Add(char phase, std::string name, const char* category);

    std::string process_name_;
    size_t max_events_;
    bool truncated_ = false;
    std::map<int, uint64_t> unrecorded_; // track: spans begun while full, still open
    std::vector<Event> events_;
    std::map<uint64_t, Flow> flows_;
    std::map<uint64_t, std::pair<std::string, std::string>> async_; // id: name, category
    std::map<const void*, uint64_t> irp_flows_;
    uint64_t next_id_ = 1;
    int next_track_ = 1;
    int64_t last_ns_ = -1;
};

} // namespace hk
