// Work items: runs a function of the driver at PASSIVE_LEVEL in a system
// worker thread on behalf of a device, one at a time per device under its
// DeviceMutex, and optionally completes an IRP with the function's status.
//
// Records: one WORKER_REC per queued work item, allocated by WorkerQueue and
// freed by _WorkerFuntion; while it exists it holds one DEVICE reference.
//
// Environment: WorkerQueue up to DISPATCH_LEVEL; _WorkerFuntion at
// PASSIVE_LEVEL in the system worker thread.
// Locks: _WorkerFuntion holds DEVICE.DeviceMutex while the function runs.
#pragma once

#include "forward.h"

#define WORKER_REC_TAG 0x316B7277 // 'wrk1'

typedef NTSTATUS (*WORKER_FUNCTION)(PVOID Context);

typedef struct _WORKER_REC {
    PDEVICE Device;
    PIO_WORKITEM WorkItem; // allocated for the data port's device object
    WORKER_FUNCTION Function;
    PVOID Context;
    PIRP Irp; // completed with the function's status, or NULL
} WORKER_REC, *PWORKER_REC;

// TRUE when the work item was queued; an IRP given is then marked pending and
// completed later. FALSE: nothing was queued and the IRP was not touched.
BOOLEAN WorkerQueue(PDEVICE Dev, WORKER_FUNCTION Function, PVOID Context, PIRP Irp);
IO_WORKITEM_ROUTINE _WorkerFuntion;
