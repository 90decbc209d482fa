// Fuzzes descriptor parsing and configuration selection: a simulated modem
// offers an arbitrary device descriptor and arbitrary configuration
// descriptors (with all that follows them) on the bus; the PnP manager
// installs it from the driver's INF, so the driver's add and start read
// them, choose a configuration and set up its pipes; when the driver made
// a port, it is opened and closed once; then the modem is unplugged and the
// driver's removal runs. Whatever the descriptors say, the driver must
// refuse what is malformed cleanly: no out-of-bounds read (AddressSanitizer
// watches each descriptor buffer), no assertion, no verifier report, and
// after the removal the driver unloaded with no memory counted.
//
// Input: an options byte (bit 0: trace errors, PnP, USB configuration and
// lifecycle too); a length byte and the device descriptor's bytes, whose
// vendor and product become those the INF installs; a count byte (one or
// two configurations); then per configuration a 16-bit length (little
// endian, at most 1024) and its bytes.
#define TRACE_FILE "tests/fuzz/descriptors_fuzzer"
#include "descriptors.h"
#include "fuzz_machine.h"

using Bytes = std::vector<uint8_t>;

namespace {

constexpr size_t kMaxConfiguration = 1024;

sm::Profile ProfileOf(fuzz::Reader& input) {
    sm::Profile profile;
    profile.name = "fuzz";
    profile.manufacturer = "Fuzz";
    profile.product = "Fuzz Modem";
    profile.serial = "FZ0001";
    Bytes device = input.Take(input.Byte() % 40);
    // The INF's hardware ID: USB\VID_FFF0&PID_0001.
    static const uint8_t kIds[] = {0xf0, 0xff, 0x01, 0x00};
    for (size_t i = 0; i < sizeof(kIds) && 8 + i < device.size(); ++i)
        device[8 + i] = kIds[i];
    profile.raw_device = device;
    size_t count = 1 + input.Byte() % 2;
    for (size_t i = 0; i < count; ++i) {
        size_t length = input.Byte();
        length = (length | size_t(input.Byte()) << 8) % (kMaxConfiguration + 1);
        profile.configurations.push_back(sim::ParseConfiguration(input.Take(length)));
    }
    profile.functions = sim::FunctionsOf(*profile.configurations[0].raw);
    return profile;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Machine& machine = fuzz::Machine::Get();
    fuzz::Input scope;
    fuzz::Reader input(data, size);
    machine.SetTraceMask(
        fuzz::TraceMaskFor(input.Byte(), TL_ERROR | TL_PNP | TL_USBCFG | TL_LIFECYCLE | TL_INFO));
    int port = machine.Plug(ProfileOf(input));
    fuzz::CheckTrace();
    std::u16string name = machine.PortName(port);
    if (!name.empty() && machine.DataPort(name) != nullptr) {
        hk::File file;
        if (file.Open(name) == STATUS_SUCCESS) {
            fuzz::kernel->Sleep(20);
            FUZZ_CHECK(file.Close() == STATUS_SUCCESS);
        }
    }
    machine.Unplug(port);
    fuzz::kernel->Sleep(100);
    FUZZ_CHECK(machine.pnp().LoadedDriver("cdcacm") == nullptr);
    FUZZ_CHECK(MemoryCounter == 0);
    return 0;
}
