// A terminal's line settings as a program on the pseudo-terminal sets them
// with termios, and the DCB that carries them to the COM port: speed,
// character size, parity, stop bits, RTS/CTS and XON/XOFF flow control.
//
// Environment: host code of the tool; pure functions.
#pragma once

#include "comm/comm.h"

#include <string>
#include <termios.h>

namespace sim {

struct LineSettings {
    comm::DWORD baud = 9600;
    comm::BYTE data_bits = 8;
    comm::BYTE parity = comm::NOPARITY; // the DCB's codes
    comm::BYTE stop_bits = comm::ONESTOPBIT;
    bool rts_cts = false;
    bool xon_out = false, xon_in = false; // IXON, IXOFF
    char xon = 0x11, xoff = 0x13;
    bool hang_up = false; // speed B0: DTR off
    bool operator==(const LineSettings& other) const;
    bool operator!=(const LineSettings& other) const { return !(*this == other); }
};

// What termios asks for (the output speed; CSIZE, PARENB, PARODD, CMSPAR,
// CSTOPB, CRTSCTS, IXON, IXOFF, VSTART, VSTOP). The speed B0 asks for a
// hang-up, as on a Unix serial port: DTR goes off and the rate stays.
LineSettings FromTermios(const termios& settings, comm::DWORD previous_baud);
// The DCB fields the settings decide, written over dcb.
void ApplyToDcb(const LineSettings& settings, comm::DCB& dcb);
// "115200 8N1, RTS/CTS".
std::string Describe(const LineSettings& settings);

} // namespace sim
