// Weak stand-ins for operations whose modules come in later issues: the send
// engine's packet interface, the receive engine's parked-data check, the
// wait-on-mask event entry and device deletion. A real module linked into a
// test overrides them, so the same tests keep working when it lands.
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
WEAK VOID IndicateWaitEvent(PPORT_OBJ, ULONG Mask) {
    LaterDoubles().wait_events.push_back(Mask);
}
// The fixture deletes the data port itself at teardown.
WEAK VOID DeleteDevice(PDEVICE_OBJECT DeviceObject) {
    LaterDoubles().deleted.push_back(DeviceObject);
}
