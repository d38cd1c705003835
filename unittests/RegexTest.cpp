#include <gtest/gtest.h>

#include <string>

#include "text/Regex.h"
#include "fakes/FakeFirmware.h"

namespace {

struct RegexTest : ::testing::Test {
  FakeFirmware fw;
  void TearDown() override { EXPECT_TRUE(fw.pool.empty()) << "compiled pattern not freed"; }

  // 1 matched, 0 not matched, -1 the pattern was refused.
  int Whole(const std::u16string& text, const std::u16string& pattern, bool caseSensitive = true) {
    BOOLEAN matched = TRUE;
    EFI_STATUS status =
        MatchingStringAndRegularExpression(text.c_str(), pattern.c_str(), caseSensitive, &matched);
    if (EFI_ERROR(status)) {
      EXPECT_EQ(status, EFI_INVALID_PARAMETER);
      EXPECT_FALSE(matched);
      return -1;
    }
    return matched ? 1 : 0;
  }
  // The text found, or "<none>".
  std::u16string Find(const std::u16string& text, const std::u16string& pattern, bool greedy = true) {
    const CHAR16* start = nullptr;
    UINTN length = 99;
    EXPECT_EQ(RegularExpressionSearch(text.c_str(), pattern.c_str(), TRUE, greedy, &start, &length),
              EFI_SUCCESS);
    if (start == nullptr)
      return u"<none>";
    found = UINTN(start - text.c_str());
    return text.substr(found, length);
  }
  UINTN found = 0;
};

TEST_F(RegexTest, TheDialectsTraps) {
  // Parentheses and bars are literal characters; there is no grouping.
  EXPECT_EQ(Whole(u"00:00:00:00:00:00", u"00(:00){5}"), 0);
  EXPECT_EQ(Whole(u"00(:00)(:00)", u"00(:00){2}"), 0); // the quantifier applies to ")" alone
  EXPECT_EQ(Whole(u"00(:00))", u"00(:00){2}"), 1);
  EXPECT_EQ(Whole(u"00:00:00:00:00:00", u"00.*"), 1);
  EXPECT_EQ(Whole(u"00:00:00:00:00:00", u"00"), 0);
  EXPECT_EQ(Whole(u"a|b", u"a|b"), 1);
  EXPECT_EQ(Whole(u"a", u"a|b"), 0);
  // "\." is any character; "[.]" only a dot.
  EXPECT_EQ(Whole(u"x", u"\\."), 1);
  EXPECT_EQ(Whole(u"x", u"[.]"), 0);
  EXPECT_EQ(Whole(u".", u"[.]"), 1);
  EXPECT_EQ(Whole(u"n", u"\\n"), 1); // the letter n, not a line feed
  EXPECT_EQ(Whole(u"\\[*", u"\\\\\\[\\*"), 1);
  // Anchors change nothing for the whole-string match, but must stand at the ends.
  EXPECT_EQ(Whole(u"ab", u"^ab$"), 1);
  EXPECT_EQ(Whole(u"ab", u"a^b"), -1);
  EXPECT_EQ(Whole(u"ab", u"a$b"), -1);
  EXPECT_EQ(Whole(u"", u"a*"), 1);
  EXPECT_EQ(Whole(u"", u"a"), 0);
}

TEST_F(RegexTest, CaseFoldingOfRanges) {
  EXPECT_EQ(Whole(u"ff:12", u"FF.*", false), 1);
  EXPECT_EQ(Whole(u"ff:12", u"FF.*", true), 0);
  EXPECT_EQ(Whole(u"_", u"[A-z]", false), 0); // folded, the range is a-z
  EXPECT_EQ(Whole(u"_", u"[A-z]", true), 1);
  EXPECT_EQ(Whole(u"\u00C9", u"\u00E9", false), 0); // only A-Z fold
}

TEST_F(RegexTest, BracesAndBrackets) {
  EXPECT_EQ(Whole(u"aa", u"a{0,2}"), -1);
  EXPECT_EQ(Whole(u"a", u"a{2,}"), 0);
  EXPECT_EQ(Whole(u"aaaa", u"a{2,}"), 1);
  EXPECT_EQ(Whole(u"aa", u"a{3,1}"), 1);
  EXPECT_EQ(Whole(u"aaaa", u"a{3,1}"), 0);
  EXPECT_EQ(Whole(u"aaa", u"a{ 3 }"), 1);
  EXPECT_EQ(Whole(u"a", u"a{1"), -1);
  EXPECT_EQ(Whole(u"a", u"a{x}"), -1);
  EXPECT_EQ(Whole(u"a", u"a{1,2x}"), -1);
  EXPECT_EQ(Whole(u"a+", u"a++"), 1); // a second quantifier is an ordinary character
  EXPECT_EQ(Whole(u"B", u"[\\x41-\\x43]"), 1);
  EXPECT_EQ(Whole(u"D", u"[\\x41-\\x43]"), 0);
  EXPECT_EQ(Whole(u"A", u"[\\x41]"), 1); // the hex escape stops at the terminator
  EXPECT_EQ(Whole(u"a", u"[\\x0]"), -1);
  EXPECT_EQ(Whole(u"a", u"[\\x"), -1);
  EXPECT_EQ(Whole(u"a", u"[a-]"), -1); // "]" is the upper bound, the bracket stays open
  EXPECT_EQ(Whole(u"^", u"[a-]]"), 1); // the range from "]" to "a"
  EXPECT_EQ(Whole(u"x", u"[]"), 0);
  EXPECT_EQ(Whole(u"x", u"[^]"), 1);
  EXPECT_EQ(Whole(u"b1_", u"[[:alpha:]][[:digit:]][[:punct:]]"), 1);
  EXPECT_EQ(Whole(u"\t", u"[[:blank:]]"), 1);
  EXPECT_EQ(Whole(u"G", u"[[:xdigit:]]"), 0);
  EXPECT_EQ(Whole(u"[", u"[[:nosuch]"), 1); // not a class name: "[", ":" and letters
  EXPECT_EQ(Whole(u"a b", u"\\w\\s\\W"), 0);
  EXPECT_EQ(Whole(u"a b", u"\\w\\s\\w"), 1);
  EXPECT_EQ(Whole(u"7x", u"\\d\\D"), 1);
  EXPECT_EQ(Whole(u"a", u"\\"), -1);
  EXPECT_EQ(Whole(u"a", u"^"), -1);
  EXPECT_EQ(Whole(u"a", u"[[:alpha:"), -1);
}

TEST_F(RegexTest, LeftmostSearch) {
  EXPECT_EQ(Find(u"version=\"1.10\"", u"[1][.][0-9]+", true), u"1.10");
  EXPECT_EQ(Find(u"version=\"1.10\"", u"[1][.][0-9]+", false), u"1.1");
  EXPECT_EQ(Find(u"abb", u"b$"), u"b");
  EXPECT_EQ(found, 2u);
  EXPECT_EQ(Find(u"ab", u"^b"), u"<none>");
  EXPECT_EQ(Find(u"ab", u"x*$"), u"");
  EXPECT_EQ(found, 2u); // at the terminator
  EXPECT_EQ(Find(u"ab", u"^"), u"");
  EXPECT_EQ(found, 0u);
  EXPECT_EQ(Find(u"ab", u"$"), u"");
  EXPECT_EQ(found, 2u);
  EXPECT_EQ(Find(u"", u"a*"), u"");
  EXPECT_EQ(Find(u"xaaay", u"a+"), u"aaa");
  EXPECT_EQ(Find(u"xaaay", u"a+", false), u"a");
  EXPECT_EQ(Find(u"aab", u"a*ab"), u"aab"); // greedy backs off to let the rest match
  const CHAR16* start = reinterpret_cast<const CHAR16*>(1);
  EXPECT_EQ(RegularExpressionSearch(u"abc", u"a{0}", TRUE, TRUE, &start, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ(start, nullptr);
}

TEST_F(RegexTest, HostilePatternsStayLinear) {
  std::u16string as(20000, u'a');
  EXPECT_EQ(Whole(as, u"a*a*a*a*a*a*b"), 0);
  EXPECT_EQ(Whole(as + u"b", u"a*a*a*a*a*a*b"), 1);
  EXPECT_EQ(Find(as, u"a*a*a*a*a*a*b"), u"<none>");
}

TEST_F(RegexTest, OutOfMemoryIsReportedAndNothingLeaks) {
  for (size_t failAt = 0; failAt < 12; ++failAt) {
    fw.failAllocationAfter = failAt;
    BOOLEAN matched = TRUE;
    EFI_STATUS status = MatchingStringAndRegularExpression(u"ab", u"[a-c]\\w", TRUE, &matched);
    fw.failAllocationAfter = SIZE_MAX;
    EXPECT_TRUE(status == EFI_OUT_OF_RESOURCES || status == EFI_SUCCESS) << failAt;
    EXPECT_EQ(matched, status == EFI_SUCCESS) << failAt;
    EXPECT_TRUE(fw.pool.empty()) << failAt;
  }
}

} // namespace
