#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "text/Ini.h"
#include "fakes/FakeFileSystem.h"
#include "fakes/FakeFirmware.h"

namespace {

using Strings = std::vector<std::u16string>;

constexpr UINT32 kMacFlags =
    INI_CASE_INSENSITIVE | INI_TRIM | INI_VALUES_ONLY | INI_NO_COMMENT | INI_SKIP_EMPTY;

struct IniTest : ::testing::Test {
  FakeFirmware fw;
  INI_DOCUMENT* doc = nullptr;
  void TearDown() override {
    IniClose(doc);
    EXPECT_TRUE(fw.pool.empty());
  }
  EFI_STATUS Load(const std::string& text, UINTN encoding = INI_ENCODING_DETECT) {
    IniClose(doc);
    doc = nullptr;
    return IniLoad(reinterpret_cast<const UINT8*>(text.data()), text.size(), encoding, &doc);
  }
  Strings Query(const char16_t* section, const char16_t* key, const char16_t* value, UINT32 flags) {
    UINTN count = 0;
    CHAR16** strings = nullptr;
    EXPECT_EQ(IniQuery(doc, section, key, value, flags, &count, &strings), EFI_SUCCESS);
    Strings out;
    for (UINTN i = 0; i < count; ++i)
      out.push_back(strings[i]);
    IniFreeStrings(count, strings);
    return out;
  }
};

TEST_F(IniTest, TheMacTestsQuery) {
  ASSERT_EQ(Load("top=1\r\n[invalid_macpattern]\r\np1 = 00:11:.* ; old\r\np2=\r\np3\r\n;note\r\n"
                 "[Other]\r\np4=ff:.*\r\n"),
            EFI_SUCCESS);
  EXPECT_EQ(Query(u"Invalid_MACPattern", u".*", nullptr, kMacFlags), Strings{u"00:11:.*"});
  // Lines above the first section never match a section pattern.
  EXPECT_EQ(Query(u".*", u"top", nullptr, 0), (Strings{u"[invalid_macpattern]", u"[Other]"}));
  EXPECT_EQ(Query(nullptr, u"top", nullptr, 0), Strings{u"top=1"});
}

TEST_F(IniTest, PrintingAndFlags) {
  ASSERT_EQ(Load("[a] ;note\n k = \" v \" ;c\nx\n\n[b]\ny=2\n"), EFI_SUCCESS);
  // The text did not end in CR LF: one is appended, and the LF CR it makes is a line end of its own,
  // so an LF-only file ends in one more, empty line.
  Strings all = {u"[a] ;note", u" k = \" v \" ;c", u"x", u"", u"[b]", u"y=2", u""};
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), all);
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, INI_TRIM | INI_NO_COMMENT | INI_SKIP_EMPTY),
            (Strings{u"[a]", u"k=\" v \"", u"x", u"[b]", u"y=2"}));
  // Quotes keep the blanks inside them.
  EXPECT_EQ(Query(u"a", u"k", u"\\sv\\s", INI_TRIM | INI_STRIP_QUOTES | INI_VALUES_ONLY), Strings{u" v "});
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, INI_SECTIONS_ONLY), (Strings{u"a", u"b"}));
  EXPECT_EQ(Query(u"[ab]", u"[ky]", nullptr, INI_TRIM | INI_WITH_SECTION | INI_NO_COMMENT),
            (Strings{u"[a]", u"k=\" v \"", u"[b]", u"y=2"})); // each header once, before its lines
  EXPECT_EQ(Query(nullptr, u"y", nullptr, INI_NO_SECTIONS), Strings{u"y=2"});
  EXPECT_EQ(Query(u"nosuch", nullptr, nullptr, 0), Strings{});

  UINTN count = 1;
  CHAR16** strings = nullptr;
  EXPECT_EQ(IniQuery(doc, nullptr, nullptr, nullptr, INI_SECTIONS_ONLY | INI_NO_SECTIONS, &count, &strings),
            EFI_INVALID_PARAMETER);
  EXPECT_EQ(IniQuery(doc, nullptr, nullptr, nullptr, INI_WITH_SECTION | INI_VALUES_ONLY, &count, &strings),
            EFI_INVALID_PARAMETER);
  // A broken pattern is reported on the console and matches nothing.
  EXPECT_EQ(Query(u"a{0}", nullptr, nullptr, 0), Strings{});
  EXPECT_NE(
      fw.conOutText.find(u"AT_LINE_1403: MatchingStringAndRegularExpression() failed. (Invalid Parameter)"),
      std::u16string::npos);
}

TEST_F(IniTest, LoadingRules) {
  EXPECT_EQ(Load("[a] x\r\n"), EFI_UNSUPPORTED);
  EXPECT_EQ(Load("[a\r\nb]\r\n"), EFI_UNSUPPORTED);
  EXPECT_EQ(Load("[a=b;c]\r\n"), EFI_SUCCESS);
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, INI_SECTIONS_ONLY), Strings{u"a=b;c"});
  EXPECT_EQ(Load("=x\r\nk=a=b\r\n"), EFI_SUCCESS);
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), (Strings{u"=x", u"k=a=b"}));
  EXPECT_EQ(Load("k=\"a;b\"\r\n"), EFI_SUCCESS); // a ";" always starts a comment
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, INI_VALUES_ONLY), Strings{u"\"a"});
  EXPECT_EQ(Load("a=1\rb=2\n\rc=3"), EFI_SUCCESS); // a lone CR ends a line; LF CR is one end
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), (Strings{u"a=1", u"b=2", u"c=3"}));
  EXPECT_EQ(Load(std::string("a=1\0b=2\r\n", 10)), EFI_SUCCESS); // the text ends at its first NUL
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), Strings{u"a=1"});
  EXPECT_EQ(Load(""), EFI_SUCCESS);
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), Strings{u""});

  // 8-bit and UCS-2 with its mark give the same lines; a missing final line end changes nothing.
  ASSERT_EQ(Load("[s]\r\nk=v"), EFI_SUCCESS);
  Strings eight = Query(nullptr, nullptr, nullptr, 0);
  EXPECT_EQ(doc->Encoding, INI_ENCODING_8BIT);
  std::string wide = "\xFF\xFE";
  for (char c : std::string("[s]\r\nk=v\r\n"))
    wide += std::string{c, '\0'};
  ASSERT_EQ(Load(wide), EFI_SUCCESS);
  EXPECT_EQ(doc->Encoding, INI_ENCODING_UCS2);
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), eight);
  EXPECT_EQ(Load("\xE9=1"), EFI_SUCCESS); // 8-bit bytes keep their value
  EXPECT_EQ(Query(nullptr, nullptr, nullptr, 0), Strings{u"\u00E9=1"});
}

TEST_F(IniTest, OpenReadsThroughFileAccess) {
  FakeFileSystem vol;
  EFI_LOADED_IMAGE_PROTOCOL image{};
  EFI_HANDLE imageHandle = reinterpret_cast<EFI_HANDLE>(0x1000),
             device = reinterpret_cast<EFI_HANDLE>(0x3000);
  image.DeviceHandle = device;
  fw.AddProtocol(imageHandle, EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
  fw.AddProtocol(device, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, vol.Protocol());
  FileIoReset();
  ASSERT_EQ(FileIoInitialize(imageHandle, &fw.st), EFI_SUCCESS);
  DebugLogInitialize(FileIoModuleDirectory());
  vol.AddFile(u"\\Network.ini", "[Invalid_MACPattern]\r\np=00:00:00:00:00:00\r\n");
  ASSERT_EQ(IniOpen(u"Network.ini", INI_ENCODING_DETECT, &doc), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(doc->FilePath), u"\\Network.ini");
  EXPECT_EQ(Query(u"invalid_macpattern", u".*", nullptr, kMacFlags), Strings{u"00:00:00:00:00:00"});
  INI_DOCUMENT* missing = nullptr;
  EXPECT_EQ(IniOpen(u"nosuch.ini", 0, &missing), EFI_NOT_FOUND);
  EXPECT_EQ(IniOpen(u"x.ini", 3, &missing), EFI_INVALID_PARAMETER);
  FileIoReset();
}

} // namespace
