// Fuzz target: any bytes as an XML file, loaded with and without repair and walked in every
// direction. Nothing may crash, overrun or leak.
#include <cstdint>
#include <cstdlib>

#include "base/Memory.h"
#include "text/Xml.h"
#include "fakes/FakeFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  CHAR16* text = nullptr;
  if (EFI_ERROR(FileData2XmlDocString(data, size, &text)))
    std::abort();
  for (BOOLEAN repair : {FALSE, TRUE}) {
    XmlNode* doc = nullptr;
    if (EFI_ERROR(XmlLoadString(text, &doc, repair)))
      continue;
    for (UINTN direction = 0; direction <= 2; ++direction)
      for (XmlNode* n = doc; n != nullptr; n = XmlNextNode(n, direction, nullptr))
        (void)XmlGetAttributeValue(n, u"ID", FALSE);
    XmlFindElement(doc, -1, XML_PRE_ORDER, nullptr, u"[Mm]essage", TRUE, u"ID", FALSE, nullptr, FALSE);
    XmlFindElement(doc, 2, XML_POST_ORDER, doc, nullptr, FALSE, nullptr, FALSE, u".*", TRUE);
    XmlFreeDocument(doc);
  }
  FreePool(text);
  if (!fw.pool.empty())
    std::abort();
  return 0;
}
