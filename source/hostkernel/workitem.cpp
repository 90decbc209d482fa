// Work items: queued onto the system worker thread, which runs them in
// order at PASSIVE_LEVEL. A queued work item holds a reference on its device
// object, so the device survives IoDeleteDevice until the item has run, and
// must not end owning a mutex.
#include "hostkernel/checks.h"
#include "hostkernel/iomgr.h"
#include "hostkernel/scheduler.h"
#include "hostkernel/timeline.h"

#include <cstdlib>

using namespace hk;
using namespace hk::detail;

struct _IO_WORKITEM {
    PDEVICE_OBJECT DeviceObject;
    bool queued;
};

void hk::detail::IoManager::FreeWorkItemBlock(PIO_WORKITEM item) {
    work_items.erase(item);
    ExFreePoolWithTag(item, kWorkItemTag);
}

static bool KnownWorkItem(const char* call, PIO_WORKITEM item) {
    if (Io().work_items.count(item))
        return true;
    std::fprintf(stderr, "hostkernel: %s on %p, which is not an allocated work item\n", call,
                 static_cast<void*>(item));
    std::abort();
}

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    CheckIoIrql("IoAllocateWorkItem", DISPATCH_LEVEL);
    if (!Io().FindDevice(DeviceObject)) {
        std::fprintf(stderr, "hostkernel: IoAllocateWorkItem for %p, which is not a device\n",
                     static_cast<void*>(DeviceObject));
        std::abort();
    }
    auto item = static_cast<PIO_WORKITEM>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(IO_WORKITEM), kWorkItemTag));
    if (!item)
        return nullptr;
    item->DeviceObject = DeviceObject;
    item->queued = false;
    Io().work_items.insert(item);
    return item;
}

void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                     WORK_QUEUE_TYPE QueueType, PVOID Context) {
    Sched().PreemptionPoint();
    UNREFERENCED_PARAMETER(QueueType); // the system workers serve every queue alike
    CheckIoIrql("IoQueueWorkItem", DISPATCH_LEVEL);
    KnownWorkItem("IoQueueWorkItem", IoWorkItem);
    if (IoWorkItem->queued) {
        Kernel::Current().verifier().Violation(rule::kWorkItemMisuse,
                                               "a work item was queued again before it ran");
        return;
    }
    IoWorkItem->queued = true;
    PDEVICE_OBJECT device = IoWorkItem->DeviceObject;
    ObReferenceObject(device);
    Kernel::Current().QueueSystemWork([IoWorkItem, WorkerRoutine, Context, device] {
        IoWorkItem->queued = false;
        Timeline* timeline = Kernel::Current().timeline();
        if (timeline)
            timeline->Begin("work item " +
                                Timeline::Symbol(reinterpret_cast<const void*>(WorkerRoutine)),
                            "work item");
        WorkerRoutine(device, Context); // may free the work item
        if (timeline)
            timeline->End();
        CheckNoMutexHeld("a work item", false);
        ObDereferenceObject(device);
    });
}

void IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    KnownWorkItem("IoFreeWorkItem", IoWorkItem);
    if (IoWorkItem->queued) {
        Kernel::Current().verifier().Violation(rule::kWorkItemMisuse,
                                               "a work item was freed while still queued");
        return;
    }
    Io().FreeWorkItemBlock(IoWorkItem);
}
