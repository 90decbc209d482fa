// The emulated registry: key handles, value queries with the kernel's size
// rules, the Rtl writes, the text form and the checks. (Typed writes and the
// hardware key are the driver's configuration and serial number tests.)
#include "kernel_test.h"

#include <cstdio>
#include <vector>

namespace {

constexpr const char* kService = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\modem";
constexpr ULONG kHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

class RegistryTest : public KernelTest {
  protected:
    hk::Registry& reg() { return kernel().registry(); }

    NTSTATUS Open(const char16_t* path, HANDLE* key, HANDLE root = nullptr) {
        UNICODE_STRING name;
        OBJECT_ATTRIBUTES attributes;
        RtlInitUnicodeString(&name, path);
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                                   root, nullptr);
        return ZwOpenKey(key, KEY_READ | KEY_WRITE, &attributes);
    }

    NTSTATUS Query(HANDLE key, const char16_t* value, std::vector<uint8_t>& buffer, ULONG* result) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, value);
        return ZwQueryValueKey(key, &name, KeyValuePartialInformation, buffer.data(),
                               ULONG(buffer.size()), result);
    }

    // Creates the service key when it is missing.
    HANDLE OpenService() {
        reg().CreateKey(kService);
        HANDLE key = nullptr;
        EXPECT_EQ(Open(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\modem", &key),
                  STATUS_SUCCESS);
        return key;
    }
};

TEST_F(RegistryTest, OpensAbsoluteAndRelativePathsIgnoringCase) {
    reg().CreateKey(std::string(kService) + "\\Parameters");
    HANDLE service = nullptr, sub = nullptr, missing = reinterpret_cast<HANDLE>(1);
    ASSERT_EQ(Open(u"\\REGISTRY\\machine\\System\\CurrentControlSet\\services\\MODEM", &service),
              STATUS_SUCCESS);
    EXPECT_EQ(Open(u"parameters", &sub, service), STATUS_SUCCESS);
    EXPECT_EQ(Open(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\absent", &missing),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(missing, reinterpret_cast<HANDLE>(1)) << "a failed open must not write the handle";
    EXPECT_EQ(Open(u"Machine\\System", &missing), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(Open(u"\\Registry\\Machine\\\\System", &missing), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(reg().OpenHandles(), 2u);
    EXPECT_EQ(ZwClose(sub), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(service), STATUS_SUCCESS);
    EXPECT_EQ(reg().OpenHandles(), 0u);
}

// Below the 12-byte header nothing is written; with room for the header but
// not the data, the header is written and the query overflows.
TEST_F(RegistryTest, PartialInformationFollowsTheKernelSizeRules) {
    std::vector<uint8_t> data(300);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = uint8_t(i);
    reg().SetValue(kService, "Blob", REG_BINARY, data);
    HANDLE key = OpenService();
    ULONG result = 0;
    std::vector<uint8_t> tiny(kHeader - 1, 0xEE);
    EXPECT_EQ(Query(key, u"Blob", tiny, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, kHeader + 300);
    EXPECT_EQ(tiny, std::vector<uint8_t>(kHeader - 1, 0xEE));

    std::vector<uint8_t> shortBuffer(kHeader + 299, 0xEE);
    EXPECT_EQ(Query(key, u"Blob", shortBuffer, &result), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, kHeader + 300);
    auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(shortBuffer.data());
    EXPECT_EQ(info->Type, ULONG(REG_BINARY));
    EXPECT_EQ(info->DataLength, 300u);
    EXPECT_EQ(shortBuffer[kHeader], 0xEE) << "no partial data on overflow";

    std::vector<uint8_t> exact(kHeader + 300);
    EXPECT_EQ(Query(key, u"blob", exact, &result), STATUS_SUCCESS);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), exact.begin() + kHeader));
    result = 77;
    EXPECT_EQ(Query(key, u"Absent", exact, &result), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(result, 77u);
    ZwClose(key);
}

// Through the device map the Rtl calls create the last key of the path
// only (regression: they made every missing one), and a value deleted
// twice is not found the second time. (A write and its delete, and writes
// through a handle the driver closes itself, are the driver's lifecycle
// tests'.)
TEST_F(RegistryTest, RtlCreatesOnlyTheLastKeyOfAPathAndDeletesOnce) {
    const char16_t port[] = u"COM5";
    const std::string map(hk::Registry::kDeviceMapPath);
    EXPECT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, u"NoSuchKey\\Leaf", u"V", REG_SZ,
                                    (PVOID)port, sizeof(port)),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(reg().KeyExists(map + "\\NoSuchKey"));
    EXPECT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, u"SERIALCOMM", u"\\Device\\modem0",
                                    REG_SZ, (PVOID)port, sizeof(port)),
              STATUS_SUCCESS);
    for (NTSTATUS status : {STATUS_SUCCESS, STATUS_OBJECT_NAME_NOT_FOUND})
        EXPECT_EQ(
            RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, u"SERIALCOMM", u"\\Device\\modem0"),
            status);
}

TEST_F(RegistryTest, TextFormKeepsEveryTypeAcrossSaveAndLoad) {
    reg().SetDword(kService, "TraceMask", 0xFFu);
    reg().SetString(kService, "Quoted", "say \"hi\" \\ there");
    reg().SetMultiString(kService, "Names", {"one", "two"});
    reg().SetValue(kService, "Odd", REG_SZ, {0x41, 0x00, 0x42}); // not a whole string
    reg().SetValue(kService, "Empty", REG_BINARY, {});
    reg().SetValue(kService, "", REG_DWORD, {1, 2, 3}); // a short dword stays hex
    reg().CreateKey(std::string(kService) + "\\Empty Key");
    const std::string dump = reg().Dump(kService);
    EXPECT_NE(dump.find("\"TraceMask\"=dword:000000ff"), std::string::npos) << dump;
    EXPECT_NE(dump.find("\"Names\"=multi_sz:\"one\",\"two\""), std::string::npos) << dump;
    EXPECT_NE(dump.find("@=hex(4):01,02,03"), std::string::npos) << dump;

    const std::string file = ::testing::TempDir() + "registry_test.txt";
    ASSERT_TRUE(reg().SaveFile(file));
    ASSERT_TRUE(reg().DeleteKey(kService));
    EXPECT_FALSE(reg().KeyExists(kService));
    std::string error;
    ASSERT_TRUE(reg().LoadFile(file, &error)) << error;
    std::remove(file.c_str());
    EXPECT_EQ(reg().Dump(kService), dump);
    EXPECT_EQ(reg().GetValue(kService, "Odd")->data, (std::vector<uint8_t>{0x41, 0x00, 0x42}));
    EXPECT_TRUE(reg().KeyExists(std::string(kService) + "\\empty key"));

    EXPECT_FALSE(reg().Load("[\\Registry\\X]\n\"a\"=dword:1\n\"b\"=word:2\n", &error));
    EXPECT_EQ(error, "line 3: \"b\"=word:2");
}

// A handle on a deleted key fails its queries; closing a bad handle, calling
// above PASSIVE_LEVEL and a handle left open at teardown are reported.
TEST_F(RegistryTest, MisuseIsReported) {
    reg().SetDword(kService, "A", 1);
    HANDLE key = OpenService();
    ASSERT_TRUE(reg().DeleteKey(kService));
    std::vector<uint8_t> buffer(32);
    ULONG result = 0;
    EXPECT_EQ(Query(key, u"A", buffer, &result), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    {
        hk::ExpectViolation expect(hk::rule::kBadHandle);
        EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
        EXPECT_EQ(expect.Count(), 1u);
    }
    {
        hk::ExpectViolation expect(hk::rule::kRegistryIrql);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        key = OpenService();
        KeLowerIrql(old);
        EXPECT_EQ(expect.Count(), 1u);
    }
    hk::ExpectViolation leak(hk::rule::kHandleLeak);
    reg().CheckTeardown();
    EXPECT_EQ(leak.Count(), 1u);
    EXPECT_EQ(reg().OpenHandles(), 0u);
}

} // namespace
