#include "frame/Module.h"
#include "tests/TestTable.h"

constinit ModuleInfo gModuleInfo = {u"Wirecheck", u"Wirecheck.efi", {}, kTestTable};

const TestInfo* TestAt(INT64 Number) {
  if (Number < 0)
    return nullptr;
  for (INT64 n = 0; kTestTable[n] != nullptr; ++n)
    if (n == Number)
      return kTestTable[n];
  return nullptr;
}
