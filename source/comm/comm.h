// The Win32 communications API over the emulated I/O manager: the calls
// terminal programs and dial-up stacks make on a COM port (CreateFile,
// ReadFile and WriteFile with overlapped I/O, DeviceIoControl, the DCB,
// time-outs, comm events, control lines, purge and status), each mapped to
// the serial I/O controls the way kernel32 maps them, with GetLastError
// holding the Win32 error of the NT status the driver answered.
//
// Environment: an application thread of the emulated kernel at
// PASSIVE_LEVEL (a test body, a tool). Calls that wait block the calling
// emulated thread; nothing here waits on the wall clock. Overlapped
// completions run in the context that completes the IRP (possibly at
// DISPATCH_LEVEL): they copy the results into the caller's buffer and
// OVERLAPPED and set its event, and take no lock.
//
// Locking: one mutex guards the handle table and each port's list of
// requests in flight; it is never held across a wait or a call into the
// I/O manager. The last error is kept per emulated thread (each is an OS
// thread).
//
// Names are those of the Win32 headers, inside namespace comm so that they
// never meet the stand-in's kernel names.
#pragma once

#include <cstdint>

namespace comm {

using BOOL = int;
using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using ULONG_PTR = uintptr_t;
using HANDLE = void*;
using LPCSTR = const char*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPDWORD = DWORD*;

// BOOL results are nonzero for success (TRUE and FALSE are the kernel's
// macros, which this header neither needs nor redefines).
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));
constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD MAXDWORD = 0xFFFFFFFF;

// CreateFile.
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD FILE_SHARE_READ = 0x1;
constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;

// Wait results.
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

// System error codes.
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_BAD_COMMAND = 22;
constexpr DWORD ERROR_NOT_READY = 21;
constexpr DWORD ERROR_CRC = 23;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_SEM_TIMEOUT = 121;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_BAD_PATHNAME = 161;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_OPERATION_ABORTED = 995;
constexpr DWORD ERROR_IO_INCOMPLETE = 996;
constexpr DWORD ERROR_IO_PENDING = 997;
constexpr DWORD ERROR_KEY_DELETED = 1018;
constexpr DWORD ERROR_NO_SYSTEM_RESOURCES = 1450;
constexpr DWORD ERROR_DEVICE_REMOVED = 1617;

struct OVERLAPPED {
    ULONG_PTR Internal;     // the request's NT status, STATUS_PENDING while in flight
    ULONG_PTR InternalHigh; // bytes transferred
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent; // set when the request completes; may be null
};
using LPOVERLAPPED = OVERLAPPED*;

struct DCB {
    DWORD DCBlength;
    DWORD BaudRate;
    DWORD fBinary : 1;
    DWORD fParity : 1;
    DWORD fOutxCtsFlow : 1;
    DWORD fOutxDsrFlow : 1;
    DWORD fDtrControl : 2;
    DWORD fDsrSensitivity : 1;
    DWORD fTXContinueOnXoff : 1;
    DWORD fOutX : 1;
    DWORD fInX : 1;
    DWORD fErrorChar : 1;
    DWORD fNull : 1;
    DWORD fRtsControl : 2;
    DWORD fAbortOnError : 1;
    DWORD fDummy2 : 17;
    WORD wReserved;
    WORD XonLim;
    WORD XoffLim;
    BYTE ByteSize;
    BYTE Parity;
    BYTE StopBits;
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    WORD wReserved1;
};
using LPDCB = DCB*;

constexpr BYTE NOPARITY = 0, ODDPARITY = 1, EVENPARITY = 2, MARKPARITY = 3, SPACEPARITY = 4;
constexpr BYTE ONESTOPBIT = 0, ONE5STOPBITS = 1, TWOSTOPBITS = 2;
constexpr DWORD DTR_CONTROL_DISABLE = 0, DTR_CONTROL_ENABLE = 1, DTR_CONTROL_HANDSHAKE = 2;
constexpr DWORD RTS_CONTROL_DISABLE = 0, RTS_CONTROL_ENABLE = 1, RTS_CONTROL_HANDSHAKE = 2,
                RTS_CONTROL_TOGGLE = 3;

struct COMMTIMEOUTS {
    DWORD ReadIntervalTimeout;
    DWORD ReadTotalTimeoutMultiplier;
    DWORD ReadTotalTimeoutConstant;
    DWORD WriteTotalTimeoutMultiplier;
    DWORD WriteTotalTimeoutConstant;
};
using LPCOMMTIMEOUTS = COMMTIMEOUTS*;

struct COMSTAT {
    DWORD fCtsHold : 1;
    DWORD fDsrHold : 1;
    DWORD fRlsdHold : 1;
    DWORD fXoffHold : 1;
    DWORD fXoffSent : 1;
    DWORD fEof : 1;
    DWORD fTxim : 1;
    DWORD fReserved : 25;
    DWORD cbInQue;
    DWORD cbOutQue;
};
using LPCOMSTAT = COMSTAT*;

// ClearCommError errors.
constexpr DWORD CE_RXOVER = 0x1, CE_OVERRUN = 0x2, CE_RXPARITY = 0x4, CE_FRAME = 0x8,
                CE_BREAK = 0x10;

struct COMMPROP {
    WORD wPacketLength;
    WORD wPacketVersion;
    DWORD dwServiceMask;
    DWORD dwReserved1;
    DWORD dwMaxTxQueue;
    DWORD dwMaxRxQueue;
    DWORD dwMaxBaud;
    DWORD dwProvSubType;
    DWORD dwProvCapabilities;
    DWORD dwSettableParams;
    DWORD dwSettableBaud;
    WORD wSettableData;
    WORD wSettableStopParity;
    DWORD dwCurrentTxQueue;
    DWORD dwCurrentRxQueue;
    DWORD dwProvSpec1;
    DWORD dwProvSpec2;
    char16_t wcProvChar[1];
};
using LPCOMMPROP = COMMPROP*;

// Comm events (SetCommMask, WaitCommEvent).
constexpr DWORD EV_RXCHAR = 0x0001, EV_RXFLAG = 0x0002, EV_TXEMPTY = 0x0004, EV_CTS = 0x0008,
                EV_DSR = 0x0010, EV_RLSD = 0x0020, EV_BREAK = 0x0040, EV_ERR = 0x0080,
                EV_RING = 0x0100, EV_PERR = 0x0200, EV_RX80FULL = 0x0400, EV_EVENT1 = 0x0800,
                EV_EVENT2 = 0x1000;

// EscapeCommFunction.
constexpr DWORD SETXOFF = 1, SETXON = 2, SETRTS = 3, CLRRTS = 4, SETDTR = 5, CLRDTR = 6,
                RESETDEV = 7, SETBREAK = 8, CLRBREAK = 9;

// GetCommModemStatus.
constexpr DWORD MS_CTS_ON = 0x10, MS_DSR_ON = 0x20, MS_RING_ON = 0x40, MS_RLSD_ON = 0x80;

// PurgeComm.
constexpr DWORD PURGE_TXABORT = 0x1, PURGE_RXABORT = 0x2, PURGE_TXCLEAR = 0x4, PURGE_RXCLEAR = 0x8;

// Files and devices.
HANDLE CreateFile(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                  void* lpSecurityAttributes, DWORD dwCreationDisposition,
                  DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL CloseHandle(HANDLE hObject);
BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
              LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);
BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
               LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);
BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                     LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned,
                     LPOVERLAPPED lpOverlapped);
BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                         LPDWORD lpNumberOfBytesTransferred, BOOL bWait);
BOOL CancelIo(HANDLE hFile);

// Events.
HANDLE CreateEvent(void* lpEventAttributes, BOOL bManualReset, BOOL bInitialState, LPCSTR lpName);
BOOL SetEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);
// Waits in the emulated kernel's virtual time.
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

// Communications.
BOOL GetCommState(HANDLE hFile, LPDCB lpDCB);
BOOL SetCommState(HANDLE hFile, LPDCB lpDCB);
BOOL BuildCommDCB(LPCSTR lpDef, LPDCB lpDCB);
BOOL GetCommTimeouts(HANDLE hFile, LPCOMMTIMEOUTS lpCommTimeouts);
BOOL SetCommTimeouts(HANDLE hFile, LPCOMMTIMEOUTS lpCommTimeouts);
BOOL SetCommMask(HANDLE hFile, DWORD dwEvtMask);
BOOL GetCommMask(HANDLE hFile, LPDWORD lpEvtMask);
BOOL WaitCommEvent(HANDLE hFile, LPDWORD lpEvtMask, LPOVERLAPPED lpOverlapped);
BOOL EscapeCommFunction(HANDLE hFile, DWORD dwFunc);
BOOL SetCommBreak(HANDLE hFile);
BOOL ClearCommBreak(HANDLE hFile);
BOOL GetCommModemStatus(HANDLE hFile, LPDWORD lpModemStat);
BOOL PurgeComm(HANDLE hFile, DWORD dwFlags);
BOOL ClearCommError(HANDLE hFile, LPDWORD lpErrors, LPCOMSTAT lpStat);
BOOL SetupComm(HANDLE hFile, DWORD dwInQueue, DWORD dwOutQueue);
BOOL GetCommProperties(HANDLE hFile, LPCOMMPROP lpCommProp);
BOOL TransmitCommChar(HANDLE hFile, char cChar);

// The calling thread's last error.
DWORD GetLastError();
void SetLastError(DWORD dwErrCode);
// The symbolic name of a system error code this header defines ("ERROR_..."),
// or null for any other.
const char* ErrorName(DWORD error);
// The Win32 error of an NT status, as RtlNtStatusToDosError gives it.
DWORD NtStatusToDosError(int32_t status);

} // namespace comm
