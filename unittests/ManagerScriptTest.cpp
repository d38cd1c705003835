#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Memory.h"
#include "manager/Report.h"
#include "manager/Script.h"
#include "report/Results.h"
#include "fakes/FakeFirmware.h"

namespace {

TEST(ManagerFiles, LinesAndScriptedAnswers) {
  FakeFirmware fw;
  std::u16string text = u"# answers\r\nprompt ok\nprogress cancel\n\nmenu 2\r\nprompt abort  \nmenu Cancel";
  AnswerScript script{};
  UINTN bad = 0;
  ASSERT_TRUE(ParseAnswerScript(text.data(), &script, &bad));
  EXPECT_EQ(script.Count, 5u);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Prompt)->Value, 0);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Menu)->Value, 2);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Prompt)->Value, 1);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Prompt), nullptr);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Progress)->Value, 2);
  EXPECT_EQ(TakeAnswer(&script, AnswerKind::Menu)->Value, -1);

  std::u16string wrong = u"prompt ok\nprogress later\n";
  EXPECT_FALSE(ParseAnswerScript(wrong.data(), &script, &bad));
  EXPECT_EQ(bad, 2u);
  std::u16string zero = u"menu 0"; // items count from 1
  EXPECT_FALSE(ParseAnswerScript(zero.data(), &script, &bad));
  std::u16string unknown = u"dance 1";
  EXPECT_FALSE(ParseAnswerScript(unknown.data(), &script, &bad));
  EXPECT_EQ(bad, 1u);
}

} // namespace

namespace {

std::u16string Take(CHAR16* text) {
  std::u16string s = text != nullptr ? std::u16string(text) : u"<null>";
  FreePool(text);
  return s;
}

// The boot image's JSON and JUnit documents: escaped option strings, the kept log tail, and no
// half document when memory runs out.
TEST(ManagerReport, EscapedCasesAndTheLastLogLines) {
  FakeFirmware fw;
  ReportLogTail tail{};
  std::u16string many;
  for (int i = 1; i <= 15; ++i)
    many += u"line " + std::u16string(1, char16_t(u'a' + i)) + u"\r\n\r\n";
  tail.Add(many.c_str());
  tail.Add(std::u16string(300, u'x').c_str()); // cut to the line's room
  std::u16string joined = Take(JoinLogTail(tail));
  EXPECT_EQ(joined.substr(0, 7), u"line f\n"); // 16 lines seen, the last 12 kept
  EXPECT_EQ(joined.size(), 11 * 7 + kReportLineChars - 1);

  std::u16string log = u"bad \"quote\" <tag>\n& \x01 end"; // two lines of a tail
  ReportCase cases[] = {
      {u"-test=pingtest", TEST_RESULT_PASSED, 0, EFI_SUCCESS, 1234, nullptr},
      {u"-test=IRQTest -DeviceID=\"a<b>&'c\"", TEST_RESULT_FAILED, 0x80160701, EFI_SUCCESS, 50, log.data()},
      {u"-test=detectcable", TEST_RESULT_CANCELLED, 0x80000001, EFI_SUCCESS, 0, nullptr},
      {u"-version", TEST_RESULT_IN_PROGRESS, 0x80169999, EFI_NOT_FOUND, 0, nullptr},
  };
  std::u16string json = Take(BuildJsonReport(cases, 4));
  EXPECT_NE(json.find(u"\"options\": \"-test=IRQTest -DeviceID=\\\"a<b>&'c\\\"\", \"test\": \"IRQTest\""),
            std::u16string::npos);
  EXPECT_NE(
      json.find(u"\"meaning\": \"the IRQ test failed\", \"seconds\": 0.0, \"log\": [\"bad \\\"quote\\\" "
                u"<tag>\", \"& \\u0001 end\"]"),
      std::u16string::npos);
  EXPECT_NE(json.find(u"\"seconds\": 1.2}"), std::u16string::npos);
  EXPECT_NE(json.find(u"\"meaning\": \"unknown error code\""), std::u16string::npos);
  EXPECT_NE(json.find(u"\"passed\": 1, \"not_passed\": 3}"), std::u16string::npos);

  std::u16string xml = Take(BuildJunitReport(cases, 4));
  EXPECT_NE(xml.find(u"tests=\"4\" failures=\"1\" errors=\"1\" skipped=\"1\" time=\"1.2\""),
            std::u16string::npos);
  EXPECT_NE(xml.find(u"name=\"-test=IRQTest -DeviceID=&quot;a&lt;b&gt;&amp;&apos;c&quot;\""),
            std::u16string::npos);
  EXPECT_NE(xml.find(u"bad &quot;quote&quot; &lt;tag&gt;\n&amp; ? end</failure>"), std::u16string::npos);
  EXPECT_NE(xml.find(u"<skipped message=\"Cancelled error=0x80000001"), std::u16string::npos);
  EXPECT_NE(xml.find(u"<error message=\"InProgress error=0x80169999 (unknown error code) status=Not Found\""),
            std::u16string::npos);

  // The machine that ran them, as a JSON object and as the suite's properties.
  ReportMachine machine = {u"5c1d0001-0000-4000-8000-000000000001", u"SN \"7\"", u"52:54:00:99:00:01"};
  json = Take(BuildJsonReport(cases, 4, &machine));
  EXPECT_EQ(json.find(u"{\"suite\": \"wirecheck\", \"machine\": {\"uuid\": "
                      u"\"5c1d0001-0000-4000-8000-000000000001\", \"serial\": \"SN \\\"7\\\"\", \"mac\": "
                      u"\"52:54:00:99:00:01\"}, \"cases\": ["),
            0u);
  xml = Take(BuildJunitReport(cases, 4, &machine));
  EXPECT_NE(
      xml.find(
          u"<properties>\n<property name=\"machine.uuid\" value=\"5c1d0001-0000-4000-8000-000000000001\" "
          u"/>\n<property name=\"machine.serial\" value=\"SN &quot;7&quot;\" />"),
      std::u16string::npos);

  // Every allocation failed in turn: no document rather than half of one.
  for (uint64_t n = 1;; ++n) {
    fw.FailUse(n);
    std::u16string text = Take(BuildJunitReport(cases, 4, &machine));
    if (fw.failed == 0) {
      EXPECT_EQ(text, xml);
      break;
    }
    EXPECT_EQ(text, u"<null>") << "allocation " << n;
  }
  fw.FailUse(0);
  EXPECT_TRUE(fw.pool.empty());
}

} // namespace
