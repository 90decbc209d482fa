// The emulated Plug and Play manager (see pnp.h).
#include "hostkernel/pnp.h"

#include "hostkernel/emu.h"
#include "hostkernel/iomgr.h"

namespace hk {

namespace {

struct Waiter {
    KEVENT done;
};

NTSTATUS NTAPI TakeBack(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(&static_cast<Waiter*>(context)->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

PnpAnswer PnpManager::Send(PDEVICE_OBJECT device, UCHAR minor,
                           const std::function<void(IO_STACK_LOCATION&)>& fill) {
    detail::CheckIoIrql("a PnP request", PASSIVE_LEVEL);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_PNP;
    next->MinorFunction = minor;
    if (fill)
        fill(*next);
    Waiter waiter;
    KeInitializeEvent(&waiter.done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, TakeBack, &waiter, TRUE, TRUE, TRUE);
    if (IoCallDriver(device, irp) == STATUS_PENDING)
        KeWaitForSingleObject(&waiter.done, Executive, KernelMode, FALSE, nullptr);
    PnpAnswer answer{irp->IoStatus.Status, irp->IoStatus.Information};
    IoFreeIrp(irp);
    return answer;
}

void PnpManager::InvalidateRelations(PDEVICE_OBJECT, DEVICE_RELATION_TYPE) {}

} // namespace hk

void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type) {
    hk::Kernel::Current().pnp().InvalidateRelations(DeviceObject, Type);
}
