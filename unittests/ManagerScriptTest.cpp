#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Memory.h"
#include "manager/Script.h"
#include "fakes/FakeFirmware.h"

namespace {

std::u16string Decode(const std::vector<uint8_t>& bytes) {
  CHAR16* text = DecodeText(bytes.data(), bytes.size());
  std::u16string s = text;
  FreePool(text);
  return s;
}

TEST(ManagerFiles, DecodesUtf16Utf8AndBrokenBytes) {
  FakeFirmware fw;
  EXPECT_EQ(Decode({0xFF, 0xFE, 'a', 0, 0xE9, 0, 'b'}), u"a\u00E9"); // odd trailing byte dropped
  EXPECT_EQ(Decode({0xEF, 0xBB, 0xBF, 'x', 0xC3, 0xA9}), u"x\u00E9");
  EXPECT_EQ(Decode({'a', 0xC3}), u"a?");                   // cut sequence
  EXPECT_EQ(Decode({0xF0, 0x9F, 0x98, 0x80, 'z'}), u"?z"); // outside UCS-2
  EXPECT_EQ(Decode({}), u"");
  EXPECT_TRUE(fw.pool.empty());
}

TEST(ManagerFiles, LinesAndScriptedAnswers) {
  FakeFirmware fw;
  std::u16string text = u"# answers\r\nprompt ok\nprogress cancel\n\nmenu 2\r\nprompt abort  \nmenu -1";
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
  std::u16string unknown = u"dance 1";
  EXPECT_FALSE(ParseAnswerScript(unknown.data(), &script, &bad));
  EXPECT_EQ(bad, 1u);
}

} // namespace
