// The driver's one platform header: the WDK on Windows, the emulated kernel
// and USB stack on the host. Driver code never needs #ifdef beyond this file.
#pragma once

#ifdef _WIN32
// mingw-w64's intrin.h and the DDK's wdm.h both define these two; keep the DDK's.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#include <ntddk.h>
// The USB headers declare the USBD library without C linkage.
extern "C" {
#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>
}
#include <ntddser.h>
// A UTF-16 literal: L"..." is 16-bit on Windows.
#define WSTR(s) L##s
// Structure sizes the driver relies on in the x86 kernel.
static_assert(sizeof(IRP) == 112, "IRP is 112 bytes on x86");
static_assert(sizeof(IO_STACK_LOCATION) == 36, "IO_STACK_LOCATION is 36 bytes on x86");
static_assert(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST) == 80, "class/vendor URB");
static_assert(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST) == 80, "descriptor URB");
static_assert(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER) == 72, "bulk URB");
static_assert(sizeof(struct _URB_PIPE_REQUEST) == 24, "pipe request URB");
static_assert(sizeof(struct _URB_SELECT_CONFIGURATION) == 60, "deselecting URB");
#ifndef PAGED_CODE
#define PAGED_CODE()
#endif
#else
#include "hostkernel/wdk.h"
#include "hostusb/usb.h"
#define WSTR(s) u##s
#endif
