// Synchronous USB submission: internal device controls and URBs sent down
// the device stack and waited for with a time-out, and the class and vendor
// control requests built from a USB_CTRL_REQUEST.
//
// Records: USB_CTRL_REQUEST is built by the caller, usually on its stack,
// and read only for the duration of the request.
//
// Environment: PASSIVE_LEVEL.
// Locks: none.
#pragma once

#include "forward.h"

// Type takes BMREQUEST_CLASS or BMREQUEST_VENDOR, Recipient one of
// BMREQUEST_TO_DEVICE, _INTERFACE, _ENDPOINT or _OTHER.
struct _USB_CTRL_REQUEST {
    UCHAR Type;
    UCHAR Recipient;
    UCHAR ReservedBits; // request-type reserved bits of the setup packet
    UCHAR Request;      // bRequest
    USHORT Value;       // wValue
    USHORT Index;       // wIndex
};
