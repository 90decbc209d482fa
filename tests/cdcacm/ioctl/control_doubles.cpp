// Doubles of the operations the I/O control dispatch hands work to: the CDC
// control requests of the port module and the purges of the send and
// receive engines. They are weak, so that the real operations take their
// place once those modules are linked; they record each call and behave as
// far as the dispatch can see (DTR and RTS change PcStatus, GetModemStatus
// copies ModemStatus). The send engine's doubles come with the shared
// device fixture.
#include "ioctl_rig.h"

#define TEST_DOUBLE __attribute__((weak))

std::vector<std::string>& Calls() {
    static std::vector<std::string> calls;
    return calls;
}

NTSTATUS ControlRequestStatus = STATUS_SUCCESS;

static NTSTATUS ControlRequest(const char* Name) {
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << Name << " runs in a work item";
    Calls().push_back(Name);
    return ControlRequestStatus;
}

TEST_DOUBLE NTSTATUS SendLineCoding(PDEVICE) {
    return ControlRequest("SendLineCoding");
}
TEST_DOUBLE NTSTATUS SetDTR(PDEVICE Dev) {
    Dev->PcStatus |= 0x01;
    return ControlRequest("SetDTR");
}
TEST_DOUBLE NTSTATUS ClrDTR(PDEVICE Dev) {
    Dev->PcStatus &= ~0x01;
    return ControlRequest("ClrDTR");
}
TEST_DOUBLE NTSTATUS SetRTS(PDEVICE Dev) {
    Dev->PcStatus |= 0x02;
    return ControlRequest("SetRTS");
}
TEST_DOUBLE NTSTATUS ClrRTS(PDEVICE Dev) {
    Dev->PcStatus &= ~0x02;
    return ControlRequest("ClrRTS");
}
TEST_DOUBLE NTSTATUS SendBreakOn(PDEVICE) {
    return ControlRequest("SendBreakOn");
}
TEST_DOUBLE NTSTATUS SendBreakOff(PDEVICE) {
    return ControlRequest("SendBreakOff");
}
TEST_DOUBLE VOID GetModemStatus(PDEVICE Dev, PULONG ModemStatus) {
    *ModemStatus = Dev->ModemStatus;
}

TEST_DOUBLE VOID RcvPurge(PSNDRCV_PIPE) {
    Calls().push_back("RcvPurge");
}
TEST_DOUBLE VOID RcvScheduleDpc(PSNDRCV_PIPE) {
    Calls().push_back("RcvScheduleDpc");
}
TEST_DOUBLE VOID SndPurge(PSNDRCV_PIPE) {
    Calls().push_back("SndPurge");
}
