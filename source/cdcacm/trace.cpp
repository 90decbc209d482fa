// Trace output: the formatter with the driver's own conversions, the hex
// dump, and the mask that selects which messages are produced. Every line
// goes to the kernel debugger.
//
// Environment: any IRQL up to DISPATCH_LEVEL.
// Locks: TraceLock (spin lock) serialises every use of TraceBuffer, from
// formatting to DbgPrint. It is innermost: callers may hold any driver lock,
// and nothing else is taken while it is held.
#define TRACE_FILE "source/cdcacm/trace"
#include "cdcacm.h"

ULONG TraceMask = TL_ASSERT | TL_ERROR;
KSPIN_LOCK TraceLock;
char TraceBuffer[TRACE_BUFFER_SIZE];

static const char DumpDigits[] = "0123456789ABCDEF";
static const char LowerDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
static const char UpperDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Conversion flags.
#define FMT_LEFT 0x01      // '-'
#define FMT_ZEROPAD 0x02   // '0'
#define FMT_PLUS 0x04      // '+'
#define FMT_SPACE 0x08     // ' '
#define FMT_SPECIAL 0x10   // '#'
#define FMT_SIGNED 0x20    // %d, %i
#define FMT_UPPERCASE 0x40 // %X

#define FMT_UNSPECIFIED (-1)

// Longest digit string of a 64-bit value (octal).
#define MAX_NUMBER_DIGITS 22

// Where the formatter writes: Pos advances only while it is before Last, so
// the last position is overwritten by the excess and finally holds the NUL.
typedef struct _FMT_OUTPUT {
    char* Pos;
    char* Last;
} FMT_OUTPUT;

static void PutChar(FMT_OUTPUT* Out, char Char) {
    *Out->Pos = Char;
    if (Out->Pos < Out->Last)
        Out->Pos++;
}

static void PutRepeated(FMT_OUTPUT* Out, char Char, LONG Count) {
    for (LONG i = 0; i < Count; i++)
        PutChar(Out, Char);
}

// Writes the low bytes of Length characters, padded to Width with spaces;
// byte and 16-bit strings share it.
template <typename CHAR_TYPE>
static void PutPadded(FMT_OUTPUT* Out, const CHAR_TYPE* Text, LONG Length, LONG Width,
                      ULONG Flags) {
    if (!(Flags & FMT_LEFT))
        PutRepeated(Out, ' ', Width - Length);
    for (LONG i = 0; i < Length; i++)
        PutChar(Out, (char)(UCHAR)Text[i]);
    if (Flags & FMT_LEFT)
        PutRepeated(Out, ' ', Width - Length);
}

// Characters before the terminator, at most Limit (FMT_UNSPECIFIED: no limit).
template <typename CHAR_TYPE> static LONG BoundedLength(const CHAR_TYPE* Text, LONG Limit) {
    LONG Length = 0;
    while ((Limit == FMT_UNSPECIFIED || Length < Limit) && Text[Length] != 0)
        Length++;
    return Length;
}

static void PutNumber(FMT_OUTPUT* Out, ULONGLONG Value, ULONG Base, LONG Width, LONG Precision,
                      ULONG Flags) {
    const char* Digits = (Flags & FMT_UPPERCASE) ? UpperDigits : LowerDigits;

    if (Flags & FMT_LEFT)
        Flags &= ~FMT_ZEROPAD;

    // '+' and ' ' apply to signed conversions only, as '-' does.
    char Sign = 0;
    if (Flags & FMT_SIGNED) {
        if ((LONGLONG)Value < 0) {
            Sign = '-';
            Value = 0 - Value;
        } else if (Flags & FMT_PLUS) {
            Sign = '+';
        } else if (Flags & FMT_SPACE) {
            Sign = ' ';
        }
    }

    // The alternate form always carries its prefix, even for 0.
    LONG PrefixLength = 0;
    if (Flags & FMT_SPECIAL) {
        if (Base == 8)
            PrefixLength = 1;
        else if (Base == 16)
            PrefixLength = 2;
    }

    char Reversed[MAX_NUMBER_DIGITS];
    LONG DigitCount = 0;
    do {
        Reversed[DigitCount++] = Digits[Value % Base];
        Value /= Base;
    } while (Value != 0);

    if (Precision < DigitCount)
        Precision = DigitCount;
    LONG Fill = Width - Precision - PrefixLength - (Sign ? 1 : 0);

    if (!(Flags & (FMT_LEFT | FMT_ZEROPAD)))
        PutRepeated(Out, ' ', Fill);
    if (Sign)
        PutChar(Out, Sign);
    if (PrefixLength != 0) {
        PutChar(Out, '0');
        if (Base == 16)
            PutChar(Out, (Flags & FMT_UPPERCASE) ? 'X' : 'x');
    }
    if (Flags & FMT_ZEROPAD)
        PutRepeated(Out, '0', Fill);
    PutRepeated(Out, '0', Precision - DigitCount);
    while (DigitCount > 0)
        PutChar(Out, Reversed[--DigitCount]);
    if (Flags & FMT_LEFT)
        PutRepeated(Out, ' ', Fill);
}

// Exactly DigitCount uppercase hex digits of Value (its low bits): the fixed
// conversions %B, %W, %D and %Q ignore width, precision and flags.
static void PutFixedHex(FMT_OUTPUT* Out, ULONGLONG Value, LONG DigitCount) {
    for (LONG Shift = (DigitCount - 1) * 4; Shift >= 0; Shift -= 4)
        PutChar(Out, DumpDigits[(Value >> Shift) & 0xF]);
}

// Reads a decimal field, saturating at Limit so a huge width cannot overflow.
static LONG ParseDecimal(const char** Format, LONG Limit) {
    LONG Value = 0;
    while (**Format >= '0' && **Format <= '9') {
        Value = Value * 10 + (**Format - '0');
        if (Value > Limit)
            Value = Limit;
        (*Format)++;
    }
    return Value;
}

void TraceFormat(char* Output, char* OutputEnd, const char* Format, va_list Arguments) {
    if (Output >= OutputEnd)
        return;
    FMT_OUTPUT Out = {Output, OutputEnd - 1};
    // Widths and precisions beyond the output size change nothing visible;
    // capping them bounds every padding loop.
    const LONG SizeLimit = (LONG)(OutputEnd - Output);

    while (*Format != 0) {
        if (*Format != '%') {
            PutChar(&Out, *Format++);
            continue;
        }
        Format++;

        ULONG Flags = 0;
        for (;; Format++) {
            if (*Format == '-')
                Flags |= FMT_LEFT;
            else if (*Format == '0')
                Flags |= FMT_ZEROPAD;
            else if (*Format == '+')
                Flags |= FMT_PLUS;
            else if (*Format == ' ')
                Flags |= FMT_SPACE;
            else if (*Format == '#')
                Flags |= FMT_SPECIAL;
            else
                break;
        }

        LONG Width = FMT_UNSPECIFIED;
        if (*Format >= '0' && *Format <= '9') {
            Width = ParseDecimal(&Format, SizeLimit);
        } else if (*Format == '*') {
            Format++;
            LONG Argument = va_arg(Arguments, LONG);
            ULONG Magnitude = (ULONG)Argument;
            if (Argument < 0) {
                Flags |= FMT_LEFT;
                Magnitude = 0u - Magnitude;
            }
            Width = Magnitude > (ULONG)SizeLimit ? SizeLimit : (LONG)Magnitude;
        }

        LONG Precision = FMT_UNSPECIFIED;
        if (*Format == '.') {
            Format++;
            if (*Format == '*') {
                Format++;
                Precision = va_arg(Arguments, LONG);
                if (Precision < 0)
                    Precision = 0;
                if (Precision > SizeLimit)
                    Precision = SizeLimit;
            } else {
                Precision = ParseDecimal(&Format, SizeLimit);
            }
        }

        char Length = 0;
        if (*Format == 'h' || *Format == 'l' || *Format == 'L')
            Length = *Format++;

        ULONG Base = 10;
        switch (*Format) {
        case 'B':
            PutFixedHex(&Out, va_arg(Arguments, ULONG), 2);
            Format++;
            continue;
        case 'W':
            PutFixedHex(&Out, va_arg(Arguments, ULONG), 4);
            Format++;
            continue;
        case 'D':
            PutFixedHex(&Out, va_arg(Arguments, ULONG), 8);
            Format++;
            continue;
        case 'Q':
            PutFixedHex(&Out, va_arg(Arguments, ULONGLONG), 16);
            Format++;
            continue;
        case 'P':
            PutChar(&Out, 'A');
            PutChar(&Out, 'C');
            PutChar(&Out, 'M');
            Format++;
            continue;
        case 'c':
        case 'C': {
            char Char = (char)va_arg(Arguments, ULONG);
            PutPadded(&Out, &Char, 1, Width, Flags);
            Format++;
            continue;
        }
        case 's': {
            const char* Text = va_arg(Arguments, const char*);
            if (Text == NULL)
                Text = "<NULL>";
            PutPadded(&Out, Text, BoundedLength(Text, Precision), Width, Flags);
            Format++;
            continue;
        }
        case 'S': {
            const WCHAR* Text = va_arg(Arguments, const WCHAR*);
            if (Text == NULL)
                PutPadded(&Out, "<NULL>", BoundedLength("<NULL>", Precision), Width, Flags);
            else
                PutPadded(&Out, Text, BoundedLength(Text, Precision), Width, Flags);
            Format++;
            continue;
        }
        case 'U': {
            // A string without characters to read (no record, or no buffer)
            // prints as null.
            PCUNICODE_STRING String = va_arg(Arguments, PCUNICODE_STRING);
            if (String == NULL || String->Buffer == NULL)
                PutPadded(&Out, "<NULL>", 6, 0, 0);
            else
                PutPadded(&Out, String->Buffer, String->Length / 2, 0, 0);
            Format++;
            continue;
        }
        case 'p':
            if (Width == FMT_UNSPECIFIED) {
                Width = 8;
                Flags |= FMT_ZEROPAD;
            }
            PutNumber(&Out, (ULONG_PTR)va_arg(Arguments, PVOID), 16, Width, Precision, Flags);
            Format++;
            continue;
        case 'd':
        case 'i':
            Flags |= FMT_SIGNED;
            break;
        case 'u':
            break;
        case 'o':
            Base = 8;
            break;
        case 'X':
            Flags |= FMT_UPPERCASE;
            Base = 16;
            break;
        case 'x':
            Base = 16;
            break;
        case 0:
            // A '%' ending the format prints itself.
            PutChar(&Out, '%');
            continue;
        default:
            // Unknown conversions (and "%%") print '%' and the character.
            if (*Format != '%')
                PutChar(&Out, '%');
            PutChar(&Out, *Format++);
            continue;
        }
        Format++;

        // Numbers are 32-bit; 'h' cuts them to 16 bits.
        ULONG Raw = va_arg(Arguments, ULONG);
        ULONGLONG Value;
        if (Flags & FMT_SIGNED)
            Value = (ULONGLONG)(LONGLONG)(Length == 'h' ? (LONG)(SHORT)Raw : (LONG)Raw);
        else
            Value = Length == 'h' ? (USHORT)Raw : Raw;
        PutNumber(&Out, Value, Base, Width, Precision, Flags);
    }
    *Out.Pos = 0;
}

void TraceInit(void) {
    KeInitializeSpinLock(&TraceLock);
}

void TraceSetMask(ULONG Mask) {
    TraceMask = Mask;
}

void TraceOutput(const char* Text) {
    DbgPrint("%s", Text);
}

void TracePrint(const char* Format, ...) {
    KIRQL OldIrql;
    KeAcquireSpinLock(&TraceLock, &OldIrql);
    va_list Arguments;
    va_start(Arguments, Format);
    TraceFormat(TraceBuffer, TraceBuffer + TRACE_BUFFER_SIZE, Format, Arguments);
    va_end(Arguments);
    TraceOutput(TraceBuffer);
    KeReleaseSpinLock(&TraceLock, OldIrql);
}

// Hex dump line layout: offset at column 0, ':' at 4, the hex bytes from
// column 6 (an extra space after every fourth), the characters from 59.
#define DUMP_BYTES_PER_LINE 16
#define DUMP_LINE_BLANKS 80
#define DUMP_HEX_COLUMN 6
#define DUMP_CHAR_COLUMN 59

// Writes the line held in TraceBuffer, ending it after its last character.
static void DumpFlushLine(ULONG BytesOnLine) {
    char* End = TraceBuffer + DUMP_CHAR_COLUMN + BytesOnLine;
    End[0] = '\n';
    End[1] = 0;
    TraceOutput(TraceBuffer);
}

void TraceDump(const void* Data, ULONG Length) {
    const UCHAR* Bytes = (const UCHAR*)Data;
    KIRQL OldIrql;
    KeAcquireSpinLock(&TraceLock, &OldIrql);

    if (Length == 0)
        TraceOutput("<<NULL>>");

    for (ULONG i = 0; i < Length; i++) {
        ULONG Column = i % DUMP_BYTES_PER_LINE;
        if (Column == 0) {
            RtlFillMemory(TraceBuffer, DUMP_LINE_BLANKS, ' ');
            for (ULONG Digit = 0; Digit < 4; Digit++)
                TraceBuffer[Digit] = DumpDigits[(i >> ((3 - Digit) * 4)) & 0xF];
            TraceBuffer[4] = ':';
        }
        char* Hex = TraceBuffer + DUMP_HEX_COLUMN + Column * 3 + Column / 4;
        Hex[0] = DumpDigits[Bytes[i] >> 4];
        Hex[1] = DumpDigits[Bytes[i] & 0xF];
        TraceBuffer[DUMP_CHAR_COLUMN + Column] =
            (Bytes[i] < 32 || Bytes[i] >= 128) ? '.' : (char)Bytes[i];
        if (Column == DUMP_BYTES_PER_LINE - 1)
            DumpFlushLine(DUMP_BYTES_PER_LINE);
    }
    if (Length % DUMP_BYTES_PER_LINE != 0)
        DumpFlushLine(Length % DUMP_BYTES_PER_LINE);

    KeReleaseSpinLock(&TraceLock, OldIrql);
}
