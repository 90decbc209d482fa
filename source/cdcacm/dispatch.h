// Dispatch routines for read, write, the serial I/O controls, open,
// cleanup, close and system control, and the completion of serial-port
// requests.
//
// Environment: dispatch routines at PASSIVE_LEVEL; CompleteRequest up to
// DISPATCH_LEVEL.
// Locks: CompleteRequest runs with the device lock held by its caller; it
// hands the IRP to the deferred-completion queue instead of completing it.
#pragma once

#include "forward.h"

// Finishes a request whose Status and Length are set: counts its bytes,
// returns it to the request pool and queues its IRP for completion.
VOID CompleteRequest(PSER_REQUEST Request);
