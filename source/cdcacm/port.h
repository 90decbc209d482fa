// The port object's operations: its creation and deletion, the physical
// port's initialisation and the modem's re-initialisation, the system error
// log, resolving a device object to its DEVICE and PORT_OBJ, the CDC control
// requests for the serial settings, and the wait-on-mask events.
//
// Records: PORT_OBJ is defined in cdcacm.h, embedded in its DEVICE.
//
// Environment: GetDevAndPort at any IRQL; IndicateWaitEvent and
// CompleteWaitIrp up to DISPATCH_LEVEL; the control requests at
// PASSIVE_LEVEL.
// Locks: IndicateWaitEvent and CompleteWaitIrp run with the device lock
// held by their caller.
#pragma once

#include "forward.h"
#include "wdmkrnl.h"

// Either kind of the driver's device objects (the data port or the attach
// object) gives the same DEVICE and its embedded PORT_OBJ. Each out pointer
// may be null; nothing is written for a device object of another kind.
VOID GetDevAndPort(PDEVICE_OBJECT DeviceObject, PDEVICE* Dev, PPORT_OBJ* Port);

// Raises serial events (SERIAL_EV_* bits) for the wait-on-mask machinery:
// the masked ones complete the pending wait, or wait for the next one.
VOID IndicateWaitEvent(PPORT_OBJ WaitPort, ULONG Mask);
// Stops the wait-cancel timer and completes the pending wait IRP, if any,
// with Mask. The caller holds the device lock.
VOID CompleteWaitIrp(PPORT_OBJ Port, ULONG Mask);
// Callback of WaitCancelTimer (context: the DEVICE): completes a cancelled
// wait with mask 0.
TIMER_OBJ_CALLBACK DelayWaitCancelFnc;

// The port object's life, at PASSIVE_LEVEL: CreatePort builds the request
// pool, both request queues and the serial port on the named data port
// (whose DO_DEVICE_INITIALIZING it clears); DeletePort releases whatever a
// whole or half-built port holds.
NTSTATUS CreatePort(PDEVICE Dev, PPORT_OBJ Port);
VOID DeletePort(PPORT_OBJ Port);
// Sends the control lines, takes over the received modem status and, with
// ResetPipes, resets the three pipes; a failure is written to the error log.
NTSTATUS InitPort(PDEVICE Dev, BOOLEAN ResetPipes);

// Re-initialisation of the whole modem after USB errors, at start and after
// power-up. Reinit runs at PASSIVE_LEVEL as a work item (always
// STATUS_SUCCESS; failures retry through ReinitTimer, 500 ms apart, at most
// four times); ScheduleReinit queues it, at most two at a time, up to
// DISPATCH_LEVEL. Every run of Reinit gives back one ReinitPending count, so
// a caller that runs it directly takes one first.
NTSTATUS Reinit(PDEVICE Dev);
VOID ScheduleReinit(PDEVICE Dev);
TIMER_OBJ_CALLBACK ReinitTimerFnc;

// The system error log. Messages are ANSI; at most 51 characters reach the
// entry.
#define LOG_ERROR_CODE 0xE0070003 // severity error, customer, facility 7, code 3
VOID LogError(PVOID IoObject, ULONG ErrorCode, const char* Message);
VOID LogNoMemory(PVOID IoObject, ULONG ErrorCode);

// Characters of a port name kept by CopyPortName, terminator included.
#define PORT_NAME_COPY_CHARS 32
// Copies the port name (cut to fit), so that a trace after the last
// reference has gone does not read the device's memory.
VOID CopyPortName(PDEVICE Dev, WCHAR* Copy);
// Dest = Prefix (optional) + Base + Number in decimal; Dest's buffer and
// maximum length are the caller's. A part that does not fit is left out.
VOID BuildNumberedName(PUNICODE_STRING Dest, PCWSTR Prefix, PCWSTR Base, ULONG Number);

// Bits of DEVICE.PcStatus, the wValue of SET_CONTROL_LINE_STATE.
#define PC_STATUS_DTR 0x01
#define PC_STATUS_RTS 0x02

// CDC class requests and the modem's vendor requests for PPP framing.
#define CDC_SET_LINE_CODING 0x20
#define CDC_SET_CONTROL_LINE_STATE 0x22
#define CDC_SEND_BREAK 0x23
#define VENDOR_GET_SPECIAL_CHARS 0x60
#define VENDOR_START_FRAMING 0x61
#define VENDOR_STOP_FRAMING 0x62
#define CDC_LINE_CODING_BYTES 7
#define PPP_SPECIAL_CHARS_BYTES 256

// The control requests, at PASSIVE_LEVEL under DeviceMutex (one control
// IRP per device); each returns the status of its request. The DTR and RTS
// operations change PcStatus first, whatever the request's result.
NTSTATUS SetPcStatus(PDEVICE Dev);
NTSTATUS SetDTR(PDEVICE Dev);
NTSTATUS ClrDTR(PDEVICE Dev);
NTSTATUS SetRTS(PDEVICE Dev);
NTSTATUS ClrRTS(PDEVICE Dev);
NTSTATUS SendBreak(PDEVICE Dev, BOOLEAN On);
NTSTATUS SendBreakOn(PDEVICE Dev);
NTSTATUS SendBreakOff(PDEVICE Dev);
NTSTATUS SendLineCoding(PDEVICE Dev);
// Reads the modem's special characters into the PPP framer's escape table
// (taking the device lock for that moment).
NTSTATUS GetSpecialChars(PDEVICE Dev);
NTSTATUS StartFraming(PDEVICE Dev);
NTSTATUS StopFraming(PDEVICE Dev);
// Copies the current modem status (SERIAL_MSR_* line bits); sends nothing.
VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus);
