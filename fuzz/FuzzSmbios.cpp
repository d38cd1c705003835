// Fuzz target: any bytes as an SMBIOS structure table. Walking it, reading strings, the system
// identifier and the platform family must stay inside the table (AddressSanitizer checks the
// exact-size copy) and leave no pool memory behind.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "base/Memory.h"
#include "base/String.h"
#include "report/Output.h"
#include "support/Platform.h"
#include "fakes/FakeFirmware.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0xFFFF)
    return 0;
  FakeFirmware fw;
  ResetOutputState();
  std::vector<uint8_t> table(data, data + size);
  SmbiosUseTable(table.data(), uint16_t(table.size()));
  char16_t id[10];
  GetSystemId(id, sizeof(id));
  GetPlatformFamilyId();
  for (unsigned type : {0u, 1u, 2u, 127u, 201u}) {
    const SMBIOS_STRUCTURE** list = nullptr;
    UINT16 count = 0;
    if (!EFI_ERROR(SmbiosGetStructures(UINT8(type), &list, &count))) {
      for (UINT16 i = 0; i < count; ++i)
        for (UINT8 n = 0; n < 5; ++n)
          if (const CHAR8* s = SmbiosGetString(list[i], n))
            (void)AsciiStrLen(s);
      FreePool(list);
    }
  }
  SmbiosUseTable(nullptr, 0);
  if (!fw.pool.empty())
    std::abort();
  return 0;
}
