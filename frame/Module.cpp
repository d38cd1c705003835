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

const CHAR16* ErrorMeaningOf(UINTN Code) {
  const ErrorMeaning* codes = nullptr;
  for (INT64 n = 0; kTestTable[n] != nullptr; ++n)
    if ((Code & ~UINTN(0xFF)) == kTestTable[n]->ErrorGroup)
      codes = kTestTable[n]->Errors;
  return ErrorCodeMeaning(codes, Code);
}
