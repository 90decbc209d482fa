// The system error log: the entries drivers post with IoWriteErrorLogEntry,
// kept with their fields, strings and dump data, readable by tests and
// printable the way an event viewer lists them.
//
// Environment: IoAllocateErrorLogEntry, IoFreeErrorLogEntry and
// IoWriteErrorLogEntry run at IRQL <= DISPATCH_LEVEL on the emulated
// processors, which the scheduler serialises; no lock is taken. Entries come
// from non-paged pool under the tag 'IoEL', so the pool's fault knob with
// that tag makes IoAllocateErrorLogEntry fail.
#pragma once

#include "hostkernel/wdk.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace hk {

struct ErrorLogEntry {
    int64_t time_ms = 0; // virtual time of IoWriteErrorLogEntry
    std::string source;  // the driver's name, or the device's driver
    std::string device;  // the device object's name, when a device logged it
    size_t size = 0;     // EntrySize as allocated
    UCHAR major_function = 0;
    UCHAR retry_count = 0;
    USHORT event_category = 0;
    NTSTATUS error_code = 0;
    ULONG unique_error_value = 0;
    NTSTATUS final_status = 0;
    ULONG sequence_number = 0;
    ULONG io_control_code = 0;
    std::vector<uint8_t> dump_data;
    std::vector<std::u16string> strings;
    std::vector<uint8_t> raw; // the whole entry as written

    // "Error", "Warning", "Information" or "Success", from the code's top bits.
    const char* Level() const;
    // The event's ID: the code's low 16 bits.
    unsigned EventId() const { return unsigned(error_code) & 0xFFFF; }
    // One line as an event viewer lists it: level, time, source, ID and the
    // inserted strings.
    std::string Format() const;
};

class ErrorLog {
  public:
    static constexpr ULONG kTag = 0x4c456f49; // 'IoEL'

    const std::vector<ErrorLogEntry>& Entries() const { return entries_; }
    std::string Format() const; // every entry, one line each
    void Clear() { entries_.clear(); }

    // The I/O manager's side: entries handed out and not yet written or
    // freed, with the object that asked for each.
    void Lend(void* entry, size_t size, PVOID io_object);
    // False when entry was not lent (or was already given back).
    bool Return(void* entry, size_t* size, PVOID* io_object);
    void Add(ErrorLogEntry entry) { entries_.push_back(std::move(entry)); }
    size_t Outstanding() const { return lent_.size(); }

  private:
    struct Lent {
        size_t size;
        PVOID io_object;
    };
    std::vector<ErrorLogEntry> entries_;
    std::map<void*, Lent> lent_;
};

} // namespace hk
