// A data port ready for requests, on a simulated modem, inside the emulated
// kernel that is current (a test's, a benchmark's or a fuzzer's); free of
// any test framework, so that benchmarks and fuzzers use it as tests do.
//
// Build makes the DEVICE (zero-filled, magics set, Lock, DeviceMutex,
// CompleteQueue, QueueTimer, WaitCancelTimer, FlowTestTimer, TimerIdle,
// FlagSentEvent, one RefCount reference), its PORT_OBJ named "COM3" with the
// request pool, both IRP queues and the SER_PORT made by AddPort, the named
// device object "\Device\korvadem0" whose extension is that DEVICE, and a
// DRIVER_OBJECT whose read, write and (internal) device-control entries are
// the driver's dispatch routines. Below it an attach object sits on a modem
// of the simulated bus; the device is configured and its three pipe
// contexts exist (packets of read_packet and write_packet bytes). With
// started the port is open and the pipes run (StartSendAndReceive);
// otherwise nothing is sent or read on the bulk pipes, and control requests
// still reach the modem. The caller is the application thread: Read, Write
// and Control build an IRP as a caller of the I/O manager does, send it with
// IoCallDriver and return once the dispatch routine has returned; Wait lets
// virtual time run until the request completes. TearDown cancels what is
// still pending and takes everything apart again.
//
// Failures go to the failure handler (SetFailureHandler; by default they
// are kept in Failures()). Driver-wide state is the caller's: reset it with
// ResetDriverState before Build. The data port goes as the driver deletes
// it, when its last reference is released (TearDown releases the rig's).
//
// Environment: the application thread of the current kernel, PASSIVE_LEVEL.
// Locks: Receive takes the device lock as the receive engine does.
//
// Link with: LIBS device_rig and MODULES ${CDCACM_DEVICE_MODULES}.
#pragma once

#include "cdcacm.h"
#include "driver_state.h"
#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// One request of the application, from IoCallDriver to its completion.
struct AppRequest {
    PIRP irp = nullptr;    // null once completed (the IRP is then freed) unless kept
    NTSTATUS returned = 0; // what IoCallDriver returned
    bool completed = false;
    int completions = 0;               // times the completion routine ran
    NTSTATUS status = 0;               // IoStatus.Status at completion
    ULONG_PTR information = 0;         // IoStatus.Information at completion
    bool pending_returned = false;     // the driver marked the IRP pending
    bool context_cleared = false;      // the four driver-context words were NULL at completion
    int64_t completed_at_ms = -1;      // virtual time of the completion
    uint64_t completion_order = 0;     // 1 for the first request completed by the rig, ...
    std::vector<uint8_t> buffer;       // the system buffer (buffered I/O), first hk::Pool::kNewFill
    std::function<void()> on_complete; // called inside the completion, if set
    KEVENT done;                       // signalled at completion
    uint64_t* order_source = nullptr;  // the rig's completion counter
    bool keep_irp = false;             // keep_irps: see DeviceRigOptions

    // The bytes a read returned.
    std::vector<uint8_t> Data() const {
        return std::vector<uint8_t>(buffer.begin(), buffer.begin() + information);
    }
};

struct DeviceRigOptions {
    ULONG rcv_buffer = 1000;   // ReadCircBufferSize
    ULONG snd_buffer = 1000;   // WriteCircBufferSize
    ULONG timer_interval = 10; // TimerInterval, ms
    ULONG read_packet = 4096;  // ReadBufferSize: bytes per bulk-in packet
    ULONG write_packet = 4096; // WriteBufferSize: bytes per bulk-out packet
    bool started = false;      // port open, pipes running
    bool loopback = false;     // the modem echoes what it receives
    // A completed IRP stays allocated until it is dropped, as an owner that may
    // still cancel it from another thread keeps it; its CancelIrql is
    // scribbled, so that a cancel routine reading it then fails the verifier.
    bool keep_irps = false;
    hu::Speed speed = hu::Speed::kFull;
    hu::BusOptions bus;
};

class DeviceRig {
  public:
    using Options = DeviceRigOptions;
    DeviceRig() = default;
    ~DeviceRig() { TearDown(); }
    DeviceRig(const DeviceRig&) = delete;
    DeviceRig& operator=(const DeviceRig&) = delete;

    // Where failures go; the message says what failed.
    void SetFailureHandler(std::function<void(const std::string&)> handler) {
        on_failure_ = std::move(handler);
    }
    const std::vector<std::string>& Failures() const { return failures_; }

    // False when a step failed (reported); TearDown undoes what was built.
    bool Build(const Options& options);
    // Cancels requests still pending, lets their completions run and takes
    // the device apart again; a request that never completed is a failure.
    void TearDown();

    // Sends a request as the application does. With cancel_first the IRP is
    // cancelled before it reaches the driver.
    AppRequest* Read(ULONG length, bool cancel_first = false);
    AppRequest* Write(const std::vector<uint8_t>& data, bool cancel_first = false);
    // METHOD_BUFFERED control: the system buffer holds the input and receives
    // the output.
    AppRequest* Control(ULONG code, const std::vector<uint8_t>& input, ULONG output_length,
                        bool internal = false);
    // An IRP of the given major function, filled by the caller before Send.
    AppRequest* Prepare(UCHAR major, ULONG buffer_length);
    void Send(AppRequest* request, bool cancel_first = false);

    // Waits in virtual time; true when the request completed within ms.
    bool Wait(AppRequest* request, int64_t ms = 5000);
    void Cancel(AppRequest* request) { IoCancelIrp(request->irp); }
    // Lets virtual time pass (timers, DPCs and work items run).
    void RunFor(int64_t ms) { hk::Kernel::Current().Sleep(ms); }
    // The driver deleted the data port (its last reference went).
    bool DataPortDeleted() const;
    // Forgets completed requests (a long run's memory).
    void DropCompleted();

    // Bytes arriving from the modem, offered to the serial port under the
    // device lock as the receive engine does; returns how many it took.
    ULONG Receive(const std::vector<uint8_t>& data);
    // Read time-outs set by the application (IOCTL_SERIAL_SET_TIMEOUTS);
    // false when the request failed (reported).
    bool SetReadTimeouts(ULONG interval, ULONG multiplier, ULONG constant);
    // Opens the port as far as the transfers are concerned: OpenCount 1 and
    // StartSendAndReceive.
    void StartPipes();
    // Switches PPP framing on as a modem does: it answers the special
    // characters, asks for framing, and the host's next flag starts it.
    // False (reported) when the port and the modem did not both switch.
    bool SwitchToPpp(const std::vector<uint8_t>& special_chars);
    // The class and vendor requests the modem received, as bRequest/wValue.
    std::vector<std::pair<uint8_t, uint16_t>> ModemRequests() const;

    PDEVICE dev = nullptr;
    PPORT_OBJ port = nullptr;
    PSER_PORT ser = nullptr;
    PDEVICE_OBJECT data_port = nullptr;
    std::unique_ptr<hu::Bus> bus;
    std::shared_ptr<sm::Modem> modem;
    int bus_port = 0;
    DRIVER_OBJECT driver{};
    DRIVER_EXTENSION driver_extension{};

  private:
    static NTSTATUS NTAPI OnComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
    AppRequest* NewRequest(UCHAR major, ULONG buffer_length);
    bool Check(NTSTATUS status, const char* what);
    void Fail(const std::string& message);

    bool AttachToModem(const Options& options);
    void DetachFromModem();
    void StopDevice();

    PDEVICE_OBJECT attach_ = nullptr;
    static constexpr WCHAR kPortName[] = u"COM3";
    std::vector<std::unique_ptr<AppRequest>> requests_;
    uint64_t completions_ = 0;
    bool keep_irps_ = false;
    std::function<void(const std::string&)> on_failure_;
    std::vector<std::string> failures_;
};
