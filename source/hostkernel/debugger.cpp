// The kernel debugger: DbgPrint output kept line by line.
#include "hostkernel/emu.h"
#include "hostkernel/timeline.h"

#include <cstdarg>

namespace hk {

void Debugger::Write(std::string_view text) {
    if (sink_)
        sink_(text);
    for (char c : text) {
        if (c == '\n') {
            if (Timeline* timeline = Kernel::Exists() ? Kernel::Current().timeline() : nullptr)
                timeline->Instant(partial_, "trace");
            lines_.push_back(std::move(partial_));
            partial_.clear();
        } else {
            partial_ += c;
        }
    }
}

void Debugger::SetEcho(std::FILE* stream) {
    sink_ = [stream](std::string_view text) { std::fwrite(text.data(), 1, text.size(), stream); };
}

std::string Debugger::Text() const {
    std::string text;
    for (const auto& line : lines_)
        text += line + "\n";
    return text + partial_;
}

size_t Debugger::Count(std::string_view needle) const {
    size_t count = 0;
    for (const auto& line : lines_)
        count += line.find(needle) != std::string::npos;
    if (partial_.find(needle) != std::string::npos)
        ++count;
    return count;
}

void Debugger::Clear() {
    lines_.clear();
    partial_.clear();
}

} // namespace hk

ULONG DbgPrint(PCSTR Format, ...) {
    va_list args;
    va_start(args, Format);
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, Format, copy);
    va_end(copy);
    std::string text(length > 0 ? size_t(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(text.data(), text.size() + 1, Format, args);
    va_end(args);
    if (hk::Kernel::Exists())
        hk::Kernel::Current().Dbg().Write(text);
    else
        std::fputs(text.c_str(), stderr);
    return STATUS_SUCCESS;
}
