// The application side of the I/O manager: file objects opened on a device
// and the IRPs a file handle produces, with the copy-back of buffered output
// when a request completes to its originator.
#include "hostkernel/iomgr.h"
#include "hostkernel/pnp.h"

#include "hostkernel/scheduler.h"

#include <algorithm>
#include <optional>
#include <cstdlib>

using namespace hk::detail;

namespace hk {

namespace {

bool IsError(NTSTATUS status) {
    return (ULONG(status) >> 30) == 3;
}

[[noreturn]] void Unsupported(const char* what) {
    std::fprintf(stderr, "hostkernel: %s is not emulated\n", what);
    std::abort();
}

} // namespace

PendingIo::PendingIo() {
    KeInitializeEvent(&event_, NotificationEvent, FALSE);
}

IoResult PendingIo::Wait() {
    if (!done_)
        KeWaitForSingleObject(&event_, UserRequest, UserMode, FALSE, nullptr);
    return result_;
}

File::~File() {
    if (!file_)
        return;
    if (!cleaned_up_)
        Cleanup();
    // As at the end of a process: the requests still pending are cancelled.
    for (auto& request : outstanding_)
        if (!request->Done())
            Cancel(*request);
    Close();
}

NTSTATUS File::Open(std::u16string_view name) {
    PDEVICE_OBJECT device = Io().Lookup(name);
    if (!device)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    return Open(device);
}

NTSTATUS File::Open(PDEVICE_OBJECT device) {
    if (file_)
        Unsupported("opening a File twice");
    DeviceInfo* info = Io().FindDevice(device);
    if (!info)
        Unsupported("opening something that is not a device object");
    if (info->delete_requested)
        return STATUS_DELETE_PENDING;
    // A device whose driver has not finished initialising it cannot be
    // opened by name, nor can a stack whose top is still initialising.
    if ((device->Flags | IoGetAttachedDevice(device)->Flags) & DO_DEVICE_INITIALIZING)
        return STATUS_NO_SUCH_DEVICE;
    if ((device->Flags & DO_EXCLUSIVE) && info->open_files != 0)
        return STATUS_ACCESS_DENIED;
    auto file = static_cast<PFILE_OBJECT>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(FILE_OBJECT), kFileTag));
    if (!file)
        return STATUS_INSUFFICIENT_RESOURCES;
    memset(file, 0, sizeof(FILE_OBJECT));
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->ReadAccess = file->WriteAccess = TRUE;
    ObReferenceObject(device);
    file_ = file;
    cleaned_up_ = false;
    NTSTATUS status = SendSimple(IRP_MJ_CREATE);
    if (!NT_SUCCESS(status)) {
        outstanding_.clear();
        file_ = nullptr;
        ExFreePoolWithTag(file, kFileTag);
        ObDereferenceObject(device);
        return status;
    }
    Io().FindDevice(device)->open_files++;
    return status;
}

std::shared_ptr<PendingIo> File::Send(UCHAR major, ULONG code, const void* input,
                                      ULONG input_length, ULONG output_length) {
    if (!file_)
        Unsupported("a request on a File that is not open");
    PDEVICE_OBJECT target = IoGetAttachedDevice(file_->DeviceObject);
    outstanding_.erase(std::remove_if(outstanding_.begin(), outstanding_.end(),
                                      [](const auto& request) { return request->Done(); }),
                       outstanding_.end());
    auto request = std::make_shared<PendingIo>();
    if (input && input_length)
        request->input_.assign(static_cast<const uint8_t*>(input),
                               static_cast<const uint8_t*>(input) + input_length);
    request->output_.assign(output_length, 0);

    PIRP irp;
    {
        // Cleanup and close do not fail for want of memory: a handle
        // always closes.
        std::optional<Pool::Exempt> exempt;
        if (major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE)
            exempt.emplace(Kernel::Current().pool());
        irp = IoAllocateIrp(target->StackSize, FALSE);
    }
    if (!irp) {
        request->result_ = {STATUS_INSUFFICIENT_RESOURCES, 0};
        request->done_ = true;
        return request;
    }
    auto info = Io().FindIrp(irp);
    info->origin = IrpOrigin::kFile;
    irp->RequestorMode = UserMode;
    irp->Tail.Overlay.Thread = KeGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = file_;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->FileObject = file_;

    bool buffered = false;
    ULONG buffer_length = 0;
    switch (major) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        if (major == IRP_MJ_READ)
            next->Parameters.Read.Length = output_length;
        else
            next->Parameters.Write.Length = input_length;
        if (target->Flags & DO_DIRECT_IO)
            Unsupported("direct I/O for reads and writes");
        buffered = (target->Flags & DO_BUFFERED_IO) != 0;
        buffer_length = std::max(input_length, output_length);
        irp->Flags =
            major == IRP_MJ_READ ? IRP_READ_OPERATION | IRP_INPUT_OPERATION : IRP_WRITE_OPERATION;
        irp->UserBuffer = major == IRP_MJ_READ ? request->output_.data() : request->input_.data();
        break;
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        next->Parameters.DeviceIoControl.IoControlCode = code;
        next->Parameters.DeviceIoControl.InputBufferLength = input_length;
        next->Parameters.DeviceIoControl.OutputBufferLength = output_length;
        if (METHOD_FROM_CTL_CODE(code) == METHOD_BUFFERED) {
            buffered = true;
            buffer_length = std::max(input_length, output_length);
            irp->Flags = output_length ? IRP_INPUT_OPERATION : 0;
        } else if (METHOD_FROM_CTL_CODE(code) == METHOD_NEITHER) {
            next->Parameters.DeviceIoControl.Type3InputBuffer = request->input_.data();
            irp->UserBuffer = request->output_.data();
        } else {
            Unsupported("direct I/O controls");
        }
        break;
    case IRP_MJ_CREATE:
        irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
        break;
    case IRP_MJ_CLOSE:
        irp->Flags = IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
        break;
    default:
        irp->Flags = IRP_SYNCHRONOUS_API;
        break;
    }
    if (buffered && buffer_length != 0) {
        PVOID buffer = ExAllocatePoolWithTag(NonPagedPool, buffer_length, kSystemBufferTag);
        if (!buffer) {
            Io().Release(irp);
            request->result_ = {STATUS_INSUFFICIENT_RESOURCES, 0};
            request->done_ = true;
            return request;
        }
        // Past the input the buffer holds what the pool left there.
        if (!request->input_.empty())
            memcpy(buffer, request->input_.data(), request->input_.size());
        irp->AssociatedIrp.SystemBuffer = buffer;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    }

    request->notice_ = std::move(next_notice_);
    next_notice_ = nullptr;
    PendingIo* raw = request.get();
    info->finish = [raw](PIRP done) {
        PVOID buffer = done->AssociatedIrp.SystemBuffer;
        if (buffer && (done->Flags & IRP_DEALLOCATE_BUFFER)) {
            // An Information beyond the buffer was reported at completion.
            size_t count = std::min<size_t>(done->IoStatus.Information, raw->output_.size());
            if ((done->Flags & IRP_INPUT_OPERATION) && !IsError(done->IoStatus.Status) && count)
                memcpy(raw->output_.data(), buffer, count);
            ExFreePoolWithTag(buffer, kSystemBufferTag);
        }
        raw->result_ = {done->IoStatus.Status, done->IoStatus.Information};
        raw->irp_ = nullptr;
        raw->done_ = true;
        Io().Release(done);
        if (raw->notice_)
            raw->notice_(*raw);
        KeSetEvent(&raw->event_, IO_NO_INCREMENT, FALSE);
    };
    request->irp_ = irp;
    outstanding_.push_back(request);
    IoCallDriver(target, irp);
    return request;
}

void File::NotifyNextCompletion(std::function<void(const PendingIo&)> notice) {
    next_notice_ = std::move(notice);
}

NTSTATUS File::SendSimple(UCHAR major) {
    return Send(major, 0, nullptr, 0, 0)->Wait().status;
}

IoResult File::Read(void* buffer, ULONG length) {
    auto request = ReadAsync(length);
    IoResult result = request->Wait();
    size_t count = std::min<size_t>(result.information, length);
    if (count)
        memcpy(buffer, request->Output().data(), count);
    return result;
}

IoResult File::Write(const void* data, ULONG length) {
    return WriteAsync(data, length)->Wait();
}

IoResult File::DeviceIoControl(ULONG code, const void* input, ULONG input_length, void* output,
                               ULONG output_length) {
    auto request = DeviceIoControlAsync(code, input, input_length, output_length);
    IoResult result = request->Wait();
    size_t count = std::min<size_t>(result.information, output_length);
    if (output && count)
        memcpy(output, request->Output().data(), count);
    return result;
}

IoResult File::InternalDeviceIoControl(ULONG code, const void* input, ULONG input_length,
                                       void* output, ULONG output_length) {
    auto request = DeviceIoControlAsync(code, input, input_length, output_length, true);
    IoResult result = request->Wait();
    size_t count = std::min<size_t>(result.information, output_length);
    if (output && count)
        memcpy(output, request->Output().data(), count);
    return result;
}

std::shared_ptr<PendingIo> File::ReadAsync(ULONG length) {
    return Send(IRP_MJ_READ, 0, nullptr, 0, length);
}

std::shared_ptr<PendingIo> File::WriteAsync(const void* data, ULONG length) {
    return Send(IRP_MJ_WRITE, 0, data, length, 0);
}

std::shared_ptr<PendingIo> File::DeviceIoControlAsync(ULONG code, const void* input,
                                                      ULONG input_length, ULONG output_length,
                                                      bool internal) {
    return Send(internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL, code, input,
                input_length, output_length);
}

bool File::Cancel(PendingIo& request) {
    if (request.Done() || !request.irp_)
        return false;
    return IoCancelIrp(request.irp_) != FALSE;
}

NTSTATUS File::Cleanup() {
    if (!file_ || cleaned_up_)
        Unsupported("cleanup of a File that is not open");
    cleaned_up_ = true;
    return SendSimple(IRP_MJ_CLEANUP);
}

NTSTATUS File::Close() {
    if (!file_)
        Unsupported("closing a File that is not open");
    if (!cleaned_up_)
        Cleanup();
    for (auto& request : outstanding_)
        request->Wait();
    outstanding_.clear();
    NTSTATUS status = SendSimple(IRP_MJ_CLOSE);
    outstanding_.clear();
    PDEVICE_OBJECT device = file_->DeviceObject;
    ExFreePoolWithTag(file_, kFileTag);
    file_ = nullptr;
    if (DeviceInfo* info = Io().FindDevice(device))
        info->open_files--;
    Kernel::Current().pnp().HandleClosed(device);
    ObDereferenceObject(device);
    return status;
}

} // namespace hk
