// PPP framer and deframer: converts between the host's asynchronous
// HDLC-like framing (flag 0x7E, control escape 0x7D, 16-bit FCS) and the
// modem's packet format (magic 0xAA 0xBB, 5-bit sequence number, 11-bit
// length, unescaped frame content).
//
// Both records live inside the DEVICE for the device's whole life and are
// re-initialised each time PPP framing is switched on. They are used only
// while the device's PppState is on.
//
// Environment: DISPATCH_LEVEL.
// Locks: every operation runs with the device spin lock (DEVICE.Lock) held
// by its caller; that lock protects both records.
#pragma once

#include "forward.h"

#define PPP_FLAG 0x7E
#define PPP_ESCAPE 0x7D
#define PPP_ESCAPE_XOR 0x20

// Modem packet: 0xAA 0xBB, then a big-endian word of sequence (bits 15..11)
// and length (bits 10..0, the header included), then the content.
#define PPP_MAGIC 0xBBAA
#define PPP_MAGIC_LO 0xAA
#define PPP_HEADER_SIZE 4
#define PPP_SEQUENCE_SHIFT 11
#define PPP_SEQUENCE_MODULO 32
#define PPP_LENGTH_MASK 0x7FF

#define PPP_FCS_INITIAL 0xFFFF

// Room for the escaped form of the largest modem packet: 2043 content bytes
// escape to 4086, the FCS to 4 and the two flags make 4092 (the framer's
// content loop also writes one byte of slack past what it stores).
#define PPP_FRAMER_BUFFER_SIZE 4108
// Writing the 4102nd content byte makes a host frame too long.
#define PPP_DEFRAMER_BUFFER_SIZE 4102

// PPP_FRAMER.State
#define PPP_FRAMER_HUNT 0
#define PPP_FRAMER_HEADER 1
#define PPP_FRAMER_CONTENT 2
#define PPP_FRAMER_RESYNC 3
#define PPP_FRAMER_DELIVER 4

// PPP_DEFRAMER.State
#define PPP_DEFRAMER_HUNT 0
#define PPP_DEFRAMER_IN_FRAME 1
#define PPP_DEFRAMER_ESCAPE 2
#define PPP_DEFRAMER_SUBMIT_PENDING 3

// Device to host: parses modem packets and builds HDLC frames for the
// serial port's receive path.
struct _PPP_FRAMER {
    PDEVICE Device;
    ULONG State;
    // Header: header bytes still expected; content: content bytes still
    // expected; deliver: frame bytes not yet delivered.
    ULONG Count;
    ULONG Sequence; // the expected sequence number is Sequence modulo 32
    UCHAR Buffer[PPP_FRAMER_BUFFER_SIZE];
    // Next byte of Buffer to write; while delivering, the first undelivered
    // byte; while collecting the header, a pointer into Header.
    PUCHAR WritePtr;
    UCHAR Header[PPP_HEADER_SIZE];
    USHORT Fcs;
    UCHAR EscapeTable[256]; // non-zero for each byte value that is escaped
};

// Host to device: strips flags and escapes from the host's bytes and sends
// each complete frame as one modem packet.
struct _PPP_DEFRAMER {
    PDEVICE Device;
    ULONG State;
    // Header directly precedes Buffer: header and content go out as one
    // contiguous packet.
    UCHAR Header[PPP_HEADER_SIZE];
    UCHAR Buffer[PPP_DEFRAMER_BUFFER_SIZE];
    PUCHAR WritePtr; // next byte to write; while submitting, next byte to send
    PUCHAR End;      // Buffer + PPP_DEFRAMER_BUFFER_SIZE
    // Content bytes collected; while submitting, packet bytes (header
    // included) not yet sent.
    ULONG Count;
    ULONG Sequence; // the low 5 bits number the next packet
};

static_assert(offsetof(PPP_DEFRAMER, Buffer) == offsetof(PPP_DEFRAMER, Header) + PPP_HEADER_SIZE,
              "a packet goes out from Header through the content in one piece");

extern const USHORT PppFcsTable[256];

// Continues an FCS over Length bytes (start with PPP_FCS_INITIAL, complement
// the result before sending it low byte first).
USHORT PppFcs16(USHORT Fcs, const UCHAR* Data, ULONG Length);

void PppSetSpecialChars(PPPP_FRAMER Framer, const UCHAR* Chars, ULONG Count);
void PppFramerInit(PPPP_FRAMER Framer, PDEVICE Device);
// Returns the number of leading bytes accepted; the caller offers the rest
// again later.
ULONG PppFramerIndicateBuffer(PPPP_FRAMER Framer, const UCHAR* Data, ULONG Length);
// FALSE only when a finished frame could not be delivered completely; the
// byte is then not consumed.
BOOLEAN PppFramerIndicateChar(PPPP_FRAMER Framer, UCHAR Byte);

void PppDeFramerInit(PPPP_DEFRAMER DeFramer, PDEVICE Device);
// FALSE when a finished packet still waits for a send packet; the caller
// keeps the byte and offers it again.
BOOLEAN PppDeFramerSendChar(PPPP_DEFRAMER DeFramer, UCHAR Byte);
// The same for a span: returns the number of leading bytes taken; the byte
// after them, if any, was refused as PppDeFramerSendChar refuses one.
ULONG PppDeFramerSendBuffer(PPPP_DEFRAMER DeFramer, const UCHAR* Data, ULONG Length);
// Sends a waiting packet, if any.
void PppDeFramerSubmitBuffer(PPPP_DEFRAMER DeFramer);
