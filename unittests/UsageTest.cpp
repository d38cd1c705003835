// The usage texts, version line and catalog, byte for byte against the expected files in
// unittests/expected (the same files the VM tests compare the firmware run with).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "frame/Module.h"
#include "frame/Dispatch.h"
#include "frame/Startup.h"
#include "frame/TestModule.h"
#include "options/Catalog.h"
#include "report/Output.h"
#include "report/Results.h"
#include "fakes/FakeFirmware.h"
#include "unittests/Expected.h"

namespace {

// Every line end the module writes is CR LF; the expected files are kept with LF.
std::string Unix(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
      continue;
    if (text[i] == '\n') {
      EXPECT_TRUE(i > 0 && text[i - 1] == '\r') << "bare line feed at " << i;
    }
    out += text[i];
  }
  return out;
}

struct UsageTest : ::testing::Test {
  FakeFirmware fw;
  FakeManager mgr;
  void SetUp() override {
    ResetOutputState();
    SetSelectedTestNumber(0);
    gManager = &mgr.protocol;
    InitDebugLevel(nullptr, nullptr, &gManager);
    // What start-up writes, which the tests here do not run.
    FormatVersionString(gModuleInfo.Version, sizeof(gModuleInfo.Version), kModuleMajor, kModuleMinor,
                        kModuleBuild, kModuleBuildTimeStamp, u"");
  }
  void TearDown() override {
    ResetOutputState();
    gManager = nullptr;
    EXPECT_TRUE(fw.pool.empty());
  }
  // Runs one call and returns what it showed on the console.
  std::string Shown(std::u16string options, UINTN expectResult = TEST_RESULT_PASSED) {
    mgr.lines.clear();
    UINTN result = 0, error = 0;
    EXPECT_EQ(VexExecuteTest(0, options.data(), &result, &error), EFI_SUCCESS);
    EXPECT_EQ(result, expectResult);
    return Unix(Narrow(mgr.ConsoleText()));
  }
};

TEST_F(UsageTest, GeneralUsage) {
  EXPECT_EQ(Shown(u""), Expected("usage_general.txt"));
  EXPECT_TRUE(GetConsoleOutput()); // an empty string leaves the console on
  EXPECT_EQ(Shown(u"-debug=off"), Expected("usage_general.txt"));
  EXPECT_EQ(Shown(u"-?"), Expected("usage_general.txt"));
  EXPECT_FALSE(GetConsoleOutput());
}

TEST_F(UsageTest, TestUsages) {
  struct {
    const char16_t* options;
    const char* file;
  } cases[] = {
      {u"-help=speedtest", "usage_speedtest.txt"},
      {u"-h=SPEEDTEST", "usage_speedtest.txt"},
      {u"-test=pingtest -help", "usage_pingtest.txt"},
      {u"--help=detectcable", "usage_detectcable.txt"},
      {u"-usage=macaddresstest", "usage_macaddresstest.txt"},
      {u"-help=nosuch", "usage_nosuch.txt"},
  };
  for (auto& c : cases) {
    SetUp();
    EXPECT_EQ(Shown(c.options), Expected(c.file)) << Narrow(c.options);
  }
}

TEST_F(UsageTest, VersionAndCatalog) {
  EXPECT_EQ(Shown(u"-version -test=nosuch"), Expected("version.txt"));
  // Later output goes to the log only, not the console.
  EXPECT_EQ(Shown(u"-test=nosuch", TEST_RESULT_FAILED), "");
  SetUp();
  EXPECT_EQ(Shown(u"-catalog"), Expected("catalog.xml"));
  bool white = true;
  for (auto& line : mgr.lines)
    white &= line.toConsole && !line.toError;
  EXPECT_TRUE(white);
}

} // namespace
