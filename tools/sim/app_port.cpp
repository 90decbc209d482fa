// The application's COM port of a cdcacm-sim session.
#include "app_port.h"

#include "script_parse.h"

#include "hostkernel/emu.h"

#include <cstdio>

namespace sim {

std::string DescribeError(comm::DWORD error) {
    const char* name = comm::ErrorName(error);
    std::string number = std::to_string(error);
    return name ? std::string(name) + " (" + number + ")" : "error " + number;
}

std::string Printable(const Bytes& bytes) {
    // The escapes of the scenario language, so that a transcript's bytes can
    // be pasted into a scenario.
    std::string quoted = script::Quote(bytes);
    return quoted.substr(1, quoted.size() - 2);
}

namespace {

bool Same(const comm::COMMTIMEOUTS& a, const comm::COMMTIMEOUTS& b) {
    return a.ReadIntervalTimeout == b.ReadIntervalTimeout &&
           a.ReadTotalTimeoutMultiplier == b.ReadTotalTimeoutMultiplier &&
           a.ReadTotalTimeoutConstant == b.ReadTotalTimeoutConstant &&
           a.WriteTotalTimeoutMultiplier == b.WriteTotalTimeoutMultiplier &&
           a.WriteTotalTimeoutConstant == b.WriteTotalTimeoutConstant;
}

} // namespace

// The OVERLAPPED, buffer and event of a pending read live until the read
// has completed into them: collected, or completed by the handle's close.
struct AppPort::PendingRead {
    comm::OVERLAPPED overlapped{};
    Bytes buffer;
};

void AppPort::PendingReadDelete::operator()(PendingRead* read) const {
    if (read->overlapped.hEvent)
        comm::CloseHandle(read->overlapped.hEvent);
    delete read;
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

bool RunGuarded(comm::HANDLE handle, uint32_t limit_ms, const std::function<void()>& call) {
    comm::HANDLE done = comm::CreateEvent(nullptr, 1, 0, nullptr);
    bool fired = false;
    hk::Thread watchdog("application watchdog", [&] {
        if (comm::WaitForSingleObject(done, limit_ms) == comm::WAIT_TIMEOUT) {
            fired = true;
            comm::PurgeComm(handle, comm::PURGE_RXABORT | comm::PURGE_TXABORT);
        }
    });
    call();
    comm::SetEvent(done);
    watchdog.Join();
    comm::CloseHandle(done);
    return !fired;
}

void AppPort::Guard(const std::function<void()>& call) {
    watchdog_fired_ = false;
    if (watchdog_ms_ == 0)
        call();
    else
        watchdog_fired_ = !RunGuarded(handle_, watchdog_ms_, call);
}

void AppPort::Received(const Bytes& bytes) {
    bytes_read_ += bytes.size();
    if (reception_)
        reception_->Read(bytes, client_reading_);
}

bool AppPort::Open(const std::string& name, bool overlapped) {
    handle_ =
        comm::CreateFile(name.c_str(), comm::GENERIC_READ | comm::GENERIC_WRITE, 0, nullptr,
                         comm::OPEN_EXISTING, overlapped ? comm::FILE_FLAG_OVERLAPPED : 0, nullptr);
    in_force_.reset();
    if (!Check(handle_ != comm::INVALID_HANDLE_VALUE))
        return false;
    // What the driver starts with is the application's until it sets its own.
    comm::COMMTIMEOUTS timeouts{};
    if (comm::GetCommTimeouts(handle_, &timeouts)) {
        app_timeouts_ = timeouts;
        in_force_ = timeouts;
    }
    return true;
}

bool AppPort::Close() {
    comm::HANDLE handle = handle_;
    handle_ = comm::INVALID_HANDLE_VALUE;
    bool closed = Check(comm::CloseHandle(handle));
    // The close completed a pending read into its OVERLAPPED.
    pending_.reset();
    return closed;
}

bool AppPort::Use(const comm::COMMTIMEOUTS& timeouts) {
    if (in_force_ && Same(*in_force_, timeouts))
        return true;
    comm::COMMTIMEOUTS copy = timeouts;
    if (!Check(comm::SetCommTimeouts(handle_, &copy)))
        return false;
    in_force_ = timeouts;
    return true;
}

bool AppPort::SetTimeouts(const comm::COMMTIMEOUTS& timeouts) {
    in_force_.reset();
    if (!Use(timeouts))
        return false;
    app_timeouts_ = timeouts;
    return true;
}

bool AppPort::Read(uint32_t count, std::optional<uint32_t> total_ms, Bytes* bytes) {
    comm::COMMTIMEOUTS timeouts = app_timeouts_;
    if (total_ms) {
        timeouts.ReadIntervalTimeout = 0;
        timeouts.ReadTotalTimeoutMultiplier = 0;
        timeouts.ReadTotalTimeoutConstant = *total_ms;
    }
    bytes->clear();
    if (!Use(timeouts))
        return false;
    bytes->resize(count);
    comm::DWORD read = 0;
    bool ok = Check(comm::ReadFile(handle_, bytes->data(), count, &read, nullptr));
    bytes->resize(read);
    Received(*bytes);
    return ok;
}

bool AppPort::StartRead(uint32_t count) {
    std::unique_ptr<PendingRead, PendingReadDelete> read(new PendingRead);
    read->overlapped.hEvent = comm::CreateEvent(nullptr, 1, 0, nullptr);
    read->buffer.resize(count);
    if (!Use(app_timeouts_))
        return false;
    comm::BOOL ok = comm::ReadFile(handle_, read->buffer.data(), count, nullptr, &read->overlapped);
    if (!ok && comm::GetLastError() != comm::ERROR_IO_PENDING)
        return Check(ok);
    Check(1);
    pending_ = std::move(read);
    return true;
}

bool AppPort::FinishRead(uint32_t ms, Bytes* bytes) {
    bytes->clear();
    if (!pending_)
        return true;
    if (comm::WaitForSingleObject(pending_->overlapped.hEvent, ms) == comm::WAIT_TIMEOUT)
        return false;
    comm::DWORD read = 0;
    Check(comm::GetOverlappedResult(handle_, &pending_->overlapped, &read, 0));
    bytes->assign(pending_->buffer.begin(), pending_->buffer.begin() + read);
    Received(*bytes);
    pending_.reset();
    return true;
}

std::optional<comm::DWORD> AppPort::WaitEvent(uint32_t ms) {
    comm::OVERLAPPED overlapped{};
    overlapped.hEvent = comm::CreateEvent(nullptr, 1, 0, nullptr);
    comm::DWORD events = 0;
    comm::BOOL ok = comm::WaitCommEvent(handle_, &events, &overlapped);
    bool came = ok != 0;
    if (!ok && comm::GetLastError() == comm::ERROR_IO_PENDING) {
        came = comm::WaitForSingleObject(overlapped.hEvent, ms) == comm::WAIT_OBJECT_0;
        if (!came)
            comm::CancelIo(handle_);
        comm::DWORD returned = 0;
        ok = comm::GetOverlappedResult(handle_, &overlapped, &returned, 1);
    }
    Check(ok);
    comm::CloseHandle(overlapped.hEvent);
    if (!came || !ok)
        return std::nullopt;
    return events;
}

bool AppPort::Write(const Bytes& bytes) {
    comm::DWORD written = 0;
    comm::BOOL wrote = 0;
    Guard([&] {
        wrote =
            comm::WriteFile(handle_, bytes.data(), comm::DWORD(bytes.size()), &written, nullptr);
    });
    bool ok = Check(wrote);
    bytes_written_ += written;
    return ok && written == bytes.size();
}

Bytes AppPort::ReadSome(uint32_t ms) {
    // Return at once with what is buffered, or wait up to ms for the first
    // byte and return with it: the documented combination of MAXDWORD
    // interval and multiplier with a total constant.
    comm::COMMTIMEOUTS timeouts{comm::MAXDWORD, comm::MAXDWORD, ms,
                                app_timeouts_.WriteTotalTimeoutMultiplier,
                                app_timeouts_.WriteTotalTimeoutConstant};
    if (!Use(timeouts))
        return {};
    Bytes bytes(4096);
    comm::DWORD read = 0;
    comm::BOOL ok = 0;
    Guard([&] {
        ok = comm::ReadFile(handle_, bytes.data(), comm::DWORD(bytes.size()), &read, nullptr);
    });
    if (!Check(ok))
        return {};
    bytes.resize(read);
    Received(bytes);
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
