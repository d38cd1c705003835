#include "report/Results.h"

namespace {

constexpr ErrorMeaning kSharedCodes[] = {
    {ERROR_CODE_NONE, u"no error"},
    {ERROR_CODE_OPERATOR_ABORT, u"the operator failed or cancelled the test"},
    {ERROR_CODE_INVALID_OPTIONS, u"the option string was refused"},
    {ERROR_CODE_SOFTWARE, u"the module itself failed"},
    {ERROR_CODE_NO_NIC, u"no NIC, or no managed-network service binding, was found"},
    {ERROR_CODE_NIC_NOT_FOUND, u"the NIC asked for does not exist"},
    {},
};

const CHAR16* Find(const ErrorMeaning* Codes, UINTN Code) {
  for (const ErrorMeaning* e = Codes; e != nullptr && e->Meaning != nullptr; ++e)
    if (e->Code == Code)
      return e->Meaning;
  return nullptr;
}

} // namespace

const CHAR16* ErrorCodeMeaning(const ErrorMeaning* TestCodes, UINTN Code) {
  if (const CHAR16* meaning = Find(TestCodes, Code))
    return meaning;
  return Find(kSharedCodes, Code);
}
