// PPP framer and deframer.
//
// The framer (device to host) parses modem packets from the bulk-in pipe,
// checks magic and sequence, and builds an HDLC frame (flag, escaped
// content, escaped FCS, flag) that it hands to the serial port's receive
// path. The deframer (host to device) takes the host's bytes, strips flags
// and escapes, and sends each complete frame as one modem packet through the
// send engine.
//
// Both are byte-at-a-time state machines fed whole spans: a frame's content,
// nearly every byte, runs in one loop over the span with the state in locals
// (write pointer, FCS, escape), written back once; every other state takes
// its byte through the per-byte routine.
//
// Environment: DISPATCH_LEVEL, called by the receive engine and by the
// serial port's send pass.
// Locks: none taken here. The caller holds the device spin lock
// (DEVICE.Lock), which protects PPP_FRAMER and PPP_DEFRAMER.
#define TRACE_FILE "source/cdcacm/ppp_frame"
#include "cdcacm.h"

// The 16-bit FCS of RFC 1662: reflected polynomial 0x8408, one entry per
// byte value.
const USHORT PppFcsTable[256] = {
    0x0000, 0x1189, 0x2312, 0x329b, 0x4624, 0x57ad, 0x6536, 0x74bf, 0x8c48, 0x9dc1, 0xaf5a, 0xbed3,
    0xca6c, 0xdbe5, 0xe97e, 0xf8f7, 0x1081, 0x0108, 0x3393, 0x221a, 0x56a5, 0x472c, 0x75b7, 0x643e,
    0x9cc9, 0x8d40, 0xbfdb, 0xae52, 0xdaed, 0xcb64, 0xf9ff, 0xe876, 0x2102, 0x308b, 0x0210, 0x1399,
    0x6726, 0x76af, 0x4434, 0x55bd, 0xad4a, 0xbcc3, 0x8e58, 0x9fd1, 0xeb6e, 0xfae7, 0xc87c, 0xd9f5,
    0x3183, 0x200a, 0x1291, 0x0318, 0x77a7, 0x662e, 0x54b5, 0x453c, 0xbdcb, 0xac42, 0x9ed9, 0x8f50,
    0xfbef, 0xea66, 0xd8fd, 0xc974, 0x4204, 0x538d, 0x6116, 0x709f, 0x0420, 0x15a9, 0x2732, 0x36bb,
    0xce4c, 0xdfc5, 0xed5e, 0xfcd7, 0x8868, 0x99e1, 0xab7a, 0xbaf3, 0x5285, 0x430c, 0x7197, 0x601e,
    0x14a1, 0x0528, 0x37b3, 0x263a, 0xdecd, 0xcf44, 0xfddf, 0xec56, 0x98e9, 0x8960, 0xbbfb, 0xaa72,
    0x6306, 0x728f, 0x4014, 0x519d, 0x2522, 0x34ab, 0x0630, 0x17b9, 0xef4e, 0xfec7, 0xcc5c, 0xddd5,
    0xa96a, 0xb8e3, 0x8a78, 0x9bf1, 0x7387, 0x620e, 0x5095, 0x411c, 0x35a3, 0x242a, 0x16b1, 0x0738,
    0xffcf, 0xee46, 0xdcdd, 0xcd54, 0xb9eb, 0xa862, 0x9af9, 0x8b70, 0x8408, 0x9581, 0xa71a, 0xb693,
    0xc22c, 0xd3a5, 0xe13e, 0xf0b7, 0x0840, 0x19c9, 0x2b52, 0x3adb, 0x4e64, 0x5fed, 0x6d76, 0x7cff,
    0x9489, 0x8500, 0xb79b, 0xa612, 0xd2ad, 0xc324, 0xf1bf, 0xe036, 0x18c1, 0x0948, 0x3bd3, 0x2a5a,
    0x5ee5, 0x4f6c, 0x7df7, 0x6c7e, 0xa50a, 0xb483, 0x8618, 0x9791, 0xe32e, 0xf2a7, 0xc03c, 0xd1b5,
    0x2942, 0x38cb, 0x0a50, 0x1bd9, 0x6f66, 0x7eef, 0x4c74, 0x5dfd, 0xb58b, 0xa402, 0x9699, 0x8710,
    0xf3af, 0xe226, 0xd0bd, 0xc134, 0x39c3, 0x284a, 0x1ad1, 0x0b58, 0x7fe7, 0x6e6e, 0x5cf5, 0x4d7c,
    0xc60c, 0xd785, 0xe51e, 0xf497, 0x8028, 0x91a1, 0xa33a, 0xb2b3, 0x4a44, 0x5bcd, 0x6956, 0x78df,
    0x0c60, 0x1de9, 0x2f72, 0x3efb, 0xd68d, 0xc704, 0xf59f, 0xe416, 0x90a9, 0x8120, 0xb3bb, 0xa232,
    0x5ac5, 0x4b4c, 0x79d7, 0x685e, 0x1ce1, 0x0d68, 0x3ff3, 0x2e7a, 0xe70e, 0xf687, 0xc41c, 0xd595,
    0xa12a, 0xb0a3, 0x8238, 0x93b1, 0x6b46, 0x7acf, 0x4854, 0x59dd, 0x2d62, 0x3ceb, 0x0e70, 0x1ff9,
    0xf78f, 0xe606, 0xd49d, 0xc514, 0xb1ab, 0xa022, 0x92b9, 0x8330, 0x7bc7, 0x6a4e, 0x58d5, 0x495c,
    0x3de3, 0x2c6a, 0x1ef1, 0x0f78,
};

// Bytes of a finished frame shown in the PPP trace.
#define PPP_TRACE_DUMP_BYTES 64

USHORT PppFcs16(USHORT Fcs, const UCHAR* Data, ULONG Length) {
    while (Length-- != 0)
        Fcs = (USHORT)((Fcs >> 8) ^ PppFcsTable[(Fcs ^ *Data++) & 0xFF]);
    return Fcs;
}

void PppSetSpecialChars(PPPP_FRAMER Framer, const UCHAR* Chars, ULONG Count) {
    RtlZeroMemory(Framer->EscapeTable, sizeof(Framer->EscapeTable));
    for (ULONG i = 0; i < Count; i++)
        Framer->EscapeTable[Chars[i]] = 1;
    Framer->EscapeTable[PPP_ESCAPE] = 1;
    Framer->EscapeTable[PPP_FLAG] = 1;
}

void PppFramerInit(PPPP_FRAMER Framer, PDEVICE Device) {
    Framer->Device = Device;
    Framer->State = PPP_FRAMER_HUNT;
    Framer->Count = 0;
    Framer->Sequence = 0;
    Framer->WritePtr = Framer->Buffer;
}

static void PppFramerStoreChar(PPPP_FRAMER Framer, UCHAR c) {
    if (Framer->EscapeTable[c]) {
        *Framer->WritePtr++ = PPP_ESCAPE;
        *Framer->WritePtr++ = (UCHAR)(c ^ PPP_ESCAPE_XOR);
    } else {
        TRACE_ASSERT(c!= 0x7d);
        TRACE_ASSERT(c!= 0x7e);
        *Framer->WritePtr++ = c;
    }
}

// Hands the rest of the finished frame to the serial port; TRUE once all of
// it has been taken.
static BOOLEAN PppFramerDeliver(PPPP_FRAMER Framer) {
    ULONG Taken = SndRcvIndicateData(Framer->Device, Framer->WritePtr, Framer->Count);
    if (Taken < Framer->Count) {
        Framer->WritePtr += Taken;
        Framer->Count -= Taken;
        return FALSE;
    }
    Framer->Count = 0;
    Framer->State = PPP_FRAMER_HUNT;
    return TRUE;
}

// The fourth header byte has arrived: check magic, sequence and length.
static void PppFramerCheckHeader(PPPP_FRAMER Framer) {
    PDEVICE Dev = Framer->Device;
    ULONG Magic = Framer->Header[0] + 256 * Framer->Header[1];
    if (Magic != PPP_MAGIC) {
        TRACE(TL_ERROR, "%P:%S:PppFramerIndicateChar invalid Magic:%x\n", DEV_PORT_NAME(Dev),
              Magic);
        Framer->State = PPP_FRAMER_RESYNC;
        return;
    }
    ULONG Word = 256 * Framer->Header[2] + Framer->Header[3];
    ULONG Sequence = Word >> PPP_SEQUENCE_SHIFT;
    ULONG Length = Word & PPP_LENGTH_MASK;
    if (Sequence != Framer->Sequence % PPP_SEQUENCE_MODULO) {
        TRACE(TL_ERROR, "%P:%S:PppFramerIndicateChar invalid Sequence: got:%d, exp:%d\n",
              DEV_PORT_NAME(Dev), Sequence, Framer->Sequence % PPP_SEQUENCE_MODULO);
        // The packet is dropped; the counter follows the device's numbering.
        Framer->Sequence = Sequence + 1;
        Framer->State = PPP_FRAMER_RESYNC;
        return;
    }
    Framer->Sequence++;
    // A packet without content has nothing to frame, and its count of
    // content bytes would underflow: it is skipped like a bad header, its
    // sequence number still counting.
    if (Length <= PPP_HEADER_SIZE) {
        TRACE(TL_ERROR, "%P:%S:PppFramerIndicateChar invalid Length:%d\n", DEV_PORT_NAME(Dev),
              Length);
        Framer->State = PPP_FRAMER_RESYNC;
        return;
    }
    Framer->WritePtr = Framer->Buffer;
    Framer->Count = Length - PPP_HEADER_SIZE;
    *Framer->WritePtr++ = PPP_FLAG;
    Framer->Fcs = PPP_FCS_INITIAL;
    Framer->State = PPP_FRAMER_CONTENT;
}

// The last content byte has been stored: close the frame and deliver it.
static void PppFramerFinishFrame(PPPP_FRAMER Framer) {
    PDEVICE Dev = Framer->Device;
    Framer->Fcs ^= 0xFFFF;
    PppFramerStoreChar(Framer, (UCHAR)(Framer->Fcs & 0xFF));
    PppFramerStoreChar(Framer, (UCHAR)(Framer->Fcs >> 8));
    *Framer->WritePtr++ = PPP_FLAG;
    Framer->Count = (ULONG)(Framer->WritePtr - Framer->Buffer);
    Framer->WritePtr = Framer->Buffer;
    Framer->State = PPP_FRAMER_DELIVER;
    if (TraceMask & TL_PPP) {
        // The length argument is passed but the format prints "%n" literally.
        TracePrint("%P:%S:Read DRV->PC: %n\n", DEV_PORT_NAME(Dev), Framer->Count);
        TraceDump(Framer->Buffer,
                  Framer->Count < PPP_TRACE_DUMP_BYTES ? Framer->Count : PPP_TRACE_DUMP_BYTES);
        if (Framer->Count > PPP_TRACE_DUMP_BYTES)
            TracePrint("...\n");
    }
    PppFramerDeliver(Framer);
}

BOOLEAN PppFramerIndicateChar(PPPP_FRAMER Framer, UCHAR Byte) {
    switch (Framer->State) {
    case PPP_FRAMER_HUNT:
    case PPP_FRAMER_RESYNC:
        if (Byte == PPP_MAGIC_LO) {
            Framer->State = PPP_FRAMER_HEADER;
            Framer->WritePtr = Framer->Header;
            Framer->Count = PPP_HEADER_SIZE;
            return PppFramerIndicateChar(Framer, Byte);
        }
        if (Framer->State == PPP_FRAMER_HUNT) {
            TRACE(TL_ERROR, "%P:%S:PppFramerIndicateChar unexpected magic_lo:%x\n",
                  DEV_PORT_NAME(Framer->Device), Byte);
            Framer->State = PPP_FRAMER_RESYNC;
        }
        return TRUE;
    case PPP_FRAMER_HEADER:
        *Framer->WritePtr++ = Byte;
        if (--Framer->Count == 0)
            PppFramerCheckHeader(Framer);
        return TRUE;
    case PPP_FRAMER_CONTENT:
        PppFramerStoreChar(Framer, Byte);
        Framer->Fcs = PppFcs16(Framer->Fcs, &Byte, 1);
        if (--Framer->Count == 0)
            PppFramerFinishFrame(Framer);
        return TRUE;
    case PPP_FRAMER_DELIVER:
        if (!PppFramerDeliver(Framer))
            return FALSE;
        return PppFramerIndicateChar(Framer, Byte);
    default:
        TRACE_ASSERT(0);
        return TRUE;
    }
}

// The content of a packet, as far as the span holds it: each byte is
// escaped into Buffer and runs through the FCS. Returns the first byte not
// taken; the frame is finished (and delivered) after its last content byte.
static const UCHAR* PppFramerContent(PPPP_FRAMER Framer, const UCHAR* Data, const UCHAR* End) {
    ULONG Take = (ULONG)(End - Data);
    if (Take > Framer->Count)
        Take = Framer->Count;
    const UCHAR* Stop = Data + Take;
    const UCHAR* Escape = Framer->EscapeTable;
    PUCHAR Out = Framer->WritePtr;
    ULONG Fcs = Framer->Fcs;
    while (Data < Stop) {
        UCHAR c = *Data++;
        Fcs = (Fcs >> 8) ^ PppFcsTable[(Fcs ^ c) & 0xFF];
        // Without a branch on the escape, which random content mispredicts:
        // both bytes of an escape are written and the pointer advances by
        // one or two. The second byte of an unescaped one lands on the
        // buffer's slack and is overwritten by the next.
        ULONG Escaped = Escape[c] != 0;
        Out[0] = Escaped ? (UCHAR)PPP_ESCAPE : c;
        Out[1] = (UCHAR)(c ^ PPP_ESCAPE_XOR);
        Out += 1 + Escaped;
        if ((ULONG)((c == PPP_ESCAPE) | (c == PPP_FLAG)) > Escaped) {
            TRACE_ASSERT(c!= 0x7d);
            TRACE_ASSERT(c!= 0x7e);
        }
    }
    Framer->WritePtr = Out;
    Framer->Fcs = (USHORT)Fcs;
    Framer->Count -= Take;
    if (Framer->Count == 0)
        PppFramerFinishFrame(Framer);
    return Data;
}

ULONG PppFramerIndicateBuffer(PPPP_FRAMER Framer, const UCHAR* Data, ULONG Length) {
    const UCHAR* Next = Data;
    const UCHAR* End = Data + Length;
    while (Next < End) {
        if (Framer->State == PPP_FRAMER_CONTENT)
            Next = PppFramerContent(Framer, Next, End);
        else if (PppFramerIndicateChar(Framer, *Next))
            Next++;
        else
            break;
    }
    return (ULONG)(Next - Data);
}

// Starts the next packet: it takes the next sequence number.
static void PppDeFramerReset(PPPP_DEFRAMER DeFramer) {
    ULONG Word = (DeFramer->Sequence % PPP_SEQUENCE_MODULO) << PPP_SEQUENCE_SHIFT;
    DeFramer->WritePtr = DeFramer->Buffer;
    DeFramer->Header[0] = PPP_MAGIC & 0xFF;
    DeFramer->Header[1] = PPP_MAGIC >> 8;
    DeFramer->Header[2] = (UCHAR)(Word >> 8);
    DeFramer->Header[3] = (UCHAR)(Word & 0xFF);
    DeFramer->Sequence++;
    DeFramer->Count = 0;
}

void PppDeFramerInit(PPPP_DEFRAMER DeFramer, PDEVICE Device) {
    DeFramer->Device = Device;
    DeFramer->Sequence = 0;
    DeFramer->State = PPP_DEFRAMER_IN_FRAME;
    DeFramer->End = DeFramer->Buffer + PPP_DEFRAMER_BUFFER_SIZE;
    DeFramer->Count = 0;
    PppDeFramerReset(DeFramer);
}

// Sends as much of the packet as one send packet carries; TRUE when the
// whole packet has gone.
static BOOLEAN PppDeFramerSubmitData(PPPP_DEFRAMER DeFramer) {
    PDEVICE Dev = DeFramer->Device;
    PUCHAR Buffer;
    ULONG MaxLength;
    PUSB_PACKET Packet;
    if (!GetWriteBuffer(Dev, &Buffer, &MaxLength, &Packet))
        return FALSE;
    ULONG Length = DeFramer->Count < MaxLength ? DeFramer->Count : MaxLength;
    RtlCopyMemory(Buffer, DeFramer->WritePtr, Length);
    SubmitWriteBuffer(Dev, Buffer, Length, Packet);
    DeFramer->WritePtr += Length;
    DeFramer->Count -= Length;
    if (DeFramer->Count == 0)
        return TRUE;
    TRACE(TL_ERROR, "%P:%S:Incomplete write operation Count:%d, LengthBuffer:%d\n",
          DEV_PORT_NAME(Dev), DeFramer->Count, MaxLength);
    return FALSE;
}

// The collected content is dropped; the packet keeps the sequence number it
// was given, so the modem sees no gap for a frame it never received.
static void PppDeFramerDiscard(PPPP_DEFRAMER DeFramer) {
    DeFramer->WritePtr = DeFramer->Buffer;
    DeFramer->Count = 0;
}

static void PppDeFramerStoreChar(PPPP_DEFRAMER DeFramer, UCHAR c) {
    *DeFramer->WritePtr++ = c;
    DeFramer->Count++;
    if (DeFramer->WritePtr == DeFramer->End) {
        TRACE(TL_ERROR, "%P:%S:PppDeFramerSendChar PPP Frame to long, discard it\n",
              DEV_PORT_NAME(DeFramer->Device));
        PppDeFramerDiscard(DeFramer);
        DeFramer->State = PPP_DEFRAMER_HUNT;
    }
}

// A closing flag after content: send the frame as one modem packet.
static void PppDeFramerFinishFrame(PPPP_DEFRAMER DeFramer) {
    PDEVICE Dev = DeFramer->Device;
    TRACE(TL_PPP, "%P:%S:PppDeFramerSendChar: DeFramer->Count: %d\n", DEV_PORT_NAME(Dev),
          DeFramer->Count);
    ULONG PacketLength = DeFramer->Count + PPP_HEADER_SIZE;
    // The 11-bit length field cannot describe a longer packet, and one sent
    // with a truncated length would desynchronise the modem's parser: such a
    // frame is dropped, and the closing flag opens the next frame as usual.
    if (PacketLength > PPP_LENGTH_MASK) {
        TRACE(TL_ERROR,
              "%P:%S:PppDeFramerSendChar PPP Frame of %d bytes too long for a packet, discard it\n",
              DEV_PORT_NAME(Dev), DeFramer->Count);
        PppDeFramerDiscard(DeFramer);
        return;
    }
    DeFramer->Header[2] |= (UCHAR)(PacketLength >> 8);
    DeFramer->Header[3] |= (UCHAR)(PacketLength & 0xFF);
    DeFramer->Count = PacketLength;
    DeFramer->WritePtr = DeFramer->Header;
    if (PppDeFramerSubmitData(DeFramer))
        PppDeFramerReset(DeFramer);
    else
        DeFramer->State = PPP_DEFRAMER_SUBMIT_PENDING;
}

BOOLEAN PppDeFramerSendChar(PPPP_DEFRAMER DeFramer, UCHAR Byte) {
    switch (DeFramer->State) {
    case PPP_DEFRAMER_HUNT:
        // The packet was already started (Reset) when the discarded frame
        // began, so its sequence number goes to the frame that opens here.
        if (Byte == PPP_FLAG)
            DeFramer->State = PPP_DEFRAMER_IN_FRAME;
        return TRUE;
    case PPP_DEFRAMER_IN_FRAME:
        if (Byte == PPP_ESCAPE)
            DeFramer->State = PPP_DEFRAMER_ESCAPE;
        else if (Byte == PPP_FLAG) {
            if (DeFramer->Count > 0)
                PppDeFramerFinishFrame(DeFramer);
        } else
            PppDeFramerStoreChar(DeFramer, Byte);
        return TRUE;
    case PPP_DEFRAMER_ESCAPE:
        DeFramer->State = PPP_DEFRAMER_IN_FRAME;
        PppDeFramerStoreChar(DeFramer, (UCHAR)(Byte ^ PPP_ESCAPE_XOR));
        return TRUE;
    case PPP_DEFRAMER_SUBMIT_PENDING:
        if (!PppDeFramerSubmitData(DeFramer))
            return FALSE;
        PppDeFramerReset(DeFramer);
        DeFramer->State = PPP_DEFRAMER_IN_FRAME;
        return PppDeFramerSendChar(DeFramer, Byte);
    default:
        TRACE_ASSERT(0);
        return TRUE;
    }
}

void PppDeFramerSubmitBuffer(PPPP_DEFRAMER DeFramer) {
    if (DeFramer->State != PPP_DEFRAMER_SUBMIT_PENDING || !PppDeFramerSubmitData(DeFramer))
        return;
    TRACE(TL_PPP, "%P:%S:PppDeFramerSubmitBuffer PppDeFramerSubmitData true\n",
          DEV_PORT_NAME(DeFramer->Device));
    PppDeFramerReset(DeFramer);
    DeFramer->State = PPP_DEFRAMER_IN_FRAME;
}

// A frame's bytes, as far as the span holds them, up to and including its
// closing flag: unescaped into Buffer. Returns the first byte not taken.
static const UCHAR* PppDeFramerCollect(PPPP_DEFRAMER DeFramer, const UCHAR* Data,
                                       const UCHAR* End) {
    PUCHAR Out = DeFramer->WritePtr;
    PUCHAR Last = DeFramer->End;
    // 1 after an escape byte: the next byte, whatever it is, is stored
    // XOR 0x20.
    ULONG AfterEscape = DeFramer->State == PPP_DEFRAMER_ESCAPE;
    while (Data < End) {
        // Out advances at most one byte per byte taken: within a run no
        // longer than the room left, only its last byte can fill Buffer.
        ULONG Run = (ULONG)(End - Data);
        if (Run > (ULONG)(Last - Out))
            Run = (ULONG)(Last - Out);
        const UCHAR* RunEnd = Data + Run;
        while (Data < RunEnd) {
            UCHAR c = *Data++;
            if (c == PPP_FLAG && !AfterEscape) {
                DeFramer->WritePtr = Out;
                DeFramer->Count = (ULONG)(Out - DeFramer->Buffer);
                DeFramer->State = PPP_DEFRAMER_IN_FRAME;
                if (DeFramer->Count > 0)
                    PppDeFramerFinishFrame(DeFramer);
                return Data;
            }
            // Without a branch on the escape: an escape byte is written too
            // but not counted, and the next byte overwrites it.
            ULONG Escape = (ULONG)(c == PPP_ESCAPE) & (AfterEscape ^ 1);
            *Out = (UCHAR)(c ^ (AfterEscape * PPP_ESCAPE_XOR));
            Out += Escape ^ 1;
            AfterEscape = Escape;
        }
        if (Out == Last) {
            TRACE(TL_ERROR, "%P:%S:PppDeFramerSendChar PPP Frame to long, discard it\n",
                  DEV_PORT_NAME(DeFramer->Device));
            PppDeFramerDiscard(DeFramer);
            DeFramer->State = PPP_DEFRAMER_HUNT;
            return Data;
        }
    }
    DeFramer->WritePtr = Out;
    DeFramer->Count = (ULONG)(Out - DeFramer->Buffer);
    DeFramer->State = AfterEscape ? PPP_DEFRAMER_ESCAPE : PPP_DEFRAMER_IN_FRAME;
    return Data;
}

ULONG PppDeFramerSendBuffer(PPPP_DEFRAMER DeFramer, const UCHAR* Data, ULONG Length) {
    const UCHAR* Next = Data;
    const UCHAR* End = Data + Length;
    while (Next < End) {
        if (DeFramer->State == PPP_DEFRAMER_IN_FRAME || DeFramer->State == PPP_DEFRAMER_ESCAPE)
            Next = PppDeFramerCollect(DeFramer, Next, End);
        else if (PppDeFramerSendChar(DeFramer, *Next))
            Next++;
        else
            break;
    }
    return (ULONG)(Next - Data);
}
