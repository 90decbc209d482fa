// The INF reader on the driver's own INF, and on malformed text whose errors
// must name the line. (Installing from the INF is the PnP manager's test.)
#include "hostkernel/inf.h"

#include <gtest/gtest.h>

namespace {

// The class, model, name and service the PnP manager's installation from
// this INF shows; here the registry lines it writes.
TEST(InfTest, TheDriversInfWritesTraceMaskAndThePropertyPage) {
    std::string error;
    std::optional<hk::Inf> inf = hk::Inf::Load(CDCACM_INF, &error);
    ASSERT_TRUE(inf) << error;
    std::vector<std::string> errors;
    std::vector<hk::InfRegEntry> service = inf->AddReg("CdcAcm_Service", &errors);
    EXPECT_TRUE(errors.empty());
    ASSERT_EQ(service.size(), 1u);
    EXPECT_EQ(service[0].root, "HKR");
    EXPECT_EQ(service[0].value_name, "TraceMask");
    EXPECT_EQ(service[0].flags & hk::InfRegEntry::kTypeMask, hk::InfRegEntry::kTypeDword);
    EXPECT_TRUE(service[0].flags & hk::InfRegEntry::kNoClobber);
    EXPECT_EQ(service[0].values, std::vector<std::string>{"3"});
    std::vector<hk::InfRegEntry> hardware = inf->AddReg("CdcAcm_Install.NTx86", &errors);
    ASSERT_EQ(hardware.size(), 1u);
    EXPECT_EQ(hardware[0].values,
              std::vector<std::string>{"MsPorts.dll,SerialPortPropPageProvider"});
}

TEST(InfTest, SyntaxAsSetupReadsIt) {
    hk::Inf inf = hk::Inf::Parse("; a comment\n"
                                 "[A]\n"
                                 "key = \"quoted \"\"x\"\", kept\" , %S% ; comment\n"
                                 "long = one, \\\n"
                                 "       two\n"
                                 "dir = %12%\\x, 100%%\n"
                                 "[Strings]\n"
                                 "s = \"from strings\"\n",
                                 "t.inf");
    EXPECT_TRUE(inf.Errors().empty());
    const std::vector<hk::InfLine>& lines = *inf.Section("a");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].values, (std::vector<std::string>{"quoted \"x\", kept", "from strings"}));
    EXPECT_EQ(lines[1].values, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(lines[1].number, 4);
    EXPECT_EQ(lines[2].values, (std::vector<std::string>{"%12%\\x", "100%"}));
}

TEST(InfTest, ErrorsNameTheLine) {
    struct Row {
        const char* text;
        const char* error;
    };
    const Row rows[] = {
        {"key = value\n", "t.inf(1): line outside any section"},
        {"[A\n", "t.inf(1): section name without ']'"},
        {"[A]\nk = \"open\n", "t.inf(2): unterminated quoted string"},
        {"[A]\n\nk = %missing%\n", "t.inf(3): %missing% is not in [Strings]"},
        {"[A]\nk = 50%\n", "t.inf(2): '%' without its closing '%'"},
    };
    for (const Row& row : rows) {
        hk::Inf inf = hk::Inf::Parse(row.text, "t.inf");
        EXPECT_EQ(inf.Errors(), std::vector<std::string>{row.error}) << row.text;
    }
    hk::Inf inf = hk::Inf::Parse("[I]\nAddReg = R, Gone\n[R]\nHKR,,V,0xZ,1\nHKR,x\n", "t.inf");
    std::vector<std::string> errors;
    EXPECT_TRUE(inf.AddReg("I", &errors).empty());
    EXPECT_EQ(errors, (std::vector<std::string>{
                          "t.inf(4): flags '0xZ' are not a number",
                          "t.inf(5): an AddReg line needs root, subkey and value name",
                          "t.inf(2): AddReg names a missing section [Gone]"}));
}

} // namespace
