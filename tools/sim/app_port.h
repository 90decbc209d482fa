// The application's side of a cdcacm-sim session: one COM port opened
// through the Win32 communications calls, as a terminal program or a
// dial-up stack opens it, with reads that wait a bounded virtual time, the
// application's own time-outs, an overlapped read left pending and a
// bounded wait for a comm event, and byte and request counts for the
// summary.
//
// Environment: the machine's application thread at PASSIVE_LEVEL; every
// call may block it in virtual time.
#pragma once

#include "delivery.h"

#include "comm/comm.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;

// "ERROR_ACCESS_DENIED (5)", or the number alone.
std::string DescribeError(comm::DWORD error);
// Bytes as text: printable ASCII as it stands, CR, LF and others escaped.
std::string Printable(const Bytes& bytes);

// Runs a call that may block the application thread; when it has not
// returned after limit_ms of virtual time, a watchdog thread aborts the
// handle's reads and writes (PurgeComm), as another thread of a careful
// program does. False when the watchdog fired.
bool RunGuarded(comm::HANDLE handle, uint32_t limit_ms, const std::function<void()>& call);

class AppPort {
  public:
    AppPort() = default;
    ~AppPort();
    AppPort(const AppPort&) = delete;
    AppPort& operator=(const AppPort&) = delete;

    // Opens the port for reading and writing (exclusive, as Windows opens
    // COM ports), overlapped when asked; on failure the Win32 error is kept
    // in LastError.
    bool Open(const std::string& name, bool overlapped = false);
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

    // The application's own time-outs. ReadSome sets time-outs of its own;
    // Read puts these back first.
    bool SetTimeouts(const comm::COMMTIMEOUTS& timeouts);
    // One ReadFile of up to count bytes under the application's time-outs,
    // or, with total_ms, under a total time-out of that many ms alone.
    bool Read(uint32_t count, std::optional<uint32_t> total_ms, Bytes* bytes);

    // An overlapped handle's read that the driver may hold: started, then
    // collected within a bounded time. One at a time; Close completes it.
    bool StartRead(uint32_t count);
    bool ReadPending() const { return pending_ != nullptr; }
    // Waits up to ms for the started read: false when it is still pending;
    // otherwise true, with its bytes, and its error in LastError.
    bool FinishRead(uint32_t ms, Bytes* bytes);
    // WaitCommEvent on an overlapped handle, waited for up to ms: the events
    // that came, or nullopt when none came in time (the wait is then
    // cancelled with CancelIo, which cancels the handle's other requests of
    // this thread too).
    std::optional<comm::DWORD> WaitEvent(uint32_t ms);

    // Every byte read from now on is also kept there (null: nowhere), marked
    // as the PPP client's while it reads.
    void SetReception(Reception* reception) { reception_ = reception; }
    Reception* reception() const { return reception_; }
    void SetClientReading(bool reading) { client_reading_ = reading; }

    // Write and ReadSome are guarded by RunGuarded with this limit from now
    // on (0: not guarded); WatchdogFired tells whether the last one was
    // aborted.
    void SetWatchdog(uint32_t limit_ms) { watchdog_ms_ = limit_ms; }
    bool WatchdogFired() const { return watchdog_fired_; }

    // Counts one request made directly on Handle() and keeps its error.
    bool Record(comm::BOOL ok) { return Check(ok); }

    // Counts for the summary.
    uint64_t BytesWritten() const { return bytes_written_; }
    uint64_t BytesRead() const { return bytes_read_; }
    uint64_t Requests() const { return requests_; }

  private:
    struct PendingRead;
    struct PendingReadDelete {
        void operator()(PendingRead* read) const;
    };
    bool Check(comm::BOOL ok);
    void Received(const Bytes& bytes);
    void Guard(const std::function<void()>& call);
    // Sets the port's time-outs unless they are in force already.
    bool Use(const comm::COMMTIMEOUTS& timeouts);
    comm::HANDLE handle_ = comm::INVALID_HANDLE_VALUE;
    comm::DWORD last_error_ = comm::ERROR_SUCCESS;
    comm::COMMTIMEOUTS app_timeouts_{};          // the application's own
    std::optional<comm::COMMTIMEOUTS> in_force_; // what the port is set to, when known
    std::unique_ptr<PendingRead, PendingReadDelete> pending_;
    uint64_t bytes_written_ = 0, bytes_read_ = 0, requests_ = 0;
    Reception* reception_ = nullptr;
    bool client_reading_ = false;
    uint32_t watchdog_ms_ = 0;
    bool watchdog_fired_ = false;
};

} // namespace sim
