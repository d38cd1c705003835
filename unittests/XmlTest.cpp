#include <gtest/gtest.h>

#include <string>

#include "base/Memory.h"
#include "support/DebugLog.h"
#include "text/Xml.h"
#include "fakes/FakeFirmware.h"

namespace {

struct XmlTest : ::testing::Test {
  FakeFirmware fw;
  XmlNode* doc = nullptr;
  void TearDown() override {
    XmlFreeDocument(doc);
    EXPECT_TRUE(fw.pool.empty());
  }
  EFI_STATUS Load(const std::u16string& text, bool repair = false) {
    XmlFreeDocument(doc);
    doc = nullptr;
    return XmlLoadString(text.c_str(), &doc, repair);
  }
  // The validated (and maybe repaired) text, or "<refused>".
  std::u16string Validate(const std::u16string& text, bool repair) {
    CHAR16* out = nullptr;
    EFI_STATUS status = ValidateXmlDocString(text.c_str(), repair, &out);
    if (EFI_ERROR(status))
      return u"<refused>";
    std::u16string result = out;
    FreePool(out);
    return result;
  }
};

TEST_F(XmlTest, DeclarationElementsAndText) {
  ASSERT_EQ(Load(u"<?xml version='1.0' encoding='UTF-8'?><a/>"), EFI_SUCCESS);
  EXPECT_EQ(doc->Type, XML_DECLARATION);
  EXPECT_EQ(std::u16string(doc->Name), u"1.0");
  EXPECT_EQ(std::u16string(doc->Encoding), u"UTF-8");
  EXPECT_EQ(std::u16string(doc->Standalone), u"");
  ASSERT_NE(doc->NextSibling, nullptr);
  EXPECT_EQ(std::u16string(doc->NextSibling->Name), u"a");

  for (const char16_t* bad : {u"<?xml version='2.0'?><a/>", u"<?xml version='1'?><a/>",
                              u"<?xml version='1.0' standalone='Yes'?><a/>"})
    EXPECT_EQ(Load(bad), EFI_UNSUPPORTED) << std::string(bad, bad + 10);
  ASSERT_EQ(Load(u"<?XML Version=\"1.10\" standalone=\"no\" ?><a/>"), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(doc->Standalone), u"no");

  ASSERT_EQ(Load(u"<a><b>x</b><c/></a>"), EFI_SUCCESS);
  XmlNode* b = doc->FirstChild;
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(std::u16string(b->Name), u"b");
  EXPECT_EQ(std::u16string(b->FirstChild->Name), u"x");
  EXPECT_EQ(b->FirstChild->Type, XML_TEXT);
  EXPECT_EQ(std::u16string(b->NextSibling->Name), u"c");
  EXPECT_EQ(doc->LastChild, b->NextSibling);

  EXPECT_EQ(Load(u"<a>x<b/></a>"), EFI_UNSUPPORTED); // after text only an end tag may come
  ASSERT_EQ(Load(u"<a>  hello  </a>"), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(doc->FirstChild->Name), u"hello");
  ASSERT_EQ(Load(u"<a>1 < 2</a>"), EFI_SUCCESS); // "<" not followed by "/" may stand in text
  EXPECT_EQ(std::u16string(doc->FirstChild->Name), u"1 < 2");
  EXPECT_EQ(Load(u"<!----><a/>"), EFI_UNSUPPORTED);
  EXPECT_EQ(Load(u"<!-- a ---><a/>"), EFI_UNSUPPORTED);
  ASSERT_EQ(Load(u"<!-- a &amp; b --><a/><b/>"), EFI_SUCCESS); // several top-level elements
  EXPECT_EQ(std::u16string(doc->Name), u" a & b ");
  EXPECT_EQ(Load(u""), EFI_UNSUPPORTED);
}

TEST_F(XmlTest, AttributesAndEntities) {
  ASSERT_EQ(Load(u"<m ID=\"&amp;lt;\" b='&#65;&quot;'q=\"x<y\"/>"), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(XmlGetAttributeValue(doc, u"ID", TRUE)), u"&lt;"); // decoded once
  EXPECT_EQ(std::u16string(XmlGetAttributeValue(doc, u"b", TRUE)), u"&#65;\"");
  EXPECT_EQ(std::u16string(XmlGetAttributeValue(doc, u"q", TRUE)), u"x<y");
  EXPECT_EQ(XmlGetAttributeValue(doc, u"id", TRUE), nullptr);
  EXPECT_NE(XmlGetAttributeValue(doc, u"id", FALSE), nullptr);
  EXPECT_EQ(Validate(u"<a x='1' x='2'/>", false), u"<a x='1' x='2'/>");
  EXPECT_EQ(Load(u"<a x='1' x='2'/>"), EFI_UNSUPPORTED);
  std::u16string longValue(600, u'v');
  ASSERT_EQ(Load(u"<a v='" + longValue + u"'/>"), EFI_SUCCESS);
  EXPECT_EQ(std::u16string(XmlGetAttributeValue(doc, u"v", TRUE)).size(), 511u);
}

TEST_F(XmlTest, ValidationAndRepair) {
  EXPECT_EQ(Validate(u"<a><b>text</a>", true), u"<a>       </a>");
  EXPECT_EQ(Validate(u"<a><b>", true), u"<a>    </a>");
  EXPECT_EQ(Validate(u"</x><a/>", true), u"    <a/>");
  EXPECT_EQ(Validate(u"<a><b>text</a>", false), u"<refused>");
  EXPECT_EQ(Validate(u"<a><b>", false), u"<refused>");
  EXPECT_EQ(Validate(u"</x><a/>", false), u"<refused>");
  EXPECT_EQ(Validate(u"<abc></ab>", false), u"<refused>"); // </ab> does not close <abc>
  EXPECT_EQ(Validate(u"<a>x y", true), u"<refused>");      // text without an end tag is no item
}

TEST_F(XmlTest, NavigationAndSearch) {
  ASSERT_EQ(
      Load(u"<r><eng><Message ID='1'>one</Message><x/></eng><fra><Message ID='1'>un</Message></fra></r>"),
      EFI_SUCCESS);
  XmlNode* fra =
      XmlFindElement(doc, 0, XML_PRE_ORDER, nullptr, u"fra", FALSE, nullptr, FALSE, nullptr, FALSE);
  ASSERT_NE(fra, nullptr);
  XmlNode* message =
      XmlFindElement(doc, 0, XML_PRE_ORDER, nullptr, u"[Mm]essage", TRUE, u"ID", FALSE, u"1", FALSE);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(std::u16string(message->FirstChild->Name), u"one");
  XmlNode* second =
      XmlFindElement(doc, 2, XML_PRE_ORDER, nullptr, u"Message", FALSE, nullptr, FALSE, nullptr, FALSE);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->Parent, fra);
  EXPECT_EQ(
      XmlFindElement(doc, -1, XML_PRE_ORDER, nullptr, u"Message", FALSE, nullptr, FALSE, nullptr, FALSE),
      second);
  EXPECT_EQ(XmlFindElement(doc, 3, XML_PRE_ORDER, nullptr, u"Message", FALSE, nullptr, FALSE, nullptr, FALSE),
            nullptr);
  // Within a scope the walk does not leave the subtree.
  XmlNode* eng = doc->FirstChild;
  EXPECT_EQ(XmlFindElement(eng, 0, XML_PRE_ORDER, eng, u"fra", FALSE, nullptr, FALSE, nullptr, FALSE),
            nullptr);
  EXPECT_EQ(XmlNextNode(fra, XML_PRE_ORDER, eng), nullptr);
  // Post-order from the first message: the text's deepest ... then parents.
  EXPECT_EQ(XmlNextNode(message, XML_POST_ORDER, nullptr), eng->LastChild);
  EXPECT_EQ(XmlNextNode(eng->LastChild, XML_POST_ORDER, nullptr), eng);
  EXPECT_EQ(XmlNextNode(eng, XML_SIBLINGS, nullptr), fra);
  EXPECT_EQ(XmlFindElement(doc, 0, 3, nullptr, nullptr, FALSE, nullptr, FALSE, nullptr, FALSE), nullptr);
}

TEST_F(XmlTest, FileBytesToText) {
  auto text = [&](std::string bytes) {
    CHAR16* out = nullptr;
    EXPECT_EQ(FileData2XmlDocString(reinterpret_cast<const UINT8*>(bytes.data()), bytes.size(), &out),
              EFI_SUCCESS);
    std::u16string s = out;
    FreePool(out);
    return s;
  };
  EXPECT_EQ(text("\xEF\xBB\xBF\xC3\xA9"), u"\u00E9");
  EXPECT_EQ(text("\xC3\xA9"), u"\u00C3\u00A9");
  EXPECT_EQ(text(std::string("\xFF\xFE"
                             "a\0b\0c",
                             7)),
            u"ab");
  EXPECT_EQ(text("\xEF\xBB\xBF"
                 "a\xC3"),
            u"a"); // a cut sequence ends the text
  EXPECT_EQ(text("\xEF\xBB\xBF"
                 "a\xC3x"),
            u"a"); // and so does an invalid one
  EXPECT_EQ(text("\xEF\xBB\xBF\xF0\x9F\x98\x80"), std::u16string(1, char16_t(0xF600))); // low 16 bits
  EXPECT_EQ(text(std::string("a\0b", 3)), u"a");
  EXPECT_EQ(text(""), u"");
  EXPECT_EQ(text("\xFF\xFE"), u"");
}

} // namespace
