// Trace output and the assertion convention: a printf-like formatter with
// conversions of its own, a hex dump, and the global mask that selects
// which messages are produced. Assertions print and never halt.
//
// Environment: any IRQL up to DISPATCH_LEVEL.
// Locks: TraceLock serialises formatting and output into TraceBuffer; it is
// innermost and may be taken under any other driver lock.
#pragma once

#include "platform.h"

#include <stdarg.h>

// TraceMask bits: each gates the messages of one kind.
#define TL_ASSERT 0x1        // assertion failures, double completion
#define TL_ERROR 0x2         // errors and failures
#define TL_INFO 0x4          // informational steps
#define TL_PNP 0x8           // Plug and Play and system-control dispatch
#define TL_LIFECYCLE 0x10    // entry and exit of lifecycle routines
#define TL_HUB 0x20          // hub node information
#define TL_OPEN 0x40         // open, cleanup and close dispatch
#define TL_IOCTL 0x80        // serial and internal I/O controls, device power states
#define TL_RW 0x100          // read and write dispatch and completion
#define TL_PNP_DOWN 0x200    // Plug and Play IRPs passed down
#define TL_USBCFG 0x400      // USB configuration
#define TL_WAIT 0x800        // wait-on-mask events, completion DPC
#define TL_BULK_DUMP 0x1000  // length and dump of each bulk transfer
#define TL_REF 0x2000        // device reference counting
#define TL_RCV 0x4000        // receive path
#define TL_SND 0x8000        // USB submission, control requests, send path, time modes
#define TL_MODEM 0x20000     // driver entry, modem status, control lines
#define TL_SERPORT 0x40000   // serial port object
#define TL_PPP 0x80000       // PPP mode, framer and deframer
#define TL_CTS 0x100000      // CTS flow control, write time-outs
#define TL_DETAIL 0x80000000 // receive-queue details, work items, read dumps

#define TRACE_BUFFER_SIZE 2048

extern ULONG TraceMask;

void TraceInit(void);
void TraceSetMask(ULONG Mask);
void TracePrint(const char* Format, ...);
void TraceOutput(const char* Text);
void TraceDump(const void* Data, ULONG Length);
// Formats into Output, never past OutputEnd - 1, and always NUL-terminates.
void TraceFormat(char* Output, char* OutputEnd, const char* Format, va_list Arguments);

// A message gated by one TraceMask bit. Every module defines TRACE_FILE (its
// source path) before including this header; assertions report it.
#define TRACE(Bit, ...)                                                                            \
    do {                                                                                           \
        if (TraceMask & (Bit))                                                                     \
            TracePrint(__VA_ARGS__);                                                               \
    } while (0)

#define TRACE_ASSERT(Cond)                                                                         \
    do {                                                                                           \
        if (!(Cond) && (TraceMask & TL_ASSERT))                                                    \
            TracePrint("\n%P:ASSERTION FAILED: (" #Cond ")\n  %s(%d)\n", TRACE_FILE, __LINE__);    \
    } while (0)
