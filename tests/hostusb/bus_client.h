// A test's direct line to the simulated bus: URBs and internal controls
// sent to a modem's physical device object as a function driver sends them,
// each with a completion routine that records status, URB status, time and
// IRQL. The test body is the application thread; Wait lets virtual time run.
#pragma once

#include "kernel_test.h"

#include "hostusb/bus.h"
#include "simmodem/simmodem.h"

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
    int64_t completed_at = -1; // 100 ns
    KIRQL irql = PASSIVE_LEVEL;
    uint64_t order = 0; // 1 for the first request completed in the test, ...
    uint64_t* counter = nullptr;
    std::function<void()> on_complete; // runs inside the completion routine
    PURB Urb() { return reinterpret_cast<PURB>(urb.data()); }
    USBD_STATUS UsbStatus() { return Urb()->UrbHeader.Status; }
};

class BusTest : public KernelTest {
  protected:
    void TearDown() override;

    // A bus with one modem of the profile plugged into port 1.
    void Plug(const sm::Profile& profile, hu::Speed speed = hu::Speed::kFull,
              hu::BusOptions options = {});

    BusRequest* NewRequest(size_t urb_bytes, size_t buffer_bytes = 0);
    // Sends the request's URB (or another internal control with Argument1).
    BusRequest* Send(BusRequest* request, ULONG code = IOCTL_INTERNAL_USB_SUBMIT_URB,
                     PVOID argument = nullptr, PDEVICE_OBJECT to = nullptr);
    bool Wait(BusRequest* request, int64_t ms = 5000);

    // Builders of the URBs a function driver sends.
    BusRequest* GetDescriptor(UCHAR type, UCHAR index, ULONG length, USHORT language = 0);
    BusRequest* ClassOrVendor(USHORT function, bool in, UCHAR request, USHORT value, USHORT index,
                              std::vector<uint8_t> data, ULONG in_length = 0,
                              ULONG flags = USBD_SHORT_TRANSFER_OK);
    BusRequest* Transfer(uint8_t endpoint, bool in, std::vector<uint8_t> data, ULONG in_length = 0,
                         ULONG flags = USBD_SHORT_TRANSFER_OK);
    BusRequest* PipeRequest(USHORT function, uint8_t endpoint);
    // Selects the configuration with every interface of the function, and
    // learns the pipe handles by endpoint address.
    NTSTATUS Select(size_t configuration_index, size_t function = 0);
    NTSTATUS Deselect(size_t function = 0);

    std::unique_ptr<hu::Bus> bus_;
    std::shared_ptr<sm::Modem> modem_;
    int port_ = 0;
    PDEVICE_OBJECT pdo_ = nullptr;
    std::map<uint8_t, USBD_PIPE_HANDLE> pipes_;

  private:
    static NTSTATUS NTAPI OnComplete(PDEVICE_OBJECT, PIRP irp, PVOID context);
    std::vector<std::unique_ptr<BusRequest>> requests_;
    std::vector<uint8_t> config_;
    uint64_t completions_ = 0;
};
