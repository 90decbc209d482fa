// termios line settings to the COM port's DCB.
#include "line_settings.h"

namespace sim {

namespace {

comm::DWORD Baud(speed_t speed, comm::DWORD previous) {
    struct Pair {
        speed_t speed;
        comm::DWORD baud;
    };
    static const Pair kRates[] = {
        {B50, 50},       {B75, 75},         {B110, 110},       {B134, 134},       {B150, 150},
        {B200, 200},     {B300, 300},       {B600, 600},       {B1200, 1200},     {B1800, 1800},
        {B2400, 2400},   {B4800, 4800},     {B9600, 9600},     {B19200, 19200},   {B38400, 38400},
        {B57600, 57600}, {B115200, 115200}, {B230400, 230400}, {B460800, 460800}, {B921600, 921600},
    };
    for (const Pair& pair : kRates)
        if (pair.speed == speed)
            return pair.baud;
    return previous;
}

} // namespace

bool LineSettings::operator==(const LineSettings& o) const {
    return baud == o.baud && data_bits == o.data_bits && parity == o.parity &&
           stop_bits == o.stop_bits && rts_cts == o.rts_cts && xon_out == o.xon_out &&
           xon_in == o.xon_in && xon == o.xon && xoff == o.xoff && hang_up == o.hang_up;
}

LineSettings FromTermios(const termios& t, comm::DWORD previous_baud) {
    LineSettings s;
    s.baud = Baud(cfgetospeed(&t), previous_baud);
    s.hang_up = cfgetospeed(&t) == B0;
    switch (t.c_cflag & CSIZE) {
    case CS5:
        s.data_bits = 5;
        break;
    case CS6:
        s.data_bits = 6;
        break;
    case CS7:
        s.data_bits = 7;
        break;
    default:
        s.data_bits = 8;
        break;
    }
    if (!(t.c_cflag & PARENB))
        s.parity = comm::NOPARITY;
    else if (t.c_cflag & CMSPAR) // stick parity: PARODD marks, otherwise spaces
        s.parity = (t.c_cflag & PARODD) ? comm::MARKPARITY : comm::SPACEPARITY;
    else
        s.parity = (t.c_cflag & PARODD) ? comm::ODDPARITY : comm::EVENPARITY;
    s.stop_bits = (t.c_cflag & CSTOPB) ? comm::TWOSTOPBITS : comm::ONESTOPBIT;
    s.rts_cts = (t.c_cflag & CRTSCTS) != 0;
    s.xon_out = (t.c_iflag & IXON) != 0;
    s.xon_in = (t.c_iflag & IXOFF) != 0;
    s.xon = char(t.c_cc[VSTART]);
    s.xoff = char(t.c_cc[VSTOP]);
    return s;
}

void ApplyToDcb(const LineSettings& s, comm::DCB& dcb) {
    dcb.BaudRate = s.baud;
    dcb.ByteSize = s.data_bits;
    dcb.Parity = s.parity;
    dcb.fParity = s.parity != comm::NOPARITY;
    dcb.StopBits = s.stop_bits;
    dcb.fOutxCtsFlow = s.rts_cts;
    dcb.fRtsControl = s.rts_cts ? comm::RTS_CONTROL_HANDSHAKE : comm::RTS_CONTROL_ENABLE;
    dcb.fDtrControl = s.hang_up ? comm::DTR_CONTROL_DISABLE : comm::DTR_CONTROL_ENABLE;
    dcb.fOutX = s.xon_out;
    dcb.fInX = s.xon_in;
    // SetCommState refuses equal XON and XOFF characters, which a terminal
    // that never uses them may leave both 0.
    bool distinct = s.xon != s.xoff;
    dcb.XonChar = distinct ? s.xon : 0x11;
    dcb.XoffChar = distinct ? s.xoff : 0x13;
}

std::string Describe(const LineSettings& s) {
    static const char kParity[] = "NOEMS";
    std::string text = std::to_string(s.baud) + " " + std::to_string(s.data_bits) +
                       kParity[s.parity < 5 ? s.parity : 0] +
                       (s.stop_bits == comm::TWOSTOPBITS ? "2" : "1");
    if (s.rts_cts)
        text += ", RTS/CTS";
    if (s.xon_out || s.xon_in)
        text += ", XON/XOFF";
    if (s.hang_up)
        text += ", hang-up (DTR off)";
    return text;
}

} // namespace sim
