// Test selection by the -test option, routing of test options, and running the selected test.
#pragma once
#include "options/Catalog.h"

UINTN TestOptionHandler(CHAR16* Name, CHAR16* Value, CHAR16** TestName);
EFI_STATUS ExecuteSelectedTest(UINTN Parameter, CHAR16* Options, UINTN* Result, UINTN* ErrorCode);
EFI_STATUS DispatchTest(UINTN Parameter, CHAR16* Options, UINTN* Result, UINTN* ErrorCode);
EFI_STATUS GetSelectedTestRunTime(UINTN Parameter, CHAR16* Options, UINTN* RunTime, UINTN* Result,
                                  UINTN* ErrorCode);

INT32 GetSelectedTestNumber();
// Sets the selection directly, as image load leaves it (0) or as a test harness needs it.
void SetSelectedTestNumber(INT32 Number);
