#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "base/Memory.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "report/Messages.h"
#include "text/Xml.h"
#include "fakes/FakeFileSystem.h"
#include "fakes/FakeFirmware.h"

namespace {

std::string Shipped() {
  std::ifstream f(std::string(SOURCE_DIR) + "/support/Wirecheck.msg.xml", std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

struct MessagesTest : ::testing::Test {
  FakeFirmware fw;
  FakeFileSystem vol;
  EFI_LOADED_IMAGE_PROTOCOL image{};
  std::vector<uint8_t> imagePath = {4, 4, 36, 0};
  void SetUp() override {
    FileIoReset();
    DebugLogReset();
    // The module at \tools\Wirecheck.efi.
    std::u16string name = u"\\tools\\Wirecheck.efi";
    imagePath.clear();
    imagePath = {4, 4, uint8_t(4 + (name.size() + 1) * 2), 0};
    for (char16_t c : name)
      imagePath.insert(imagePath.end(), {uint8_t(c), uint8_t(c >> 8)});
    imagePath.insert(imagePath.end(), {0, 0, 0x7F, 0xFF, 4, 0});
    image.DeviceHandle = reinterpret_cast<EFI_HANDLE>(0x3000);
    image.FilePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL*>(imagePath.data());
    fw.AddProtocol(reinterpret_cast<EFI_HANDLE>(0x1000), EFI_LOADED_IMAGE_PROTOCOL_GUID, &image);
    fw.AddProtocol(image.DeviceHandle, EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID, vol.Protocol());
    vol.AddDirectory(u"\\tools");
    ASSERT_EQ(FileIoInitialize(reinterpret_cast<EFI_HANDLE>(0x1000), &fw.st), EFI_SUCCESS);
    DebugLogInitialize(FileIoModuleDirectory());
  }
  void TearDown() override {
    EXPECT_EQ(vol.openHandles, 0);
    EXPECT_TRUE(fw.pool.empty());
    FileIoReset();
    DebugLogReset();
  }
  std::u16string Text(const char* language, UINTN id) {
    CHAR16* text = GetMessageText(language, id, kMessageFileName);
    std::u16string s = text != nullptr ? std::u16string(text) : u"<none>";
    FreePool(text);
    return s;
  }
};

TEST_F(MessagesTest, ShippedFileLanguagesAndEnglishFallback) {
  vol.AddFile(u"\\tools\\Wirecheck.msg.xml", Shipped());
  EXPECT_EQ(Text("fra", 100), u"Sélectionnez la carte réseau à tester");
  EXPECT_EQ(Text("deu", 103), u"Test abbrechen");
  EXPECT_EQ(Text("esp", 101), u"No se ha encontrado ningún adaptador de red en este sistema.");
  EXPECT_EQ(Text("ita", 100), u"Select the network adapter to test"); // no Italian block: English
  EXPECT_EQ(Text("eng", 25).substr(0, 24), u"Connect a network cable ");
  for (const char* language : {"eng", "fra", "deu", "esp"})
    for (UINTN id :
         {25,  100, 101, 102, 103, 104, 105, 106, 107, 200, 201,
          202, 203, 204, 205, 206, 207, 208, 209, 210}) // the module's prompts and menus, then VexRun's menu
      EXPECT_NE(Text(language, id), u"<none>") << language << " " << id;
  EXPECT_EQ(Text("deu", 202), u"Beenden");
  EXPECT_EQ(Text("eng", 999), u"<none>");
  EXPECT_NE(vol.Content(u"\\tools\\Debug.log").find("Localization(952) - MessageID 999"), std::string::npos);
}

TEST_F(MessagesTest, OverrideFileAndMessageRules) {
  vol.AddFile(u"\\tools\\Wirecheck.msg.xml",
              "<m><fra><Message ID='100'>cent</Message></fra>"
              "<eng><Message ID='7'></Message><Message ID='7'>later seven</Message>"
              "<!-- between messages --><Message ID='8'/><Message ID='8'>eight again</Message>"
              "<Message id='9'>lower id</Message><MESSAGE ID='10'>upper</MESSAGE>"
              "<Message ID='0x64'>hundred</Message></eng></m>");
  EXPECT_EQ(Text("fra", 100), u"cent");
  EXPECT_EQ(Text("eng", 7), u"later seven"); // an empty message is passed over
  EXPECT_EQ(Text("eng", 8), u"eight again"); // so is one without text
  EXPECT_EQ(Text("eng", 9), u"<none>");      // "ID" must be spelled so
  EXPECT_EQ(Text("eng", 10), u"upper");      // the element name in any case
  EXPECT_EQ(Text("eng", 100), u"hundred");   // 0x64
  vol.AddFile(u"\\tools\\x_Wirecheck.msg.xml", "<m><eng><Message ID='100'>overridden</Message></eng></m>");
  EXPECT_EQ(Text("fra", 100), u"overridden"); // override in English before the file in French
  vol.Find(u"\\tools\\x_Wirecheck.msg.xml")->data.assign({'<', 'm', '>'}); // repaired: loads, lacks 100
  EXPECT_EQ(Text("fra", 100), u"cent");
  vol.Find(u"\\tools\\x_Wirecheck.msg.xml")->data.assign({'j', 'u', 'n', 'k'});
  EXPECT_EQ(Text("fra", 100), u"<none>"); // an override that does not load stops the lookup
}

TEST_F(MessagesTest, XmlErrorsNameTheirLine) {
  vol.AddFile(u"\\tools\\bad.xml", "<a>\n<b/>\n</x>\n</a>\n");
  XmlNode* doc = nullptr;
  EXPECT_EQ(XmlLoadFile(u"\\tools\\bad.xml", &doc, FALSE), EFI_UNSUPPORTED);
  EXPECT_NE(vol.Content(u"\\tools\\Debug.log")
                .find("ValidateXmlDocString: Paired Element-Start-Tag not found.  Line 3"),
            std::string::npos);
  EXPECT_EQ(XmlLoadFile(u"\\tools\\none.xml", &doc, FALSE), EFI_NOT_FOUND);
}

TEST(LanguageCodes, ControllerNameForms) {
  const char* list = "en-US;zh-Hant;zh-Hans";
  EXPECT_STREQ(Iso639ToRfc4646("chs", list), "zh-Hans");
  EXPECT_STREQ(Iso639ToRfc4646("zho", list), "zh-Hant;zh-Hans");
  EXPECT_STREQ(Iso639ToRfc4646("eng", list), list);
  EXPECT_EQ(Iso639ToRfc4646("xyz", list), nullptr);
  EXPECT_EQ(Iso639ToRfc4646("pot", "pt_BR;pt_PT"), nullptr); // "pot" is not in the table ("pop" is)
  EXPECT_STREQ(Iso639ToRfc4646("por", "en;pt_BR"), "pt_BR");
  EXPECT_STREQ(LookupIso639("fra", "engfra"), "fra");
  EXPECT_STREQ(LookupIso639("deu", "engfra"), "engfra");
  EXPECT_STREQ(LookupIso639("fra", "engfr"), "engfr"); // a cut code is not read past the end
}

} // namespace
