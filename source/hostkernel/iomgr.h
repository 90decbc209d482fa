// The I/O manager's own state, internal to the stand-in: the object
// namespace (device names and symbolic links), what it knows of every device
// object, IRP and work item, the system cancel spin lock, and the checks made
// when the kernel is torn down.
#pragma once

#include "hostkernel/emu.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace hk::detail {

struct DeviceInfo {
    std::u16string name;                  // empty: unnamed
    PDEVICE_OBJECT attached_to = nullptr; // the device this one sits on
    bool delete_requested = false;        // IoDeleteDevice called; freed at the last reference
    int open_files = 0;
    DEVICE_POWER_STATE power = PowerDeviceUnspecified; // as last given to PoSetPowerState
};

// Who gets an IRP back once its last completion routine has run.
enum class IrpOrigin {
    kDriver,     // IoInitializeIrp on driver memory: must be taken back by a completion routine
    kAllocated,  // IoAllocateIrp: likewise, and freed by IoFreeIrp
    kBuiltIoctl, // IoBuildDeviceIoControlRequest: the I/O manager finishes and frees it
    kFile,       // an application request through hk::File
    kPower,      // the power manager's: finished by it, a completion function called, and freed
};

struct IrpInfo {
    IrpOrigin origin = IrpOrigin::kDriver;
    bool gone = false; // freed; IofCallDriver frames still on the stack may hold this record
    unsigned completions = 0;
    uint64_t total_sends = 0;
    // total_sends when the innermost completion routine now running began;
    // a completion with no send since then completes the IRP a second time.
    uint64_t routine_mark = UINT64_MAX;
    // What one stack location has seen.
    struct Location {
        // Bumped at every send, so a frame knows whether the unwinding it
        // sees belongs to its own send.
        uint32_t sends = 0;
        uint32_t unwound_send = 0;          // the send that completion unwound past, 0: none
        uint32_t reclaimed_send = 0;        // the send whose routine here took the IRP back
        uint32_t power_started = 0;         // the send during which PoStartNextPowerIrp was called
        bool pending = false;               // SL_PENDING_RETURNED seen while unwinding
        bool active = false;                // sent there and not unwound yet: a driver owns it
        NTSTATUS status = STATUS_PENDING;   // IoStatus.Status when completion passed
        NTSTATUS returned = STATUS_PENDING; // what the last IofCallDriver there returned
    };
    std::vector<Location> at; // one allocation per IRP, not one per field
    // Runs once the IRP reached its originator (built and file IRPs): copies
    // buffers back, signals the waiter and frees the IRP.
    std::function<void(PIRP)> finish;
};

class IoManager {
  public:
    explicit IoManager(Kernel& kernel);
    ~IoManager();

    // Namespace. Names compare case-insensitively; "\DosDevices\" is "\??\".
    static std::u16string Key(std::u16string_view name);
    NTSTATUS InsertDevice(std::u16string_view name, PDEVICE_OBJECT device);
    NTSTATUS InsertLink(std::u16string_view link, std::u16string_view target);
    NTSTATUS RemoveLink(std::u16string_view link);
    void RemoveName(std::u16string_view name);
    PDEVICE_OBJECT Lookup(std::u16string_view name) const; // follows symbolic links
    const std::u16string* LinkTarget(std::u16string_view link) const;

    // Device objects.
    std::map<PDEVICE_OBJECT, DeviceInfo> devices;
    DeviceInfo* FindDevice(PDEVICE_OBJECT device);
    void Reference(PDEVICE_OBJECT device);
    void Dereference(PDEVICE_OBJECT device);
    void FreeDevice(PDEVICE_OBJECT device);

    // IRPs.
    // A record lives from the IRP's allocation or initialisation until its
    // memory is freed (Release, or the pool block holding it), so that a
    // long-lived kernel keeps records of live IRPs only. The addresses of
    // the last kFreedIrpsKept completed and freed IRPs are kept to tell a
    // second completion from an unknown IRP; a touch of freed memory beyond
    // them still faults (the pool hands the block back at once).
    std::unordered_map<PIRP, std::shared_ptr<IrpInfo>> irps;
    static constexpr size_t kFreedIrpsKept = 4096;
    std::unordered_set<PIRP> completed_and_freed;
    std::deque<PIRP> completed_and_freed_order; // oldest first
    std::shared_ptr<IrpInfo> FindIrp(PIRP irp) const;
    std::shared_ptr<IrpInfo> Register(PIRP irp, IrpOrigin origin);
    void Release(PIRP irp); // forgets the IRP and frees its pool block
    // Forgets the IRPs inside a pool block about to be freed.
    void ForgetIrpsIn(const void* block, size_t bytes);

    // The dispatch and completion routines each context is running, per IRP
    // and stack location: who is asking when a driver touches an IRP.
    struct Frame {
        PIRP irp;
        size_t index;
    };
    std::map<const void*, std::vector<Frame>> frames;
    const Frame* InnermostFrame(PIRP irp) const;

    // Work items (their record is private to workitem.cpp).
    std::set<PIO_WORKITEM> work_items;
    void FreeWorkItemBlock(PIO_WORKITEM item);

    KSPIN_LOCK cancel_lock = 0;
    unsigned next_autogenerated_name = 1; // \Device\00000001, ...

    // Reports IRPs, work items and device objects left over, and frees them.
    void CheckTeardown();

  private:
    struct NamedObject {
        PDEVICE_OBJECT device = nullptr;
        std::u16string link_target; // set for symbolic links
    };
    Kernel& kernel_;
    std::map<std::u16string, NamedObject> names_;
};

IoManager& Io();

// A new IRP from non-paged pool (null when the pool fails), known to the
// I/O manager with the given origin.
PIRP NewIrp(CCHAR stack_size, IrpOrigin origin);
// IofCallDriver; power_call when PoCallDriver or the power manager sends.
NTSTATUS CallDriver(PDEVICE_OBJECT device, PIRP irp, bool power_call);

// Pool tags of the I/O manager's own blocks.
inline constexpr ULONG kDeviceTag = 0x69766544;       // 'Devi'
inline constexpr ULONG kIrpTag = 0x20707249;          // 'Irp '
inline constexpr ULONG kSystemBufferTag = 0x62537249; // 'IrSb'
inline constexpr ULONG kMdlTag = 0x206c644d;          // 'Mdl '
inline constexpr ULONG kWorkItemTag = 0x6b576f49;     // 'IoWk'
inline constexpr ULONG kFileTag = 0x656c6946;         // 'File'

// Reports when the IRQL is above max for the named call.
bool CheckIoIrql(const char* call, KIRQL max);
std::string Hex(uint64_t value);
// A name for messages: ASCII kept, anything else as '?'.
std::string Narrow(std::u16string_view text);

} // namespace hk::detail
