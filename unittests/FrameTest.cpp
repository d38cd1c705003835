#include <gtest/gtest.h>

#include <string>

#include "frame/Module.h"
#include "base/Memory.h"
#include "frame/CommandLine.h"
#include "frame/Dispatch.h"
#include "frame/Startup.h"
#include "frame/TestModule.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"
#include "fakes/FakeFirmware.h"
#include "unittests/Expected.h"

namespace {

EFI_HANDLE const kImage = reinterpret_cast<EFI_HANDLE>(0x1000);
EFI_HANDLE const kManagerHandle = reinterpret_cast<EFI_HANDLE>(0x2000);

// Module state is image-wide; each test starts from a freshly loaded image.
void ResetModule() {
  ResetOutputState();
  SetSelectedTestNumber(0);
  ClearParsedOptions();
  FreeOptionWords();
  gManager = nullptr;
}

struct ModuleTest : ::testing::Test {
  FakeFirmware fw;
  FakeManager mgr;
  EFI_LOADED_IMAGE_PROTOCOL image{};
  bool installed = false;

  void SetUp() override {
    ResetModule();
    fw.AddProtocol(kImage, EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
    fw.AddProtocol(kManagerHandle, VEX_MANAGER_PROTOCOL_GUID, &mgr.protocol);
  }
  void TearDown() override {
    if (installed) {
      EXPECT_EQ(VexUnloadTestModule(kImage), EFI_SUCCESS);
    }
    FreeOptionWords();
    EXPECT_TRUE(fw.pool.empty()) << fw.pool.size() << " pool allocations left";
    ResetModule();
  }
  VEX_TEST_MODULE_PROTOCOL* Start() {
    EXPECT_EQ(InitializeTestModule(kImage, &fw.st), EFI_SUCCESS);
    installed = true;
    void* iface = nullptr;
    fw.bs.HandleProtocol(kImage, &VEX_TEST_MODULE_PROTOCOL_GUID, &iface);
    return static_cast<VEX_TEST_MODULE_PROTOCOL*>(iface);
  }
  struct Call {
    UINTN runTime = 999, result = 999, error = 999;
    EFI_STATUS status;
  };
  Call RunTime(VEX_TEST_MODULE_PROTOCOL* p, std::u16string options) {
    Call c;
    c.status = p->GetTestRunTime(0, options.data(), &c.runTime, &c.result, &c.error);
    return c;
  }
  Call Execute(VEX_TEST_MODULE_PROTOCOL* p, std::u16string options, UINTN parameter = 0) {
    Call c;
    c.status = p->ExecuteTest(parameter, options.data(), &c.result, &c.error);
    return c;
  }
  std::string Said() { return Narrow(mgr.AllText()); }
};

TEST_F(ModuleTest, StartupInstallsBothLayoutsAndUnloadRemovesThem) {
  VEX_TEST_MODULE_PROTOCOL* p = Start();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->First, 0u);
  EXPECT_TRUE(fw.HasProtocol(kImage, VEX_TEST_MODULE_OLD_PROTOCOL_GUID));
  EXPECT_EQ(image.Unload, VexUnloadTestModule);
  EXPECT_NE(
      Said().find(std::string(59, '=') + "\r\nStarting Wirecheck.vex version " + ExpectedVersion() + "\r\n"),
      std::string::npos);
  EXPECT_NE(Said().find("Wirecheck.VEX init complete\r\n"), std::string::npos);
  // Log lines only, but for the SMBIOS failure: the fake firmware publishes no SMBIOS table.
  for (auto& line : mgr.lines) {
    if (line.text != u"Failed to Initialize EfiSmbiosLib. (Not Found)\r\n") {
      EXPECT_FALSE(line.flag || line.toConsole || line.toError) << Narrow(line.text);
    }
  }
  // Under the manager the module shows nothing itself, but for the one line file access writes
  // straight to the console when the firmware has no file system at all.
  EXPECT_EQ(Narrow(fw.conOutText), "Failed Locating Simple File System Protocol\r\n");

  ASSERT_EQ(VexUnloadTestModule(kImage), EFI_SUCCESS);
  installed = false;
  EXPECT_FALSE(fw.HasProtocol(kImage, VEX_TEST_MODULE_PROTOCOL_GUID));
  EXPECT_FALSE(fw.HasProtocol(kImage, VEX_TEST_MODULE_OLD_PROTOCOL_GUID));
}

TEST_F(ModuleTest, StartupWithoutManagerInstallsNothing) {
  fw.protocols.clear();
  fw.AddProtocol(kImage, EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
  EXPECT_EQ(InitializeTestModule(kImage, &fw.st), EFI_NOT_FOUND);
  EXPECT_EQ(fw.protocols.size(), 1u);
  EXPECT_EQ(Narrow(fw.stdErrText), "{12}Failed Loading VEX Manager Protocol. (Not Found)\r\n{7}");
}

TEST_F(ModuleTest, FailedInstallationLeavesNoRecordsBehind) {
  fw.failInstallWith = EFI_OUT_OF_RESOURCES;
  EXPECT_EQ(InitializeTestModule(kImage, &fw.st), EFI_OUT_OF_RESOURCES);
  EXPECT_NE(Said().find("Failed Installation of VEX Module Protocol - Status 0x8000000000000009\r\n"),
            std::string::npos);
  fw.failInstallWith = EFI_SUCCESS;
  // The second record cannot be had: the first is given back.
  fw.failAllocationAfter = 1;
  EXPECT_EQ(InstallTestModuleProtocols(kImage), EFI_OUT_OF_RESOURCES);
  fw.failAllocationAfter = SIZE_MAX;
}

TEST_F(ModuleTest, NameAndVersion) {
  VEX_TEST_MODULE_PROTOCOL* p = Start();
  char16_t name[8];
  EXPECT_EQ(p->GetTestName(name, 10), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(name), u"Wire");
  UINTN major = 0, minor = 0;
  CHAR16* build = nullptr;
  EXPECT_EQ(p->GetTestVersion(&major, &minor, &build), EFI_SUCCESS);
  EXPECT_EQ(major, 1u);
  EXPECT_EQ(minor, 1u);
  ASSERT_NE(build, nullptr);
  EXPECT_EQ(build[0], 0);
  FreePool(build);
  fw.failAllocationAfter = 0;
  EXPECT_EQ(p->GetTestVersion(&major, &minor, &build), EFI_SUCCESS);
  EXPECT_EQ(build, nullptr);
  fw.failAllocationAfter = SIZE_MAX;
}

TEST_F(ModuleTest, RunTimesFollowTheSelectedTest) {
  VEX_TEST_MODULE_PROTOCOL* p = Start();
  Call c = RunTime(p, u"-test=interactivenetworktest");
  EXPECT_EQ(c.status, EFI_SUCCESS);
  EXPECT_EQ(c.runTime, 60u);
  EXPECT_EQ(c.result, TEST_RESULT_PASSED);
  EXPECT_EQ(c.error, 0u);
  EXPECT_EQ(RunTime(p, u"-test=pingtest").runTime, 10u);
  EXPECT_EQ(RunTime(p, u"-test=IRQTEST").runTime, 10u);

  c = RunTime(p, u"-help");
  EXPECT_EQ(c.runTime, 0u);
  EXPECT_EQ(c.result, TEST_RESULT_PASSED);
  EXPECT_EQ(c.status, EFI_SUCCESS);

  c = RunTime(p, u"-test=nosuch");
  EXPECT_EQ(c.runTime, 0u);
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_EQ(c.error, ERROR_CODE_INVALID_OPTIONS);
  EXPECT_EQ(ParsedOptionCount(), 0u); // nothing of a call outlives it

  SetSelectedTestNumber(-1);
  UINTN result = 0, error = 0;
  EXPECT_EQ(VexGetTestRunTime(0, const_cast<CHAR16*>(u"-test=pingtest -retries=1 -test=x"), nullptr, &result,
                              &error),
            EFI_SUCCESS); // refused by the parse: nothing to report
  EXPECT_EQ(GetSelectedTestRunTime(0, nullptr, nullptr, &result, &error), EFI_INVALID_PARAMETER);
  EXPECT_EQ(result, TEST_RESULT_SOFTWARE_ERROR);
}

TEST_F(ModuleTest, OldLayoutLogsOnlyWhenTheRunTimeCallFails) {
  Start();
  void* iface = nullptr;
  fw.bs.HandleProtocol(kImage, &VEX_TEST_MODULE_OLD_PROTOCOL_GUID, &iface);
  auto* old = static_cast<VEX_TEST_MODULE_OLD_PROTOCOL*>(iface);
  UINTN runTime = 0;
  std::u16string good = u"-test=detectcable", bad = u"-test=detectcable -bogus";
  mgr.lines.clear();
  EXPECT_EQ(old->GetTestRunTime(0, good.data(), &runTime), EFI_SUCCESS);
  EXPECT_EQ(runTime, 10u);
  EXPECT_EQ(Said().find("returns result"), std::string::npos);
  EXPECT_EQ(old->GetTestRunTime(0, bad.data(), &runTime), EFI_SUCCESS);
  EXPECT_NE(Said().find("VexGetTestRunTime() returns result 3 with error code 0x80000002\r\n"),
            std::string::npos);
}

TEST_F(ModuleTest, SelectionPersistsAndOptionsAreCheckedAgainstIt) {
  VEX_TEST_MODULE_PROTOCOL* p = Start();
  // No NIC here: the speed test runs and fails on its own terms, not on its options.
  Call c = Execute(p, u"-test=SpeedTest");
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_NE(c.error, ERROR_CODE_INVALID_OPTIONS);
  EXPECT_EQ(GetSelectedTestNumber(), 4);

  c = Execute(p, u"-test=nosuch");
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_NE(Said().find("Unknown test: nosuch\r\n"), std::string::npos);
  EXPECT_EQ(GetSelectedTestNumber(), 4); // the earlier selection stays

  mgr.lines.clear();
  c = Execute(p, u"-index=2", 77);         // no -test: test 4 runs again, whatever the parameter
  EXPECT_EQ(c.result, TEST_RESULT_FAILED); // test options without -test in the same string
  EXPECT_EQ(c.error, ERROR_CODE_INVALID_OPTIONS);

  c = Execute(p, u"-test=detectcable -index=1");
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_NE(Said().find("Unknown option: -index for subtest detectcable\r\n"), std::string::npos);
  EXPECT_NE(Said().find("Unsupported command line option: index \r\n"), std::string::npos);

  SetSelectedTestNumber(0);
  c = Execute(p, u"-retries=2 -test=SpeedTest"); // -retries is read while pingtest is selected
  EXPECT_NE(c.error, ERROR_CODE_INVALID_OPTIONS);
  SetSelectedTestNumber(0);
  c = Execute(p, u"-localping=true -test=SpeedTest"); // accepted by pingtest, unknown to the speed test
  EXPECT_NE(c.error, ERROR_CODE_INVALID_OPTIONS);     // validation only walks the speed test's table

  std::u16string longName = u"-test=" + std::u16string(200, u'p');
  c = Execute(p, longName);
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_EQ(GetSelectedTestNumber(), 4);

  SetSelectedTestNumber(42); // a number beyond the table takes the module's own software-error path
  UINTN result = 0, error = 0;
  EXPECT_EQ(DispatchTest(0, nullptr, &result, &error), EFI_SUCCESS);
  EXPECT_EQ(result, TEST_RESULT_SOFTWARE_ERROR);
  EXPECT_NE(Said().find("Invalid test 42\r\n"), std::string::npos);
}

TEST_F(ModuleTest, GlobalOptionsAnswerTheCall) {
  VEX_TEST_MODULE_PROTOCOL* p = Start();
  Call c = Execute(p, u"");
  EXPECT_EQ(c.result, TEST_RESULT_PASSED);
  EXPECT_NE(Said().find("Usage: Wirecheck <test> | -version | -catalog | -h\r\n"), std::string::npos);
  EXPECT_TRUE(GetConsoleOutput()); // general usage for an empty string leaves the console on

  c = Execute(p, u"-v -test=pingtest");
  EXPECT_EQ(c.result, TEST_RESULT_PASSED);
  EXPECT_NE(Said().find("Wirecheck Version " + ExpectedVersion() + "\r\n"), std::string::npos);
  EXPECT_FALSE(GetConsoleOutput());

  c = Execute(p, u"test=pingtest");
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
  EXPECT_EQ(c.error, ERROR_CODE_INVALID_OPTIONS);

  c = Execute(p, u"-DEBUG=LOG -test=pingtest");
  EXPECT_EQ(GetDebugLevel(), DEBUG_LEVEL_LOG);
  EXPECT_EQ(c.result, TEST_RESULT_FAILED); // the ping test ran: the fake firmware has no NIC
  EXPECT_EQ(c.error, ERROR_CODE_NO_NIC);
  c = Execute(p, u"===");
  EXPECT_EQ(c.result, TEST_RESULT_FAILED);
}

// ---- Tokenizer ----

std::vector<std::u16string> Words(const std::u16string& text) {
  UINTN count = 0;
  CHAR16** words = nullptr;
  EXPECT_EQ(ProcessLoadOptions(text.c_str(), &count, &words), EFI_SUCCESS);
  std::vector<std::u16string> out;
  for (UINTN i = 0; i < count; ++i) {
    out.push_back(words[i]);
    FreePool(words[i]);
  }
  FreePool(words);
  return out;
}

TEST(Tokenizer, QuotingRules) {
  FakeFirmware fw;
  using V = std::vector<std::u16string>;
  EXPECT_EQ(Words(u"-x=1 'a b' -y=\"p q\""), (V{u"-x=1", u"a b", u"-y=p q"}));
  EXPECT_EQ(Words(u"   "), V{});
  EXPECT_EQ(Words(u""), V{});
  EXPECT_EQ(Words(u"-a\t-b"), V{u"-a\t-b"}); // only blanks separate
  EXPECT_EQ(Words(u"-flagfiledir=\"\" -next"), (V{u"-flagfiledir=", u"-next"}));
  EXPECT_EQ(Words(u"\"quoted start\" x"), (V{u"quoted start", u"x"}));
  EXPECT_EQ(Words(u"-d=\"PciRoot(0x0)/Pci(0x2,0x0)\""), V{u"-d=PciRoot(0x0)/Pci(0x2,0x0)"});
  EXPECT_EQ(Words(u"-a='x y'"), (V{u"-a=", u"x y"})); // a single quote always starts a word
  EXPECT_EQ(Words(u"-x=\"unterminated value"), V{u"-x=unterminated value"});
  EXPECT_EQ(Words(u"-x=\""), V{u"-x="});
  UINTN count;
  CHAR16** words;
  EXPECT_EQ(ProcessLoadOptions(nullptr, &count, &words), EFI_INVALID_PARAMETER);
  fw.failAllocationAfter = 2; // copy and array succeed, the first word does not
  EXPECT_EQ(ProcessLoadOptions(u"-a -b", &count, &words), EFI_OUT_OF_RESOURCES);
  fw.failAllocationAfter = SIZE_MAX;
  EXPECT_TRUE(fw.pool.empty());
}

// ---- Validation through the parse ----

struct ValidationTest : ModuleTest {
  UINTN result = 0, error = 0;
  void Parse(const std::u16string& options) {
    ClearParsedOptions();
    result = error = 0;
    mgr.lines.clear();
    ParseCLIOptions(options.c_str(), &gModuleInfo, TestOptionHandler, &result, &error);
  }
  void TearDown() override {
    ClearParsedOptions();
    ModuleTest::TearDown();
  }
};

TEST_F(ValidationTest, DefaultsConversionsAndRanges) {
  gManager = &mgr.protocol;
  InitDebugLevel(nullptr, nullptr, &gManager);
  Parse(u"-test=pingtest");
  ASSERT_EQ(result, 0u);
  UINT64 value = 0;
  BOOLEAN isSet = TRUE, flag = FALSE;
  EXPECT_EQ(GetOptionValue(u"-retries", &value, &isSet), EFI_SUCCESS);
  EXPECT_EQ(value, 0u);
  EXPECT_FALSE(isSet);
  EXPECT_EQ(GetOptionValue(u"-TESTREPEATS", &value, nullptr), EFI_SUCCESS);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(GetOptionBoolean(u"-dhcpping", &flag, nullptr), EFI_SUCCESS);
  EXPECT_TRUE(flag);
  EXPECT_EQ(GetOptionValue(u"-devicepath", &value, nullptr), EFI_SUCCESS);
  EXPECT_EQ(value, 0u); // no text
  EXPECT_EQ(GetOptionValue(u"-x", &value, nullptr), EFI_NOT_READY);
  EXPECT_NE(Said().find("could not find the -x option\r\n"), std::string::npos);

  Parse(u"-test=pingtest -index=0x10 -retries=1 -retries=2");
  ASSERT_EQ(result, 0u);
  EXPECT_EQ(GetOptionValue(u"-index", &value, &isSet), EFI_SUCCESS);
  EXPECT_EQ(value, 16u);
  EXPECT_TRUE(isSet);
  EXPECT_EQ(GetOptionValueAt(u"-retries", 1, &value, nullptr), EFI_SUCCESS);
  EXPECT_EQ(value, 2u);
  Parse(u"-test=pingtest -index=10h");
  EXPECT_EQ(GetOptionValue(u"-index", &value, nullptr), EFI_SUCCESS);
  EXPECT_EQ(value, 16u);

  Parse(u"-test=SpeedTest -networkspeed=250");
  EXPECT_EQ(GetOptionValue(u"-NetworkSpeed", &value, &isSet), EFI_SUCCESS);
  EXPECT_EQ(value, 250u);
  EXPECT_TRUE(isSet);

  struct Refused {
    const char16_t* options;
    const char* message;
  } refused[] = {
      {u"-test=pingtest -retries=6", "Option -retries argument should be below maximum value of 5\r\n"},
      {u"-test=pingtest -testrepeats=0",
       "Option -testrepeats argument should be above minimum value of 1\r\n"},
      {u"-test=pingtest -retries=abc", "Integer argument required for -retries option ('abc' was given)\r\n"},
      {u"-test=pingtest -retries=5 ", nullptr},
      {u"-test=pingtest -retries=1F", "Integer argument required for -retries option ('1F' was given)\r\n"},
      {u"-test=pingtest -dhcpping=maybe",
       "Boolean argument required for -dhcpping option ('maybe' was given)\r\n"},
      {u"-test=pingtest -dhcpping", "Missing argument for -dhcpping option\r\n"},
      {u"-test=detectcable -flagfiledir=\"\" -flagfilename=x",
       "Missing argument for -flagfiledir option\r\n"},
      {u"-test=pingtest -retries=99999999999999999999", "Integer argument required"},
  };
  for (auto& r : refused) {
    Parse(r.options);
    std::string options = Narrow(r.options);
    if (r.message == nullptr) {
      EXPECT_EQ(result, 0u) << options;
      continue;
    }
    EXPECT_EQ(result, TEST_RESULT_FAILED) << options;
    EXPECT_EQ(error, ERROR_CODE_INVALID_OPTIONS) << options;
    EXPECT_NE(Said().find(r.message), std::string::npos) << options << " said: " << Said();
  }
}

TEST_F(ValidationTest, AFullStoreRefusesDefaultsInsteadOfOverrunning) {
  std::u16string options = u"-test=pingtest";
  for (int i = 0; i < 64; ++i)
    options += u" -retries=1";
  Parse(options);
  EXPECT_EQ(result, TEST_RESULT_FAILED);
  EXPECT_EQ(ParsedOptionCount(), kParsedOptionCapacity);
}

TEST(StrToInteger, Forms) {
  const CHAR16* end = nullptr;
  auto conv = [&](const char16_t* text) {
    end = nullptr;
    return INT64(StrToInteger(text, &end, FALSE));
  };
  EXPECT_EQ(conv(u"5"), 5);
  EXPECT_EQ(*end, 0);
  EXPECT_EQ(conv(u" 5"), 5);
  EXPECT_EQ(conv(u"-3"), -3);
  EXPECT_EQ(conv(u"+7"), 7);
  EXPECT_EQ(conv(u"0x1F"), 31);
  EXPECT_EQ(*end, 0);
  EXPECT_EQ(conv(u"1Fh"), 31);
  EXPECT_EQ(*end, 0);
  EXPECT_EQ(conv(u"0x1Fh"), 31);
  EXPECT_EQ(*end, u'h');     // "0x" and "h" together are refused
  EXPECT_EQ(conv(u"1F"), 1); // the decimal value: letters do not count
  EXPECT_EQ(*end, u'F');     // letters in a decimal text are refused
  EXPECT_EQ(conv(u"- 5"), -1);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(conv(u"--5"), -1);
  EXPECT_EQ(conv(u""), 0);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(conv(u"12345678901234567"), -1); // 17 digits overflow the hexadecimal value
  EXPECT_EQ(StrToInteger(u"ff", nullptr, TRUE), 255u);
}

// ---- Output routing before the manager is found ----

TEST(Output, ConsoleRoutingAndDebugLevels) {
  FakeFirmware fw;
  ResetModule();
  TracePrint(u"hidden\r\n");
  EXPECT_TRUE(fw.conOutText.empty());
  char16_t level[] = u"2";
  SetDebugLevel(level);
  TracePrint(u"trace %d\r\n", 1);
  EXPECT_EQ(Narrow(fw.conOutText), "{6}trace 1\r\n{7}");
  fw.st.StdErr = nullptr;
  ErrorPrint(u"oops\r\n");
  EXPECT_EQ(Narrow(fw.conOutText), "{6}trace 1\r\n{7}{12}oops\r\n{7}");
  fw.conOutText.clear();
  std::u16string longText(1500, u'x');
  ConsolePrint(u"%s", longText.c_str());
  EXPECT_EQ(fw.conOutText.size(), 999u);
  fw.conOutText.clear();
  SetConsoleOutput(FALSE);
  ErrorPrint(u"quiet\r\n");
  ConsolePrint(u"quiet\r\n");
  EXPECT_TRUE(fw.conOutText.empty());
  ResetModule();
}

TEST(Output, DiagDebugVariable) {
  FakeFirmware fw;
  ResetModule();
  EFI_GUID vendor = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
  fw.SetVariable(u"Other", vendor, u"x");
  fw.SetVariable(u"DIAG_DEBUG", vendor, u"LOG");
  InitDebugLevel(nullptr, &fw.st, nullptr);
  EXPECT_EQ(GetDebugLevel(), DEBUG_LEVEL_LOG);

  ResetModule();
  fw.variables.clear();
  fw.SetVariable(u"DIAG_DEBUG", vendor, std::u16string(40, u'y')); // too long to read: absent
  InitDebugLevel(nullptr, &fw.st, nullptr);
  EXPECT_EQ(GetDebugLevel(), DEBUG_LEVEL_OFF);

  fw.variables.clear();
  fw.SetVariableBytes(u"DIAG_DEBUG", vendor, std::vector<uint8_t>(64, 'a')); // no terminator
  InitDebugLevel(nullptr, &fw.st, nullptr);
  EXPECT_EQ(GetDebugLevel(), DEBUG_LEVEL_CONSOLE);

  fw.variables.clear();
  fw.SetVariable(u"diag_debug", vendor, u"0"); // the name is matched exactly
  ResetModule();
  InitDebugLevel(nullptr, &fw.st, nullptr);
  EXPECT_EQ(GetDebugLevel(), DEBUG_LEVEL_OFF);
  ResetModule();
}

} // namespace
