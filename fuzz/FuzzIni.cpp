// Fuzz target: any bytes as an INI file, queried with every flag combination that the reader
// accepts. Nothing may crash or leak, and a query must leave the document's text unchanged.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "text/Ini.h"
#include "fakes/FakeFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1)
    return 0;
  FakeFirmware fw;
  INI_DOCUMENT* doc = nullptr;
  if (!EFI_ERROR(IniLoad(data + 1, size - 1, data[0] % 3, &doc))) {
    std::vector<CHAR16> before(doc->Text, doc->Text + doc->TextSize / 2);
    const CHAR16* patterns[] = {nullptr, u".*", u"invalid_macpattern", u"[a-z]+", u" k ", u"\"v\""};
    UINT32 flags = UINT32(data[0]) << 1 | (size > 1 ? data[1] & 1 : 0);
    for (const CHAR16* section : patterns)
      for (const CHAR16* key : patterns) {
        UINTN count = 0;
        CHAR16** strings = nullptr;
        if (!EFI_ERROR(IniQuery(doc, section, key, patterns[flags % 6], flags & 0x1FF, &count, &strings)))
          IniFreeStrings(count, strings);
      }
    if (std::memcmp(before.data(), doc->Text, before.size() * 2) != 0)
      std::abort();
    IniClose(doc);
  }
  if (!fw.pool.empty())
    std::abort();
  return 0;
}
