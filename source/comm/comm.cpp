// The Win32 communications API over the emulated I/O manager: handles,
// overlapped requests, the NT-status-to-Win32-error mapping and the serial
// I/O controls behind each call. Locking and environment: see comm.h.
#include "comm/comm.h"

#include "hostkernel/emu.h"
#include "hostkernel/ntddser.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace comm {

namespace {

thread_local DWORD last_error = ERROR_SUCCESS;

struct Object {
    virtual ~Object() = default;
};

struct Event : Object {
    KEVENT event;
};

// One request the caller may still ask about: an overlapped one, or one
// sent synchronously. Its results go to the caller's buffer and OVERLAPPED
// once, from whichever comes first: the completion notice or the sender
// finding it done.
struct Request {
    OVERLAPPED* overlapped = nullptr;
    Event* event = nullptr;
    void* output = nullptr;
    DWORD output_length = 0;
    std::thread::id thread;
    std::shared_ptr<hk::PendingIo> io;
    bool applied = false;
};

struct Port : Object {
    hk::File file;
    bool overlapped = false;
    std::vector<std::shared_ptr<Request>> in_flight; // overlapped requests not yet collected
};

std::mutex table_lock;
std::set<Object*> handles;

template <typename T> T* Lookup(HANDLE handle) {
    std::lock_guard<std::mutex> guard(table_lock);
    auto it = handles.find(static_cast<Object*>(handle));
    return it == handles.end() ? nullptr : dynamic_cast<T*>(*it);
}

HANDLE Register(Object* object) {
    std::lock_guard<std::mutex> guard(table_lock);
    handles.insert(object);
    return object;
}

BOOL Fail(DWORD error) {
    last_error = error;
    return 0;
}

BOOL FailStatus(NTSTATUS status) {
    return Fail(NtStatusToDosError(status));
}

void Apply(Request& request, const hk::PendingIo& io) {
    if (request.applied)
        return;
    request.applied = true;
    hk::IoResult result = io.Result();
    size_t count = std::min<size_t>(result.information, request.output_length);
    // An error status brings no data back; a warning (a buffer overflow)
    // brings what fitted, as buffered I/O copies it.
    if (request.output && count && (static_cast<ULONG>(result.status) >> 30) != 3)
        memcpy(request.output, io.Output().data(), count);
    if (request.overlapped) {
        request.overlapped->InternalHigh = result.information;
        request.overlapped->Internal = static_cast<ULONG_PTR>(static_cast<ULONG>(result.status));
    }
    if (request.event)
        KeSetEvent(&request.event->event, IO_NO_INCREMENT, FALSE);
}

enum class Op { kRead, kWrite, kControl };

// Sends one request the way the I/O manager does for a file handle. Without
// an OVERLAPPED, or on a handle opened without FILE_FLAG_OVERLAPPED, the
// call waits for the completion (synchronous I/O); otherwise it returns
// ERROR_IO_PENDING while the driver holds the request.
BOOL Issue(Port& port, Op op, ULONG code, const void* input, DWORD input_length, void* output,
           DWORD output_length, LPDWORD transferred, LPOVERLAPPED overlapped) {
    auto request = std::make_shared<Request>();
    request->overlapped = overlapped;
    request->output = output;
    request->output_length = output_length;
    request->thread = std::this_thread::get_id();
    if (overlapped) {
        // The event is reset when the request starts, as ReadFile, WriteFile
        // and DeviceIoControl do.
        if (overlapped->hEvent) {
            request->event = Lookup<Event>(overlapped->hEvent);
            if (!request->event)
                return Fail(ERROR_INVALID_HANDLE);
            KeClearEvent(&request->event->event);
        }
        overlapped->Internal = static_cast<ULONG>(STATUS_PENDING);
        overlapped->InternalHigh = 0;
    }
    if (transferred)
        *transferred = 0;
    std::weak_ptr<Request> weak = request;
    port.file.NotifyNextCompletion([weak](const hk::PendingIo& io) {
        if (auto alive = weak.lock())
            Apply(*alive, io);
    });
    switch (op) {
    case Op::kRead:
        request->io = port.file.ReadAsync(output_length);
        break;
    case Op::kWrite:
        request->io = port.file.WriteAsync(input, input_length);
        break;
    case Op::kControl:
        request->io = port.file.DeviceIoControlAsync(code, input, input_length, output_length);
        break;
    }
    bool wait = !overlapped || !port.overlapped;
    if (!wait && !request->io->Done()) {
        std::lock_guard<std::mutex> guard(table_lock);
        // Finished requests nobody asked about have left their results in
        // their OVERLAPPED; GetOverlappedResult reads them from there.
        auto& list = port.in_flight;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [](const auto& r) { return r->io->Done() && r->applied; }),
                   list.end());
        list.push_back(request);
        return Fail(ERROR_IO_PENDING);
    }
    request->io->Wait();
    Apply(*request, *request->io);
    hk::IoResult result = request->io->Result();
    if (transferred)
        *transferred = static_cast<DWORD>(result.information);
    // STATUS_TIMEOUT, the status of a read cut short by its time-outs, is a
    // success status: the call succeeds with the bytes that came.
    if (!NT_SUCCESS(result.status))
        return FailStatus(result.status);
    return 1;
}

BOOL Control(HANDLE handle, ULONG code, const void* input = nullptr, DWORD input_length = 0,
             void* output = nullptr, DWORD output_length = 0) {
    Port* port = Lookup<Port>(handle);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    DWORD returned = 0;
    return Issue(*port, Op::kControl, code, input, input_length, output, output_length, &returned,
                 nullptr);
}

// The NT name of a Win32 device name. "\\.\NAME" names any device; a bare
// "COM1" to "COM9" (with an optional colon) is a reserved DOS device name
// that kernel32 turns into the device wherever it appears, while "COM10"
// and above are ordinary file names without the prefix. Since the emulated
// machine has no file system, every other name is a file that is not found.
bool NtNameOf(const std::string& name, std::u16string* nt) {
    std::string device;
    if (name.rfind("\\\\.\\", 0) == 0) {
        device = name.substr(4);
    } else {
        std::string upper;
        for (char c : name)
            upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (!upper.empty() && upper.back() == ':')
            upper.pop_back();
        if (upper.size() != 4 || upper.rfind("COM", 0) != 0 || upper[3] < '1' || upper[3] > '9')
            return false;
        device = upper;
    }
    if (device.empty())
        return false;
    *nt = u"\\DosDevices\\";
    for (char c : device)
        *nt += static_cast<char16_t>(static_cast<unsigned char>(c));
    return true;
}

} // namespace

DWORD GetLastError() {
    return last_error;
}

void SetLastError(DWORD dwErrCode) {
    last_error = dwErrCode;
}

const char* ErrorName(DWORD error) {
    struct Name {
        DWORD error;
        const char* name;
    };
    static const Name kNames[] = {
        {ERROR_SUCCESS, "ERROR_SUCCESS"},
        {ERROR_INVALID_FUNCTION, "ERROR_INVALID_FUNCTION"},
        {ERROR_FILE_NOT_FOUND, "ERROR_FILE_NOT_FOUND"},
        {ERROR_ACCESS_DENIED, "ERROR_ACCESS_DENIED"},
        {ERROR_INVALID_HANDLE, "ERROR_INVALID_HANDLE"},
        {ERROR_NOT_ENOUGH_MEMORY, "ERROR_NOT_ENOUGH_MEMORY"},
        {ERROR_BAD_COMMAND, "ERROR_BAD_COMMAND"},
        {ERROR_NOT_READY, "ERROR_NOT_READY"},
        {ERROR_CRC, "ERROR_CRC"},
        {ERROR_GEN_FAILURE, "ERROR_GEN_FAILURE"},
        {ERROR_SHARING_VIOLATION, "ERROR_SHARING_VIOLATION"},
        {ERROR_NOT_SUPPORTED, "ERROR_NOT_SUPPORTED"},
        {ERROR_INVALID_PARAMETER, "ERROR_INVALID_PARAMETER"},
        {ERROR_SEM_TIMEOUT, "ERROR_SEM_TIMEOUT"},
        {ERROR_INSUFFICIENT_BUFFER, "ERROR_INSUFFICIENT_BUFFER"},
        {ERROR_INVALID_NAME, "ERROR_INVALID_NAME"},
        {ERROR_BAD_PATHNAME, "ERROR_BAD_PATHNAME"},
        {ERROR_BUSY, "ERROR_BUSY"},
        {ERROR_ALREADY_EXISTS, "ERROR_ALREADY_EXISTS"},
        {ERROR_MORE_DATA, "ERROR_MORE_DATA"},
        {ERROR_NO_MORE_ITEMS, "ERROR_NO_MORE_ITEMS"},
        {ERROR_MR_MID_NOT_FOUND, "ERROR_MR_MID_NOT_FOUND"},
        {ERROR_OPERATION_ABORTED, "ERROR_OPERATION_ABORTED"},
        {ERROR_IO_INCOMPLETE, "ERROR_IO_INCOMPLETE"},
        {ERROR_IO_PENDING, "ERROR_IO_PENDING"},
        {ERROR_KEY_DELETED, "ERROR_KEY_DELETED"},
        {ERROR_NO_SYSTEM_RESOURCES, "ERROR_NO_SYSTEM_RESOURCES"},
        {ERROR_DEVICE_REMOVED, "ERROR_DEVICE_REMOVED"},
    };
    for (const Name& name : kNames)
        if (name.error == error)
            return name.name;
    return nullptr;
}

// The pairs RtlNtStatusToDosError gives for the statuses the emulated
// system produces; an NT status it does not know maps to
// ERROR_MR_MID_NOT_FOUND, as the documented function answers.
DWORD NtStatusToDosError(int32_t status) {
    struct Pair {
        uint32_t status;
        DWORD error;
    };
    static const Pair kPairs[] = {
        {0x00000000, ERROR_SUCCESS},
        {0x00000103, ERROR_IO_PENDING},          // STATUS_PENDING
        {0x80000005, ERROR_MORE_DATA},           // STATUS_BUFFER_OVERFLOW
        {0x80000011, ERROR_BUSY},                // STATUS_DEVICE_BUSY
        {0x8000001A, ERROR_NO_MORE_ITEMS},       // STATUS_NO_MORE_ENTRIES
        {0xC0000001, ERROR_GEN_FAILURE},         // STATUS_UNSUCCESSFUL
        {0xC0000002, ERROR_INVALID_FUNCTION},    // STATUS_NOT_IMPLEMENTED
        {0xC0000008, ERROR_INVALID_HANDLE},      // STATUS_INVALID_HANDLE
        {0xC000000D, ERROR_INVALID_PARAMETER},   // STATUS_INVALID_PARAMETER
        {0xC000000E, ERROR_FILE_NOT_FOUND},      // STATUS_NO_SUCH_DEVICE
        {0xC0000010, ERROR_INVALID_FUNCTION},    // STATUS_INVALID_DEVICE_REQUEST
        {0xC0000017, ERROR_NOT_ENOUGH_MEMORY},   // STATUS_NO_MEMORY
        {0xC0000022, ERROR_ACCESS_DENIED},       // STATUS_ACCESS_DENIED
        {0xC0000023, ERROR_INSUFFICIENT_BUFFER}, // STATUS_BUFFER_TOO_SMALL
        {0xC0000024, ERROR_INVALID_HANDLE},      // STATUS_OBJECT_TYPE_MISMATCH
        {0xC0000033, ERROR_INVALID_NAME},        // STATUS_OBJECT_NAME_INVALID
        {0xC0000034, ERROR_FILE_NOT_FOUND},      // STATUS_OBJECT_NAME_NOT_FOUND
        {0xC0000035, ERROR_ALREADY_EXISTS},      // STATUS_OBJECT_NAME_COLLISION
        {0xC000003B, ERROR_BAD_PATHNAME},        // STATUS_OBJECT_PATH_SYNTAX_BAD
        {0xC0000043, ERROR_SHARING_VIOLATION},   // STATUS_SHARING_VIOLATION
        {0xC0000056, ERROR_ACCESS_DENIED},       // STATUS_DELETE_PENDING
        {0xC000009A, ERROR_NO_SYSTEM_RESOURCES}, // STATUS_INSUFFICIENT_RESOURCES
        {0xC000009C, ERROR_CRC},                 // STATUS_DEVICE_DATA_ERROR
        {0xC000009D, ERROR_NOT_READY},           // STATUS_DEVICE_NOT_CONNECTED
        {0xC000009E, ERROR_NOT_READY},           // STATUS_DEVICE_POWER_FAILURE
        {0xC00000B5, ERROR_SEM_TIMEOUT},         // STATUS_IO_TIMEOUT
        {0xC00000BB, ERROR_NOT_SUPPORTED},       // STATUS_NOT_SUPPORTED
        {0xC00000F0, ERROR_INVALID_PARAMETER},   // STATUS_INVALID_PARAMETER_2
        {0xC0000120, ERROR_OPERATION_ABORTED},   // STATUS_CANCELLED
        {0xC000017C, ERROR_KEY_DELETED},         // STATUS_KEY_DELETED
        {0xC0000184, ERROR_BAD_COMMAND},         // STATUS_INVALID_DEVICE_STATE
        {0xC00002B6, ERROR_DEVICE_REMOVED},      // STATUS_DEVICE_REMOVED
    };
    for (const Pair& pair : kPairs)
        if (pair.status == static_cast<uint32_t>(status))
            return pair.error;
    // Other success and informational statuses are not errors.
    if ((static_cast<uint32_t>(status) >> 30) <= 1)
        return ERROR_SUCCESS;
    return ERROR_MR_MID_NOT_FOUND;
}

HANDLE CreateFile(LPCSTR lpFileName, DWORD /*dwDesiredAccess*/, DWORD /*dwShareMode*/,
                  void* /*lpSecurityAttributes*/, DWORD dwCreationDisposition,
                  DWORD dwFlagsAndAttributes, HANDLE /*hTemplateFile*/) {
    if (!lpFileName || dwCreationDisposition < CREATE_NEW ||
        dwCreationDisposition > TRUNCATE_EXISTING) {
        last_error = ERROR_INVALID_PARAMETER;
        return INVALID_HANDLE_VALUE;
    }
    std::u16string nt;
    if (!NtNameOf(lpFileName, &nt)) {
        last_error = ERROR_FILE_NOT_FOUND;
        return INVALID_HANDLE_VALUE;
    }
    // Who may share a COM port is the driver's decision: the I/O manager
    // refuses a second open of an exclusive device (ERROR_ACCESS_DENIED)
    // and otherwise sends the create, whose status the caller gets mapped.
    // A device takes no share access of its own, so dwShareMode, which the
    // documentation asks to be zero for a COM port, changes nothing.
    auto port = std::make_unique<Port>();
    NTSTATUS status = port->file.Open(nt);
    if (!NT_SUCCESS(status)) {
        last_error = NtStatusToDosError(status);
        return INVALID_HANDLE_VALUE;
    }
    port->overlapped = (dwFlagsAndAttributes & FILE_FLAG_OVERLAPPED) != 0;
    last_error = ERROR_SUCCESS;
    return Register(port.release());
}

BOOL CloseHandle(HANDLE hObject) {
    Object* object = nullptr;
    {
        std::lock_guard<std::mutex> guard(table_lock);
        auto it = handles.find(static_cast<Object*>(hObject));
        if (it == handles.end())
            return Fail(ERROR_INVALID_HANDLE);
        object = *it;
        handles.erase(it);
    }
    // A port's cleanup flushes what the driver still holds; its requests
    // complete (cancelled) into their OVERLAPPED structures before the
    // close, as at the end of a process.
    delete object;
    return 1;
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
              LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped) {
    Port* port = Lookup<Port>(hFile);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    return Issue(*port, Op::kRead, 0, nullptr, 0, lpBuffer, nNumberOfBytesToRead,
                 lpNumberOfBytesRead, lpOverlapped);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
               LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped) {
    Port* port = Lookup<Port>(hFile);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    return Issue(*port, Op::kWrite, 0, lpBuffer, nNumberOfBytesToWrite, nullptr, 0,
                 lpNumberOfBytesWritten, lpOverlapped);
}

BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                     LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned,
                     LPOVERLAPPED lpOverlapped) {
    Port* port = Lookup<Port>(hDevice);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    return Issue(*port, Op::kControl, dwIoControlCode, lpInBuffer, nInBufferSize, lpOutBuffer,
                 nOutBufferSize, lpBytesReturned, lpOverlapped);
}

BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                         LPDWORD lpNumberOfBytesTransferred, BOOL bWait) {
    Port* port = Lookup<Port>(hFile);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    std::shared_ptr<Request> request;
    {
        std::lock_guard<std::mutex> guard(table_lock);
        auto it = std::find_if(port->in_flight.begin(), port->in_flight.end(),
                               [&](const auto& r) { return r->overlapped == lpOverlapped; });
        if (it != port->in_flight.end())
            request = *it;
    }
    if (request && !request->io->Done()) {
        if (!bWait)
            return Fail(ERROR_IO_INCOMPLETE);
        request->io->Wait();
    }
    if (request) {
        Apply(*request, *request->io);
        // Another thread may have closed the handle while this one waited;
        // the request list went with it, and the results are in the
        // OVERLAPPED (cancelled by the close's cleanup).
        std::lock_guard<std::mutex> guard(table_lock);
        if (handles.count(port) != 0) {
            auto& list = port->in_flight;
            list.erase(std::remove(list.begin(), list.end(), request), list.end());
        }
    }
    // A request that finished inside its call left its results in the
    // OVERLAPPED alone.
    auto status = static_cast<NTSTATUS>(static_cast<ULONG>(lpOverlapped->Internal));
    if (status == STATUS_PENDING)
        return Fail(ERROR_IO_INCOMPLETE);
    if (lpNumberOfBytesTransferred)
        *lpNumberOfBytesTransferred = static_cast<DWORD>(lpOverlapped->InternalHigh);
    if (!NT_SUCCESS(status))
        return FailStatus(status);
    return 1;
}

// CancelIo cancels the calling thread's requests on the handle; they
// complete with ERROR_OPERATION_ABORTED unless they finished first. It
// does not wait for them.
BOOL CancelIo(HANDLE hFile) {
    Port* port = Lookup<Port>(hFile);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    std::vector<std::shared_ptr<Request>> mine;
    {
        std::lock_guard<std::mutex> guard(table_lock);
        for (const auto& request : port->in_flight)
            if (request->thread == std::this_thread::get_id() && !request->io->Done())
                mine.push_back(request);
    }
    for (const auto& request : mine)
        port->file.Cancel(*request->io);
    return 1;
}

HANDLE CreateEvent(void* /*lpEventAttributes*/, BOOL bManualReset, BOOL bInitialState,
                   LPCSTR lpName) {
    if (lpName) { // named events would need the object namespace's events
        last_error = ERROR_NOT_SUPPORTED;
        return nullptr;
    }
    auto event = std::make_unique<Event>();
    KeInitializeEvent(&event->event, bManualReset ? NotificationEvent : SynchronizationEvent,
                      bInitialState ? TRUE : FALSE);
    last_error = ERROR_SUCCESS;
    return Register(event.release());
}

BOOL SetEvent(HANDLE hEvent) {
    Event* event = Lookup<Event>(hEvent);
    if (!event)
        return Fail(ERROR_INVALID_HANDLE);
    KeSetEvent(&event->event, IO_NO_INCREMENT, FALSE);
    return 1;
}

BOOL ResetEvent(HANDLE hEvent) {
    Event* event = Lookup<Event>(hEvent);
    if (!event)
        return Fail(ERROR_INVALID_HANDLE);
    KeClearEvent(&event->event);
    return 1;
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    Event* event = Lookup<Event>(hHandle);
    if (!event) {
        last_error = ERROR_INVALID_HANDLE;
        return WAIT_FAILED;
    }
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<LONGLONG>(dwMilliseconds) * 10000;
    NTSTATUS status = KeWaitForSingleObject(&event->event, UserRequest, UserMode, FALSE,
                                            dwMilliseconds == INFINITE ? nullptr : &timeout);
    return status == STATUS_TIMEOUT ? WAIT_TIMEOUT : WAIT_OBJECT_0;
}

// ---------------------------------------------------------------------------
// The DCB. GetCommState reads the baud rate, line control, special
// characters and handflow; SetCommState checks the DCB, then sends the same
// four and sets DTR and RTS when their control mode is "enable" or
// "disable" (the handshake modes belong to the driver).

BOOL GetCommState(HANDLE hFile, LPDCB lpDCB) {
    SERIAL_BAUD_RATE baud{};
    SERIAL_LINE_CONTROL line{};
    SERIAL_CHARS chars{};
    SERIAL_HANDFLOW flow{};
    if (!Control(hFile, IOCTL_SERIAL_GET_BAUD_RATE, nullptr, 0, &baud, sizeof baud) ||
        !Control(hFile, IOCTL_SERIAL_GET_LINE_CONTROL, nullptr, 0, &line, sizeof line) ||
        !Control(hFile, IOCTL_SERIAL_GET_CHARS, nullptr, 0, &chars, sizeof chars) ||
        !Control(hFile, IOCTL_SERIAL_GET_HANDFLOW, nullptr, 0, &flow, sizeof flow))
        return 0;
    DCB& dcb = *lpDCB;
    memset(&dcb, 0, sizeof dcb);
    dcb.DCBlength = sizeof(DCB);
    dcb.BaudRate = baud.BaudRate;
    dcb.fBinary = 1; // Windows supports binary mode only
    // The driver keeps no parity-checking switch: parity is reported as
    // checked whenever a parity is set.
    dcb.fParity = line.Parity != NO_PARITY;
    dcb.ByteSize = line.WordLength;
    dcb.Parity = line.Parity;
    dcb.StopBits = line.StopBits;

    ULONG handshake = flow.ControlHandShake;
    ULONG replace = flow.FlowReplace;
    ULONG dtr = handshake & SERIAL_DTR_MASK;
    dcb.fDtrControl = dtr == SERIAL_DTR_HANDSHAKE ? DTR_CONTROL_HANDSHAKE
                      : dtr == SERIAL_DTR_CONTROL ? DTR_CONTROL_ENABLE
                                                  : DTR_CONTROL_DISABLE;
    dcb.fOutxCtsFlow = (handshake & SERIAL_CTS_HANDSHAKE) != 0;
    dcb.fOutxDsrFlow = (handshake & SERIAL_DSR_HANDSHAKE) != 0;
    dcb.fDsrSensitivity = (handshake & SERIAL_DSR_SENSITIVITY) != 0;
    dcb.fAbortOnError = (handshake & SERIAL_ERROR_ABORT) != 0;
    ULONG rts = replace & SERIAL_RTS_MASK;
    dcb.fRtsControl = rts == SERIAL_TRANSMIT_TOGGLE ? RTS_CONTROL_TOGGLE
                      : rts == SERIAL_RTS_HANDSHAKE ? RTS_CONTROL_HANDSHAKE
                      : rts == SERIAL_RTS_CONTROL   ? RTS_CONTROL_ENABLE
                                                    : RTS_CONTROL_DISABLE;
    dcb.fOutX = (replace & SERIAL_AUTO_TRANSMIT) != 0;
    dcb.fInX = (replace & SERIAL_AUTO_RECEIVE) != 0;
    dcb.fErrorChar = (replace & SERIAL_ERROR_CHAR) != 0;
    dcb.fNull = (replace & SERIAL_NULL_STRIPPING) != 0;
    dcb.fTXContinueOnXoff = (replace & SERIAL_XOFF_CONTINUE) != 0;
    dcb.XonLim = static_cast<WORD>(flow.XonLimit);
    dcb.XoffLim = static_cast<WORD>(flow.XoffLimit);

    dcb.XonChar = static_cast<char>(chars.XonChar);
    dcb.XoffChar = static_cast<char>(chars.XoffChar);
    dcb.ErrorChar = static_cast<char>(chars.ErrorChar);
    dcb.EofChar = static_cast<char>(chars.EofChar);
    dcb.EvtChar = static_cast<char>(chars.EventChar);
    return 1;
}

namespace {

// The checks SetCommState makes before anything reaches the driver: the
// DCB's documented ranges and invalid combinations (5 data bits with 2 stop
// bits, 6 to 8 data bits with 1.5), and "fails if XonChar equals XoffChar".
bool ValidDcb(const DCB& dcb) {
    if (dcb.ByteSize < 5 || dcb.ByteSize > 8)
        return false;
    if (dcb.Parity > SPACEPARITY || dcb.StopBits > TWOSTOPBITS)
        return false;
    if (dcb.ByteSize == 5 && dcb.StopBits == TWOSTOPBITS)
        return false;
    if (dcb.ByteSize > 5 && dcb.StopBits == ONE5STOPBITS)
        return false;
    return dcb.XonChar != dcb.XoffChar;
}

BOOL SendState(HANDLE hFile, const DCB& dcb, UCHAR break_char) {
    SERIAL_BAUD_RATE baud{dcb.BaudRate};
    SERIAL_LINE_CONTROL line{};
    line.StopBits = dcb.StopBits;
    line.Parity = dcb.Parity;
    line.WordLength = dcb.ByteSize;
    SERIAL_CHARS chars{};
    chars.EofChar = static_cast<UCHAR>(dcb.EofChar);
    chars.ErrorChar = static_cast<UCHAR>(dcb.ErrorChar);
    chars.BreakChar = break_char; // not in the DCB: kept as the driver has it
    chars.EventChar = static_cast<UCHAR>(dcb.EvtChar);
    chars.XonChar = static_cast<UCHAR>(dcb.XonChar);
    chars.XoffChar = static_cast<UCHAR>(dcb.XoffChar);

    SERIAL_HANDFLOW flow{};
    static const ULONG kDtr[] = {0, SERIAL_DTR_CONTROL, SERIAL_DTR_HANDSHAKE, 0};
    static const ULONG kRts[] = {0, SERIAL_RTS_CONTROL, SERIAL_RTS_HANDSHAKE,
                                 SERIAL_TRANSMIT_TOGGLE};
    flow.ControlHandShake = kDtr[dcb.fDtrControl] | (dcb.fOutxCtsFlow ? SERIAL_CTS_HANDSHAKE : 0) |
                            (dcb.fOutxDsrFlow ? SERIAL_DSR_HANDSHAKE : 0) |
                            (dcb.fDsrSensitivity ? SERIAL_DSR_SENSITIVITY : 0) |
                            (dcb.fAbortOnError ? SERIAL_ERROR_ABORT : 0);
    flow.FlowReplace = kRts[dcb.fRtsControl] | (dcb.fOutX ? SERIAL_AUTO_TRANSMIT : 0) |
                       (dcb.fInX ? SERIAL_AUTO_RECEIVE : 0) |
                       (dcb.fErrorChar ? SERIAL_ERROR_CHAR : 0) |
                       (dcb.fNull ? SERIAL_NULL_STRIPPING : 0) |
                       (dcb.fTXContinueOnXoff ? SERIAL_XOFF_CONTINUE : 0);
    flow.XonLimit = dcb.XonLim;
    flow.XoffLimit = dcb.XoffLim;

    if (!Control(hFile, IOCTL_SERIAL_SET_BAUD_RATE, &baud, sizeof baud) ||
        !Control(hFile, IOCTL_SERIAL_SET_LINE_CONTROL, &line, sizeof line) ||
        !Control(hFile, IOCTL_SERIAL_SET_CHARS, &chars, sizeof chars) ||
        !Control(hFile, IOCTL_SERIAL_SET_HANDFLOW, &flow, sizeof flow))
        return 0;
    if (dcb.fDtrControl == DTR_CONTROL_ENABLE && !Control(hFile, IOCTL_SERIAL_SET_DTR))
        return 0;
    if (dcb.fDtrControl == DTR_CONTROL_DISABLE && !Control(hFile, IOCTL_SERIAL_CLR_DTR))
        return 0;
    if (dcb.fRtsControl == RTS_CONTROL_ENABLE && !Control(hFile, IOCTL_SERIAL_SET_RTS))
        return 0;
    if (dcb.fRtsControl == RTS_CONTROL_DISABLE && !Control(hFile, IOCTL_SERIAL_CLR_RTS))
        return 0;
    return 1;
}

} // namespace

BOOL SetCommState(HANDLE hFile, LPDCB lpDCB) {
    if (!Lookup<Port>(hFile))
        return Fail(ERROR_INVALID_HANDLE);
    if (!lpDCB || !ValidDcb(*lpDCB))
        return Fail(ERROR_INVALID_PARAMETER);
    DCB old{};
    SERIAL_CHARS chars{};
    if (!GetCommState(hFile, &old) ||
        !Control(hFile, IOCTL_SERIAL_GET_CHARS, nullptr, 0, &chars, sizeof chars))
        return 0;
    if (SendState(hFile, *lpDCB, chars.BreakChar))
        return 1;
    // A request the driver refused leaves the port as it was: the previous
    // state goes back, and the caller sees the first failure's error.
    DWORD error = last_error;
    SendState(hFile, old, chars.BreakChar);
    return Fail(error);
}

// BuildCommDCB takes the mode command's two forms, "9600,n,8,1[,x|p]" (with
// an optional "COMn:" in front and the two-digit baud abbreviations) and
// "baud=9600 parity=n data=8 stop=1 xon=on ...". It changes only the
// members the string names, except that it turns XON/XOFF and hardware flow
// control off, and a baud rate of 110 brings two stop bits.
BOOL BuildCommDCB(LPCSTR lpDef, LPDCB lpDCB) {
    if (!lpDef || !lpDCB)
        return Fail(ERROR_INVALID_PARAMETER);
    std::string text;
    for (const char* p = lpDef; *p; ++p)
        text += static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    if (text.rfind("com", 0) == 0) {
        size_t colon = text.find(':');
        if (colon == std::string::npos)
            return Fail(ERROR_INVALID_PARAMETER);
        text = text.substr(colon + 1);
    }
    DCB dcb = *lpDCB;
    dcb.fOutX = dcb.fInX = 0;
    dcb.fOutxCtsFlow = dcb.fOutxDsrFlow = 0;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    auto parity_of = [](const std::string& v, BYTE* parity) {
        static const char kCodes[] = "noems";
        const char* at = v.size() == 1 ? strchr(kCodes, v[0]) : nullptr;
        if (!at || !*at)
            return false;
        *parity = static_cast<BYTE>(at - kCodes);
        return true;
    };
    auto stop_of = [](const std::string& v, BYTE* stop) {
        if (v == "1")
            *stop = ONESTOPBIT;
        else if (v == "1.5")
            *stop = ONE5STOPBITS;
        else if (v == "2")
            *stop = TWOSTOPBITS;
        else
            return false;
        return true;
    };
    auto number = [](const std::string& v, DWORD* out) {
        if (v.empty() || v.size() > 9 ||
            !std::all_of(v.begin(), v.end(), [](char c) { return std::isdigit(c); }))
            return false;
        *out = static_cast<DWORD>(std::stoul(v));
        return true;
    };
    auto baud_of = [&](const std::string& v, DWORD* baud) {
        static const struct {
            const char* abbreviation;
            DWORD baud;
        } kShort[] = {{"11", 110},  {"15", 150},  {"30", 300},  {"60", 600},  {"12", 1200},
                      {"24", 2400}, {"48", 4800}, {"96", 9600}, {"19", 19200}};
        for (const auto& entry : kShort)
            if (v == entry.abbreviation) {
                *baud = entry.baud;
                return true;
            }
        return number(v, baud);
    };
    auto on_off = [](const std::string& v, bool* out) {
        if (v != "on" && v != "off")
            return false;
        *out = v == "on";
        return true;
    };

    bool stop_given = false;
    if (text.find('=') == std::string::npos) {
        // "baud,parity,data,stop,retry": fields may be left empty.
        std::vector<std::string> fields;
        std::string field;
        for (char c : text + ",") {
            if (c == ',') {
                fields.push_back(field);
                field.clear();
            } else if (c != ' ') {
                field += c;
            }
        }
        if (fields.size() > 5 || fields[0].empty())
            return Fail(ERROR_INVALID_PARAMETER);
        DWORD value = 0;
        if (!baud_of(fields[0], &dcb.BaudRate))
            return Fail(ERROR_INVALID_PARAMETER);
        if (fields.size() > 1 && !fields[1].empty() && !parity_of(fields[1], &dcb.Parity))
            return Fail(ERROR_INVALID_PARAMETER);
        if (fields.size() > 2 && !fields[2].empty()) {
            if (!number(fields[2], &value) || value < 5 || value > 8)
                return Fail(ERROR_INVALID_PARAMETER);
            dcb.ByteSize = static_cast<BYTE>(value);
        }
        if (fields.size() > 3 && !fields[3].empty()) {
            if (!stop_of(fields[3], &dcb.StopBits))
                return Fail(ERROR_INVALID_PARAMETER);
            stop_given = true;
        }
        if (fields.size() > 4 && !fields[4].empty()) {
            if (fields[4] == "x") {
                dcb.fOutX = dcb.fInX = 1;
            } else if (fields[4] == "p") {
                dcb.fOutxCtsFlow = dcb.fOutxDsrFlow = 1;
                dcb.fDtrControl = DTR_CONTROL_HANDSHAKE;
                dcb.fRtsControl = RTS_CONTROL_HANDSHAKE;
            } else {
                return Fail(ERROR_INVALID_PARAMETER);
            }
        }
    } else {
        size_t at = 0;
        while (at < text.size()) {
            if (text[at] == ' ') {
                ++at;
                continue;
            }
            size_t end = text.find(' ', at);
            std::string token = text.substr(at, end == std::string::npos ? end : end - at);
            at = end == std::string::npos ? text.size() : end;
            size_t equals = token.find('=');
            if (equals == std::string::npos)
                return Fail(ERROR_INVALID_PARAMETER);
            std::string key = token.substr(0, equals), v = token.substr(equals + 1);
            DWORD value = 0;
            bool flag = false;
            bool ok = true;
            if (key == "baud") {
                ok = baud_of(v, &dcb.BaudRate);
            } else if (key == "parity") {
                ok = parity_of(v, &dcb.Parity);
            } else if (key == "data") {
                ok = number(v, &value) && value >= 5 && value <= 8;
                dcb.ByteSize = ok ? static_cast<BYTE>(value) : dcb.ByteSize;
            } else if (key == "stop") {
                ok = stop_of(v, &dcb.StopBits);
                stop_given = true;
            } else if (key == "xon") {
                ok = on_off(v, &flag);
                dcb.fOutX = dcb.fInX = flag;
            } else if (key == "odsr") {
                ok = on_off(v, &flag);
                dcb.fOutxDsrFlow = flag;
            } else if (key == "octs") {
                ok = on_off(v, &flag);
                dcb.fOutxCtsFlow = flag;
            } else if (key == "idsr") {
                ok = on_off(v, &flag);
                dcb.fDsrSensitivity = flag;
            } else if (key == "dtr") {
                ok = v == "on" || v == "off" || v == "hs";
                dcb.fDtrControl = v == "hs"   ? DTR_CONTROL_HANDSHAKE
                                  : v == "on" ? DTR_CONTROL_ENABLE
                                              : DTR_CONTROL_DISABLE;
            } else if (key == "rts") {
                ok = v == "on" || v == "off" || v == "hs" || v == "tg";
                dcb.fRtsControl = v == "hs"   ? RTS_CONTROL_HANDSHAKE
                                  : v == "tg" ? RTS_CONTROL_TOGGLE
                                  : v == "on" ? RTS_CONTROL_ENABLE
                                              : RTS_CONTROL_DISABLE;
            } else if (key == "to") {
                ok = on_off(v, &flag); // the time-outs are not in the DCB
            } else {
                ok = false;
            }
            if (!ok)
                return Fail(ERROR_INVALID_PARAMETER);
        }
    }
    if (dcb.BaudRate == 110 && !stop_given)
        dcb.StopBits = TWOSTOPBITS;
    dcb.fBinary = 1;
    *lpDCB = dcb;
    return 1;
}

// ---------------------------------------------------------------------------
// Time-outs, events, lines and status.

BOOL GetCommTimeouts(HANDLE hFile, LPCOMMTIMEOUTS lpCommTimeouts) {
    static_assert(sizeof(COMMTIMEOUTS) == sizeof(SERIAL_TIMEOUTS), "the same five values");
    return Control(hFile, IOCTL_SERIAL_GET_TIMEOUTS, nullptr, 0, lpCommTimeouts,
                   sizeof(COMMTIMEOUTS));
}

// The five values go to the driver as they are: COMMTIMEOUTS and
// SERIAL_TIMEOUTS share their order, and the driver judges the values.
BOOL SetCommTimeouts(HANDLE hFile, LPCOMMTIMEOUTS lpCommTimeouts) {
    if (!lpCommTimeouts)
        return Fail(ERROR_INVALID_PARAMETER);
    return Control(hFile, IOCTL_SERIAL_SET_TIMEOUTS, lpCommTimeouts, sizeof(COMMTIMEOUTS));
}

BOOL SetCommMask(HANDLE hFile, DWORD dwEvtMask) {
    ULONG mask = dwEvtMask;
    return Control(hFile, IOCTL_SERIAL_SET_WAIT_MASK, &mask, sizeof mask);
}

BOOL GetCommMask(HANDLE hFile, LPDWORD lpEvtMask) {
    return Control(hFile, IOCTL_SERIAL_GET_WAIT_MASK, nullptr, 0, lpEvtMask, sizeof(DWORD));
}

BOOL WaitCommEvent(HANDLE hFile, LPDWORD lpEvtMask, LPOVERLAPPED lpOverlapped) {
    Port* port = Lookup<Port>(hFile);
    if (!port)
        return Fail(ERROR_INVALID_HANDLE);
    DWORD returned = 0;
    return Issue(*port, Op::kControl, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, lpEvtMask,
                 sizeof(DWORD), &returned, lpOverlapped);
}

BOOL EscapeCommFunction(HANDLE hFile, DWORD dwFunc) {
    static const ULONG kCodes[] = {
        0,
        IOCTL_SERIAL_SET_XOFF,
        IOCTL_SERIAL_SET_XON,
        IOCTL_SERIAL_SET_RTS,
        IOCTL_SERIAL_CLR_RTS,
        IOCTL_SERIAL_SET_DTR,
        IOCTL_SERIAL_CLR_DTR,
        IOCTL_SERIAL_RESET_DEVICE,
        IOCTL_SERIAL_SET_BREAK_ON,
        IOCTL_SERIAL_SET_BREAK_OFF,
    };
    if (!Lookup<Port>(hFile))
        return Fail(ERROR_INVALID_HANDLE);
    if (dwFunc < SETXOFF || dwFunc > CLRBREAK)
        return Fail(ERROR_INVALID_PARAMETER);
    return Control(hFile, kCodes[dwFunc]);
}

BOOL SetCommBreak(HANDLE hFile) {
    return Control(hFile, IOCTL_SERIAL_SET_BREAK_ON);
}

BOOL ClearCommBreak(HANDLE hFile) {
    return Control(hFile, IOCTL_SERIAL_SET_BREAK_OFF);
}

// The driver's answer carries the changed-line bits (SERIAL_MSR_D*) in its
// low nibble; the documented values are the four MS_*_ON lines only.
BOOL GetCommModemStatus(HANDLE hFile, LPDWORD lpModemStat) {
    ULONG status = 0;
    if (!Control(hFile, IOCTL_SERIAL_GET_MODEMSTATUS, nullptr, 0, &status, sizeof status))
        return 0;
    *lpModemStat = status & (MS_CTS_ON | MS_DSR_ON | MS_RING_ON | MS_RLSD_ON);
    return 1;
}

// The purge flags are the driver's bits; flags outside them are refused
// here rather than left to the driver, which ignores unknown bits.
BOOL PurgeComm(HANDLE hFile, DWORD dwFlags) {
    constexpr DWORD kKnown = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;
    if (!Lookup<Port>(hFile))
        return Fail(ERROR_INVALID_HANDLE);
    if (dwFlags & ~kKnown)
        return Fail(ERROR_INVALID_PARAMETER);
    ULONG mask = dwFlags;
    return Control(hFile, IOCTL_SERIAL_PURGE, &mask, sizeof mask);
}

BOOL ClearCommError(HANDLE hFile, LPDWORD lpErrors, LPCOMSTAT lpStat) {
    SERIAL_STATUS status{};
    if (!Control(hFile, IOCTL_SERIAL_GET_COMMSTATUS, nullptr, 0, &status, sizeof status))
        return 0;
    if (lpErrors) {
        DWORD errors = 0;
        errors |= (status.Errors & SERIAL_ERROR_QUEUEOVERRUN) ? CE_RXOVER : 0;
        errors |= (status.Errors & SERIAL_ERROR_OVERRUN) ? CE_OVERRUN : 0;
        errors |= (status.Errors & SERIAL_ERROR_PARITY) ? CE_RXPARITY : 0;
        errors |= (status.Errors & SERIAL_ERROR_FRAMING) ? CE_FRAME : 0;
        errors |= (status.Errors & SERIAL_ERROR_BREAK) ? CE_BREAK : 0;
        *lpErrors = errors;
    }
    if (lpStat) {
        memset(lpStat, 0, sizeof *lpStat);
        lpStat->fCtsHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_CTS) != 0;
        lpStat->fDsrHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_DSR) != 0;
        lpStat->fRlsdHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_DCD) != 0;
        lpStat->fXoffHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_XON) != 0;
        lpStat->fXoffSent = (status.HoldReasons & SERIAL_TX_WAITING_XOFF_SENT) != 0;
        lpStat->fEof = status.EofReceived != 0;
        // The driver reports its immediate-read mode in WaitForImmediate;
        // it goes where kernel32 puts that field.
        lpStat->fTxim = status.WaitForImmediate != 0;
        lpStat->cbInQue = status.AmountInInQueue;
        lpStat->cbOutQue = status.AmountInOutQueue;
    }
    return 1;
}

BOOL SetupComm(HANDLE hFile, DWORD dwInQueue, DWORD dwOutQueue) {
    SERIAL_QUEUE_SIZE size{dwInQueue, dwOutQueue};
    return Control(hFile, IOCTL_SERIAL_SET_QUEUE_SIZE, &size, sizeof size);
}

BOOL GetCommProperties(HANDLE hFile, LPCOMMPROP lpCommProp) {
    static_assert(sizeof(COMMPROP) == 64, "the serial properties' size");
    return Control(hFile, IOCTL_SERIAL_GET_PROPERTIES, nullptr, 0, lpCommProp, sizeof(COMMPROP));
}

BOOL TransmitCommChar(HANDLE hFile, char cChar) {
    return Control(hFile, IOCTL_SERIAL_IMMEDIATE_CHAR, &cChar, 1);
}

} // namespace comm
