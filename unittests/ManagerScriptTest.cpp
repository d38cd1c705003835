#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Memory.h"
#include "manager/Script.h"
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
