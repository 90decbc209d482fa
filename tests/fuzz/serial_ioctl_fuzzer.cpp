// Fuzzes the serial I/O controls as an application sends them: arbitrary
// codes of the serial device type (buffered or neither I/O, any access),
// arbitrary input bytes and input and output lengths, several per input,
// through the I/O manager's DeviceIoControl on an open port of a modem the
// driver started under the PnP manager. Requests may pend (a wait on the
// event mask, an XOFF counter); the close at the end must complete them.
// The verifier checks each completion (an Information beyond the output
// buffer, a status returned other than the one completed, ...).
//
// One ordinary modem stays plugged with its port open across inputs. The
// first input reads the port's settings as the open left them; each input
// ends by setting them back (and DTR and RTS), emptying the wait mask,
// purging, and cancelling whatever still pends, so that the next one
// starts alike.
//
// Input: an options byte (bit 0: trace errors and I/O controls too); then
// records of a function byte, a flags byte (bit 0: neither I/O instead of
// buffered; bits 1-2: the access; bits 3-7: ms to let pass afterwards), an
// input length, an output length and the input bytes.
#define TRACE_FILE "tests/fuzz/serial_ioctl_fuzzer"
#include "fuzz_machine.h"

#include <array>

using Bytes = std::vector<uint8_t>;

namespace {

// A setting as read with its GET code and written back with its SET code.
struct Setting {
    ULONG get, set, length;
    Bytes value;
};

std::array<Setting, 5>& Settings() {
    static std::array<Setting, 5> settings{{
        {IOCTL_SERIAL_GET_BAUD_RATE, IOCTL_SERIAL_SET_BAUD_RATE, sizeof(SERIAL_BAUD_RATE), {}},
        {IOCTL_SERIAL_GET_LINE_CONTROL,
         IOCTL_SERIAL_SET_LINE_CONTROL,
         sizeof(SERIAL_LINE_CONTROL),
         {}},
        {IOCTL_SERIAL_GET_HANDFLOW, IOCTL_SERIAL_SET_HANDFLOW, sizeof(SERIAL_HANDFLOW), {}},
        {IOCTL_SERIAL_GET_CHARS, IOCTL_SERIAL_SET_CHARS, sizeof(SERIAL_CHARS), {}},
        {IOCTL_SERIAL_GET_TIMEOUTS, IOCTL_SERIAL_SET_TIMEOUTS, sizeof(SERIAL_TIMEOUTS), {}},
    }};
    return settings;
}

void Control(hk::File& file, ULONG code, const void* input, ULONG length) {
    FUZZ_CHECK(file.DeviceIoControl(code, input, length, nullptr, 0).status == STATUS_SUCCESS);
}

ULONG& DtrRts() {
    static ULONG lines = 0;
    return lines;
}

// The queue sizes as GET_PROPERTIES reports them (CurrentTxQueue,
// CurrentRxQueue), to be set back with SET_QUEUE_SIZE.
SERIAL_QUEUE_SIZE& QueueSizes() {
    static SERIAL_QUEUE_SIZE sizes{};
    return sizes;
}

void ReadSettings(hk::File& file) {
    for (Setting& setting : Settings()) {
        setting.value.assign(setting.length, 0);
        hk::IoResult result =
            file.DeviceIoControl(setting.get, nullptr, 0, setting.value.data(), setting.length);
        FUZZ_CHECK(result.status == STATUS_SUCCESS && result.information == setting.length);
    }
    hk::IoResult result =
        file.DeviceIoControl(IOCTL_SERIAL_GET_DTRRTS, nullptr, 0, &DtrRts(), sizeof(ULONG));
    FUZZ_CHECK(result.status == STATUS_SUCCESS);
    SERIAL_COMMPROP properties{};
    result = file.DeviceIoControl(IOCTL_SERIAL_GET_PROPERTIES, nullptr, 0, &properties,
                                  sizeof(properties));
    FUZZ_CHECK(result.status == STATUS_SUCCESS);
    QueueSizes() = {properties.CurrentRxQueue, properties.CurrentTxQueue};
}

// Back to what the open left: the settings, the queue sizes, DTR and RTS,
// no wait mask, no break, transmission on, nothing queued.
void RestoreSettings(hk::File& file) {
    for (const Setting& setting : Settings())
        Control(file, setting.set, setting.value.data(), setting.length);
    Control(file, IOCTL_SERIAL_SET_QUEUE_SIZE, &QueueSizes(), sizeof(SERIAL_QUEUE_SIZE));
    ULONG none = 0, all = SERIAL_PURGE_TXABORT | SERIAL_PURGE_RXABORT | SERIAL_PURGE_TXCLEAR |
                          SERIAL_PURGE_RXCLEAR;
    Control(file, (DtrRts() & SERIAL_DTR_STATE) ? IOCTL_SERIAL_SET_DTR : IOCTL_SERIAL_CLR_DTR,
            nullptr, 0);
    Control(file, (DtrRts() & SERIAL_RTS_STATE) ? IOCTL_SERIAL_SET_RTS : IOCTL_SERIAL_CLR_RTS,
            nullptr, 0);
    Control(file, IOCTL_SERIAL_SET_WAIT_MASK, &none, sizeof(none));
    Control(file, IOCTL_SERIAL_SET_BREAK_OFF, nullptr, 0);
    Control(file, IOCTL_SERIAL_SET_XON, nullptr, 0);
    Control(file, IOCTL_SERIAL_PURGE, &all, sizeof(all));
}

constexpr ULONG kQueueSizeFunction = (IOCTL_SERIAL_SET_QUEUE_SIZE >> 2) & 0xFFF;

ULONG FunctionOf(uint8_t byte) {
    // Mostly the serial codes and their neighbours; now and then anywhere.
    return byte < 0xC0 ? byte % 48 : (ULONG(byte) << 4) & 0xFFF;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Machine& machine = fuzz::Machine::Get();
    static std::u16string name;
    static const int port = machine.PlugKept(name);
    static bool settings_read = false;
    hk::Kernel& kernel = *fuzz::kernel;

    fuzz::Input scope;
    fuzz::Reader input(data, size);
    machine.SetTraceMask(fuzz::TraceMaskFor(input.Byte(), TL_ERROR | TL_IOCTL));
    hk::File& file = machine.KeptFile();
    if (!settings_read) {
        ReadSettings(file);
        settings_read = true;
    }

    std::vector<std::shared_ptr<hk::PendingIo>> requests;
    while (!input.Empty()) {
        ULONG function = FunctionOf(input.Byte());
        uint8_t flags = input.Byte();
        ULONG input_length = input.Byte();
        ULONG output_length = input.Byte();
        Bytes bytes = input.Take(input_length);
        // A length past the bytes the input has left reads them as zeros.
        bytes.resize(input_length);
        // The driver allocates the queue sizes asked for, as it should; a
        // gigabyte buffer would measure the host, not the driver.
        if (function == kQueueSizeFunction)
            for (size_t at = 2; at < bytes.size(); at += 4)
                bytes[at] = bytes[at + 1 < bytes.size() ? at + 1 : at] = 0;
        ULONG code = CTL_CODE(FILE_DEVICE_SERIAL_PORT, function,
                              (flags & 1) ? METHOD_NEITHER : METHOD_BUFFERED, (flags >> 1) & 3);
        requests.push_back(
            file.DeviceIoControlAsync(code, bytes.data(), input_length, output_length));
        kernel.Sleep(flags >> 3);
        fuzz::CheckTrace();
    }
    RestoreSettings(file);
    // A cancelled wait completes after the driver's 100 ms delay.
    bool cancelled = false;
    for (const auto& request : requests) {
        if (!request->Done()) {
            file.Cancel(*request);
            cancelled = true;
        }
    }
    kernel.Sleep(cancelled ? 200 : 1);
    for (const auto& request : requests)
        FUZZ_CHECK(request->Done());
    FUZZ_CHECK(machine.DataPort(name)->Port.RequestPool.Count == 0);
    // Bytes an immediate character sent stay out of the next input.
    machine.ModemOn(port).Pull();
    machine.ModemOn(port).ForgetRequests();
    return 0;
}
