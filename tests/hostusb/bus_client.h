// A test's direct line to the simulated bus: URBs and internal controls
// sent to a modem's physical device object as a function driver sends them,
// each with a completion routine that records status, URB status and time.
// The test body is the application thread; Wait lets virtual time run.
// BusRig adds this to a test fixture: the bus tests' KernelTest, or the
// driver tests' DriverTest.
#pragma once

#include "kernel_test.h"

#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

struct BusRequest {
    PIRP irp = nullptr;
    std::vector<uint8_t> urb;    // the URB's bytes (its layout's size, or larger)
    std::vector<uint8_t> buffer; // transfer buffer
    KEVENT done;
    bool completed = false;
    NTSTATUS returned = 0; // what IoCallDriver returned
    NTSTATUS status = STATUS_PENDING;
    int64_t completed_at = -1;         // 100 ns
    std::function<void()> on_complete; // runs inside the completion routine
    PURB Urb() { return reinterpret_cast<PURB>(urb.data()); }
    USBD_STATUS UsbStatus() { return Urb()->UrbHeader.Status; }
};

template <class Base> class BusRig : public Base {
  protected:
    void TearDown() override {
        EndRequests();
        if (bus_ && port_ != 0)
            bus_->Unplug(port_);
        bus_.reset();
        modem_.reset();
        Base::TearDown();
    }

    // Cancels what is still pending and frees every request's IRP.
    void EndRequests() {
        for (auto& request : requests_) {
            if (request->irp != nullptr && !request->completed)
                IoCancelIrp(request->irp);
        }
        this->kernel().Sleep(1);
        for (auto& request : requests_) {
            EXPECT_TRUE(request->completed) << "a request never completed";
            if (request->irp != nullptr && request->completed)
                IoFreeIrp(request->irp);
        }
        requests_.clear();
    }

    // A bus with one modem of the profile plugged into port 1.
    void Plug(const sm::Profile& profile, hu::Speed speed = hu::Speed::kFull,
              hu::BusOptions options = {}) {
        bus_ = std::make_unique<hu::Bus>(options);
        modem_ = std::make_shared<sm::Modem>(profile);
        port_ = bus_->Plug(modem_, speed);
        pdo_ = bus_->Pdo(port_);
    }

    BusRequest* NewRequest(size_t urb_bytes, size_t buffer_bytes = 0) {
        requests_.push_back(std::make_unique<BusRequest>());
        BusRequest* request = requests_.back().get();
        request->urb.assign(std::max(urb_bytes, sizeof(URB)), 0);
        request->Urb()->UrbHeader.Length = USHORT(urb_bytes);
        request->buffer.assign(buffer_bytes, 0);
        KeInitializeEvent(&request->done, NotificationEvent, FALSE);
        return request;
    }

    // Sends the request's URB (or another internal control with Argument1).
    BusRequest* Send(BusRequest* request, ULONG code = IOCTL_INTERNAL_USB_SUBMIT_URB,
                     PVOID argument = nullptr, PDEVICE_OBJECT to = nullptr) {
        PDEVICE_OBJECT target = to ? to : pdo_;
        request->irp = IoAllocateIrp(target->StackSize, FALSE);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(request->irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = code;
        next->Parameters.Others.Argument1 =
            code == IOCTL_INTERNAL_USB_SUBMIT_URB ? request->urb.data() : argument;
        IoSetCompletionRoutine(request->irp, OnComplete, request, TRUE, TRUE, TRUE);
        request->returned = IoCallDriver(target, request->irp);
        return request;
    }

    bool Wait(BusRequest* request, int64_t ms = 5000) {
        LARGE_INTEGER timeout = RelativeMs(ms);
        return KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, &timeout) ==
               STATUS_SUCCESS;
    }

    // Builders of the URBs a function driver sends.
    BusRequest* ClassOrVendor(USHORT function, bool in, UCHAR code, USHORT value, USHORT index,
                              std::vector<uint8_t> data, ULONG in_length = 0,
                              ULONG flags = USBD_SHORT_TRANSFER_OK) {
        BusRequest* request = NewRequest(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST));
        auto& c = request->Urb()->UrbControlVendorClassRequest;
        c.Hdr.Function = function;
        c.Request = code;
        c.Value = value;
        c.Index = index;
        return Send(WithData(request, c, in, std::move(data), in_length, flags));
    }
    BusRequest* Transfer(uint8_t endpoint, bool in, std::vector<uint8_t> data, ULONG in_length = 0,
                         ULONG flags = USBD_SHORT_TRANSFER_OK) {
        BusRequest* request = NewRequest(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
        auto& b = request->Urb()->UrbBulkOrInterruptTransfer;
        b.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        b.PipeHandle = pipes_[endpoint];
        return Send(WithData(request, b, in, std::move(data), in_length, flags));
    }

    // Selects the configuration with every interface of the function, and
    // learns the pipe handles by endpoint address.
    NTSTATUS Select(size_t configuration_index, size_t function = 0) {
        config_ = sm::ConfigurationBytes(modem_->profile().configurations.at(configuration_index));
        auto* config = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(config_.data());
        std::vector<USBD_INTERFACE_LIST_ENTRY> list;
        const std::vector<uint8_t> interfaces = modem_->Functions().at(function);
        for (uint8_t number : interfaces)
            list.push_back(
                {USBD_ParseConfigurationDescriptorEx(config, config, number, 0, -1, -1, -1),
                 nullptr});
        list.push_back({nullptr, nullptr});
        PURB urb = USBD_CreateConfigurationRequestEx(config, list.data());
        BusRequest* request = NewRequest(urb->UrbHeader.Length);
        memcpy(request->urb.data(), urb, urb->UrbHeader.Length);
        ExFreePool(urb);
        Wait(Send(request, IOCTL_INTERNAL_USB_SUBMIT_URB, nullptr, bus_->Pdo(port_, function)));
        auto& select = request->Urb()->UrbSelectConfiguration;
        PUCHAR end = request->urb.data() + select.Hdr.Length;
        for (auto* info = &select.Interface; reinterpret_cast<PUCHAR>(info) < end;
             info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(info) +
                                                                  info->Length))
            for (ULONG p = 0; p < info->NumberOfPipes; ++p)
                pipes_[info->Pipes[p].EndpointAddress] = info->Pipes[p].PipeHandle;
        return request->status;
    }
    NTSTATUS Deselect(size_t function = 0) {
        BusRequest* request = NewRequest(sizeof(struct _URB_SELECT_CONFIGURATION));
        request->Urb()->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
        Wait(Send(request, IOCTL_INTERNAL_USB_SUBMIT_URB, nullptr, bus_->Pdo(port_, function)));
        return request->status;
    }

    std::unique_ptr<hu::Bus> bus_;
    std::shared_ptr<sm::Modem> modem_;
    int port_ = 0;
    PDEVICE_OBJECT pdo_ = nullptr;
    std::map<uint8_t, USBD_PIPE_HANDLE> pipes_;

  private:
    // The data stage of a control or bulk transfer URB: the bytes out, or
    // room for in_length bytes in.
    template <class Urb>
    static BusRequest* WithData(BusRequest* request, Urb& urb, bool in, std::vector<uint8_t> data,
                                ULONG in_length, ULONG flags) {
        request->buffer = in ? std::vector<uint8_t>(in_length) : std::move(data);
        urb.TransferFlags = flags | (in ? USBD_TRANSFER_DIRECTION_IN : 0);
        urb.TransferBuffer = request->buffer.empty() ? nullptr : request->buffer.data();
        urb.TransferBufferLength = ULONG(request->buffer.size());
        return request;
    }

    static NTSTATUS NTAPI OnComplete(PDEVICE_OBJECT, PIRP irp, PVOID context) {
        auto* request = static_cast<BusRequest*>(context);
        request->completed = true;
        request->status = irp->IoStatus.Status;
        request->completed_at = hk::Kernel::Current().Now();
        if (request->on_complete)
            request->on_complete();
        KeSetEvent(&request->done, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    std::vector<std::unique_ptr<BusRequest>> requests_;
    std::vector<uint8_t> config_;
};

using BusTest = BusRig<KernelTest>;
