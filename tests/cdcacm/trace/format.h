// Runs the trace formatter on a format and its arguments.
#pragma once

#include "trace.h"

#include <stdarg.h>

#include <string>

// The formatted text of a format and its arguments in a buffer of the trace
// line's size.
inline std::string Format(const char* format, ...) {
    char buffer[TRACE_BUFFER_SIZE];
    va_list arguments;
    va_start(arguments, format);
    TraceFormat(buffer, buffer + sizeof(buffer), format, arguments);
    va_end(arguments);
    return buffer;
}
