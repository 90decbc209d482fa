// A COM port driven as a Windows program drives it: the Win32 calls of
// source/comm on the driver loaded under the PnP manager, with a simulated
// modem behind it, all in virtual time. (EscapeCommFunction's lines and
// break, the modem status, WaitCommEvent, BuildCommDCB's mode strings and
// PurgeComm are the simulator's scenarios; read time-outs, which
// SetCommTimeouts passes on as they are, and how the driver ends a wait are
// its time-out and wait-mask tests.)
#include "comm/comm.h"
#include "modem_life.h"

#include <cstring>
#include <string>

namespace {

namespace w = comm;

class CommPort : public ModemLife {
  protected:
    void SetUp() override {
        ModemLife::SetUp();
        Plug();
        port_ = OpenPort("COM1", w::FILE_FLAG_OVERLAPPED);
        ASSERT_NE(port_, w::INVALID_HANDLE_VALUE) << w::GetLastError();
        event_ = w::CreateEvent(nullptr, 1, 0, nullptr);
    }
    void TearDown() override {
        if (port_ != w::INVALID_HANDLE_VALUE) {
            EXPECT_TRUE(w::CloseHandle(port_));
        }
        EXPECT_TRUE(w::CloseHandle(event_));
        ModemLife::TearDown();
    }
    static w::HANDLE OpenPort(const char* name, w::DWORD flags = 0,
                              w::DWORD disposition = w::OPEN_EXISTING) {
        return w::CreateFile(name, w::GENERIC_READ | w::GENERIC_WRITE, 0, nullptr, disposition,
                             flags, nullptr);
    }
    w::OVERLAPPED Overlapped() {
        w::OVERLAPPED overlapped{};
        overlapped.hEvent = event_;
        return overlapped;
    }
    sm::Modem& modem() { return ModemOn(0); }

    w::HANDLE port_ = w::INVALID_HANDLE_VALUE;
    w::HANDLE event_ = nullptr;
};

TEST_F(CommPort, CreateFileNamesAndRefusals) {
    struct Case {
        const char* name;
        w::DWORD disposition;
        w::DWORD error; // ERROR_SUCCESS: the open succeeds
    } cases[] = {
        {"COM1", w::OPEN_EXISTING, w::ERROR_ACCESS_DENIED}, // an exclusive device
        {"COM7", w::OPEN_EXISTING, w::ERROR_FILE_NOT_FOUND},
        {"\\\\.\\COM7", w::OPEN_EXISTING, w::ERROR_FILE_NOT_FOUND},
        {"COM12", w::OPEN_EXISTING, w::ERROR_FILE_NOT_FOUND}, // a file name without "\\.\"
        {"notes.txt", w::OPEN_EXISTING, w::ERROR_FILE_NOT_FOUND},
        {"COM1", 0, w::ERROR_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        w::SetLastError(0);
        EXPECT_EQ(OpenPort(c.name, 0, c.disposition), w::INVALID_HANDLE_VALUE) << c.name;
        EXPECT_EQ(w::GetLastError(), c.error) << c.name;
    }
    // Each spelling of the port reaches it once the first handle is closed.
    EXPECT_TRUE(w::CloseHandle(port_));
    for (const char* name : {"\\\\.\\COM1", "com1:", "COM1"}) {
        port_ = OpenPort(name);
        ASSERT_NE(port_, w::INVALID_HANDLE_VALUE) << name << " " << w::GetLastError();
        EXPECT_TRUE(w::CloseHandle(port_));
    }
    port_ = w::INVALID_HANDLE_VALUE;
    EXPECT_FALSE(w::CloseHandle(reinterpret_cast<w::HANDLE>(&cases)));
    EXPECT_EQ(w::GetLastError(), w::ERROR_INVALID_HANDLE);
}

TEST_F(CommPort, DcbRoundTripsAndReachesTheModem) {
    struct Case {
        w::DWORD baud;
        w::BYTE size, parity, stop;
        w::DWORD dtr, rts;
        bool cts, outx;
        w::WORD line_bits; // the modem's DTR (1) and RTS (2) afterwards
    } cases[] = {
        {19200, 8, w::NOPARITY, w::ONESTOPBIT, w::DTR_CONTROL_ENABLE, w::RTS_CONTROL_ENABLE, false,
         false, 3},
        {2400, 7, w::EVENPARITY, w::TWOSTOPBITS, w::DTR_CONTROL_DISABLE, w::RTS_CONTROL_HANDSHAKE,
         true, false, 2}, // a handshake mode leaves its line to the driver
        {115200, 5, w::MARKPARITY, w::ONE5STOPBITS, w::DTR_CONTROL_HANDSHAKE,
         w::RTS_CONTROL_DISABLE, false, true, 0},
    };
    for (const Case& c : cases) {
        w::DCB dcb{};
        ASSERT_TRUE(w::GetCommState(port_, &dcb));
        dcb.BaudRate = c.baud;
        dcb.ByteSize = c.size;
        dcb.Parity = c.parity;
        dcb.StopBits = c.stop;
        dcb.fDtrControl = c.dtr;
        dcb.fRtsControl = c.rts;
        dcb.fOutxCtsFlow = c.cts;
        dcb.fOutX = dcb.fInX = c.outx;
        dcb.XonLim = 100;
        dcb.XoffLim = 200;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        dcb.EvtChar = '\n';
        ASSERT_TRUE(w::SetCommState(port_, &dcb)) << w::GetLastError();
        w::DCB back{};
        ASSERT_TRUE(w::GetCommState(port_, &back));
        EXPECT_EQ(back.BaudRate, c.baud);
        EXPECT_EQ(back.ByteSize, c.size);
        EXPECT_EQ(back.Parity, c.parity);
        EXPECT_EQ(back.StopBits, c.stop);
        EXPECT_EQ(back.fDtrControl, c.dtr);
        EXPECT_EQ(back.fRtsControl, c.rts);
        EXPECT_EQ(back.fOutxCtsFlow, c.cts);
        EXPECT_EQ(back.fOutX, c.outx);
        EXPECT_EQ(back.fInX, c.outx);
        EXPECT_EQ(back.XonLim, 100);
        EXPECT_EQ(back.XoffLim, 200);
        EXPECT_EQ(back.EvtChar, '\n');
        EXPECT_EQ(back.fParity, c.parity != w::NOPARITY);
        // (The line coding it sends is the simulator's scenarios'.)
        EXPECT_EQ(modem().ControlLineState() & 3, c.line_bits) << c.baud;
    }
}

TEST_F(CommPort, SetCommStateRefusesInvalidDcbsBeforeTheDriverSeesThem) {
    w::DCB good{};
    ASSERT_TRUE(w::GetCommState(port_, &good));
    good.BaudRate = 9600;
    good.ByteSize = 8;
    good.Parity = w::NOPARITY;
    good.StopBits = w::ONESTOPBIT;
    good.XonChar = 0x11;
    good.XoffChar = 0x13;
    ASSERT_TRUE(w::SetCommState(port_, &good)) << w::GetLastError();
    size_t requests = modem().Requests().size();
    struct Case {
        const char* what;
        void (*spoil)(w::DCB&);
    } cases[] = {
        {"4 data bits", [](w::DCB& d) { d.ByteSize = 4; }},
        {"9 data bits", [](w::DCB& d) { d.ByteSize = 9; }},
        {"parity 5", [](w::DCB& d) { d.Parity = 5; }},
        {"stop bits 3", [](w::DCB& d) { d.StopBits = 3; }},
        {"5 data bits, 2 stop bits",
         [](w::DCB& d) {
             d.ByteSize = 5;
             d.StopBits = w::TWOSTOPBITS;
         }},
        {"6 data bits, 1.5 stop bits",
         [](w::DCB& d) {
             d.ByteSize = 6;
             d.StopBits = w::ONE5STOPBITS;
         }},
        {"XonChar equals XoffChar", [](w::DCB& d) { d.XoffChar = d.XonChar; }},
    };
    for (const Case& c : cases) {
        w::DCB bad = good;
        bad.BaudRate = 300;
        c.spoil(bad);
        EXPECT_FALSE(w::SetCommState(port_, &bad)) << c.what;
        EXPECT_EQ(w::GetLastError(), w::ERROR_INVALID_PARAMETER) << c.what;
    }
    w::DCB now{};
    ASSERT_TRUE(w::GetCommState(port_, &now));
    EXPECT_EQ(now.BaudRate, 9600u) << "nothing of a refused DCB is stored";
    EXPECT_EQ(modem().Requests().size(), requests) << "nor sent";
}

TEST_F(CommPort, OverlappedReadFillsTheBufferAndSetsTheEvent) {
    w::OVERLAPPED overlapped = Overlapped();
    char buffer[5] = {};
    w::DWORD count = 0;
    ASSERT_FALSE(w::ReadFile(port_, buffer, 5, &count, &overlapped));
    EXPECT_EQ(w::GetLastError(), w::ERROR_IO_PENDING);
    EXPECT_EQ(w::WaitForSingleObject(event_, 50), w::WAIT_TIMEOUT);
    EXPECT_FALSE(w::GetOverlappedResult(port_, &overlapped, &count, 0));
    EXPECT_EQ(w::GetLastError(), w::ERROR_IO_INCOMPLETE);
    modem().Push({'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(w::WaitForSingleObject(event_, w::INFINITE), w::WAIT_OBJECT_0);
    EXPECT_EQ(std::string(buffer, 5), "hello") << "filled before anyone asks";
    EXPECT_EQ(overlapped.InternalHigh, 5u);
    EXPECT_TRUE(w::GetOverlappedResult(port_, &overlapped, &count, 0));
    EXPECT_EQ(count, 5u);

    ASSERT_TRUE(w::TransmitCommChar(port_, '!'));
    kernel().Sleep(10);
    EXPECT_EQ(modem().Pull(), (Bytes{'!'}));

    // A thread waiting for its read while another closes the handle gets
    // the read back cancelled by the close.
    overlapped = Overlapped();
    ASSERT_FALSE(w::ReadFile(port_, buffer, 5, &count, &overlapped));
    w::DWORD error = 0;
    hk::Thread reader("reader", [&] {
        if (!w::GetOverlappedResult(port_, &overlapped, &count, 1))
            error = w::GetLastError();
    });
    kernel().Sleep(10);
    EXPECT_TRUE(w::CloseHandle(port_));
    port_ = w::INVALID_HANDLE_VALUE;
    reader.Join();
    EXPECT_EQ(error, w::ERROR_OPERATION_ABORTED);
}

// (How the driver counts its queues as bytes come and go is its I/O
// control tests'.)
TEST_F(CommPort, ClearCommErrorCountsTheQueues) {
    w::COMMTIMEOUTS immediate{w::MAXDWORD, 0, 0, 0, 0};
    ASSERT_TRUE(w::SetCommTimeouts(port_, &immediate));
    modem().Push(Bytes(5, 'z'));
    kernel().Sleep(10);
    w::DWORD errors = 0xdead;
    w::COMSTAT stat{};
    ASSERT_TRUE(w::ClearCommError(port_, &errors, &stat));
    EXPECT_EQ(errors, 0u);
    EXPECT_EQ(stat.cbInQue, 5u);
    EXPECT_EQ(stat.cbOutQue, 0u);
    EXPECT_TRUE(stat.fTxim) << "the immediate-read mode";
    w::COMMPROP properties{};
    ASSERT_TRUE(w::SetupComm(port_, 2048, 1024));
    ASSERT_TRUE(w::GetCommProperties(port_, &properties));
    EXPECT_EQ(properties.wPacketLength, sizeof properties);
    EXPECT_EQ(properties.dwCurrentRxQueue, 2048u);
    EXPECT_EQ(properties.dwCurrentTxQueue, 1024u);
}

TEST_F(CommPort, GetLastErrorGivesTheDosErrorOfEachRefusal) {
    uint8_t buffer[64];
    w::DWORD count = 0;
    struct Case {
        const char* what;
        w::DWORD code;
        w::DWORD in, out;
        w::DWORD error;
    } cases[] = {
        {"a control the driver does not have", 0x1B007C /* LSRMST_INSERT */, 1, 0,
         w::ERROR_INVALID_PARAMETER},
        {"properties into 63 bytes", 0x1B0074 /* GET_PROPERTIES */, 0, 63,
         w::ERROR_INVALID_PARAMETER},
        {"a baud rate in 3 bytes", 0x1B0004 /* SET_BAUD_RATE */, 3, 0, w::ERROR_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        w::SetLastError(0);
        EXPECT_FALSE(
            w::DeviceIoControl(port_, c.code, buffer, c.in, buffer, c.out, &count, nullptr))
            << c.what;
        EXPECT_EQ(w::GetLastError(), c.error) << c.what;
    }
    EXPECT_FALSE(w::EscapeCommFunction(port_, 10)); // refused before the driver
    EXPECT_EQ(w::GetLastError(), w::ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(w::PurgeComm(port_, 0x10));
    EXPECT_EQ(w::GetLastError(), w::ERROR_INVALID_PARAMETER);
    w::DWORD mask = 0;
    ASSERT_TRUE(w::SetCommMask(port_, w::EV_RXCHAR | w::EV_RLSD));
    ASSERT_TRUE(w::GetCommMask(port_, &mask));
    EXPECT_EQ(mask, w::EV_RXCHAR | w::EV_RLSD);

    // Each thread keeps its own last error.
    w::SetLastError(w::ERROR_BUSY);
    w::DWORD seen = 0;
    hk::Thread other("other", [&] {
        w::DWORD status = 0;
        w::GetCommModemStatus(nullptr, &status);
        seen = w::GetLastError();
    });
    other.Join();
    EXPECT_EQ(seen, w::ERROR_INVALID_HANDLE);
    EXPECT_EQ(w::GetLastError(), w::ERROR_BUSY);
}

} // namespace
