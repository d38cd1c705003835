#include "frame/Dispatch.h"
#include "frame/Module.h"
#include "base/String.h"
#include "frame/CommandLine.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"

namespace {

constexpr UINTN kTestNameChars = 128;

INT32 gSelectedTest = 0;
CHAR16 gTestName[kTestNameChars];

} // namespace

INT32 GetSelectedTestNumber() {
  return gSelectedTest;
}
void SetSelectedTestNumber(INT32 Number) {
  gSelectedTest = Number;
}

UINTN TestOptionHandler(CHAR16* Name, CHAR16* Value, CHAR16** TestName) {
  if (StrEq(Name, u"test") || StrEq(Name, u"t") || StrEq(Name, u"subtest")) {
    if (!StrCopy(gTestName, sizeof(gTestName), Value)) {
      // Longer than any test name can be.
      ErrorPrint(u"Unknown test: %s\r\n", Value);
      return 2;
    }
    StrLwrAscii(gTestName);
    const TestInfo* match = nullptr;
    for (INT32 n = 0; gModuleInfo.Tests[n] != nullptr; ++n) {
      if (StriEq(gModuleInfo.Tests[n]->Name, gTestName)) {
        match = gModuleInfo.Tests[n];
        gSelectedTest = n;
      }
    }
    if (match == nullptr) {
      ErrorPrint(u"Unknown test: %s\r\n", gTestName);
      return 2;
    }
    TracePrint(u"Test option -test = '%s'\r\n", gTestName);
    if (TestName != nullptr)
      *TestName = gTestName;
    return 0;
  }

  const CHAR16* fullName = Name - 1; // the "-" stands directly before the name
  const TestInfo* selected = TestAt(gSelectedTest);
  if (FindOptionInfo(selected != nullptr ? selected->Options : nullptr, fullName) != nullptr) {
    AddParsedOption(fullName, Value, TRUE);
    TracePrint(u"Test option %s = '%s'\r\n", Name, Value);
    return 0;
  }
  ErrorPrint(u"Unknown option: %s for subtest %s\r\n", fullName,
             selected != nullptr ? selected->Name : nullptr);
  return 1;
}

EFI_STATUS ExecuteSelectedTest(UINTN Parameter, CHAR16* Options, UINTN* Result, UINTN* ErrorCode) {
  TracePrint(u"Execute %s, parm='%d', opts='%s'\r\n", ModuleName(), Parameter, Options);
  if (Result == nullptr || ErrorCode == nullptr)
    return EFI_INVALID_PARAMETER;
  *Result = TEST_RESULT_IN_PROGRESS;
  *ErrorCode = ERROR_CODE_NONE;
  ParseCLIOptions(Options, &gModuleInfo, TestOptionHandler, Result, ErrorCode);
  EFI_STATUS status = EFI_SUCCESS;
  if (*Result == TEST_RESULT_IN_PROGRESS)
    status = DispatchTest(Parameter, Options, Result, ErrorCode);
  ClearParsedOptions();
  FreeOptionWords();
  return status;
}

EFI_STATUS DispatchTest(UINTN, CHAR16*, UINTN* Result, UINTN* ErrorCode) {
  const TestInfo* selected = TestAt(gSelectedTest);
  if (selected != nullptr && selected->Procedure != nullptr)
    return selected->Procedure(Result, ErrorCode);
  ErrorPrint(u"Invalid test %d\r\n", gSelectedTest);
  *Result = TEST_RESULT_SOFTWARE_ERROR;
  *ErrorCode = ERROR_CODE_SOFTWARE;
  return EFI_SUCCESS;
}

EFI_STATUS GetSelectedTestRunTime(UINTN, CHAR16*, UINTN* RunTime, UINTN* Result, UINTN* ErrorCode) {
  const TestInfo* selected = TestAt(gSelectedTest);
  if (RunTime != nullptr && selected != nullptr) {
    *RunTime = selected->RunTime;
    *Result = TEST_RESULT_PASSED;
    *ErrorCode = ERROR_CODE_NONE;
    return EFI_SUCCESS;
  }
  *Result = TEST_RESULT_SOFTWARE_ERROR;
  return EFI_INVALID_PARAMETER;
}
