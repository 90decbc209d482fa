// The simulated host controller and USB bus driver. Each plugged device gets
// one physical device object per function; the bus validates every URB as a
// real bus driver does, queues valid ones on their endpoint (one transfer at
// a time per endpoint) and completes them in a DPC after the modelled time:
// full-speed bulk moves at most 19 x 64 bytes per 1 ms frame, high-speed at
// most 13 x 512 bytes per 125 us microframe, and a transfer queued behind
// another on its endpoint carries on in the frame where that one ended;
// interrupt endpoints are polled at their interval. IN transfers wait for the device's data and end
// at a short packet. The parent hub's own device object answers the node information query.
//
// Environment: dispatch routines at the caller's IRQL (up to DISPATCH_LEVEL);
// every completion, cancelled and aborted ones included, in the host
// controller's completion context: a DPC, queued by the frame timer or by a
// cancel, whose pass takes the transfers that are due. A transfer taken by
// a pass is completed and freed by that pass alone.
// Locks: Impl::lock guards all bus state. It is released before an IRP is
// completed and before a device model is called, so the device may call
// back (DataReady) from inside its own callbacks.
#include "hostusb/bus_impl.h"

#include "hostkernel/pnp.h"
#include "hostkernel/timeline.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <map>

namespace hu {

namespace {

// The two driver-specific notifications sent to the lower driver at open and
// close: answered with success and recorded.
constexpr ULONG kOpenNotification = 0x89312007;
constexpr ULONG kCloseNotification = 0x8931200B;

constexpr int64_t kFullSpeedFrame = 10000; // 1 ms in 100 ns units
constexpr int64_t kHighSpeedFrame = 1250;  // 125 us
constexpr ULONG kFullSpeedFrameBytes = 19 * 64;
constexpr ULONG kHighSpeedFrameBytes = 13 * 512;
constexpr int64_t kPortResetTime = 100000; // 10 ms

NTSTATUS NtStatusFor(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_SUCCESS:
        return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED:
        return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE:
        return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_INVALID_CONFIGURATION_DESCRIPTOR:
        return STATUS_INVALID_PARAMETER;
    case USBD_STATUS_NOT_SUPPORTED:
        return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_INSUFFICIENT_RESOURCES:
        return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_TIMEOUT:
        return STATUS_IO_TIMEOUT;
    case USBD_STATUS_BUFFER_TOO_SMALL:
        return STATUS_BUFFER_TOO_SMALL;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

// A composite device's configuration descriptor as one of its functions
// reports it: the configuration header and the descriptors of the
// function's own interfaces, with the totals adjusted.
std::vector<uint8_t> FunctionConfiguration(const std::vector<uint8_t>& full,
                                           const std::vector<uint8_t>& interfaces) {
    if (full.size() < sizeof(USB_CONFIGURATION_DESCRIPTOR))
        return full;
    // The header as long as its bLength says, within the descriptor, and
    // never shorter than a configuration descriptor, whose totals follow.
    size_t header = std::clamp<size_t>(full[0], sizeof(USB_CONFIGURATION_DESCRIPTOR), full.size());
    std::vector<uint8_t> out(full.begin(), full.begin() + long(header));
    bool included = false;
    std::vector<uint8_t> seen;
    for (size_t at = header; at + 2 <= full.size() && full[at] != 0; at += full[at]) {
        uint8_t type = full[at + 1];
        if (type == USB_INTERFACE_DESCRIPTOR_TYPE && at + 2 < full.size()) {
            uint8_t number = full[at + 2];
            included = std::find(interfaces.begin(), interfaces.end(), number) != interfaces.end();
            if (included && std::find(seen.begin(), seen.end(), number) == seen.end())
                seen.push_back(number);
        }
        if (included && type != 0x0b) // interface association descriptors stay with the parent
            out.insert(out.end(), full.begin() + long(at),
                       full.begin() + long(std::min(full.size(), at + full[at])));
    }
    out[2] = uint8_t(out.size());
    out[3] = uint8_t(out.size() >> 8);
    out[4] = uint8_t(seen.size());
    return out;
}

std::string HexText(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

} // namespace

Bus::Impl::Impl(BusOptions opts) : options(std::move(opts)) {
    KeInitializeSpinLock(&lock);
    KeInitializeTimer(&frame_timer);
    KeInitializeDpc(&completion_dpc, CompletionDpc, this);
    KeInitializeDpc(&wake_dpc, WakeDpc, this);
    PDRIVER_OBJECT object = driver.Object();
    object->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternal;
    object->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchControl;
    object->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    object->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    if (IoCreateDevice(object, sizeof(BusExtension), nullptr, FILE_DEVICE_BUS_EXTENDER, 0, FALSE,
                       &hub) != STATUS_SUCCESS) {
        std::fprintf(stderr, "hostusb: cannot create the hub's device object\n");
        std::abort();
    }
    *static_cast<BusExtension*>(hub->DeviceExtension) = {BusExtension::kHub, this, nullptr};
    hub->Flags &= ~DO_DEVICE_INITIALIZING;
    for (int i = 0; i < options.ports; ++i) {
        ports.push_back(std::make_unique<PortState>());
        ports.back()->number = i + 1;
    }
    if (!options.capture_file.empty()) {
        capture = std::make_unique<Capture>(options.capture_file);
        if (!capture->Ok())
            Diagnose("cannot open the capture file " + options.capture_file);
    }
}

Bus::Impl::~Impl() {
    *alive = false;
    for (auto& port : ports)
        if (port->device)
            DeleteFunctions(port.get());
    KeCancelTimer(&frame_timer);
    KeRemoveQueueDpc(&completion_dpc);
    KeRemoveQueueDpc(&wake_dpc);
    IoDeleteDevice(hub);
}

void Bus::Impl::Diagnose(const std::string& text) {
    if (diagnostics.size() == Bus::kDiagnosticsKept)
        diagnostics.pop_front();
    diagnostics.push_back(text);
    hk::Kernel::Current().Dbg().Write("hostusb: " + text + "\n");
}

PortState* Bus::Impl::Port(int number) const {
    if (number < 1 || number > int(ports.size()) || !ports[size_t(number - 1)]->device)
        return nullptr;
    return ports[size_t(number - 1)].get();
}

int64_t Bus::Impl::FrameTime(const PortState& port) const {
    return port.speed == Speed::kFull ? kFullSpeedFrame : kHighSpeedFrame;
}

int64_t Bus::Impl::NextBoundary(int64_t period) const {
    int64_t now = hk::Kernel::Current().Now();
    return (now / period + 1) * period;
}

// The end of the frame in which the last of the bytes moves, counting from
// the next frame boundary; interrupt endpoints complete at their next poll.
int64_t Bus::Impl::DataDue(const PortState& port, const Endpoint& ep, ULONG bytes) const {
    int64_t frame = FrameTime(port);
    if (ep.type == USB_ENDPOINT_TYPE_INTERRUPT) {
        int64_t polls = port.speed == Speed::kFull
                            ? std::max<int64_t>(ep.interval, 1)
                            : int64_t(1) << (std::clamp<int>(ep.interval, 1, 16) - 1);
        return NextBoundary(polls * frame);
    }
    ULONG per_frame = port.speed == Speed::kFull ? kFullSpeedFrameBytes : kHighSpeedFrameBytes;
    int64_t frames = std::max<int64_t>(1, (int64_t(bytes) + per_frame - 1) / per_frame);
    return NextBoundary(frame) + (frames - 1) * frame;
}

// A transfer that was queued behind the one that just completed at a frame
// boundary carries on in the frame the other's last bytes moved in.
bool Bus::Impl::Continues(const PortState& port, const Endpoint& ep, bool behind) const {
    int64_t frame = FrameTime(port);
    int64_t now = hk::Kernel::Current().Now();
    return behind && now % frame == 0 && ep.last_frame == now / frame - 1;
}

// Moves bulk bytes in the frames from the current one (or the one a
// continuing transfer carries on in), each frame's budget shared by the
// endpoint's transfers in order; returns the end of the last frame used.
int64_t Bus::Impl::MoveBulk(const PortState& port, Endpoint& ep, bool behind, ULONG bytes) {
    int64_t frame = FrameTime(port);
    ULONG per_frame = port.speed == Speed::kFull ? kFullSpeedFrameBytes : kHighSpeedFrameBytes;
    int64_t first = hk::Kernel::Current().Now() / frame;
    ULONG used = 0;
    if (Continues(port, ep, behind)) {
        first = ep.last_frame;
        used = ep.last_frame_bytes;
    }
    int64_t last = first;
    ULONG in_last = used + bytes;
    if (bytes > per_frame - used) {
        ULONG rest = bytes - (per_frame - used);
        last = first + (rest + per_frame - 1) / per_frame;
        in_last = rest - ULONG(last - first - 1) * per_frame;
    }
    ep.last_frame = last;
    ep.last_frame_bytes = in_last;
    return (last + 1) * frame;
}

static const char* FaultName(Fault kind) {
    switch (kind) {
    case Fault::kStall:
        return "stall";
    case Fault::kError:
        return "error";
    case Fault::kNoAnswer:
        return "no answer";
    case Fault::kDelay:
        return "delay";
    case Fault::kResetPipeFail:
        return "reset pipe fails";
    case Fault::kResetPortFail:
        return "reset port fails";
    case Fault::kHubQueryFail:
        return "hub query fails";
    case Fault::kDeviceGone:
        return "device gone";
    case Fault::kUnplug:
        return "unplug";
    case Fault::kInline:
        return "inline error";
    }
    return "fault";
}

// The transfer's name on the timeline: its kind, direction and endpoint.
static std::string TransferName(const Transfer* t, PURB urb) {
    char text[64];
    if (!t) {
        std::snprintf(text, sizeof text, "URB 0x%04x refused", urb ? urb->UrbHeader.Function : 0);
        return text;
    }
    static const char* const kTypes[] = {"standard", "class", "vendor", "reserved"};
    switch (t->kind) {
    case Transfer::Kind::kControl:
        std::snprintf(text, sizeof text, "control %s %s 0x%02x", t->in ? "IN" : "OUT",
                      kTypes[(t->setup.request_type >> 5) & 3], t->setup.request);
        return text;
    case Transfer::Kind::kSelect:
        return "select configuration";
    case Transfer::Kind::kData:
        std::snprintf(text, sizeof text, "%s %s 0x%02x",
                      t->endpoint->type == USB_ENDPOINT_TYPE_INTERRUPT ? "interrupt" : "bulk",
                      t->in ? "IN" : "OUT", t->endpoint->address);
        return text;
    case Transfer::Kind::kAbort:
        std::snprintf(text, sizeof text, "abort pipe 0x%02x", t->pipe_address);
        return text;
    case Transfer::Kind::kResetPipe:
        std::snprintf(text, sizeof text, "reset pipe 0x%02x", t->pipe_address);
        return text;
    case Transfer::Kind::kResetPort:
        return "reset port";
    }
    return "transfer";
}

// A URB's async span from its submission to its completion, and the flow
// between the two.
void Bus::Impl::RecordTimeline(hk::Timeline& timeline, const Transfer* t, PIRP irp, PURB urb,
                               bool completion, USBD_STATUS status) {
    if (!completion) {
        hk::Timeline::Args args{{"irp", HexText(uintptr_t(irp))}};
        if (t && t->kind == Transfer::Kind::kData)
            args.push_back({"endpoint", int64_t(t->endpoint->address)});
        if (t && (t->kind == Transfer::Kind::kData || t->kind == Transfer::Kind::kControl)) {
            args.push_back({"direction", std::string(t->in ? "in" : "out")});
            args.push_back({"length", int64_t(t->length)});
        }
        uint64_t span = timeline.AsyncBegin(TransferName(t, urb), "usb", std::move(args));
        timeline_urbs[irp] = {span, timeline.FlowStart("URB")};
        return;
    }
    auto it = timeline_urbs.find(irp);
    if (it == timeline_urbs.end())
        return;
    timeline.FlowEnd(it->second.second);
    timeline.AsyncEnd(it->second.first,
                      {{"bytes", int64_t(t ? t->done : 0)}, {"status", HexText(ULONG(status))}});
    timeline_urbs.erase(it);
}

bool Bus::Impl::Fires(Fault kind, uint32_t key, UsbFaultKnob** which) {
    for (auto& [knob_kind, knob] : faults) {
        if (knob_kind != kind || (knob.match != 0 && knob.match != key))
            continue;
        knob.calls++;
        bool fire = false;
        if (knob.fired < knob.max_fires) {
            if (knob.nth != 0 && knob.calls == knob.nth)
                fire = true;
            if (knob.every != 0 && knob.calls % knob.every == 0)
                fire = true;
            if (knob.probability > 0 && std::uniform_real_distribution<double>(0, 1)(
                                            hk::Kernel::Current().Random()) < knob.probability)
                fire = true;
        }
        if (fire) {
            knob.fired++;
            if (hk::Timeline* timeline = hk::Kernel::Current().timeline())
                timeline->Instant(std::string("fault bus: ") + FaultName(kind), "fault",
                                  {{"key", int64_t(key)}});
            if (which)
                *which = &knob;
            return true;
        }
    }
    return false;
}

void Bus::Impl::Record(const Transfer* t, PIRP irp, PURB urb, bool completion, USBD_STATUS status) {
    if (hk::Timeline* timeline = hk::Kernel::Current().timeline())
        RecordTimeline(*timeline, t, irp, urb, completion, status);
    if (!capture)
        return;
    CaptureRecord record;
    record.irp_id = uint64_t(uintptr_t(irp));
    record.usbd_status = status;
    record.function = urb ? urb->UrbHeader.Function : 0;
    record.completion = completion;
    record.bus = options.bus_number;
    record.device = t && t->function ? t->function->port->address : 0;
    int64_t now = hk::Kernel::Current().Now();
    if (t && (t->kind == Transfer::Kind::kControl || t->kind == Transfer::Kind::kSelect)) {
        record.transfer = CaptureTransfer::kControl;
        record.endpoint = t->in ? 0x80 : 0x00;
        if (!completion) {
            record.stage = CaptureStage::kSetup;
            const SetupPacket& s = t->setup;
            record.data = {s.request_type,    s.request,
                           uint8_t(s.value),  uint8_t(s.value >> 8),
                           uint8_t(s.index),  uint8_t(s.index >> 8),
                           uint8_t(s.length), uint8_t(s.length >> 8)};
            capture->Write(record, now);
            if (!t->in && t->length != 0) {
                record.stage = CaptureStage::kData;
                record.data.assign(t->buffer, t->buffer + t->length);
                capture->Write(record, now);
            }
            return;
        }
        if (t->in && t->done != 0) {
            record.stage = CaptureStage::kData;
            record.data.assign(t->buffer, t->buffer + t->done);
            capture->Write(record, now);
        }
        record.stage = CaptureStage::kStatus;
        record.data.clear();
        capture->Write(record, now);
        return;
    }
    if (t && t->kind == Transfer::Kind::kData) {
        record.endpoint = t->endpoint->address;
        record.transfer = t->endpoint->type == USB_ENDPOINT_TYPE_INTERRUPT
                              ? CaptureTransfer::kInterrupt
                              : CaptureTransfer::kBulk;
        if (completion == t->in)
            record.data.assign(t->buffer, t->buffer + (t->in ? t->done : t->length));
    } else if (t && (t->kind == Transfer::Kind::kAbort || t->kind == Transfer::Kind::kResetPipe)) {
        // Pipe requests carry no data; they name the pipe they act on.
        record.endpoint = t->pipe_address;
        record.transfer = t->pipe_type == USB_ENDPOINT_TYPE_INTERRUPT ? CaptureTransfer::kInterrupt
                                                                      : CaptureTransfer::kBulk;
    } else {
        // A URB refused before it reached an endpoint: a status without data
        // on the default pipe.
        record.transfer = CaptureTransfer::kControl;
        record.stage = CaptureStage::kStatus;
    }
    capture->Write(record, now);
}

NTSTATUS Bus::Impl::CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    hk::CompleteInsideCall(irp);
    return status;
}

NTSTATUS Bus::Impl::Refuse(PIRP irp, PURB urb, USBD_STATUS status, const std::string& why) {
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    Diagnose(why);
    urb->UrbHeader.Status = status;
    Record(nullptr, irp, urb, false, USBD_STATUS_PENDING);
    Record(nullptr, irp, urb, true, status);
    KeReleaseSpinLock(&lock, irql);
    return CompleteNow(irp, NtStatusFor(status));
}

NTSTATUS NTAPI Bus::Impl::DispatchControl(PDEVICE_OBJECT device, PIRP irp) {
    auto* ext = static_cast<BusExtension*>(device->DeviceExtension);
    Impl* bus = ext->bus;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    if (ext->kind != BusExtension::kHub || code != IOCTL_USB_GET_NODE_INFORMATION) {
        bus->Diagnose("device control " + HexText(code) + " refused: not a hub request");
        return bus->CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(USB_NODE_INFORMATION)) {
        bus->Diagnose("IOCTL_USB_GET_NODE_INFORMATION with an output buffer below " +
                      std::to_string(sizeof(USB_NODE_INFORMATION)) + " bytes");
        return bus->CompleteNow(irp, STATUS_BUFFER_TOO_SMALL);
    }
    KIRQL irql;
    KeAcquireSpinLock(&bus->lock, &irql);
    bool fail = bus->Fires(Fault::kHubQueryFail, 0);
    KeReleaseSpinLock(&bus->lock, irql);
    if (fail)
        return bus->CompleteNow(irp, STATUS_UNSUCCESSFUL);
    auto* info = static_cast<PUSB_NODE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    memset(info, 0, sizeof(*info));
    info->NodeType = UsbHub;
    USB_HUB_DESCRIPTOR& hub = info->u.HubInformation.HubDescriptor;
    hub.bDescriptorLength = 9;
    hub.bDescriptorType = 0x29;
    hub.bNumberOfPorts = UCHAR(bus->ports.size());
    hub.bPowerOnToPowerGood = 50;
    hub.bHubControlCurrent = 100;
    info->u.HubInformation.HubIsBusPowered = bus->options.hub_self_powered ? FALSE : TRUE;
    return bus->CompleteNow(irp, STATUS_SUCCESS, sizeof(USB_NODE_INFORMATION));
}

NTSTATUS NTAPI Bus::Impl::DispatchInternal(PDEVICE_OBJECT device, PIRP irp) {
    auto* ext = static_cast<BusExtension*>(device->DeviceExtension);
    Impl* bus = ext->bus;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    if (ext->kind != BusExtension::kPdo) {
        bus->Diagnose("internal control " + HexText(code) + " sent to the hub refused");
        return bus->CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    Function* function = ext->function;
    switch (code) {
    case IOCTL_INTERNAL_USB_SUBMIT_URB: {
        auto urb = static_cast<PURB>(stack->Parameters.Others.Argument1);
        if (urb == nullptr) {
            bus->Diagnose("IOCTL_INTERNAL_USB_SUBMIT_URB without a URB");
            return bus->CompleteNow(irp, STATUS_INVALID_PARAMETER);
        }
        return bus->SubmitUrb(function, irp, urb);
    }
    case IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO: {
        KIRQL irql;
        KeAcquireSpinLock(&bus->lock, &irql);
        bool fail = bus->Fires(Fault::kHubQueryFail, 0);
        KeReleaseSpinLock(&bus->lock, irql);
        if (fail)
            return bus->CompleteNow(irp, STATUS_UNSUCCESSFUL);
        auto hub = static_cast<PDEVICE_OBJECT*>(stack->Parameters.Others.Argument1);
        if (hub == nullptr) {
            bus->Diagnose("IOCTL_INTERNAL_USB_GET_PARENT_HUB_INFO without Argument1");
            return bus->CompleteNow(irp, STATUS_INVALID_PARAMETER);
        }
        *hub = bus->hub;
        return bus->CompleteNow(irp, STATUS_SUCCESS);
    }
    case IOCTL_INTERNAL_USB_RESET_PORT: {
        auto* t = new Transfer;
        t->bus = bus;
        t->function = function;
        t->irp = irp;
        t->kind = Transfer::Kind::kResetPort;
        KIRQL irql;
        KeAcquireSpinLock(&bus->lock, &irql);
        if (bus->Fires(Fault::kResetPortFail, 0))
            t->injected = USBD_STATUS_DEV_NOT_RESPONDING;
        bus->ArmAt(t, hk::Kernel::Current().Now() + kPortResetTime);
        NTSTATUS status = bus->PendLocked(t);
        KeReleaseSpinLock(&bus->lock, irql);
        return status;
    }
    case kOpenNotification:
    case kCloseNotification: {
        KIRQL irql;
        KeAcquireSpinLock(&bus->lock, &irql);
        function->notifications.push_back({code, hk::Kernel::Current().NowMs()});
        KeReleaseSpinLock(&bus->lock, irql);
        return bus->CompleteNow(irp, STATUS_SUCCESS);
    }
    default:
        bus->Diagnose("unknown internal control " + HexText(code) + " refused");
        return bus->CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

// A transfer's data: the MDL's system address when the URB has one, else its
// buffer pointer.
static PUCHAR UrbBuffer(PMDL mdl, PVOID buffer) {
    return static_cast<PUCHAR>(mdl ? MmGetSystemAddressForMdlSafe(mdl, 0) : buffer);
}

// Header length each URB function must carry.
static bool ExpectedLength(USHORT function, USHORT& length) {
    switch (function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        length = sizeof(struct _URB_SELECT_CONFIGURATION);
        return true;
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        length = sizeof(struct _URB_PIPE_REQUEST);
        return true;
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
        return true;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
        length = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
        return true;
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER:
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER:
        length = sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
        return true;
    default:
        return false;
    }
}

// bmRequestType's type and recipient bits of a class or vendor function.
static uint8_t RequestTypeBits(USHORT function) {
    switch (function) {
    case URB_FUNCTION_CLASS_DEVICE:
        return 0x20;
    case URB_FUNCTION_CLASS_INTERFACE:
        return 0x21;
    case URB_FUNCTION_CLASS_ENDPOINT:
        return 0x22;
    case URB_FUNCTION_CLASS_OTHER:
        return 0x23;
    case URB_FUNCTION_VENDOR_DEVICE:
        return 0x40;
    case URB_FUNCTION_VENDOR_INTERFACE:
        return 0x41;
    case URB_FUNCTION_VENDOR_ENDPOINT:
        return 0x42;
    default:
        return 0x43;
    }
}

bool Bus::Impl::ValidateSelect(Function* function, PURB urb, std::string& why) {
    auto& select = urb->UrbSelectConfiguration;
    PUSB_CONFIGURATION_DESCRIPTOR config = select.ConfigurationDescriptor;
    if (config == nullptr)
        return true;
    if (config->bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
        config->bLength < sizeof(USB_CONFIGURATION_DESCRIPTOR) ||
        config->wTotalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        why = "select configuration with an invalid configuration descriptor";
        return false;
    }
    PUCHAR end = reinterpret_cast<PUCHAR>(urb) + urb->UrbHeader.Length;
    auto* info = &select.Interface;
    int count = 0;
    while (reinterpret_cast<PUCHAR>(info) + offsetof(USBD_INTERFACE_INFORMATION, Pipes) <= end) {
        if (info->Length < offsetof(USBD_INTERFACE_INFORMATION, Pipes) ||
            reinterpret_cast<PUCHAR>(info) + info->Length > end) {
            why = "select configuration: interface information " + std::to_string(count) +
                  " has a Length that does not fit the URB";
            return false;
        }
        if (std::find(function->interfaces.begin(), function->interfaces.end(),
                      info->InterfaceNumber) == function->interfaces.end()) {
            why = "select configuration: interface " + std::to_string(info->InterfaceNumber) +
                  " does not belong to this device";
            return false;
        }
        PUSB_INTERFACE_DESCRIPTOR found = USBD_ParseConfigurationDescriptorEx(
            config, config, info->InterfaceNumber, info->AlternateSetting, -1, -1, -1);
        if (found == nullptr) {
            why = "select configuration: interface " + std::to_string(info->InterfaceNumber) +
                  " not in the configuration descriptor";
            return false;
        }
        if (info->NumberOfPipes != found->bNumEndpoints ||
            info->Length < GET_USBD_INTERFACE_SIZE(found->bNumEndpoints)) {
            why = "select configuration: interface " + std::to_string(info->InterfaceNumber) +
                  " has room for " + std::to_string(info->NumberOfPipes) + " pipes, needs " +
                  std::to_string(found->bNumEndpoints);
            return false;
        }
        ++count;
        info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(info) +
                                                             info->Length);
    }
    if (count == 0) {
        why = "select configuration without interface information";
        return false;
    }
    return true;
}

NTSTATUS Bus::Impl::SubmitUrb(Function* function, PIRP irp, PURB urb) {
    PortState* port = function->port;
    USHORT function_code = urb->UrbHeader.Function;
    USHORT expected = 0;
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    port->urbs++;
    KeReleaseSpinLock(&lock, irql);
    if (!ExpectedLength(function_code, expected))
        return Refuse(irp, urb, USBD_STATUS_INVALID_URB_FUNCTION,
                      "URB function " + HexText(function_code) + " refused: not supported");
    bool select_with_config = function_code == URB_FUNCTION_SELECT_CONFIGURATION &&
                              urb->UrbSelectConfiguration.ConfigurationDescriptor != nullptr;
    if (select_with_config ? urb->UrbHeader.Length < expected : urb->UrbHeader.Length != expected)
        return Refuse(irp, urb, USBD_STATUS_INVALID_PARAMETER,
                      "URB function " + HexText(function_code) + " with header length " +
                          std::to_string(urb->UrbHeader.Length) + ", expected " +
                          std::to_string(expected));

    auto* t = new Transfer;
    t->bus = this;
    t->function = function;
    t->irp = irp;
    t->urb = urb;
    std::string why;
    USBD_STATUS refusal = USBD_STATUS_INVALID_PARAMETER;
    KeAcquireSpinLock(&lock, &irql);
    switch (function_code) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: {
        auto& d = urb->UrbControlDescriptorRequest;
        t->kind = Transfer::Kind::kControl;
        t->in = true;
        t->short_ok = true;
        t->length = d.TransferBufferLength;
        t->buffer = UrbBuffer(d.TransferBufferMDL, d.TransferBuffer);
        t->setup = {0x80, USB_REQUEST_GET_DESCRIPTOR, uint16_t(d.DescriptorType << 8 | d.Index),
                    d.LanguageId, uint16_t(std::min<ULONG>(d.TransferBufferLength, 0xffff))};
        if (t->length == 0 || t->buffer == nullptr)
            why = "get descriptor without a buffer";
        break;
    }
    case URB_FUNCTION_CLASS_DEVICE:
    case URB_FUNCTION_CLASS_INTERFACE:
    case URB_FUNCTION_CLASS_ENDPOINT:
    case URB_FUNCTION_CLASS_OTHER:
    case URB_FUNCTION_VENDOR_DEVICE:
    case URB_FUNCTION_VENDOR_INTERFACE:
    case URB_FUNCTION_VENDOR_ENDPOINT:
    case URB_FUNCTION_VENDOR_OTHER: {
        auto& c = urb->UrbControlVendorClassRequest;
        t->kind = Transfer::Kind::kControl;
        t->in = (c.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->short_ok = (c.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        t->length = c.TransferBufferLength;
        t->buffer = UrbBuffer(c.TransferBufferMDL, c.TransferBuffer);
        t->setup = {uint8_t((t->in ? 0x80 : 0) | RequestTypeBits(function_code) |
                            c.RequestTypeReservedBits),
                    c.Request, c.Value, c.Index,
                    uint16_t(std::min<ULONG>(c.TransferBufferLength, 0xffff))};
        if (t->length > 0xffff)
            why = "control transfer of " + std::to_string(t->length) + " bytes";
        else if (t->length != 0 && t->buffer == nullptr)
            why = "control transfer of " + std::to_string(t->length) +
                  " bytes without a buffer or MDL";
        break;
    }
    case URB_FUNCTION_SELECT_CONFIGURATION: {
        t->kind = Transfer::Kind::kSelect;
        PUSB_CONFIGURATION_DESCRIPTOR config = urb->UrbSelectConfiguration.ConfigurationDescriptor;
        t->setup = {0x00, USB_REQUEST_SET_CONFIGURATION,
                    uint16_t(config ? config->bConfigurationValue : 0), 0, 0};
        if (!ValidateSelect(function, urb, why)) {
            refusal = USBD_STATUS_INVALID_CONFIGURATION_DESCRIPTOR;
            break;
        }
        // A new selection, or none, closes the function's pipes: what is
        // still pending on them ends cancelled.
        for (auto& [handle, pipe] : function->pipes)
            for (Transfer* queued : port->endpoints[pipe.address].queue) {
                queued->cancel = true;
                queued->forced = USBD_STATUS_CANCELED;
                Release(queued);
            }
        break;
    }
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL: {
        USBD_PIPE_HANDLE handle = function_code == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER
                                      ? urb->UrbBulkOrInterruptTransfer.PipeHandle
                                      : urb->UrbPipeRequest.PipeHandle;
        auto pipe = function->pipes.find(uintptr_t(handle));
        if (pipe == function->pipes.end()) {
            why = "pipe handle " + HexText(uintptr_t(handle)) +
                  " is not a valid handle of this device";
            refusal = USBD_STATUS_INVALID_PIPE_HANDLE;
            break;
        }
        Endpoint& ep = port->endpoints[pipe->second.address];
        t->endpoint = &ep;
        t->pipe_address = ep.address;
        t->pipe_type = ep.type;
        if (function_code == URB_FUNCTION_ABORT_PIPE) {
            t->kind = Transfer::Kind::kAbort;
            t->endpoint = nullptr;
            for (Transfer* queued : ep.queue) {
                queued->cancel = true;
                queued->forced = USBD_STATUS_CANCELED;
                Release(queued);
            }
            ArmAt(t, NextBoundary(FrameTime(*port)));
            break;
        }
        if (function_code == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL) {
            t->kind = Transfer::Kind::kResetPipe;
            UsbFaultKnob* knob = nullptr;
            if (Fires(Fault::kResetPipeFail, EndpointKey(ep.address), &knob))
                t->injected = knob->status;
            t->setup = {0x02, USB_REQUEST_CLEAR_FEATURE, 0, ep.address, 0};
            ArmAt(t, NextBoundary(FrameTime(*port)));
            break;
        }
        auto& b = urb->UrbBulkOrInterruptTransfer;
        t->kind = Transfer::Kind::kData;
        t->in = (b.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
        t->short_ok = (b.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
        t->length = b.TransferBufferLength;
        t->buffer = UrbBuffer(b.TransferBufferMDL, b.TransferBuffer);
        if (t->in != (USB_ENDPOINT_DIRECTION_IN(ep.address) != 0))
            why = std::string("transfer direction ") + (t->in ? "IN" : "OUT") +
                  " does not match endpoint " + HexText(ep.address);
        else if (t->length != 0 && t->buffer == nullptr)
            why = "transfer of " + std::to_string(t->length) + " bytes without a buffer or MDL";
        else if (t->in && t->length == 0)
            why = "IN transfer of 0 bytes";
        else if (t->length > pipe->second.max_transfer)
            why = "transfer of " + std::to_string(t->length) + " bytes above the pipe's maximum " +
                  std::to_string(pipe->second.max_transfer);
        break;
    }
    }
    UsbFaultKnob* inline_knob = nullptr;
    if (why.empty() && t->kind == Transfer::Kind::kData &&
        Fires(Fault::kInline, EndpointKey(t->endpoint->address), &inline_knob)) {
        refusal = inline_knob->status;
        why = "transfer failed inside IoCallDriver (inline knob)";
    }
    if (!why.empty()) {
        KeReleaseSpinLock(&lock, irql);
        delete t;
        return Refuse(irp, urb, refusal, why);
    }
    Record(t, irp, urb, false, USBD_STATUS_PENDING);
    bool unplug = false;
    if (function->removed) {
        t->cancel = true;
        t->forced = USBD_STATUS_DEVICE_GONE;
        Release(t);
    } else if (port->gone || Fires(Fault::kDeviceGone, 0) || (unplug = Fires(Fault::kUnplug, 0))) {
        MarkGone(port);
        t->cancel = true;
        t->forced = USBD_STATUS_DEVICE_GONE;
        Release(t);
    } else if (t->kind == Transfer::Kind::kControl || t->kind == Transfer::Kind::kSelect ||
               t->kind == Transfer::Kind::kData) {
        if (t->kind != Transfer::Kind::kData)
            t->endpoint = &port->ep0;
        uint32_t key = t->kind == Transfer::Kind::kData ? EndpointKey(t->endpoint->address)
                                                        : RequestKey(t->setup.request);
        UsbFaultKnob* knob = nullptr;
        if (Fires(Fault::kStall, key))
            t->stall = true;
        else if (Fires(Fault::kError, key, &knob)) {
            t->injected = knob->status;
            t->injected_nt = knob->nt_status;
        } else if (Fires(Fault::kNoAnswer, key))
            t->no_answer = true;
        if (Fires(Fault::kDelay, key, &knob))
            t->delay = knob->delay_ms * 10000;
        Enqueue(t);
    }
    NTSTATUS status = PendLocked(t);
    KeReleaseSpinLock(&lock, irql);
    if (unplug)
        Unplugged(port); // without the PnP manager the device is only gone
    return status;
}

// Marks the IRP pending with the bus's cancel routine; an IRP cancelled
// before that completes cancelled at once, through its DPC. Called under
// the lock before the transfer can run: its DPC may run as soon as the lock
// is released.
NTSTATUS Bus::Impl::PendLocked(Transfer* t) {
    PIRP irp = t->irp;
    IoMarkIrpPending(irp);
    pending[irp] = t;
    IoSetCancelRoutine(irp, CancelTransfer);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        t->cancel = true;
        t->forced = USBD_STATUS_CANCELED;
        Release(t);
    }
    return STATUS_PENDING;
}

VOID NTAPI Bus::Impl::CancelTransfer(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Impl* bus = static_cast<BusExtension*>(device->DeviceExtension)->bus;
    KIRQL irql;
    KeAcquireSpinLock(&bus->lock, &irql);
    auto it = bus->pending.find(irp);
    if (it != bus->pending.end()) {
        it->second->cancel = true;
        it->second->forced = USBD_STATUS_CANCELED;
        bus->Release(it->second);
    }
    KeReleaseSpinLock(&bus->lock, irql);
}

// Schedules the transfer's next step at due (a fault's delay added); a
// cancelled transfer runs at once.
void Bus::Impl::ArmAt(Transfer* t, int64_t due) {
    if (t->cancel) {
        Release(t);
        return;
    }
    if (t->scheduled)
        schedule.erase(t->slot);
    t->slot = schedule.emplace(due + t->delay, t);
    t->scheduled = true;
    ArmFrameTimer();
}

// A transfer taken by a running completion pass only learns that it was
// cancelled; the pass finishes it. A delayed transfer comes back that much
// later even when cancelled, like a controller slow to give transfers back.
void Bus::Impl::Release(Transfer* t) {
    if (t->running)
        return;
    if (t->scheduled)
        schedule.erase(t->slot);
    t->slot = schedule.emplace(hk::Kernel::Current().Now() + t->delay, t);
    t->scheduled = true;
    ArmFrameTimer();
    if (t->delay == 0)
        KeInsertQueueDpc(&completion_dpc, nullptr, nullptr);
}

// Absolute due times, so that completions fall on frame boundaries.
void Bus::Impl::ArmFrameTimer() {
    if (schedule.empty()) {
        KeCancelTimer(&frame_timer);
        return;
    }
    LARGE_INTEGER absolute;
    KeQuerySystemTime(&absolute);
    absolute.QuadPart += schedule.begin()->first - hk::Kernel::Current().Now();
    KeSetTimer(&frame_timer, absolute, &completion_dpc);
}

void Bus::Impl::Enqueue(Transfer* t) {
    Endpoint& ep = *t->endpoint;
    t->behind = !ep.queue.empty();
    ep.queue.push_back(t);
    if (ep.queue.front() == t)
        Activate(t);
}

// The endpoint's head transfer starts: control and OUT transfers complete
// after their modelled time, IN transfers look for data at the next frame
// or poll.
void Bus::Impl::Activate(Transfer* t) {
    PortState& port = *t->function->port;
    if (t->cancel)
        return; // its DPC is queued already

    if (t->endpoint->halted && t->kind == Transfer::Kind::kData) {
        t->injected = USBD_STATUS_ENDPOINT_HALTED;
        ArmAt(t, NextBoundary(FrameTime(port)));
        return;
    }
    if (t->no_answer)
        return;
    bool bulk = t->kind == Transfer::Kind::kData && t->endpoint->type == USB_ENDPOINT_TYPE_BULK;
    if (bulk && t->in && Continues(port, *t->endpoint, t->behind))
        ArmAt(t, hk::Kernel::Current().Now()); // the device's data, at once
    else if (bulk && !t->in)
        ArmAt(t, MoveBulk(port, *t->endpoint, t->behind, t->length));
    else
        ArmAt(t, DataDue(port, *t->endpoint,
                         t->in && t->kind == Transfer::Kind::kData ? 0 : t->length));
}

void Bus::Impl::DataReady(PortState* port, uint8_t endpoint) {
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    auto it = port->endpoints.find(endpoint);
    if (it != port->endpoints.end())
        it->second.data_ready++;
    if (it != port->endpoints.end() && !it->second.queue.empty()) {
        Transfer* head = it->second.queue.front();
        if (head->waiting) {
            head->waiting = false;
            ArmAt(head, DataDue(*port, it->second, 0));
        }
    }
    KeReleaseSpinLock(&lock, irql);
}

// One pass of the completion context: takes every transfer that is due
// and runs it outside the lock; a transfer taken by the pass belongs to it.
// Passes never overlap, even when the DPC runs on two processors at once:
// a host controller gives back its transfers from one context, so those of
// one endpoint reach their completion routines one after the other, in
// order. A pass asked for while one runs is made by the running one.
VOID NTAPI Bus::Impl::CompletionDpc(PKDPC, PVOID context, PVOID, PVOID) {
    auto* bus = static_cast<Impl*>(context);
    KIRQL irql;
    KeAcquireSpinLock(&bus->lock, &irql);
    if (bus->passing) {
        bus->pass_again = true;
        KeReleaseSpinLock(&bus->lock, irql);
        return;
    }
    bus->passing = true;
    do {
        bus->pass_again = false;
        std::vector<Transfer*> due;
        int64_t now = hk::Kernel::Current().Now();
        while (!bus->schedule.empty() && bus->schedule.begin()->first <= now) {
            Transfer* t = bus->schedule.begin()->second;
            bus->schedule.erase(bus->schedule.begin());
            t->scheduled = false;
            t->running = true;
            due.push_back(t);
        }
        bus->ArmFrameTimer();
        KeReleaseSpinLock(&bus->lock, irql);
        for (Transfer* t : due)
            bus->Run(t);
        KeAcquireSpinLock(&bus->lock, &irql);
    } while (bus->pass_again);
    bus->passing = false;
    KeReleaseSpinLock(&bus->lock, irql);
}

// Pulls packets from the device into an IN transfer until it is full or a
// short packet ends it; false while it must wait for more data.
bool Bus::Impl::PullIn(Transfer* t, USBD_STATUS& status) {
    Device& device = *t->function->port->device;
    uint16_t max_packet = t->endpoint->max_packet;
    while (t->done < t->length) {
        std::optional<std::vector<uint8_t>> packet = device.In(t->endpoint->address, max_packet);
        if (!packet)
            return false;
        if (packet->size() > t->length - t->done) {
            status = USBD_STATUS_BUFFER_OVERRUN;
            return true;
        }
        if (!packet->empty())
            memcpy(t->buffer + t->done, packet->data(), packet->size());
        t->done += ULONG(packet->size());
        if (packet->size() < max_packet) {
            if (t->done < t->length && !t->short_ok)
                status = USBD_STATUS_ERROR_SHORT_TRANSFER;
            return true;
        }
    }
    return true;
}

void Bus::Impl::Run(Transfer* t) {
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    PortState& port = *t->function->port;
    bool cancelled = t->cancel;
    // A suspended function's data waits, unscheduled, for its return to D0.
    if (!cancelled && t->kind == Transfer::Kind::kData && t->function->power != PowerDeviceD0) {
        t->running = false;
        t->parked = true;
        KeReleaseSpinLock(&lock, irql);
        return;
    }
    KeReleaseSpinLock(&lock, irql);
    if (cancelled) {
        Finish(t, t->forced);
        return;
    }
    USBD_STATUS status = t->injected;
    switch (t->kind) {
    case Transfer::Kind::kResetPort:
        KeAcquireSpinLock(&lock, &irql);
        if (status == USBD_STATUS_SUCCESS)
            for (auto& [address, ep] : port.endpoints)
                ep.halted = false;
        KeReleaseSpinLock(&lock, irql);
        break;
    case Transfer::Kind::kAbort:
        break;
    case Transfer::Kind::kResetPipe:
        if (status == USBD_STATUS_SUCCESS) {
            KeAcquireSpinLock(&lock, &irql);
            port.endpoints[t->pipe_address].halted = false;
            KeReleaseSpinLock(&lock, irql);
            port.device->Control(t->setup, {});
        }
        break;
    case Transfer::Kind::kControl:
    case Transfer::Kind::kSelect:
        if (status == USBD_STATUS_SUCCESS)
            status = RunControl(t);
        if (t->kind == Transfer::Kind::kSelect && status == USBD_STATUS_SUCCESS)
            ApplySelection(t);
        break;
    case Transfer::Kind::kData:
        if (!RunData(t, status))
            return;
        break;
    }
    Finish(t, status);
}

// The control transfer's stages with the device; a composite device's
// function reads its own part of the configuration descriptor. A deselect
// reaches the device only when no other function stays configured.
USBD_STATUS Bus::Impl::RunControl(Transfer* t) {
    PortState& port = *t->function->port;
    if (t->stall)
        return USBD_STATUS_STALL_PID;
    if (t->kind == Transfer::Kind::kSelect && t->setup.value == 0) {
        KIRQL irql;
        KeAcquireSpinLock(&lock, &irql);
        bool shared = false;
        for (auto& f : port.functions)
            shared = shared || (f.get() != t->function && f->configured);
        KeReleaseSpinLock(&lock, irql);
        if (shared)
            return USBD_STATUS_SUCCESS;
    }
    std::vector<uint8_t> out;
    if (!t->in && t->length)
        out.assign(t->buffer, t->buffer + t->length);
    ControlAnswer answer;
    bool function_config = port.functions.size() > 1 && t->setup.request_type == 0x80 &&
                           t->setup.request == USB_REQUEST_GET_DESCRIPTOR &&
                           t->setup.value >> 8 == USB_CONFIGURATION_DESCRIPTOR_TYPE;
    if (function_config) {
        SetupPacket whole = t->setup;
        whole.length = 0xffff;
        answer = port.device->Control(whole, out);
        if (!answer.stall)
            answer.data = FunctionConfiguration(answer.data, t->function->interfaces);
    } else {
        answer = port.device->Control(t->setup, out);
    }
    if (answer.stall)
        return USBD_STATUS_STALL_PID;
    if (!t->in) {
        t->done = t->length;
        return USBD_STATUS_SUCCESS;
    }
    t->done = ULONG(std::min<size_t>(answer.data.size(), t->length));
    if (t->done != 0)
        memcpy(t->buffer, answer.data.data(), t->done);
    if (t->done < t->length && !t->short_ok)
        return USBD_STATUS_ERROR_SHORT_TRANSFER;
    return USBD_STATUS_SUCCESS;
}

// A completed selection: new handles for the function's interfaces and
// pipes, filled into the URB's interface information; a deselection
// invalidates them.
void Bus::Impl::ApplySelection(Transfer* t) {
    PortState& port = *t->function->port;
    auto& select = t->urb->UrbSelectConfiguration;
    PUSB_CONFIGURATION_DESCRIPTOR config = select.ConfigurationDescriptor;
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    t->function->pipes.clear();
    t->function->configured = config != nullptr;
    bool any = false;
    for (auto& f : port.functions)
        any = any || f->configured;
    if (!any) {
        port.config_value = 0;
        port.config_remote_wakeup = false;
        port.endpoints.clear();
    }
    if (config != nullptr) {
        port.config_value = config->bConfigurationValue;
        port.config_remote_wakeup = (config->bmAttributes & USB_CONFIG_REMOTE_WAKEUP) != 0;
        select.ConfigurationHandle = NewHandle();
        PUCHAR end = reinterpret_cast<PUCHAR>(t->urb) + t->urb->UrbHeader.Length;
        PUCHAR config_end = reinterpret_cast<PUCHAR>(config) + config->wTotalLength;
        for (auto* info = &select.Interface;
             reinterpret_cast<PUCHAR>(info) + offsetof(USBD_INTERFACE_INFORMATION, Pipes) <= end;
             info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(info) +
                                                                  info->Length)) {
            PUSB_INTERFACE_DESCRIPTOR found = USBD_ParseConfigurationDescriptorEx(
                config, config, info->InterfaceNumber, info->AlternateSetting, -1, -1, -1);
            info->Class = found->bInterfaceClass;
            info->SubClass = found->bInterfaceSubClass;
            info->Protocol = found->bInterfaceProtocol;
            info->InterfaceHandle = NewHandle();
            // The interface's endpoint descriptors follow it, up to the next
            // interface; a descriptor that runs past the configuration's end
            // ends them, as one of length 0 does, and an endpoint descriptor
            // too short for its fields is passed over, as the driver does.
            ULONG pipe = 0;
            for (PUCHAR p = reinterpret_cast<PUCHAR>(found) + found->bLength;
                 pipe < info->NumberOfPipes && p + 2 <= config_end && p[0] != 0 &&
                 p + p[0] <= config_end && p[1] != USB_INTERFACE_DESCRIPTOR_TYPE;
                 p += p[0]) {
                if (p[1] != USB_ENDPOINT_DESCRIPTOR_TYPE || p[0] < sizeof(USB_ENDPOINT_DESCRIPTOR))
                    continue;
                auto* e = reinterpret_cast<PUSB_ENDPOINT_DESCRIPTOR>(p);
                USBD_PIPE_INFORMATION& pi = info->Pipes[pipe++];
                pi.MaximumPacketSize = e->wMaxPacketSize;
                pi.EndpointAddress = e->bEndpointAddress;
                pi.Interval = e->bInterval;
                pi.PipeType = USBD_PIPE_TYPE(e->bmAttributes & USB_ENDPOINT_TYPE_MASK);
                pi.PipeHandle = NewHandle();
                Endpoint& ep = port.endpoints[e->bEndpointAddress];
                ep.address = e->bEndpointAddress;
                ep.type = e->bmAttributes & USB_ENDPOINT_TYPE_MASK;
                ep.max_packet = e->wMaxPacketSize;
                ep.interval = e->bInterval;
                ep.halted = false;
                t->function->pipes[uintptr_t(pi.PipeHandle)] = {e->bEndpointAddress,
                                                                pi.MaximumTransferSize};
            }
        }
    }
    KeReleaseSpinLock(&lock, irql);
}

// Moves a data transfer's bytes; false while it must wait (for the device's
// data, or for the modelled end of a transfer that moved much).
bool Bus::Impl::RunData(Transfer* t, USBD_STATUS& status) {
    PortState& port = *t->function->port;
    KIRQL irql;
    if (status != USBD_STATUS_SUCCESS || t->finished)
        return true;
    if (t->stall) {
        status = USBD_STATUS_STALL_PID;
        KeAcquireSpinLock(&lock, &irql);
        t->endpoint->halted = true;
        KeReleaseSpinLock(&lock, irql);
        return true;
    }
    if (!t->in) {
        port.device->Out(t->endpoint->address,
                         std::vector<uint8_t>(t->buffer, t->buffer + t->length));
        t->done = t->length;
        return true;
    }
    KeAcquireSpinLock(&lock, &irql);
    uint64_t data_ready = t->endpoint->data_ready;
    KeReleaseSpinLock(&lock, irql);
    if (!PullIn(t, status)) {
        // DataReady schedules it again; data that arrived while this pass
        // pulled is looked for at once.
        KeAcquireSpinLock(&lock, &irql);
        t->running = false;
        if (t->cancel || t->endpoint->data_ready != data_ready)
            ArmAt(t, DataDue(port, *t->endpoint, 0));
        else
            t->waiting = true;
        KeReleaseSpinLock(&lock, irql);
        return false;
    }
    t->finished = true;
    int64_t due = t->endpoint->type == USB_ENDPOINT_TYPE_BULK
                      ? MoveBulk(port, *t->endpoint, t->behind, t->done)
                      : DataDue(port, *t->endpoint, t->done);
    if (t->endpoint->type == USB_ENDPOINT_TYPE_INTERRUPT || due <= NextBoundary(FrameTime(port)))
        return true;
    KeAcquireSpinLock(&lock, &irql);
    t->injected = status;
    t->running = false;
    ArmAt(t, due);
    KeReleaseSpinLock(&lock, irql);
    return false;
}

// Completes the transfer's IRP and frees it; the endpoint's next transfer
// starts.
void Bus::Impl::Finish(Transfer* t, USBD_STATUS status) {
    PIRP irp = t->irp;
    KIRQL irql;
    KeAcquireSpinLock(&lock, &irql);
    pending.erase(irp);
    IoSetCancelRoutine(irp, nullptr);
    if (t->endpoint != nullptr) {
        auto& queue = t->endpoint->queue;
        bool was_head = !queue.empty() && queue.front() == t;
        queue.erase(std::remove(queue.begin(), queue.end(), t), queue.end());
        if (was_head && !queue.empty())
            Activate(queue.front());
    }
    if (t->urb != nullptr) {
        t->urb->UrbHeader.Status = status;
        switch (t->urb->UrbHeader.Function) {
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            t->urb->UrbBulkOrInterruptTransfer.TransferBufferLength = t->done;
            break;
        case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
            t->urb->UrbControlDescriptorRequest.TransferBufferLength = t->done;
            break;
        case URB_FUNCTION_SELECT_CONFIGURATION:
        case URB_FUNCTION_ABORT_PIPE:
        case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
            break;
        default:
            t->urb->UrbControlVendorClassRequest.TransferBufferLength = t->done;
            break;
        }
    }
    Record(t, irp, t->urb, true, status);
    KeReleaseSpinLock(&lock, irql);
    NTSTATUS nt_status = t->injected_nt != STATUS_SUCCESS ? t->injected_nt : NtStatusFor(status);
    delete t;
    irp->IoStatus.Status = nt_status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

void Bus::Impl::MarkGone(PortState* port) {
    port->gone = true;
    auto fail = [&](Endpoint& ep) {
        for (Transfer* t : ep.queue) {
            t->cancel = true;
            t->forced = USBD_STATUS_DEVICE_GONE;
            Release(t);
        }
    };
    fail(port->ep0);
    for (auto& [address, ep] : port->endpoints)
        fail(ep);
}

// A driver still attached keeps the device in its port (gone, but with its
// physical device objects), as the verifier then reports at teardown.
void Bus::Impl::DeleteFunctions(PortState* port) {
    for (auto& function : port->functions) {
        if (function->pdo->AttachedDevice != nullptr) {
            Diagnose("port " + std::to_string(port->number) +
                     ": a driver is still attached to the device; it stays in its port");
            return;
        }
    }
    for (auto& function : port->functions)
        IoDeleteDevice(function->pdo);
    port->functions.clear();
    port->device->SetDataReady(nullptr);
    port->device->SetRemoteWake(nullptr);
    port->device.reset();
}

Bus::Bus(BusOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Bus::~Bus() = default;

int Bus::Plug(std::shared_ptr<Device> device, Speed speed) {
    Impl& bus = *impl_;
    for (auto& port : bus.ports) {
        if (port->device)
            continue;
        port->device = device;
        port->speed = speed;
        port->gone = false;
        port->unplugged = false;
        port->identity = Identity{};
        port->config_value = 0;
        port->endpoints.clear();
        port->address = bus.next_address++;
        port->ep0 = Endpoint{};
        PortState* state = port.get();
        device->SetDataReady([&bus, state](uint8_t ep) { bus.DataReady(state, ep); });
        device->SetRemoteWake([&bus, state] { bus.RemoteWake(state); });
        for (auto& interfaces : device->Functions()) {
            // A function of no interface (an association that counts none)
            // has nothing to drive: no physical device object.
            if (interfaces.empty())
                continue;
            // Functions are told apart by their first interface (MI_xx): a
            // second association of the same first interface would be a
            // second device of the same instance, so it gets none.
            uint8_t first = interfaces.front();
            if (std::any_of(port->functions.begin(), port->functions.end(),
                            [first](const auto& f) { return f->interfaces.front() == first; })) {
                bus.Diagnose("a second function of first interface " + std::to_string(first) +
                             ": no device object for it");
                continue;
            }
            auto function = std::make_unique<Function>();
            function->port = state;
            function->interfaces = interfaces;
            // The hub's own allocations are not the driver's to survive.
            hk::Pool::Exempt exempt(hk::Kernel::Current().pool());
            if (IoCreateDevice(bus.driver.Object(), sizeof(BusExtension), nullptr,
                               FILE_DEVICE_UNKNOWN, FILE_AUTOGENERATED_DEVICE_NAME, FALSE,
                               &function->pdo) != STATUS_SUCCESS) {
                std::fprintf(stderr, "hostusb: cannot create a physical device object\n");
                std::abort();
            }
            *static_cast<BusExtension*>(function->pdo->DeviceExtension) = {BusExtension::kPdo, &bus,
                                                                           function.get()};
            function->pdo->Flags &= ~DO_DEVICE_INITIALIZING;
            port->functions.push_back(std::move(function));
        }
        bus.Enumerate(state);
        IoInvalidateDeviceRelations(bus.hub, BusRelations);
        return port->number;
    }
    bus.Diagnose("no free port for another device");
    return 0;
}

void Bus::Unplug(int port) {
    PortState* state = impl_->Port(port);
    if (state == nullptr || !state->device || state->unplugged)
        return; // empty, or pulled out already (a fault's unplug)
    KIRQL irql;
    KeAcquireSpinLock(&impl_->lock, &irql);
    impl_->MarkGone(state);
    KeReleaseSpinLock(&impl_->lock, irql);
    if (!impl_->Unplugged(state))
        impl_->DeleteFunctions(state);
}

// Under the PnP manager the device objects go when it removes them, once
// it has learned from the hub that the device is missing; false without it,
// and for a device of no function, which has no device object to remove.
bool Bus::Impl::Unplugged(PortState* port) {
    if (!hk::Kernel::Current().pnp().Active() || port->functions.empty())
        return false;
    port->unplugged = true;
    IoInvalidateDeviceRelations(hub, BusRelations);
    return true;
}

void Bus::DeviceGone(int port) {
    PortState* state = impl_->Port(port);
    if (state == nullptr)
        return;
    KIRQL irql;
    KeAcquireSpinLock(&impl_->lock, &irql);
    impl_->MarkGone(state);
    KeReleaseSpinLock(&impl_->lock, irql);
}

PDEVICE_OBJECT Bus::Pdo(int port, size_t function) const {
    PortState* state = impl_->Port(port);
    if (state == nullptr || function >= state->functions.size())
        return nullptr;
    return state->functions[function]->pdo;
}

PDEVICE_OBJECT Bus::HubDevice() const {
    return impl_->hub;
}

UsbFaultKnob& Bus::AddFault(Fault kind, UsbFaultKnob knob) {
    impl_->faults.emplace_back(kind, knob);
    return impl_->faults.back().second;
}

void Bus::ClearFaults() {
    impl_->faults.clear();
}

const std::deque<std::string>& Bus::Diagnostics() const {
    return impl_->diagnostics;
}

std::vector<Notification> Bus::Notifications(int port) const {
    std::vector<Notification> all;
    if (PortState* state = impl_->Port(port))
        for (auto& function : state->functions)
            all.insert(all.end(), function->notifications.begin(), function->notifications.end());
    return all;
}

uint64_t Bus::UrbsSubmitted(int port) const {
    PortState* state = impl_->Port(port);
    return state ? state->urbs : 0;
}

size_t Bus::PendingTransfers(int port) const {
    size_t count = 0;
    for (auto& [irp, t] : impl_->pending)
        if (t->function->port->number == port)
            count++;
    return count;
}

uint8_t Bus::ConfigurationValue(int port) const {
    PortState* state = impl_->Port(port);
    return state ? state->config_value : 0;
}

void Bus::CloseCapture() {
    if (impl_->capture)
        impl_->capture->Close();
}

} // namespace hu
