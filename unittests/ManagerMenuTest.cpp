// The menu's side of the manager: the module's catalog read back, values checked against it as the
// module checks them, the option string of a call, and the advice for every error code, which the
// troubleshooting table in docs/troubleshooting.md must say word for word.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <algorithm>
#include <string>

#include "base/String.h"
#include "fakes/FakeFirmware.h"
#include "manager/Advice.h"
#include "manager/Catalog.h"
#include "manager/Menu.h"
#include "options/Catalog.h"
#include "report/Results.h"
#include "tests/TestTable.h"
#include "unittests/Expected.h"

namespace {

std::u16string Wide(const std::string& s) {
  return std::u16string(s.begin(), s.end());
}

std::string Narrow(const CHAR16* s) {
  std::string out;
  for (; s != nullptr && *s != 0; ++s)
    out += char(*s);
  return out;
}

struct CatalogFixture : ::testing::Test {
  FakeFirmware fw;
  MenuCatalog catalog{};
  void SetUp() override {
    std::u16string text = Wide(Expected("catalog.xml"));
    ASSERT_EQ(ReadMenuCatalog(text.c_str(), &catalog), EFI_SUCCESS);
  }
  void TearDown() override {
    FreeMenuCatalog(&catalog);
    EXPECT_TRUE(fw.pool.empty());
  }
  MenuTest& Test(const char* name) {
    for (UINTN i = 0; i < catalog.TestCount; ++i)
      if (Narrow(catalog.Tests[i].Name) == name)
        return catalog.Tests[i];
    ADD_FAILURE() << name;
    return catalog.Tests[0];
  }
  MenuArgument& Arg(const char* test, const char* name) {
    MenuTest& t = Test(test);
    for (UINTN i = 0; i < t.ArgumentCount; ++i)
      if (Narrow(t.Arguments[i].Name) == name)
        return t.Arguments[i];
    ADD_FAILURE() << name;
    return t.Arguments[0];
  }
  std::string Why(MenuArgument& a, const char16_t* value) {
    CHAR16 why[200] = {};
    return CheckMenuValue(a, value, why, sizeof(why)) ? "" : Narrow(why);
  }
};

TEST_F(CatalogFixture, EveryTestAndArgumentOfTheModulesCatalog) {
  UINTN tests = 0;
  while (kTestTable[tests] != nullptr)
    ++tests;
  ASSERT_EQ(catalog.TestCount, tests);
  for (UINTN i = 0; i < tests; ++i) {
    EXPECT_EQ(Narrow(catalog.Tests[i].Name), Narrow(kTestTable[i]->Name));
    UINTN options = 0;
    while (kTestTable[i]->Options != nullptr && kTestTable[i]->Options[options].Name != nullptr)
      ++options;
    EXPECT_EQ(catalog.Tests[i].ArgumentCount, options) << Narrow(catalog.Tests[i].Name);
  }
  MenuArgument& retries = Arg("pingtest", "-retries");
  EXPECT_EQ(Narrow(retries.Value), "0"); // the default until edited
  CHAR16 limits[64];
  DescribeMenuLimits(retries, limits, sizeof(limits));
  EXPECT_EQ(Narrow(limits), "0..5");
}

TEST_F(CatalogFixture, ValuesAreCheckedAsTheModuleChecksThem) {
  MenuArgument& retries = Arg("pingtest", "-retries");
  EXPECT_EQ(Why(retries, u"2"), "");
  EXPECT_EQ(Why(retries, u"5"), ""); // the edges of the range are in it
  EXPECT_EQ(Why(retries, u"0"), "");
  EXPECT_EQ(Why(retries, u"9"), "-retries takes 0..5; 9 is outside");
  EXPECT_EQ(Why(retries, u"-1"), "-retries takes 0..5; -1 is outside");
  EXPECT_EQ(Why(retries, u"two"), "-retries takes a whole number in 0..5; 'two' is not one");
  EXPECT_EQ(Why(retries, u""), "-retries takes a whole number in 0..5; '' is not one");
  EXPECT_EQ(Why(Arg("pingtest", "-dhcpping"), u"FALSE"), "");
  EXPECT_EQ(Why(Arg("pingtest", "-dhcpping"), u"maybe"), "-dhcpping takes true or false; 'maybe' is neither");
  EXPECT_EQ(Why(Arg("pingtest", "-devicepath"), u"PciRoot(0x0)/Pci(0x3,0x0)"), "");
  EXPECT_EQ(Why(Arg("pingtest", "-devicepath"), u"a\"b"), "-devicepath: a value without quote marks");
  std::u16string longValue(200, u'x');
  EXPECT_EQ(Why(Arg("pingtest", "-devicepath"), longValue.c_str()),
            "-devicepath: a value of at most 126 characters");
}

TEST_F(CatalogFixture, TheCallCarriesTheEditedArguments) {
  MenuTest& ping = Test("pingtest");
  CHAR16 options[256];
  ASSERT_TRUE(BuildMenuOptions(ping, options, sizeof(options)));
  EXPECT_EQ(Narrow(options), "-test=pingtest");
  MenuArgument& retries = Arg("pingtest", "-retries");
  StrCopy(retries.Value, sizeof(retries.Value), u"2");
  retries.Edited = true;
  MenuArgument& path = Arg("pingtest", "-devicepath");
  StrCopy(path.Value, sizeof(path.Value), u"a b");
  path.Edited = true;
  ASSERT_TRUE(BuildMenuOptions(ping, options, sizeof(options)));
  EXPECT_EQ(Narrow(options), "-test=pingtest -retries=2 -devicepath=\"a b\"");
  CHAR16 small[20];
  EXPECT_FALSE(BuildMenuOptions(ping, small, sizeof(small)));
}

// The menu on a fake manager: what it showed, the calls it made, the keys it was given.
struct FakeHost {
  std::string screen;
  std::vector<std::string> calls;
  std::vector<EFI_INPUT_KEY> keys;
  size_t nextKey = 0;
  int clears = 0;

  static void Show(void* c, const CHAR16* text, UINTN) { static_cast<FakeHost*>(c)->screen += Narrow(text); }
  static void Clear(void* c) { ++static_cast<FakeHost*>(c)->clears; }
  static EFI_INPUT_KEY Key(void* c) {
    auto* h = static_cast<FakeHost*>(c);
    if (h->nextKey == h->keys.size()) {
      ADD_FAILURE() << "the menu asked for more keys than were typed";
      return {SCAN_ESC, 0};
    }
    return h->keys[h->nextKey++];
  }
  static void Run(void* c, CHAR16* options, MenuCall* call) {
    auto* h = static_cast<FakeHost*>(c);
    h->calls.push_back(Narrow(options));
    call->Result = h->calls.size() == 1 ? TEST_RESULT_FAILED : TEST_RESULT_PASSED;
    call->Error = h->calls.size() == 1 ? 0x80160107 : 0;
    call->Status = EFI_SUCCESS;
  }
  void Type(const char* text) {
    for (const char* c = text; *c != 0; ++c)
      keys.push_back({0, CHAR16(*c)});
  }
  // Keys marked as typed before the next screen appeared (a key held down): Drain lets them go.
  std::set<size_t> ahead;
  size_t drained = 0;
  static void Drain(void* c) {
    auto* h = static_cast<FakeHost*>(c);
    while (h->nextKey < h->keys.size() && h->ahead.count(h->nextKey) != 0) {
      ++h->nextKey;
      ++h->drained;
    }
  }
  MenuHost Host(AnswerScript* script) { return {this, Show, Clear, Key, Drain, Run, nullptr, script}; }
};

TEST(MenuCatalogInput, BrokenCatalogsAreRefusedWithoutLeaks) {
  FakeFirmware fw;
  const char16_t* broken[] = {u"",
                              u"<DIAGNOSTIC>",
                              u"<OTHER/>",
                              u"<DIAGNOSTIC Name=\"x\"></DIAGNOSTIC>",
                              u"<DIAGNOSTIC><TEST Description=\"no name\"/></DIAGNOSTIC>",
                              u"<<<"};
  for (const char16_t* text : broken) {
    MenuCatalog catalog{};
    EXPECT_TRUE(EFI_ERROR(ReadMenuCatalog(text, &catalog))) << Narrow(text);
    FreeMenuCatalog(&catalog);
  }
  // More tests and arguments than the menu keeps: the first ones, and nothing overruns.
  std::u16string many = u"<DIAGNOSTIC>";
  for (int t = 0; t < 20; ++t) {
    many += u"<TEST Name=\"t" + Wide(std::to_string(t)) + u"\">";
    for (int a = 0; a < 20; ++a)
      many += u"<ARGUMENT Name=\"-a" + Wide(std::to_string(a)) + u"\" Value=\"1\" Type=\"integer\" />";
    many += u"</TEST>";
  }
  many += u"</DIAGNOSTIC>";
  MenuCatalog catalog{};
  ASSERT_EQ(ReadMenuCatalog(many.c_str(), &catalog), EFI_SUCCESS);
  EXPECT_EQ(catalog.TestCount, kMenuMaxTests);
  EXPECT_EQ(catalog.Tests[kMenuMaxTests - 1].ArgumentCount, kMenuMaxArguments);
  EXPECT_EQ(catalog.Omitted, 4u);
  EXPECT_EQ(catalog.Tests[0].Omitted, 4u);
  // The menu says what it leaves out, and every line still fits the screen.
  FakeHost host;
  MenuSession session{};
  std::u16string script = u"front test t0\nfront finish\n";
  AnswerScript answers{};
  ASSERT_TRUE(ParseAnswerScript(script.data(), &answers, nullptr));
  MenuHost h = host.Host(&answers);
  RunTechnicianMenu(h, catalog, session);
  EXPECT_NE(host.screen.find("FRONT 4 more tests than this screen holds; they are not offered"),
            std::string::npos);
  EXPECT_NE(host.screen.find("FRONT 4 more arguments than this screen holds; they keep their defaults"),
            std::string::npos);
  FreeMenuCatalog(&catalog);
  for (uint64_t n = 1; n < 200; ++n) { // every allocation failed in turn
    fw.FailUse(n);
    MenuCatalog c{};
    ReadMenuCatalog(Wide(Expected("catalog.xml")).c_str(), &c);
    FreeMenuCatalog(&c);
  }
  fw.FailUse(0);
  EXPECT_TRUE(fw.pool.empty());
}

// The troubleshooting guide's table, row for row: code, tests, what happened, what to check.
std::vector<std::vector<std::string>> GuideRows() {
  std::ifstream f(std::string(SOURCE_DIR) + "/docs/troubleshooting.md");
  std::vector<std::vector<std::string>> rows;
  bool inTable = false;
  for (std::string line; std::getline(f, line);) {
    if (line == "| Code | Test | What happened | What to check |") {
      inTable = true;
      continue;
    }
    if (!inTable || line.rfind("|---", 0) == 0)
      continue;
    if (line.rfind("| ", 0) != 0)
      break;
    std::vector<std::string> cells;
    std::string cell;
    for (size_t i = 2; i < line.size(); ++i) {
      if (line.compare(i, 3, " | ") == 0 || (line.compare(i, 2, " |") == 0 && i + 2 == line.size())) {
        cells.push_back(cell);
        cell.clear();
        i += 2;
      } else {
        cell += line[i];
      }
    }
    rows.push_back(cells);
  }
  return rows;
}

TEST(Advice, TheTroubleshootingTableIsTheAdviceTheScreenShows) {
  UINTN count = 0;
  const AdviceRow* rows = AdviceRows(&count);
  auto guide = GuideRows();
  // The table as manager/Advice.cpp gives it: what docs/troubleshooting.md must hold. On a
  // difference it is written out, ready to replace the guide's.
  std::string table = "| Code | Test | What happened | What to check |\n|---|---|---|---|\n";
  std::vector<std::vector<std::string>> source;
  for (UINTN i = 0; i < count; ++i) {
    source.push_back(
        {Narrow(rows[i].Label), Narrow(rows[i].Tests), Narrow(rows[i].Happened), Narrow(rows[i].Check)});
    table += "| " + source.back()[0] + " | " + source.back()[1] + " | " + source.back()[2] + " | " +
             source.back()[3] + " |\n";
  }
  if (guide != source) {
    std::ofstream(std::string(BINARY_DIR) + "/troubleshooting-table.md") << table;
    ADD_FAILURE()
        << "docs/troubleshooting.md's table differs from manager/Advice.cpp; the table it must hold is in "
        << BINARY_DIR << "/troubleshooting-table.md";
  }
  // Every code the tests define has a row.
  std::set<UINTN> codes = {ERROR_CODE_OPERATOR_ABORT, ERROR_CODE_INVALID_OPTIONS, ERROR_CODE_SOFTWARE,
                           ERROR_CODE_NO_NIC, ERROR_CODE_NIC_NOT_FOUND};
  for (UINTN t = 0; kTestTable[t] != nullptr; ++t)
    for (const ErrorMeaning* e = kTestTable[t]->Errors; e != nullptr && e->Meaning != nullptr; ++e)
      codes.insert(e->Code);
  for (UINTN code : codes)
    EXPECT_NE(AdviceFor(code), nullptr) << std::hex << code;
  EXPECT_EQ(AdviceFor(0), nullptr);

  // On the screen: a reference is the referred advice, with what the row adds; no code-span marks.
  CHAR16 text[1024];
  AdviceText(0x80160302, text, sizeof(text));
  EXPECT_EQ(Narrow(text), Narrow(AdviceFor(0x80160101)->Check));
  AdviceText(0x80160303, text, sizeof(text));
  std::string interactive = Narrow(text);
  EXPECT_EQ(interactive.find("whether the server answers ping at all"), 0u);
  EXPECT_NE(interactive.find(". A silent gateway does not show here"), std::string::npos);
  EXPECT_EQ(interactive.find('`'), std::string::npos);
  AdviceText(0, text, sizeof(text));
  EXPECT_EQ(Narrow(text), "");
}

} // namespace

namespace {

struct MenuFixture : CatalogFixture {
  FakeHost fake;
  MenuSession session{};
  void Sessions(AnswerScript* script) {
    MenuHost host = fake.Host(script);
    RunTechnicianMenu(host, catalog, session);
  }
};

TEST_F(MenuFixture, AScriptedSessionRunsATestWithItsValueThenAllThenSummarises) {
  std::u16string text = u"front test pingtest\nfront set -retries 9\nfront set -retries 2\nfront run\n"
                        u"front all\nfront finish\n";
  AnswerScript script{};
  ASSERT_TRUE(ParseAnswerScript(text.data(), &script, nullptr));
  Sessions(&script);
  // "all" calls every test but downloadtest, whose -url nobody set: the menu says so and calls nothing.
  ASSERT_EQ(fake.calls.size(), catalog.TestCount);
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "-test=downloadtest"), 0);
  EXPECT_NE(fake.screen.find("FRONT not run: downloadtest needs -url; set it on the test's screen\r\n"),
            std::string::npos);
  EXPECT_EQ(fake.calls[0], "-test=pingtest -retries=2");
  EXPECT_EQ(fake.calls[1], "-test=pingtest -retries=2"); // "all" keeps what was set
  EXPECT_EQ(fake.calls[2], "-test=detectcable");
  EXPECT_NE(fake.screen.find("FRONT refused: -retries takes 0..5; 9 is outside; -retries stays 0\r\n"),
            std::string::npos);
  // The result screen: the code's meaning and what to check, from the advice table.
  EXPECT_NE(fake.screen.find("FRONT result test=pingtest result=Failed error=0x80160107 status=Success\r\n"
                             "FRONT   meaning=\"no cable\" options='-test=pingtest -retries=2'\r\n"
                             "FRONT check=the cable and the switch port\r\n"),
            std::string::npos);
  // Every line fits an 80-column screen: long ones go on, indented, in the next.
  size_t start = 0;
  for (size_t end; (end = fake.screen.find("\r\n", start)) != std::string::npos; start = end + 2)
    EXPECT_LE(end - start, 79u) << fake.screen.substr(start, end - start);
  EXPECT_NE(fake.screen.find("FRONT summary calls=" + std::to_string(fake.calls.size())), std::string::npos);
  EXPECT_NE(fake.screen.find("FRONT call=1 result=Failed error=0x80160107 meaning=\"no cable\"\r\n"
                             "FRONT   options='-test=pingtest -retries=2'"),
            std::string::npos);
  EXPECT_EQ(fake.clears, 0); // a script's session is lines, not screens
  EXPECT_EQ(session.CallCount, fake.calls.size());
}

TEST_F(MenuFixture, TheKeyboardChoosesEditsRunsAndGoesBack) {
  fake.Type("1\r");    // pingtest
  fake.Type("1\r9\r"); // -retries: 9, refused
  fake.keys.push_back({SCAN_DOWN, 0});
  fake.keys.push_back({SCAN_UP, 0});
  fake.Type("\r");              // the highlight is on -retries again
  fake.Type("2\b3\r");          // typed 2, rubbed out, 3
  fake.Type("7\r");             // Run
  for (int i = 0; i < 5; ++i) { // Enter held down through the run: it must not choose on the next screen
    fake.ahead.insert(fake.keys.size());
    fake.Type("\r");
  }
  fake.Type(" ");                     // a key after the result screen
  fake.keys.push_back({SCAN_ESC, 0}); // finish
  Sessions(nullptr);
  ASSERT_EQ(fake.calls, std::vector<std::string>{"-test=pingtest -retries=3"});
  EXPECT_NE(fake.screen.find("-retries takes 0..5; 9 is outside"), std::string::npos);
  EXPECT_NE(fake.screen.find("FRONT set -retries=3"), std::string::npos);
  EXPECT_EQ(fake.nextKey, fake.keys.size());
  EXPECT_EQ(fake.drained, 5u);
  EXPECT_GT(fake.clears, 3);
  // Every line fits an 80-column console.
  std::stringstream lines(fake.screen);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80u) << line; // 79 characters and the CR
  }
}

TEST_F(MenuFixture, TextsComeInTheManagersLanguageAndEnglishWhereOneIsMissing) {
  std::u16string text = u"front finish\n";
  AnswerScript script{};
  ASSERT_TRUE(ParseAnswerScript(text.data(), &script, nullptr));
  MenuHost host = fake.Host(&script);
  host.Text = [](void*, UINTN id) -> const CHAR16* { return id == 202 ? u"Terminer" : nullptr; };
  RunTechnicianMenu(host, catalog, session);
  EXPECT_NE(fake.screen.find(" Terminer\r\n"), std::string::npos);      // Finish, in French
  EXPECT_NE(fake.screen.find(" Run all tests\r\n"), std::string::npos); // no French text given: English
}

TEST_F(MenuFixture, AScriptThatRunsOutOrSaysTheUnknownEndsTheSession) {
  std::u16string text = u"front test nosuch\nfront run\nfront test macaddresstest\nfront set -nosuch 1\n";
  AnswerScript script{};
  ASSERT_TRUE(ParseAnswerScript(text.data(), &script, nullptr));
  Sessions(&script);
  EXPECT_TRUE(fake.calls.empty());
  EXPECT_NE(fake.screen.find("FRONT the catalog has no test nosuch"), std::string::npos);
  EXPECT_NE(fake.screen.find("a script line for a test's screen came on the list of tests"),
            std::string::npos);
  EXPECT_NE(fake.screen.find("FRONT refused: macaddresstest has no argument -nosuch"), std::string::npos);
  EXPECT_NE(fake.screen.find("FRONT the script has no answer left: finish"), std::string::npos);
  EXPECT_NE(fake.screen.find("FRONT summary calls=0"), std::string::npos);

  std::u16string bad = u"front set -retries\n"; // an empty value is the check's to refuse
  EXPECT_TRUE(ParseAnswerScript(bad.data(), &script, nullptr));
  std::u16string worse = u"front dance\n";
  UINTN line = 0;
  EXPECT_FALSE(ParseAnswerScript(worse.data(), &script, &line));
  EXPECT_EQ(line, 1u);
}

} // namespace
