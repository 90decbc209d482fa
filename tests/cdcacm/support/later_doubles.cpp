// Weak stand-ins for operations whose modules come in later issues: the send
// engine's packet interface, the receive engine's parked-data check and
// purges, device deletion and the CDC control requests. A real module linked into a test overrides
// them, so the same tests keep working when it lands. The control requests and purges record each
// call in ControlCalls() and behave as far as the I/O control dispatch can see (DTR and RTS change
// PcStatus, GetModemStatus copies ModemStatus).
#include "device_fixture.h"

LaterDoubleCalls& LaterDoubles() {
    static LaterDoubleCalls calls;
    return calls;
}

#define WEAK __attribute__((weak))

// No send packet exists yet: nothing may be sent, bytes stay in the send
// buffer.
WEAK BOOLEAN GetWriteBuffer(PDEVICE, PUCHAR*, PULONG, PUSB_PACKET*) {
    return FALSE;
}
WEAK void SubmitWriteBuffer(PDEVICE, PUCHAR, ULONG, PUSB_PACKET) {
    LaterDoubles().submit_write_buffer++;
}
WEAK void ReturnWriteBuffer(PDEVICE, PUCHAR, PUSB_PACKET) {}
WEAK ULONG SndRcvIndicateData(PDEVICE, const UCHAR*, ULONG) {
    return 0;
}
WEAK VOID SndRcvCheckRcvQueue(PSNDRCV_PIPE) {
    LaterDoubles().check_rcv_queue++;
}
// The fixture deletes the data port itself at teardown.
WEAK VOID DeleteDevice(PDEVICE_OBJECT DeviceObject) {
    LaterDoubles().deleted.push_back(DeviceObject);
}

std::vector<std::string>& ControlCalls() {
    static std::vector<std::string> calls;
    return calls;
}

NTSTATUS ControlRequestStatus = STATUS_SUCCESS;

static NTSTATUS ControlRequest(const char* Name) {
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << Name << " runs in a work item";
    ControlCalls().push_back(Name);
    return ControlRequestStatus;
}

WEAK NTSTATUS SendLineCoding(PDEVICE) {
    return ControlRequest("SendLineCoding");
}
WEAK NTSTATUS SetDTR(PDEVICE Dev) {
    Dev->PcStatus |= 0x01;
    return ControlRequest("SetDTR");
}
WEAK NTSTATUS ClrDTR(PDEVICE Dev) {
    Dev->PcStatus &= ~0x01;
    return ControlRequest("ClrDTR");
}
WEAK NTSTATUS SetRTS(PDEVICE Dev) {
    Dev->PcStatus |= 0x02;
    return ControlRequest("SetRTS");
}
WEAK NTSTATUS ClrRTS(PDEVICE Dev) {
    Dev->PcStatus &= ~0x02;
    return ControlRequest("ClrRTS");
}
WEAK NTSTATUS SendBreakOn(PDEVICE) {
    return ControlRequest("SendBreakOn");
}
WEAK NTSTATUS SendBreakOff(PDEVICE) {
    return ControlRequest("SendBreakOff");
}
WEAK VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus) {
    *ModemStatus = Dev->ModemStatus;
}

WEAK VOID RcvPurge(PSNDRCV_PIPE) {
    ControlCalls().push_back("RcvPurge");
}
WEAK VOID RcvScheduleDpc(PSNDRCV_PIPE) {
    ControlCalls().push_back("RcvScheduleDpc");
}
WEAK VOID SndPurge(PSNDRCV_PIPE) {
    ControlCalls().push_back("SndPurge");
}
