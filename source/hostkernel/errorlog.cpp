// The system error log and the three I/O manager calls that feed it. An
// entry is a block of non-paged pool, not zeroed, that the driver fills and
// either writes (the log copies what it needs and frees the block) or frees.
//
// Environment: callers at IRQL <= DISPATCH_LEVEL; no lock (see errorlog.h).
#include "hostkernel/errorlog.h"

#include "hostkernel/emu.h"
#include "hostkernel/iomgr.h"

#include <cstring>

namespace hk {

namespace {

std::string Name(PCUNICODE_STRING name) {
    if (name == nullptr || name->Buffer == nullptr)
        return {};
    return detail::Narrow(std::u16string_view(name->Buffer, name->Length / sizeof(WCHAR)));
}

// The last path component: "\Driver\cdcacm" is listed as "cdcacm".
std::string Leaf(const std::string& path) {
    size_t slash = path.rfind('\\');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Who logged: the driver's name as the source, and the device's name.
void DescribeSource(PVOID io_object, ErrorLogEntry& entry) {
    const CSHORT type = *static_cast<const CSHORT*>(io_object);
    if (type == IO_TYPE_DRIVER) {
        entry.source = Leaf(Name(&static_cast<PDRIVER_OBJECT>(io_object)->DriverName));
        return;
    }
    auto device = static_cast<PDEVICE_OBJECT>(io_object);
    if (device->DriverObject != nullptr)
        entry.source = Leaf(Name(&device->DriverObject->DriverName));
    if (const detail::DeviceInfo* info = detail::Io().FindDevice(device))
        entry.device = detail::Narrow(info->name);
}

// The entry back from the driver; an entry the log never lent (or got
// back already) is reported for the named call.
bool TakeBack(const char* call, PVOID entry, size_t* size, PVOID* io_object) {
    Kernel& kernel = Kernel::Current();
    if (kernel.errorlog().Return(entry, size, io_object))
        return true;
    kernel.verifier().Violation(rule::kErrorLogEntryUnknown,
                                std::string(call) + "(" + detail::Hex(uintptr_t(entry)) + ")");
    return false;
}

} // namespace

const char* ErrorLogEntry::Level() const {
    switch (uint32_t(error_code) >> 30) {
    case 3:
        return "Error";
    case 2:
        return "Warning";
    case 1:
        return "Information";
    default:
        return "Success";
    }
}

std::string ErrorLogEntry::Format() const {
    char head[96];
    std::snprintf(head, sizeof head, "%-11s %4lld.%03lld  ", Level(),
                  static_cast<long long>(time_ms / 1000), static_cast<long long>(time_ms % 1000));
    std::string line = head + (source.empty() ? std::string("(unknown)") : source) + "  Event ID " +
                       std::to_string(EventId());
    if (!device.empty())
        line += "  " + device;
    for (const std::u16string& text : strings)
        line += "  \"" + detail::Narrow(text) + "\"";
    return line;
}

std::string ErrorLog::Format() const {
    std::string text;
    for (const ErrorLogEntry& entry : entries_)
        text += entry.Format() + "\n";
    return text;
}

void ErrorLog::Lend(void* entry, size_t size, PVOID io_object) {
    lent_[entry] = {size, io_object};
}

bool ErrorLog::Return(void* entry, size_t* size, PVOID* io_object) {
    auto found = lent_.find(entry);
    if (found == lent_.end())
        return false;
    *size = found->second.size;
    *io_object = found->second.io_object;
    lent_.erase(found);
    return true;
}

} // namespace hk

using hk::Kernel;

PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize) {
    hk::detail::CheckIoIrql("IoAllocateErrorLogEntry", DISPATCH_LEVEL);
    // Too small for the packet itself, or above the documented limit.
    if (IoObject == nullptr || EntrySize < sizeof(IO_ERROR_LOG_PACKET) ||
        EntrySize > ERROR_LOG_MAXIMUM_SIZE)
        return nullptr;
    Kernel& kernel = Kernel::Current();
    void* entry = kernel.pool().Allocate(NonPagedPool, EntrySize, hk::ErrorLog::kTag);
    if (entry != nullptr)
        kernel.errorlog().Lend(entry, EntrySize, IoObject);
    return entry;
}

void IoFreeErrorLogEntry(PVOID ElEntry) {
    hk::detail::CheckIoIrql("IoFreeErrorLogEntry", DISPATCH_LEVEL);
    Kernel& kernel = Kernel::Current();
    size_t size;
    PVOID io_object;
    if (!hk::TakeBack("IoFreeErrorLogEntry", ElEntry, &size, &io_object))
        return;
    kernel.pool().Free(ElEntry, hk::ErrorLog::kTag, true);
}

void IoWriteErrorLogEntry(PVOID ElEntry) {
    hk::detail::CheckIoIrql("IoWriteErrorLogEntry", DISPATCH_LEVEL);
    Kernel& kernel = Kernel::Current();
    size_t size;
    PVOID io_object;
    if (!hk::TakeBack("IoWriteErrorLogEntry", ElEntry, &size, &io_object))
        return;
    const auto* bytes = static_cast<const uint8_t*>(ElEntry);
    const auto* packet = static_cast<const IO_ERROR_LOG_PACKET*>(ElEntry);
    hk::ErrorLogEntry entry;
    entry.time_ms = kernel.NowMs();
    entry.size = size;
    entry.raw.assign(bytes, bytes + size);
    entry.major_function = packet->MajorFunctionCode;
    entry.retry_count = packet->RetryCount;
    entry.event_category = packet->EventCategory;
    entry.error_code = packet->ErrorCode;
    entry.unique_error_value = packet->UniqueErrorValue;
    entry.final_status = packet->FinalStatus;
    entry.sequence_number = packet->SequenceNumber;
    entry.io_control_code = packet->IoControlCode;
    hk::DescribeSource(io_object, entry);

    std::string overrun;
    const size_t dump_at = offsetof(IO_ERROR_LOG_PACKET, DumpData);
    if (dump_at + packet->DumpDataSize > size)
        overrun = std::to_string(packet->DumpDataSize) + " bytes of dump data";
    else
        entry.dump_data.assign(bytes + dump_at, bytes + dump_at + packet->DumpDataSize);
    size_t at = packet->StringOffset;
    for (USHORT n = 0; n < packet->NumberOfStrings && overrun.empty(); ++n) {
        std::u16string text;
        for (;; at += sizeof(WCHAR)) {
            if (at + sizeof(WCHAR) > size) {
                overrun = "string " + std::to_string(n + 1) + " of " +
                          std::to_string(packet->NumberOfStrings);
                break;
            }
            char16_t c;
            std::memcpy(&c, bytes + at, sizeof c);
            if (c == 0) {
                at += sizeof(WCHAR);
                break;
            }
            text += c;
        }
        entry.strings.push_back(std::move(text));
    }
    kernel.pool().Free(ElEntry, hk::ErrorLog::kTag, true);
    if (!overrun.empty()) {
        kernel.verifier().Violation(hk::rule::kErrorLogEntryOverrun,
                                    overrun + " past the end of a " + std::to_string(size) +
                                        "-byte entry");
        return;
    }
    kernel.errorlog().Add(std::move(entry));
}
