// The application's side of a cdcacm-sim session: one COM port opened
// through the Win32 communications calls, as a terminal program or a
// dial-up stack opens it, with reads that wait a bounded virtual time and
// byte and request counts for the summary.
//
// Environment: the machine's application thread at PASSIVE_LEVEL; every
// call may block it in virtual time.
#pragma once

#include "comm/comm.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;

// "ERROR_ACCESS_DENIED (5)", or the number alone.
std::string DescribeError(comm::DWORD error);
// Bytes as text: printable ASCII as it stands, CR, LF and others escaped.
std::string Printable(const Bytes& bytes);

class AppPort {
  public:
    AppPort() = default;
    ~AppPort();
    AppPort(const AppPort&) = delete;
    AppPort& operator=(const AppPort&) = delete;

    // Opens the port for reading and writing (exclusive, as Windows opens
    // COM ports); on failure the Win32 error is kept in LastError.
    bool Open(const std::string& name);
    bool IsOpen() const { return handle_ != comm::INVALID_HANDLE_VALUE; }
    bool Close();
    comm::HANDLE Handle() const { return handle_; }
    comm::DWORD LastError() const { return last_error_; }

    bool Write(const Bytes& bytes);
    bool Write(const std::string& text) { return Write(Bytes(text.begin(), text.end())); }
    // What arrives within ms of virtual time: returns as soon as at least
    // one byte came, or empty after ms.
    Bytes ReadSome(uint32_t ms);
    // Reads until the text has arrived or ms have passed; returns all read.
    Bytes ReadUntil(const std::string& text, uint32_t ms);

    // Counts for the summary.
    uint64_t BytesWritten() const { return bytes_written_; }
    uint64_t BytesRead() const { return bytes_read_; }
    uint64_t Requests() const { return requests_; }

  private:
    bool Check(comm::BOOL ok);
    comm::HANDLE handle_ = comm::INVALID_HANDLE_VALUE;
    comm::DWORD last_error_ = comm::ERROR_SUCCESS;
    uint32_t read_timeout_ms_ = UINT32_MAX; // the time-out the port is set to
    uint64_t bytes_written_ = 0, bytes_read_ = 0, requests_ = 0;
};

} // namespace sim
