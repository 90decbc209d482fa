// Fuzzes the PPP deframer with arbitrary host bytes while send packets come
// and go.
//
// Input: a send-packet size and a packet count; then records of an
// operation and its argument: write host bytes (the argument counts them,
// they follow), complete transfers in flight, let the send buffer run
// empty, or switch immediate completion on or off. Host bytes go through a
// model of the serial port's send pass (a refused byte stays pending). At
// the end every transfer completes and the modem must have received exactly
// the packets the host's frames describe.
#include "fuzz_support.h"
#include "ppp_reference.h"
#include "ppp_rig.h"

#include <deque>

using namespace ppp_test;

namespace {

// The serial port's send pass in PPP mode: the send buffer, whose first byte
// the deframer may refuse for now.
class SendPass {
  public:
    explicit SendPass(PppRig& rig) : rig_(rig) {}
    void Write(const Bytes& bytes) {
        queue_.insert(queue_.end(), bytes.begin(), bytes.end());
        Run();
    }
    // A refused byte stays at the front until the deframer takes it.
    void Run() {
        while (!queue_.empty()) {
            if (!PppDeFramerSendChar(&rig_.DeFramer(), queue_.front()))
                return;
            queue_.pop_front();
        }
        rig_.SubmitWaiting();
    }
    bool Idle() const { return queue_.empty(); }

  private:
    PppRig& rig_;
    std::deque<uint8_t> queue_;
};

void CheckDeFramer(PppRig& rig) {
    PPP_DEFRAMER& deframer = rig.DeFramer();
    PUCHAR buffer_end = deframer.Buffer + sizeof(deframer.Buffer);
    FUZZ_CHECK(deframer.Device == &rig.Device());
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

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::Init(TL_ASSERT | TL_ERROR | TL_PPP);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::BeginInput();
    fuzz::Reader input(data, size);
    SendEngineOptions options;
    options.PacketSize = 1 + input.Byte();
    options.Packets = 1 + input.Byte() % 4;
    options.AutoComplete = false;
    PppRig rig(options);
    rig.StartFraming({});
    SendPass pass(rig);
    Bytes host;

    while (!input.Empty()) {
        uint8_t operation = input.Byte();
        uint8_t argument = input.Byte();
        switch (operation % 4) {
        case 0: {
            Bytes bytes = input.Take(argument);
            host.insert(host.end(), bytes.begin(), bytes.end());
            pass.Write(bytes);
            break;
        }
        case 1: // the send engine calls the send pass after each completion
            for (unsigned i = 0; i <= argument % 4u && rig.CompleteSend(); i++)
                pass.Run();
            break;
        case 2:
            pass.Run();
            break;
        case 3:
            rig.SetAutoComplete(argument & 1);
            break;
        }
        CheckDeFramer(rig);
        fuzz::CheckTrace();
    }

    // Every completion runs the send pass again, until all is sent.
    rig.SetAutoComplete(true);
    for (;;) {
        while (rig.CompleteSend())
            ;
        uint64_t chunks = rig.SentChunks();
        pass.Run();
        if (pass.Idle() && rig.DeFramer().State != PPP_DEFRAMER_SUBMIT_PENDING)
            break;
        FUZZ_CHECK(rig.SentChunks() > chunks);
    }
    FUZZ_CHECK(rig.DeFramer().State != PPP_DEFRAMER_SUBMIT_PENDING);
    CheckDeFramer(rig);

    auto packets = ParseModemPackets(rig.SentStream());
    FUZZ_CHECK(packets.has_value());
    std::vector<Bytes> frames = ReferenceDeFrame(host);
    FUZZ_CHECK(packets->size() == frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        FUZZ_CHECK((*packets)[i].sequence == i % PPP_SEQUENCE_MODULO);
        FUZZ_CHECK((*packets)[i].content == frames[i]);
    }
    FUZZ_CHECK(rig.Violations().empty());
    fuzz::CheckTrace();
    return 0;
}
