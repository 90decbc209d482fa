// The application's COM port of a cdcacm-sim session.
#include "app_port.h"

#include "hostkernel/emu.h"

#include <cstdio>

namespace sim {

std::string DescribeError(comm::DWORD error) {
    const char* name = comm::ErrorName(error);
    std::string number = std::to_string(error);
    return name ? std::string(name) + " (" + number + ")" : "error " + number;
}

std::string Printable(const Bytes& bytes) {
    std::string text;
    for (uint8_t byte : bytes) {
        if (byte == '\r')
            text += "\\r";
        else if (byte == '\n')
            text += "\\n";
        else if (byte == '\\')
            text += "\\\\";
        else if (byte >= 0x20 && byte < 0x7f)
            text += char(byte);
        else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            text += escaped;
        }
    }
    return text;
}

AppPort::~AppPort() {
    if (IsOpen())
        Close();
}

bool AppPort::Check(comm::BOOL ok) {
    ++requests_;
    last_error_ = ok ? comm::ERROR_SUCCESS : comm::GetLastError();
    return ok != 0;
}

bool AppPort::Open(const std::string& name) {
    handle_ = comm::CreateFile(name.c_str(), comm::GENERIC_READ | comm::GENERIC_WRITE, 0, nullptr,
                               comm::OPEN_EXISTING, 0, nullptr);
    read_timeout_ms_ = UINT32_MAX;
    return Check(handle_ != comm::INVALID_HANDLE_VALUE);
}

bool AppPort::Close() {
    comm::HANDLE handle = handle_;
    handle_ = comm::INVALID_HANDLE_VALUE;
    return Check(comm::CloseHandle(handle));
}

bool AppPort::Write(const Bytes& bytes) {
    comm::DWORD written = 0;
    bool ok =
        Check(comm::WriteFile(handle_, bytes.data(), comm::DWORD(bytes.size()), &written, nullptr));
    bytes_written_ += written;
    return ok && written == bytes.size();
}

Bytes AppPort::ReadSome(uint32_t ms) {
    if (read_timeout_ms_ != ms) {
        // Return at once with what is buffered, or wait up to ms for the
        // first byte and return with it: the documented combination of
        // MAXDWORD interval and multiplier with a total constant.
        comm::COMMTIMEOUTS timeouts{comm::MAXDWORD, comm::MAXDWORD, ms, 0, 0};
        if (!Check(comm::SetCommTimeouts(handle_, &timeouts)))
            return {};
        read_timeout_ms_ = ms;
    }
    Bytes bytes(4096);
    comm::DWORD read = 0;
    if (!Check(comm::ReadFile(handle_, bytes.data(), comm::DWORD(bytes.size()), &read, nullptr)))
        return {};
    bytes.resize(read);
    bytes_read_ += read;
    return bytes;
}

Bytes AppPort::ReadUntil(const std::string& text, uint32_t ms) {
    hk::Kernel& kernel = hk::Kernel::Current();
    int64_t deadline = kernel.NowMs() + ms;
    Bytes all;
    while (std::string(all.begin(), all.end()).find(text) == std::string::npos) {
        int64_t left = deadline - kernel.NowMs();
        if (left <= 0)
            break;
        Bytes some = ReadSome(uint32_t(left));
        if (some.empty() && last_error_ != comm::ERROR_SUCCESS)
            break;
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

} // namespace sim
