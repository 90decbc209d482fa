// Work items: how code at DISPATCH_LEVEL (completion routines, DPCs, timer
// callbacks) gets a function of the driver run at PASSIVE_LEVEL, serialised
// with the other work items, Plug and Play requests and opens of the same
// device.
//
// Environment: WorkerQueue up to DISPATCH_LEVEL; _WorkerFuntion at
// PASSIVE_LEVEL in the system worker thread.
// Locks: _WorkerFuntion holds DEVICE.DeviceMutex exactly while the work
// function runs; the IRP is completed and the device reference dropped after
// the mutex is released. RefCount changes only by interlocked operations.
#define TRACE_FILE "source/cdcacm/worker"
#include "cdcacm.h"

// Takes a device reference unless the count has reached 0. The test and the
// increment are one interlocked step: apart, a last reference dropped between
// them would let work be queued for a device that is being deleted.
static LONG IncRefUnlessDeleted(PDEVICE Dev) {
    for (;;) {
        LONG Count = Dev->RefCount;
        if (Count == 0)
            return 0;
        if (InterlockedCompareExchange(&Dev->RefCount, Count + 1, Count) == Count)
            return Count + 1;
    }
}

BOOLEAN WorkerQueue(PDEVICE Dev, WORKER_FUNCTION Function, PVOID Context, PIRP Irp) {
    // A device whose references are all gone is being deleted.
    if (Dev->RefCount == 0)
        return FALSE;

    PIO_WORKITEM WorkItem = IoAllocateWorkItem(Dev->Port.DeviceObject);
    PWORKER_REC Rec = (PWORKER_REC)MemAlloc(sizeof(WORKER_REC), WORKER_REC_TAG);
    if (WorkItem == NULL || Rec == NULL) {
        if (WorkItem != NULL)
            IoFreeWorkItem(WorkItem);
        if (Rec != NULL)
            MemFree(Rec);
        return FALSE;
    }
    LONG Count = IncRefUnlessDeleted(Dev);
    if (Count == 0) {
        IoFreeWorkItem(WorkItem);
        MemFree(Rec);
        return FALSE;
    }
    if (Irp != NULL)
        IoMarkIrpPending(Irp);

    Rec->Device = Dev;
    Rec->WorkItem = WorkItem;
    Rec->Function = Function;
    Rec->Context = Context;
    Rec->Irp = Irp;
    TRACE(TL_REF, "%P:%S:IncRef: %i, %s(%d)\n", DEV_PORT_NAME(Dev), Count, TRACE_FILE, __LINE__);
    IoQueueWorkItem(WorkItem, _WorkerFuntion, DelayedWorkQueue, Rec);
    return TRUE;
}

VOID NTAPI _WorkerFuntion(PDEVICE_OBJECT DeviceObject, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    PWORKER_REC Rec = (PWORKER_REC)Context;
    PDEVICE Dev = Rec->Device;
    // The port name is read now: the last reference may go below.
    WCHAR PortName[PORT_NAME_COPY_CHARS];
    CopyPortName(Dev, PortName);
    TRACE(TL_DETAIL, "%P:%S:[_WorkerFuntion\n", PortName);

    // clang-format off
    TRACE_ASSERT(KeGetCurrentIrql() == PASSIVE_LEVEL);
    // clang-format on
    KeWaitForSingleObject(&Dev->DeviceMutex, Executive, KernelMode, FALSE, NULL);
    NTSTATUS Status = Rec->Function(Rec->Context);
    // clang-format off
    TRACE_ASSERT(KeGetCurrentIrql() == PASSIVE_LEVEL);
    // clang-format on
    KeReleaseMutex(&Dev->DeviceMutex, FALSE);

    PIRP Irp = Rec->Irp;
    IoFreeWorkItem(Rec->WorkItem);
    MemFree(Rec);
    TRACE(TL_DETAIL, "%P:%S:_WorkerFuntion after free\n", PortName);

    if (Irp != NULL) {
        TRACE(TL_DETAIL, "%P:%S:_WorkerFuntion complete \n", PortName);
        Irp->IoStatus.Status = Status;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }

    TRACE(TL_DETAIL, "%P:%S:_WorkerFuntion DEL_REF \n", PortName);
    DEVICE_RELEASE(Dev);
    TRACE(TL_DETAIL, "%P:%S:]_WorkerFuntion\n", PortName);
}
