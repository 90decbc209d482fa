// Fuzzes the PPP deframer with arbitrary host bytes while bulk-out
// transfers take their time, on the device rig with framing switched on as
// a modem does: the host's bytes go through write IRPs, the serial port's
// send pass and the real send engine to the modem, which checks the modem
// packets.
//
// Input: an options byte (bit 0: trace errors and PPP too, not only
// assertions); a send-packet size; then records of an operation and its argument:
// write host bytes (the argument counts them, they follow), let virtual time
// pass, or delay the bulk-out completions by up to 7 ms (0: no delay). At
// the end every write completes and the modem must have received exactly
// the frames the host's bytes describe, in sequence and with their FCS.
#define TRACE_FILE "tests/fuzz/ppp_deframer_fuzzer"
#include "device_rig.h"
#include "fuzz_support.h"
#include "ppp_reference.h"

using namespace ppp_test;

namespace {

void CheckDeFramer(DeviceRig& rig) {
    PPP_DEFRAMER& deframer = rig.dev->PppDeFramer;
    PUCHAR buffer_end = deframer.Buffer + sizeof(deframer.Buffer);
    FUZZ_CHECK(deframer.Device == rig.dev);
    FUZZ_CHECK(deframer.End == buffer_end);
    switch (deframer.State) {
    case PPP_DEFRAMER_HUNT:
    case PPP_DEFRAMER_IN_FRAME:
    case PPP_DEFRAMER_ESCAPE:
        FUZZ_CHECK(deframer.WritePtr >= deframer.Buffer && deframer.WritePtr < buffer_end);
        FUZZ_CHECK(deframer.Count == (ULONG)(deframer.WritePtr - deframer.Buffer));
        break;
    case PPP_DEFRAMER_SUBMIT_PENDING:
        FUZZ_CHECK(deframer.WritePtr >= deframer.Header && deframer.Count > 0);
        FUZZ_CHECK(deframer.WritePtr + deframer.Count <= deframer.Buffer + PPP_LENGTH_MASK);
        break;
    default:
        FUZZ_CHECK(!"deframer state out of range");
    }
}

void StartDeFramer(DeviceRig& rig, ULONG chunk) {
    FUZZ_CHECK(StartFraming(rig.dev) == STATUS_SUCCESS);
    KIRQL irql;
    DEVICE_LOCK(rig.dev, &irql);
    PppDeFramerInit(&rig.dev->PppDeFramer, rig.dev);
    rig.dev->SendChunkSize = chunk;
    DEVICE_UNLOCK(rig.dev, irql);
    rig.modem->TakeFrames();
}

// One rig serves every input: built at the first, with framing on, and
// taken apart at exit. Each input starts framing afresh as the driver's
// switch does (the deframer started, the modem's numbering restarted by
// the start-framing request) and sets the send chunk size.
DeviceRig& Rig() {
    static DeviceRig* rig = nullptr;
    if (rig == nullptr) {
        fuzz::SharedKernel();
        ResetDriverState(TL_ASSERT);
        rig = new DeviceRig();
        DeviceRigOptions options;
        options.started = true;
        options.write_packet = 256;
        FUZZ_CHECK(rig->Build(options) && rig->SwitchToPpp({}));
        rig->DropCompleted();
        // What the first start leaves allocated for the next is not an input's.
        StartDeFramer(*rig, options.write_packet);
        fuzz::OnTearDown([] {
            rig->TearDown();
            FUZZ_CHECK(rig->Failures().empty());
            delete rig;
            FUZZ_CHECK(MemoryCounter == 0);
        });
    }
    return *rig;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DeviceRig& rig = Rig();
    fuzz::Input scope;
    fuzz::Reader input(data, size);
    TraceMask = fuzz::TraceMaskFor(input.Byte(), TL_ERROR | TL_PPP);
    StartDeFramer(rig, 1 + input.Byte());
    uint32_t bad_magic = rig.modem->BadMagic(), bad_sequence = rig.modem->BadSequence();
    {
        // A started deframer is inside a frame, as after the flag that
        // switched framing on.
        Bytes host{PPP_FLAG};
        std::vector<AppRequest*> writes;
        while (!input.Empty()) {
            uint8_t operation = input.Byte();
            uint8_t argument = input.Byte();
            switch (operation % 3) {
            case 0: {
                // A zero-length write trips the serial port's assertion
                // that queued writes carry bytes; it is not the deframer's.
                Bytes bytes = input.Take(argument);
                if (bytes.empty())
                    break;
                AppRequest* write = rig.Write(bytes);
                // With every request of the port's pool queued, the driver
                // refuses a write at once and its bytes never go out.
                if (write->returned == STATUS_INSUFFICIENT_RESOURCES) {
                    FUZZ_CHECK(write->completed && write->status == STATUS_INSUFFICIENT_RESOURCES);
                    break;
                }
                host.insert(host.end(), bytes.begin(), bytes.end());
                writes.push_back(write);
                break;
            }
            case 1:
                rig.RunFor(argument % 8);
                break;
            case 2: {
                rig.bus->ClearFaults();
                hu::UsbFaultKnob delay;
                delay.every = 1;
                delay.delay_ms = argument % 8;
                if (delay.delay_ms != 0)
                    rig.bus->AddFault(hu::Fault::kDelay, delay);
                break;
            }
            }
            CheckDeFramer(rig);
            fuzz::CheckTrace();
        }

        rig.bus->ClearFaults();
        for (AppRequest* write : writes)
            FUZZ_CHECK(rig.Wait(write, 60000) && write->status == STATUS_SUCCESS);
        // Small send packets take many transfers: time runs until the modem
        // has as many frames as the host wrote.
        std::vector<Bytes> frames = ReferenceDeFrame(host);
        std::vector<Bytes> received;
        for (int ms = 0; received.size() < frames.size() && ms < 600000; ms += 10) {
            rig.RunFor(10);
            for (Bytes& frame : rig.modem->TakeFrames())
                received.push_back(std::move(frame));
        }
        rig.RunFor(10);
        FUZZ_CHECK(rig.dev->PppDeFramer.State != PPP_DEFRAMER_SUBMIT_PENDING);
        CheckDeFramer(rig);
        FUZZ_CHECK(rig.modem->BadMagic() == bad_magic && rig.modem->BadSequence() == bad_sequence);
        FUZZ_CHECK(received == frames);
        FUZZ_CHECK(rig.Failures().empty());
        FUZZ_CHECK(rig.port->RequestPool.Count == 0);
        rig.DropCompleted();
        rig.modem->ForgetRequests();
    }
    return 0;
}
