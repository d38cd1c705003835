// The test-module protocols the diagnostics manager drives the module through.
#pragma once
#include "uefi/protocol/Vex.h"

EFI_STATUS EFIAPI VexGetTestName(CHAR16* Buffer, UINTN BufferSize);
EFI_STATUS EFIAPI VexGetTestVersion(UINTN* Major, UINTN* Minor, CHAR16** Build);
EFI_STATUS EFIAPI VexGetTestRunTime(UINTN Parameter, CHAR16* Options, UINTN* RunTime, UINTN* Result,
                                    UINTN* ErrorCode);
EFI_STATUS EFIAPI VexGetTestRunTimeOld(UINTN Parameter, CHAR16* Options, UINTN* RunTime);
EFI_STATUS EFIAPI VexExecuteTest(UINTN Parameter, CHAR16* Options, UINTN* Result, UINTN* ErrorCode);

// Installs both layouts on the image handle together, or neither.
EFI_STATUS InstallTestModuleProtocols(EFI_HANDLE ImageHandle);
// Removes both layouts; on success frees their records.
EFI_STATUS UninstallTestModuleProtocols(EFI_HANDLE ImageHandle);
