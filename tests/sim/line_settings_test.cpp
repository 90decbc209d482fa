// termios line settings to the DCB of the COM port, including what a Linux
// pseudo-terminal never passes on (character size and parity).
#include "line_settings.h"

#include <gtest/gtest.h>

namespace {

termios Raw(speed_t speed, tcflag_t cflag, tcflag_t iflag = 0) {
    termios t{};
    cfsetspeed(&t, speed);
    t.c_cflag = (t.c_cflag & ~tcflag_t(CSIZE)) | cflag;
    t.c_iflag = iflag;
    t.c_cc[VSTART] = 0x11;
    t.c_cc[VSTOP] = 0x13;
    return t;
}

TEST(LineSettings, TermiosBecomesTheDcb) {
    struct Case {
        termios t;
        const char* described;
        comm::DWORD baud;
        comm::BYTE bits, parity, stop;
        bool cts, xon;
        comm::DWORD dtr;
    } cases[] = {
        {Raw(B115200, CS8), "115200 8N1", 115200, 8, comm::NOPARITY, comm::ONESTOPBIT, false, false,
         comm::DTR_CONTROL_ENABLE},
        {Raw(B9600, CS7 | PARENB | CSTOPB), "9600 7E2", 9600, 7, comm::EVENPARITY,
         comm::TWOSTOPBITS, false, false, comm::DTR_CONTROL_ENABLE},
        {Raw(B2400, CS5 | PARENB | PARODD), "2400 5O1", 2400, 5, comm::ODDPARITY, comm::ONESTOPBIT,
         false, false, comm::DTR_CONTROL_ENABLE},
        {Raw(B300, CS6 | PARENB | PARODD | CMSPAR), "300 6M1", 300, 6, comm::MARKPARITY,
         comm::ONESTOPBIT, false, false, comm::DTR_CONTROL_ENABLE},
        {Raw(B57600, CS8 | PARENB | CMSPAR | CRTSCTS), "57600 8S1, RTS/CTS", 57600, 8,
         comm::SPACEPARITY, comm::ONESTOPBIT, true, false, comm::DTR_CONTROL_ENABLE},
        {Raw(B19200, CS8, IXON | IXOFF), "19200 8N1, XON/XOFF", 19200, 8, comm::NOPARITY,
         comm::ONESTOPBIT, false, true, comm::DTR_CONTROL_ENABLE},
        // B0 hangs up and keeps the rate before it.
        {Raw(B0, CS8), "4800 8N1, hang-up (DTR off)", 4800, 8, comm::NOPARITY, comm::ONESTOPBIT,
         false, false, comm::DTR_CONTROL_DISABLE},
    };
    for (const Case& c : cases) {
        sim::LineSettings settings = sim::FromTermios(c.t, 4800);
        EXPECT_EQ(sim::Describe(settings), c.described);
        comm::DCB dcb{};
        sim::ApplyToDcb(settings, dcb);
        EXPECT_EQ(dcb.BaudRate, c.baud) << c.described;
        EXPECT_EQ(dcb.ByteSize, c.bits) << c.described;
        EXPECT_EQ(dcb.Parity, c.parity) << c.described;
        EXPECT_EQ(dcb.fParity, c.parity != comm::NOPARITY) << c.described;
        EXPECT_EQ(dcb.StopBits, c.stop) << c.described;
        EXPECT_EQ(dcb.fOutxCtsFlow, c.cts) << c.described;
        EXPECT_EQ(dcb.fRtsControl, c.cts ? comm::RTS_CONTROL_HANDSHAKE : comm::RTS_CONTROL_ENABLE)
            << c.described;
        EXPECT_EQ(dcb.fOutX, c.xon) << c.described;
        EXPECT_EQ(dcb.fInX, c.xon) << c.described;
        EXPECT_EQ(dcb.fDtrControl, c.dtr) << c.described;
    }
}

TEST(LineSettings, EqualXonAndXoffBecomeTheUsualPair) {
    termios t = Raw(B9600, CS8);
    t.c_cc[VSTART] = t.c_cc[VSTOP] = 0;
    comm::DCB dcb{};
    sim::ApplyToDcb(sim::FromTermios(t, 9600), dcb);
    EXPECT_EQ(dcb.XonChar, 0x11);
    EXPECT_EQ(dcb.XoffChar, 0x13);
    t.c_cc[VSTART] = 'q';
    t.c_cc[VSTOP] = 's';
    sim::ApplyToDcb(sim::FromTermios(t, 9600), dcb);
    EXPECT_EQ(dcb.XonChar, 'q');
    EXPECT_EQ(dcb.XoffChar, 's');
}

} // namespace
