// A data port ready for requests: the DEVICE (zero-filled, magics set, Lock,
// DeviceMutex, CompleteQueue, QueueTimer, WaitCancelTimer, TimerIdle, one
// RefCount reference), its PORT_OBJ named "COM3" with the request pool, both
// IRP queues and the SER_PORT made by AddPort, the named device object
// "\Device\korvadem0" whose extension is that DEVICE, and a DRIVER_OBJECT
// whose read, write and (internal) device-control entries are the driver's
// dispatch routines. The test body is the application thread: Read, Write
// and Control build an IRP as a caller of the I/O manager does, send it with
// IoCallDriver and return once the dispatch routine has returned; Wait lets
// virtual time run until the request completes.
//
// Adding pieces: a test replaces MajorFunction entries on driver_ after
// DeviceFixture::SetUp, fills more DEVICE fields through dev_ before it
// sends requests, or overrides the Options() hook to change buffer sizes or
// the tick. Operations of modules that do not exist yet come from weak
// doubles in later_doubles.cpp (a real module linked into the test replaces
// them); a test that wants to observe them reads LaterDoubles() and
// ControlCalls().
//
// Link with: LIBS device_fixture and MODULES trace wdmkrnl serport squeue
// dpool irpqueue dispatch wrsupport port ppp_frame ioctl worker.
#pragma once

#include "driver_test.h"

#include "cdcacm.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Calls of the later-issue operations, as the weak doubles saw them.
struct LaterDoubleCalls {
    int submit_write_buffer = 0;         // SubmitWriteBuffer: bytes reached the send engine
    int check_rcv_queue = 0;             // SndRcvCheckRcvQueue
    std::vector<PDEVICE_OBJECT> deleted; // DeleteDevice, in order
};
LaterDoubleCalls& LaterDoubles();
// The CDC control requests and purges the doubles saw, in order
// ("SendLineCoding", "RcvPurge", ...), and the status the requests return.
std::vector<std::string>& ControlCalls();
extern NTSTATUS ControlRequestStatus;

// One request of the application, from IoCallDriver to its completion.
struct AppRequest {
    PIRP irp = nullptr;    // null once completed (the IRP is then freed)
    NTSTATUS returned = 0; // what IoCallDriver returned
    bool completed = false;
    int completions = 0;               // times the completion routine ran
    NTSTATUS status = 0;               // IoStatus.Status at completion
    ULONG_PTR information = 0;         // IoStatus.Information at completion
    bool pending_returned = false;     // the driver marked the IRP pending
    int64_t completed_at_ms = -1;      // virtual time of the completion
    uint64_t completion_order = 0;     // 1 for the first request completed in the test, ...
    std::vector<uint8_t> buffer;       // the system buffer (buffered I/O), first hk::Pool::kNewFill
    std::function<void()> on_complete; // called inside the completion, if set
    KEVENT done;                       // signalled at completion
    uint64_t* order_source = nullptr;  // the fixture's completion counter

    // The bytes a read returned.
    std::vector<uint8_t> Data() const {
        return std::vector<uint8_t>(buffer.begin(), buffer.begin() + information);
    }
};

class DeviceFixture : public DriverTest {
  protected:
    struct Options {
        ULONG rcv_buffer = 1000;   // ReadCircBufferSize
        ULONG snd_buffer = 1000;   // WriteCircBufferSize
        ULONG timer_interval = 10; // TimerInterval, ms
    };
    virtual Options DeviceOptions() { return Options{}; }

    void SetUp() override;
    // Cancels requests still pending, lets their completions run and takes
    // the device apart again.
    void TearDown() override;

    // Sends a request from the test body (the application thread). With
    // cancel_first the IRP is cancelled before it reaches the driver.
    AppRequest* Read(ULONG length, bool cancel_first = false);
    AppRequest* Write(const std::vector<uint8_t>& data, bool cancel_first = false);
    AppRequest* Write(const std::string& text) {
        return Write(std::vector<uint8_t>(text.begin(), text.end()));
    }
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
    void RunFor(int64_t ms) { kernel().Sleep(ms); }

    // Bytes arriving from the modem, offered to the serial port under the
    // device lock as the receive engine does; returns how many it took.
    ULONG Receive(const std::vector<uint8_t>& data);
    ULONG Receive(const std::string& text) {
        return Receive(std::vector<uint8_t>(text.begin(), text.end()));
    }
    // Read time-outs set by the application (IOCTL_SERIAL_SET_TIMEOUTS).
    void SetReadTimeouts(ULONG interval, ULONG multiplier, ULONG constant);

    PDEVICE dev_ = nullptr;
    PPORT_OBJ port_ = nullptr;
    PSER_PORT ser_ = nullptr;
    PDEVICE_OBJECT data_port_ = nullptr;
    DRIVER_OBJECT driver_{};
    DRIVER_EXTENSION driver_extension_{};

  private:
    static NTSTATUS NTAPI OnComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
    AppRequest* NewRequest(UCHAR major, ULONG buffer_length);

    WCHAR port_name_[8] = {u'C', u'O', u'M', u'3', 0};
    std::vector<std::unique_ptr<AppRequest>> requests_;
    uint64_t completions_ = 0;
};
