// Host benchmarks of the module's hot text paths. Prints "BENCH <name> <value> <unit>" lines.
#include <chrono>
#include <cstdio>
#include <string>

#include "base/Print.h"
#include "frame/Dispatch.h"
#include "frame/TestModule.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "text/Regex.h"
#include "text/Xml.h"
#include "base/Memory.h"
#include <fstream>
#include <sstream>
#include "fakes/FakeFirmware.h"

namespace {

template <class F> double SecondsFor(int iterations, F&& body) {
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < iterations; ++i)
    body(i);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

volatile UINTN gSink;

} // namespace

int main() {
  FakeFirmware fw;
  FakeManager manager;

  constexpr int kLines = 200000;
  char16_t line[1000];
  double s = SecondsFor(kLines, [&](int i) {
    gSink = SPrint(line, sizeof(line), u"Ping %d.%d.%d.%d: seq %d time %,d us status %r (%s)\r\n", 10, 0, 2,
                   2, i, i * 37, EFI_TIMEOUT, u"pingtest");
  });
  std::printf("BENCH print_line %.0f lines/s\n", kLines / s);

  // A full run-time call: tokenize, select, validate with defaults, clear.
  constexpr int kCalls = 50000;
  std::u16string options = u"-test=SpeedTest -retries=2 -testrepeats=3 -NetworkSpeed=0x3E8 -index=1";
  s = SecondsFor(kCalls, [&](int) {
    UINTN runTime = 0, result = 0, error = 0;
    VexGetTestRunTime(0, options.data(), &runTime, &result, &error);
    gSink = runTime + result;
  });
  std::printf("BENCH option_call %.2f us/call\n", s / kCalls * 1e6);
  std::printf("BENCH option_call_pool_left %zu allocations\n", fw.pool.size());

  // The MAC test's kind of match: a MAC text against an invalid-MAC pattern.
  constexpr int kMatches = 100000;
  s = SecondsFor(kMatches, [&](int) {
    BOOLEAN matched = FALSE;
    MatchingStringAndRegularExpression(u"52:54:00:12:34:56", u"[0-9a-f]{2}(:[0-9a-f]{2}){5}", FALSE,
                                       &matched);
    gSink = matched;
  });
  std::printf("BENCH regex_mac_match %.0f matches/s\n", kMatches / s);

  // A pattern that makes plain backtracking exponential, against 10,000 characters.
  std::u16string as(10000, u'a');
  s = SecondsFor(1, [&](int) {
    BOOLEAN matched = TRUE;
    MatchingStringAndRegularExpression(as.c_str(), u"a*a*a*a*a*a*b", TRUE, &matched);
    gSink = matched;
  });
  std::printf("BENCH regex_hostile_10000 %.2f ms\n", s * 1e3);

  // Loading the shipped message file (decode, validate, build, free).
  std::ifstream file(std::string(SOURCE_DIR) + "/support/Wirecheck.msg.xml", std::ios::binary);
  std::stringstream bytes;
  bytes << file.rdbuf();
  std::string xml = bytes.str();
  constexpr int kLoads = 2000;
  s = SecondsFor(kLoads, [&](int) {
    CHAR16* text = nullptr;
    FileData2XmlDocString(reinterpret_cast<const UINT8*>(xml.data()), xml.size(), &text);
    XmlNode* doc = nullptr;
    XmlLoadString(text, &doc, TRUE);
    XmlFreeDocument(doc);
    FreePool(text);
  });
  std::printf("BENCH xml_message_file_load %.1f us\n", s / kLoads * 1e6);
  std::printf("BENCH xml_throughput %.1f MB/s\n", double(xml.size()) * kLoads / s / 1e6);
  return 0;
}
