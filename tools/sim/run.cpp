// cdcacm-sim run: the COM port of a simulated modem bridged to a host
// pseudo-terminal in real time.
//
// Two sides meet here. The terminal thread is a host thread: it polls the
// terminal's master side, notices a program opening and closing it and
// changing its line settings, reads what the program writes and writes
// what the port received. It never calls the emulated kernel except
// Kernel::Post, which is how outside input enters the machine. The
// machine's side is two emulated application threads: the tool's main
// thread opens and closes the COM port, applies line settings and writes
// the program's bytes; a reader thread keeps one overlapped read on the
// port and hands what it gets to the terminal thread.
//
// Locks: one host mutex guards the event queue and the two byte queues; it
// is never held across a Win32 call or a wait. Each byte queue is bounded:
// a full queue stops its reader, so that a program that does not read
// leaves the bytes in the driver's buffers (and the driver's flow control
// then holds the modem back), and a port that does not take bytes (a
// modem that stopped the driver) leaves them in the terminal, holding the
// program's writes back.
#include "run.h"

#include "line_settings.h"
#include "profiles.h"
#include "pty.h"
#include "summary.h"

#include "app_port.h"
#include "hostkernel/wdk.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

namespace sim {

namespace {

constexpr size_t kChunkBytes = 4096;
constexpr size_t kQueueLimitBytes = 64 * 1024; // per direction

// Ctrl-C and SIGTERM end the run; the handler only writes to this pipe.
int g_signal_pipe[2] = {-1, -1};

void OnSignal(int) {
    char byte = 1;
    [[maybe_unused]] ssize_t written = write(g_signal_pipe[1], &byte, 1);
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    char digits[4];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

class Bridge {
  public:
    Bridge(const RunOptions& options, Machine& machine, Transcript& say)
        : options_(options), machine_(machine), say_(say) {
        KeInitializeEvent(&wake_, SynchronizationEvent, FALSE);
    }
    int Run();

  private:
    enum class EventKind { kOpened, kClosed, kSettings, kStop };
    struct Event {
        EventKind kind;
        LineSettings settings;
    };

    // The terminal thread (host).
    void TerminalLoop();
    void Push(Event event);
    void WakeMachine();
    // The machine's side.
    void Serve();
    bool Handle(const Event& event); // false for the end of the run
    void OpenPort(const LineSettings& settings);
    void ApplySettings(const LineSettings& settings);
    void ClosePort();
    void WriteToPort();
    void ReadLoop();
    void ReportModemRequests();
    bool EndPending();

    const RunOptions& options_;
    Machine& machine_;
    Transcript& say_;
    std::unique_ptr<PseudoTerminal> terminal_;
    int bus_port_ = 0;
    std::string com_;
    KEVENT wake_;
    int notify_pipe_[2] = {-1, -1}; // wakes the terminal thread

    std::mutex lock_;
    std::deque<Event> events_;
    std::deque<uint8_t> to_port_, to_terminal_;

    comm::HANDLE port_ = comm::INVALID_HANDLE_VALUE;
    std::atomic<bool> reading_{false};
    std::unique_ptr<hk::Thread> reader_;
    size_t requests_seen_ = 0;
    AppTotals totals_;
};

void Bridge::WakeMachine() {
    // Outside input: the posted work runs on the emulated processor at
    // DISPATCH_LEVEL, where setting an event is allowed.
    machine_.kernel().Post([this] { KeSetEvent(&wake_, IO_NO_INCREMENT, FALSE); });
}

void Bridge::Push(Event event) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        events_.push_back(event);
    }
    WakeMachine();
}

void Bridge::TerminalLoop() {
    bool present = false;
    LineSettings settings;
    for (;;) {
        bool want_out;
        {
            std::lock_guard<std::mutex> guard(lock_);
            want_out = !to_terminal_.empty();
        }
        // A terminal no program has open reports a hang-up at once, so its
        // master side is only looked at, not waited on, until one does.
        pollfd look = {terminal_->Master(), 0, 0};
        poll(&look, 1, 0);
        bool now_present = PseudoTerminal::ProgramPresent(look.revents);
        short master_events = now_present ? short(POLLIN | (want_out ? POLLOUT : 0)) : 0;
        pollfd fds[3] = {{now_present ? terminal_->Master() : -1, master_events, 0},
                         {notify_pipe_[0], POLLIN, 0},
                         {g_signal_pipe[0], POLLIN, 0}};
        if (poll(fds, 3, 20) < 0 && errno != EINTR)
            break;
        if (fds[2].revents & POLLIN) {
            Push({EventKind::kStop, {}});
            return;
        }
        if (fds[1].revents & POLLIN) {
            char drain[64];
            [[maybe_unused]] ssize_t n = read(notify_pipe_[0], drain, sizeof drain);
        }
        if (now_present != present) {
            present = now_present;
            settings = FromTermios(terminal_->Settings(), settings.baud);
            if (!present) {
                std::lock_guard<std::mutex> guard(lock_);
                to_terminal_.clear(); // nobody to read it any more
            }
            Push({present ? EventKind::kOpened : EventKind::kClosed, settings});
        }
        if (!present)
            continue;
        LineSettings now = FromTermios(terminal_->Settings(), settings.baud);
        if (now != settings) {
            settings = now;
            Push({EventKind::kSettings, settings});
        }
        if (fds[0].revents & POLLIN) {
            bool room;
            {
                std::lock_guard<std::mutex> guard(lock_);
                room = to_port_.size() < kQueueLimitBytes;
            }
            uint8_t buffer[kChunkBytes];
            ssize_t got = room ? read(terminal_->Master(), buffer, sizeof buffer) : 0;
            if (got > 0) {
                {
                    std::lock_guard<std::mutex> guard(lock_);
                    to_port_.insert(to_port_.end(), buffer, buffer + got);
                }
                WakeMachine();
            }
        }
        if (fds[0].revents & POLLOUT) {
            std::vector<uint8_t> chunk;
            {
                std::lock_guard<std::mutex> guard(lock_);
                size_t n = std::min(to_terminal_.size(), kChunkBytes);
                chunk.assign(to_terminal_.begin(), to_terminal_.begin() + n);
            }
            ssize_t put = write(terminal_->Master(), chunk.data(), chunk.size());
            if (put > 0) {
                std::lock_guard<std::mutex> guard(lock_);
                to_terminal_.erase(to_terminal_.begin(), to_terminal_.begin() + put);
            }
        }
    }
}

// The machine's side: waits for events and bytes until the run ends.
void Bridge::Serve() {
    for (;;) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -200 * 10000LL;
        KeWaitForSingleObject(&wake_, Executive, KernelMode, FALSE, &timeout);
        std::deque<Event> events;
        {
            std::lock_guard<std::mutex> guard(lock_);
            events.swap(events_);
        }
        for (const Event& event : events)
            if (!Handle(event))
                return;
        if (port_ != comm::INVALID_HANDLE_VALUE)
            WriteToPort();
        ReportModemRequests();
    }
}

bool Bridge::Handle(const Event& event) {
    switch (event.kind) {
    case EventKind::kOpened:
        OpenPort(event.settings);
        return true;
    case EventKind::kSettings:
        if (port_ != comm::INVALID_HANDLE_VALUE)
            ApplySettings(event.settings);
        return true;
    case EventKind::kClosed:
        say_.Step("the program closed " + terminal_->Path());
        ClosePort();
        return true;
    case EventKind::kStop:
        say_.Step("the run ends (signal)");
        ClosePort();
        return false;
    }
    return true;
}

void Bridge::OpenPort(const LineSettings& settings) {
    say_.Step("a program opened " + terminal_->Path());
    port_ = comm::CreateFile(com_.c_str(), comm::GENERIC_READ | comm::GENERIC_WRITE, 0, nullptr,
                             comm::OPEN_EXISTING, comm::FILE_FLAG_OVERLAPPED, nullptr);
    ++totals_.requests;
    if (port_ == comm::INVALID_HANDLE_VALUE) {
        say_.Problem("CreateFile(\"" + com_ + "\") failed: " + DescribeError(comm::GetLastError()));
        return;
    }
    // Reads return what has arrived, or wait up to 100 ms for a first byte.
    comm::COMMTIMEOUTS timeouts{comm::MAXDWORD, comm::MAXDWORD, 100, 0, 0};
    comm::SetCommTimeouts(port_, &timeouts);
    say_.Detail("CreateFile(\"" + com_ + "\") opened the port");
    ApplySettings(settings);
    reading_ = true;
    reader_ = std::make_unique<hk::Thread>("port reader", [this] { ReadLoop(); });
}

void Bridge::ApplySettings(const LineSettings& settings) {
    comm::DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    bool ok = comm::GetCommState(port_, &dcb);
    ApplyToDcb(settings, dcb);
    ok = ok && comm::SetCommState(port_, &dcb);
    totals_.requests += 2;
    if (ok)
        say_.Step("line settings " + Describe(settings) + ": SetCommState");
    else
        say_.Problem("SetCommState(" + Describe(settings) +
                     ") failed: " + DescribeError(comm::GetLastError()));
}

void Bridge::ClosePort() {
    if (port_ == comm::INVALID_HANDLE_VALUE)
        return;
    // The close's cleanup cancels the reader's pending read; the reader
    // then sees that it is to stop.
    reading_ = false;
    comm::HANDLE port = port_;
    port_ = comm::INVALID_HANDLE_VALUE;
    bool closed = comm::CloseHandle(port);
    ++totals_.requests;
    reader_.reset(); // joins it
    {
        // What the port received for the program that left is not the next
        // program's.
        std::lock_guard<std::mutex> guard(lock_);
        to_port_.clear();
        to_terminal_.clear();
    }
    if (closed)
        say_.Detail("CloseHandle(" + com_ + ")");
    else
        say_.Problem("CloseHandle failed: " + DescribeError(comm::GetLastError()));
}

// Whether a close or the end of the run waits behind the write in hand.
bool Bridge::EndPending() {
    std::lock_guard<std::mutex> guard(lock_);
    for (const Event& event : events_)
        if (event.kind == EventKind::kClosed || event.kind == EventKind::kStop)
            return true;
    return false;
}

void Bridge::WriteToPort() {
    for (;;) {
        std::vector<uint8_t> chunk;
        {
            std::lock_guard<std::mutex> guard(lock_);
            size_t n = std::min(to_port_.size(), kChunkBytes);
            chunk.assign(to_port_.begin(), to_port_.begin() + n);
            to_port_.erase(to_port_.begin(), to_port_.begin() + n);
        }
        if (chunk.empty())
            return;
        comm::OVERLAPPED overlapped{};
        overlapped.hEvent = comm::CreateEvent(nullptr, 1, 0, nullptr);
        comm::DWORD written = 0;
        bool ok =
            comm::WriteFile(port_, chunk.data(), comm::DWORD(chunk.size()), &written, &overlapped);
        ++totals_.requests;
        if (!ok && comm::GetLastError() == comm::ERROR_IO_PENDING) {
            // The driver holds the write while the modem does not take bytes;
            // a close or the end of the run must still get through.
            while (comm::WaitForSingleObject(overlapped.hEvent, 50) == comm::WAIT_TIMEOUT) {
                if (EndPending()) {
                    comm::CancelIo(port_);
                    break;
                }
            }
            ok = comm::GetOverlappedResult(port_, &overlapped, &written, 1);
        }
        comm::CloseHandle(overlapped.hEvent);
        totals_.bytes_written += written;
        if (!ok) {
            if (comm::GetLastError() != comm::ERROR_OPERATION_ABORTED)
                say_.Problem("WriteFile failed: " + DescribeError(comm::GetLastError()));
            return;
        }
    }
}

// The reader thread: one overlapped read at a time while the port is open.
void Bridge::ReadLoop() {
    comm::OVERLAPPED overlapped{};
    overlapped.hEvent = comm::CreateEvent(nullptr, 1, 0, nullptr);
    std::vector<uint8_t> buffer(kChunkBytes);
    while (reading_) {
        bool room;
        {
            std::lock_guard<std::mutex> guard(lock_);
            room = to_terminal_.size() < kQueueLimitBytes;
        }
        if (!room) { // the program is behind: the bytes wait in the driver
            machine_.Advance(10);
            continue;
        }
        comm::DWORD got = 0;
        comm::ResetEvent(overlapped.hEvent);
        bool ok =
            comm::ReadFile(port_, buffer.data(), comm::DWORD(buffer.size()), &got, &overlapped);
        if (!ok && comm::GetLastError() == comm::ERROR_IO_PENDING)
            ok = comm::GetOverlappedResult(port_, &overlapped, &got, 1);
        if (!ok) {
            if (reading_)
                machine_.Advance(10); // a failed read: try again shortly
            continue;
        }
        if (got == 0)
            continue;
        {
            std::lock_guard<std::mutex> guard(lock_);
            to_terminal_.insert(to_terminal_.end(), buffer.begin(), buffer.begin() + got);
            totals_.bytes_read += got;
        }
        char byte = 1;
        [[maybe_unused]] ssize_t n = write(notify_pipe_[1], &byte, 1);
    }
    comm::CloseHandle(overlapped.hEvent);
}

// Each class or vendor request the modem received since the last look, as
// a support engineer reads them off a bus analyser.
void Bridge::ReportModemRequests() {
    sm::Modem* modem = machine_.ModemOn(bus_port_);
    if (!modem)
        return;
    const std::vector<sm::RecordedRequest>& requests = modem->Requests();
    for (; requests_seen_ < requests.size(); ++requests_seen_) {
        const sm::RecordedRequest& r = requests[requests_seen_];
        std::string text;
        if (r.setup.request == sm::kSetLineCoding && r.data.size() == 7) {
            uint32_t rate =
                r.data[0] | r.data[1] << 8 | r.data[2] << 16 | uint32_t(r.data[3]) << 24;
            LineSettings coding;
            coding.baud = rate;
            coding.stop_bits = r.data[4];
            coding.parity = r.data[5];
            coding.data_bits = r.data[6];
            text = "SET_LINE_CODING " + Describe(coding);
        } else if (r.setup.request == sm::kSetControlLineState && (r.setup.request_type & 0x60)) {
            text = std::string("SET_CONTROL_LINE_STATE DTR ") + (r.setup.value & 1 ? "on" : "off") +
                   ", RTS " + (r.setup.value & 2 ? "on" : "off");
        } else if (r.setup.request_type & 0x60) {
            char head[64];
            std::snprintf(head, sizeof head, "request %02x %02x value %04x", r.setup.request_type,
                          r.setup.request, r.setup.value);
            text = head + (r.data.empty() ? std::string() : " data " + Hex(r.data));
        } else {
            continue; // standard requests of the start
        }
        say_.Detail("the modem received " + text);
    }
}

int Bridge::Run() {
    auto wall_start = std::chrono::steady_clock::now();
    std::string error;
    terminal_ = PseudoTerminal::Create(&error);
    if (!terminal_ || (!options_.link.empty() && !terminal_->Link(options_.link, &error))) {
        std::fprintf(stderr, "cdcacm-sim run: %s\n", error.c_str());
        return 2;
    }
    std::optional<sm::Profile> profile = FindProfile(options_.profile, options_.speed);
    ArmPlugFaults(options_.profile, machine_.bus());
    bus_port_ = machine_.Plug(*profile, options_.mode, options_.speed);
    com_ = machine_.ComNameOf(bus_port_);
    if (com_.empty()) {
        say_.Problem("the driver did not start the modem (profile " + profile->name + ")");
        return Conclude(say_, machine_, totals_, wall_start,
                        {{"the driver did not start the modem"}});
    }
    say_.Step(com_ + " of \"" + profile->product + "\" (profile " + profile->name + ", " +
              SpeedName(options_.speed) + " speed) is at " + terminal_->Path() +
              (options_.link.empty() ? "" : " (linked from " + options_.link + ")"));
    say_.Detail("open it with picocom, minicom or pyserial; Ctrl-C ends the run");
    ReportModemRequests();

    if (pipe(g_signal_pipe) != 0 || pipe(notify_pipe_) != 0) {
        say_.Problem("cannot create a pipe");
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::thread terminal_thread([this] { TerminalLoop(); });
    Serve();
    terminal_thread.join();
    for (int fd : {g_signal_pipe[0], g_signal_pipe[1], notify_pipe_[0], notify_pipe_[1]})
        close(fd);
    terminal_.reset();
    return Conclude(say_, machine_, totals_, wall_start, {});
}

} // namespace

int RunBridge(const RunOptions& options, Machine& machine, Transcript& transcript) {
    return Bridge(options, machine, transcript).Run();
}

} // namespace sim
