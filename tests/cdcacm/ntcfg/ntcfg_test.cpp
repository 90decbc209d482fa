// Registry configuration: defaults written back, bounds, values of another
// type left alone, the raw readers' capacity rules and registry failures.
#include "driver_test.h"

#include "cdcacm.h"

#include <string>
#include <vector>

namespace {

constexpr const char* kInstance = "USB\\VID_1234&PID_5678\\7&2a&0&1";

class NtcfgTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        hardwareKey_ = reg().CreateHardwareKey(Pdo(), kInstance);
        serviceKey_ = reg().CreateServiceKey("modem");
    }

    hk::Registry& reg() { return kernel().registry(); }
    PDEVICE_OBJECT Pdo() { return reinterpret_cast<PDEVICE_OBJECT>(pdoStorage_); }
    const std::string& HardwareKey() const { return hardwareKey_; }

    // A DEVICE_CFG filled with a marker, so untouched fields show.
    static DEVICE_CFG MarkedCfg() {
        DEVICE_CFG cfg;
        memset(&cfg, 0xAB, sizeof(cfg));
        return cfg;
    }

    HANDLE OpenHardwareKey() {
        HANDLE key = nullptr;
        EXPECT_EQ(
            IoOpenDeviceRegistryKey(Pdo(), PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_READ, &key),
            STATUS_SUCCESS);
        return key;
    }

    std::string serviceKey_;

  private:
    alignas(8) unsigned char pdoStorage_[8] = {};
    std::string hardwareKey_;
};

TEST_F(NtcfgTest, FirstLoadWritesEveryDeviceDefaultAndLeavesTheEndpointsAlone) {
    TraceMask = 3 | TL_LIFECYCLE;
    DEVICE_CFG cfg = MarkedCfg();
    ASSERT_EQ(LoadCfg(Pdo(), &cfg), STATUS_SUCCESS);

    const std::vector<std::pair<const char*, ULONG>> defaults = {
        {"RequestTimeout", 400},       {"TimerInterval", 10},
        {"HighPowerCfg", 1},           {"LowPowerCfg", 0},
        {"UsbInterface", 0},           {"UsbConfig", 0},
        {"ReadBufferSize", 64000},     {"WriteBufferSize", 4096},
        {"ReadCircBufferSize", 64000}, {"WriteCircBufferSize", 2048},
        {"useCtsFlowControl", 0},      {"FlowTest", 0}};
    EXPECT_EQ(reg().ValueNames(HardwareKey()).size(), defaults.size());
    for (const auto& [name, value] : defaults)
        EXPECT_EQ(reg().GetDword(HardwareKey(), name), value) << name;

    const DEVICE_CFG expected = {400, 0xABABABAB, 0xABABABAB, 0xABABABAB, 0,    0, 10, 1,
                                 0,   64000,      4096,       64000,      2048, 0, 0};
    EXPECT_EQ(memcmp(&cfg, &expected, sizeof(cfg)), 0);
    EXPECT_EQ(kernel().registry().OpenHandles(), 0u);
    EXPECT_TRUE(dbg().Contains("ACM:[LoadCfg "));
    EXPECT_TRUE(dbg().Contains("ACM:]LoadCfg (00000000)"));
}

// A stored REG_DWORD is used within its bounds; a value that does not hold a
// 4-byte REG_DWORD gives way to the default. Either way the registry keeps
// exactly what the user wrote, even a value too long for the reader's buffer.
struct StoredCase {
    const char* name;
    ULONG type;
    std::vector<uint8_t> data;
    ULONG DEVICE_CFG::*field;
    ULONG used;
};

StoredCase Dword(const char* name, ULONG stored, ULONG DEVICE_CFG::*field, ULONG used) {
    return {name,
            REG_DWORD,
            {uint8_t(stored), uint8_t(stored >> 8), uint8_t(stored >> 16), uint8_t(stored >> 24)},
            field,
            used};
}

std::vector<uint8_t> Utf16(const std::string& text) {
    std::vector<uint8_t> bytes;
    for (char ch : text)
        bytes.insert(bytes.end(), {uint8_t(ch), 0});
    bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

class StoredValueTest : public NtcfgTest, public ::testing::WithParamInterface<StoredCase> {};

TEST_P(StoredValueTest, UsesTheValueWithinItsBoundsAndLeavesTheRegistryAlone) {
    const StoredCase& c = GetParam();
    reg().SetValue(HardwareKey(), c.name, c.type, c.data);
    DEVICE_CFG cfg = MarkedCfg();
    ASSERT_EQ(LoadCfg(Pdo(), &cfg), STATUS_SUCCESS);
    EXPECT_EQ(cfg.*c.field, c.used);
    auto stored = reg().GetValue(HardwareKey(), c.name);
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->type, c.type);
    EXPECT_EQ(stored->data, c.data);
}

INSTANTIATE_TEST_SUITE_P(
    Values, StoredValueTest,
    ::testing::Values(
        Dword("TimerInterval", 0, &DEVICE_CFG::TimerInterval, 1),
        Dword("TimerInterval", 250, &DEVICE_CFG::TimerInterval, 100),
        Dword("TimerInterval", 100, &DEVICE_CFG::TimerInterval, 100),
        Dword("ReadBufferSize", 10, &DEVICE_CFG::ReadBufferSize, 64),
        Dword("ReadBufferSize", 200000, &DEVICE_CFG::ReadBufferSize, 128000),
        Dword("WriteBufferSize", 63, &DEVICE_CFG::WriteBufferSize, 64),
        Dword("WriteBufferSize", 128001, &DEVICE_CFG::WriteBufferSize, 128000),
        Dword("WriteBufferSize", 64, &DEVICE_CFG::WriteBufferSize, 64),
        Dword("ReadCircBufferSize", 255, &DEVICE_CFG::ReadCircBufferSize, 256),
        Dword("ReadCircBufferSize", 128000, &DEVICE_CFG::ReadCircBufferSize, 128000),
        Dword("WriteCircBufferSize", 100, &DEVICE_CFG::WriteCircBufferSize, 256),
        Dword("WriteCircBufferSize", 0xFFFFFFFF, &DEVICE_CFG::WriteCircBufferSize, 128000),
        Dword("RequestTimeout", 0xFFFFFFFF, &DEVICE_CFG::RequestTimeout, 0xFFFFFFFF),
        Dword("FlowTest", 7, &DEVICE_CFG::FlowTest, 7),
        Dword("useCtsFlowControl", 1, &DEVICE_CFG::useCtsFlowControl, 1),
        StoredCase{"TimerInterval", REG_SZ, Utf16("5"), &DEVICE_CFG::TimerInterval, 10},
        StoredCase{"RequestTimeout", REG_SZ, Utf16(std::string(49, '7')),
                   &DEVICE_CFG::RequestTimeout, 400},
        StoredCase{"RequestTimeout", REG_DWORD, {0x10, 0x00}, &DEVICE_CFG::RequestTimeout, 400},
        StoredCase{"FlowTest", REG_DWORD, {5, 0, 0, 0, 0, 0, 0, 0}, &DEVICE_CFG::FlowTest, 0},
        StoredCase{"HighPowerCfg", REG_BINARY, {2, 0, 0, 0}, &DEVICE_CFG::HighPowerCfg, 1}));

TEST_F(NtcfgTest, HardwareKeyThatCannotBeOpenedFailsAndWritesNothing) {
    TraceMask = 3 | TL_LIFECYCLE;
    alignas(8) unsigned char otherStorage[8];
    DEVICE_CFG cfg = MarkedCfg();
    EXPECT_EQ(LoadCfg(reinterpret_cast<PDEVICE_OBJECT>(otherStorage), &cfg),
              STATUS_INVALID_DEVICE_REQUEST);
    const DEVICE_CFG marked = MarkedCfg();
    EXPECT_EQ(memcmp(&cfg, &marked, sizeof(cfg)), 0);
    EXPECT_TRUE(dbg().Contains("ACM:LoadCfg: Open PLUGPLAY_REGKEY_DEVICE failed (C0000010)"));
    EXPECT_TRUE(dbg().Contains("ACM:]LoadCfg (C0000010)"));

    reg().Faults().Add("open", hk::FaultKnob{.nth = 1, .match = hk::Registry::kOpen});
    EXPECT_EQ(LoadCfg(Pdo(), &cfg), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(reg().ValueNames(HardwareKey()).empty());
}

TEST_F(NtcfgTest, FailingDefaultWriteStillYieldsTheDefaultSilently) {
    hk::FaultKnob& knob =
        reg().Faults().Add("set", hk::FaultKnob{.every = 1, .match = hk::Registry::kSet});
    DEVICE_CFG cfg = MarkedCfg();
    ASSERT_EQ(LoadCfg(Pdo(), &cfg), STATUS_SUCCESS);
    EXPECT_EQ(knob.fired, 12u);
    EXPECT_EQ(cfg.ReadCircBufferSize, 64000u);
    EXPECT_TRUE(reg().ValueNames(HardwareKey()).empty());
    EXPECT_TRUE(dbg().Lines().empty());
}

TEST_F(NtcfgTest, QueryThatFailsForAnExistingValueWritesNothingBack) {
    reg().SetDword(HardwareKey(), "FlowTest", 9);
    reg().Faults().Add("query", hk::FaultKnob{.every = 1, .match = hk::Registry::kQuery});
    DEVICE_CFG cfg = MarkedCfg();
    ASSERT_EQ(LoadCfg(Pdo(), &cfg), STATUS_SUCCESS);
    EXPECT_EQ(cfg.FlowTest, 0u);
    EXPECT_EQ(reg().GetDword(HardwareKey(), "FlowTest"), 9u);
    EXPECT_EQ(reg().ValueNames(HardwareKey()).size(), 1u);
}

TEST_F(NtcfgTest, ServiceKeyGetsTraceMaskWrittenBackAndAMissingKeyFailsToOpen) {
    const std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Modem";
    HANDLE key = nullptr;
    ASSERT_EQ(CfgOpenKey(&key, reinterpret_cast<PCWSTR>(path.c_str())), STATUS_SUCCESS);
    EXPECT_EQ(CfgGetParameter(key, CfgTraceMask), 3u);
    EXPECT_EQ(reg().GetDword(serviceKey_, "TraceMask"), 3u);
    reg().SetDword(serviceKey_, "TraceMask", 0x1F);
    EXPECT_EQ(CfgGetParameter(key, CfgTraceMask), 0x1Fu);
    ZwClose(key);

    HANDLE untouched = reinterpret_cast<HANDLE>(0x1234);
    const std::u16string absent = path + u"Absent";
    EXPECT_EQ(CfgOpenKey(&untouched, reinterpret_cast<PCWSTR>(absent.c_str())),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(untouched, reinterpret_cast<HANDLE>(0x1234));
}

TEST_F(NtcfgTest, GetValueDataReadsUpToFourBytesBeyondTheCapacity) {
    std::vector<uint8_t> big(300), near(258);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = uint8_t(i + 1);
    std::copy(big.begin(), big.begin() + 258, near.begin());
    reg().SetValue(HardwareKey(), "Big", REG_BINARY, big);
    reg().SetValue(HardwareKey(), "Near", REG_BINARY, near);
    HANDLE key = OpenHardwareKey();

    std::vector<uint8_t> buffer(260, 0xEE);
    ULONG length = 256;
    EXPECT_EQ(CfgGetValueData(key, WSTR("Big"), &length, buffer.data()), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(length, 300u);
    EXPECT_EQ(buffer, std::vector<uint8_t>(260, 0xEE)) << "nothing copied";

    length = 256;
    EXPECT_EQ(CfgGetValueData(key, WSTR("Near"), &length, buffer.data()), STATUS_SUCCESS);
    EXPECT_EQ(length, 258u);
    EXPECT_TRUE(std::equal(near.begin(), near.begin() + 256, buffer.begin()));
    EXPECT_EQ(buffer[256], 0xEE) << "cut to the capacity";

    length = 0;
    EXPECT_EQ(CfgGetValueData(key, WSTR("Big"), &length, nullptr), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(length, 300u) << "a probe learns the size";

    length = 256;
    EXPECT_EQ(CfgGetValueData(key, WSTR("Absent"), &length, buffer.data()),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(length, 256u);

    kernel().pool().Faults().Add("staging", hk::FaultKnob{.nth = 1, .match = CFG_STAGING_TAG});
    EXPECT_EQ(CfgGetValueData(key, WSTR("Near"), &length, buffer.data()),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(length, 256u);
    EXPECT_EQ(kernel().pool().ForTag(CFG_STAGING_TAG).blocks, 0u);
    ZwClose(key);
}

TEST_F(NtcfgTest, AllocValueDataTerminatesTheDataAndReportsWhatWasNotRead) {
    reg().SetValue(HardwareKey(), "PortName", REG_SZ, {'C', 0, 'O', 0, 'M', 0, '5', 0});
    reg().SetValue(HardwareKey(), "Empty", REG_SZ, {});
    HANDLE key = OpenHardwareKey();

    PVOID block = reinterpret_cast<PVOID>(1);
    ASSERT_EQ(CfgAllocValueData(key, WSTR("PortName"), &block), STATUS_SUCCESS);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(MemoryCounter, 10u);
    EXPECT_EQ(std::u16string(static_cast<const char16_t*>(block)), u"COM5");
    MemFree(block);

    block = reinterpret_cast<PVOID>(1);
    EXPECT_EQ(CfgAllocValueData(key, WSTR("Absent"), &block), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(block, nullptr);

    block = reinterpret_cast<PVOID>(1);
    EXPECT_EQ(CfgAllocValueData(key, WSTR("Empty"), &block), STATUS_SUCCESS);
    EXPECT_EQ(block, nullptr);

    kernel().pool().Faults().Add("value", hk::FaultKnob{.nth = 1, .match = CFG_VALUE_TAG});
    EXPECT_EQ(CfgAllocValueData(key, WSTR("PortName"), &block), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(block, nullptr);

    // The second read fails: the block goes back and none is returned.
    reg().Faults().Add("query", hk::FaultKnob{.nth = 2, .match = hk::Registry::kQuery});
    EXPECT_EQ(CfgAllocValueData(key, WSTR("PortName"), &block), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(MemoryCounter, 0u);
    ZwClose(key);
}

} // namespace
