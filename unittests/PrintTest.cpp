#include <gtest/gtest.h>

#include <string>

#include "base/Print.h"

namespace {

template <class... A> std::u16string Fmt(const char16_t* format, const A&... args) {
  char16_t buffer[512];
  SPrint(buffer, sizeof(buffer), format, args...);
  return buffer;
}

TEST(Print, Conversions) {
  EXPECT_EQ(Fmt(u"%s|%S|%a", u"wide", u"also", "ascii"), u"wide|also|ascii");
  EXPECT_EQ(Fmt(u"%s %a", static_cast<const char16_t*>(nullptr), static_cast<const char*>(nullptr)),
            u"<null string> <null string>");
  EXPECT_EQ(Fmt(u"%c%c", u'O', u'K'), u"OK");
  EXPECT_EQ(Fmt(u"%d %d %d", 0, -42, INT64_MIN), u"0 -42 -9223372036854775808");
  EXPECT_EQ(Fmt(u"%d", UINT64(0xFFFFFFFFFFFFFFFFull)), u"-1"); // 64-bit signed
  EXPECT_EQ(Fmt(u"%x %x", 0xABCDu, UINT64(0x1234567890ABCDEFull)), u"ABCD 1234567890ABCDEF");
  EXPECT_EQ(Fmt(u"%X", 0x2Au), u"000000000000002A");
  EXPECT_EQ(Fmt(u"%lx %ld", 255, 7), u"FF 7");
  EXPECT_EQ(Fmt(u"100%% %q %"), u"100% q "); // unknown conversion prints itself; a lone % ends
}

TEST(Print, WidthsAndFlags) {
  EXPECT_EQ(Fmt(u"[%02x:%02x]", 0x5, 0xAB), u"[05:AB]");
  EXPECT_EQ(Fmt(u"[%5d][%-5d][%05d]", 42, 42, 42), u"[   42][42][00042]");
  EXPECT_EQ(Fmt(u"[%05d]", -42), u"[  -42]"); // negative decimals pad with blanks
  EXPECT_EQ(Fmt(u"[%6s][%-6s]", u"ab", u"ab"), u"[ab    ][ab]");
  EXPECT_EQ(Fmt(u"%,d %,d %,d", 999, 1000, 1234567), u"999 1,000 1,234,567");
  EXPECT_EQ(Fmt(u"%016lx", 0x1F), u"000000000000001F");
  EXPECT_EQ(Fmt(u"[%99d]", 1).size(), 31u); // widths are capped at 29
}

TEST(Print, StatusNamesAndGuids) {
  EXPECT_EQ(Fmt(u"%r", EFI_SUCCESS), u"Success");
  EXPECT_EQ(Fmt(u"%r", EFI_END_OF_FILE), u"End of File");
  EXPECT_EQ(Fmt(u"%r", EFI_INVALID_LANGUAGE), u"Invalid Language");
  EXPECT_EQ(Fmt(u"%r", EFI_WARN_BUFFER_TOO_SMALL), u"Warning Buffer Too Small");
  EXPECT_EQ(Fmt(u"%r", EncodeError(29)), u"800000000000001D"); // not in the table
  EXPECT_EQ(Fmt(u"%r", EFI_COMPROMISED_DATA), u"8000000000000021");
  EFI_GUID guid = {0x31EFB10E, 0x6FC9, 0x4026, {0xB1, 0x6A, 0x21, 0x9A, 0x44, 0x57, 0x5B, 0xB5}};
  EXPECT_EQ(Fmt(u"%g", &guid), u"31efb10e-6fc9-4026-b16a-219a44575bb5");
  EXPECT_EQ(Fmt(u"[%g]", static_cast<const EFI_GUID*>(nullptr)), u"[]");
}

TEST(Print, MismatchedAndMissingArgumentsAreSafe) {
  EXPECT_EQ(Fmt(u"%s", 42), u"<null string>");  // a number is never read as a string
  EXPECT_EQ(Fmt(u"%d %s"), u"0 <null string>"); // missing arguments
  EXPECT_EQ(Fmt(u"%g", 5), u"");
}

TEST(Print, StopsOneCharacterBeforeTheEndOfTheBuffer) {
  char16_t buffer[8];
  for (auto& c : buffer)
    c = u'#';
  EXPECT_EQ(SPrint(buffer, 10, u"%s", u"abcdefgh"), 4u); // 10 bytes: 5 characters, 4 of text
  EXPECT_EQ(std::u16string(buffer), u"abcd");
  EXPECT_EQ(buffer[5], u'#');

  EXPECT_EQ(SPrint(buffer, 2, u"abc"), 0u); // room for the terminator only
  EXPECT_EQ(buffer[0], 0);
  buffer[0] = u'#';
  EXPECT_EQ(SPrint(buffer, 1, u"abc"), 0u); // less than one character: nothing is written
  EXPECT_EQ(SPrint(buffer, 0, u"abc"), 0u);
  EXPECT_EQ(buffer[0], u'#');
  EXPECT_EQ(SPrint(nullptr, 100, u"abc"), 0u);

  // Padding and digit groups are cut at the same place.
  EXPECT_EQ(SPrint(buffer, sizeof(buffer), u"%20d", 1), 7u);
  EXPECT_EQ(std::u16string(buffer), u"       ");
  EXPECT_EQ(SPrint(buffer, sizeof(buffer), u"%,d", 123456789), 7u);
  EXPECT_EQ(std::u16string(buffer), u"123,456");
}

} // namespace
