#include "frame/TestModule.h"
#include "frame/Module.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "base/String.h"
#include "frame/CommandLine.h"
#include "frame/Dispatch.h"
#include "options/Catalog.h"
#include "options/OptionStore.h"
#include "report/Output.h"
#include "report/Results.h"

namespace {
constexpr UINTN kBuildTextBytes = 64;

VEX_TEST_MODULE_PROTOCOL* gTestModule = nullptr;
VEX_TEST_MODULE_OLD_PROTOCOL* gTestModuleOld = nullptr;
} // namespace

EFI_STATUS EFIAPI VexGetTestName(CHAR16* Buffer, UINTN BufferSize) {
  TracePrint(u"VexGetTestName called()\r\n");
  StrCopy(Buffer, BufferSize, ModuleName());
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI VexGetTestVersion(UINTN* Major, UINTN* Minor, CHAR16** Build) {
  TracePrint(u"VexGetTestVersion() called\r\n");
  if (Major != nullptr)
    *Major = kModuleMajor;
  if (Minor != nullptr)
    *Minor = kModuleMinor;
  if (Build != nullptr) {
    *Build = static_cast<CHAR16*>(AllocatePool(kBuildTextBytes));
    if (*Build != nullptr)
      StrCopy(*Build, kBuildTextBytes, kModuleBuild);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI VexGetTestRunTime(UINTN Parameter, CHAR16* Options, UINTN* RunTime, UINTN* Result,
                                    UINTN* ErrorCode) {
  if (Result == nullptr || ErrorCode == nullptr)
    return EFI_INVALID_PARAMETER;
  *Result = TEST_RESULT_IN_PROGRESS;
  *ErrorCode = ERROR_CODE_NONE;
  TracePrint(u"VexGetTestRunTime() called with parm %d, and options %s\r\n", Parameter, Options);
  ParseCLIOptions(Options, &gModuleInfo, TestOptionHandler, Result, ErrorCode);
  EFI_STATUS status = EFI_SUCCESS;
  if (*Result != TEST_RESULT_IN_PROGRESS) {
    if (RunTime != nullptr)
      *RunTime = 0;
  } else {
    status = GetSelectedTestRunTime(Parameter, Options, RunTime, Result, ErrorCode);
  }
  ClearParsedOptions();
  FreeOptionWords();
  return status;
}

EFI_STATUS EFIAPI VexGetTestRunTimeOld(UINTN Parameter, CHAR16* Options, UINTN* RunTime) {
  TracePrint(u"VexGetTestRunTimeOld() called with parm %d, and options %s\r\n", Parameter, Options);
  UINTN result = 0;
  UINTN errorCode = 0;
  EFI_STATUS status = VexGetTestRunTime(Parameter, Options, RunTime, &result, &errorCode);
  if (result != TEST_RESULT_PASSED)
    LogPrint(u"VexGetTestRunTime() returns result %d with error code 0x%x\r\n", result, errorCode);
  return status;
}

EFI_STATUS EFIAPI VexExecuteTest(UINTN Parameter, CHAR16* Options, UINTN* Result, UINTN* ErrorCode) {
  TracePrint(u"Executing Test...\r\n");
  return ExecuteSelectedTest(Parameter, Options, Result, ErrorCode);
}

EFI_STATUS InstallTestModuleProtocols(EFI_HANDLE ImageHandle) {
  auto current = wc::PoolPtr<VEX_TEST_MODULE_PROTOCOL>::AllocateZero(sizeof(VEX_TEST_MODULE_PROTOCOL));
  if (!current) {
    TracePrint(u"Failed to allocate for VEX module protocol\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  current->First = 0;
  current->GetTestRunTime = VexGetTestRunTime;
  current->GetTestName = VexGetTestName;
  current->GetTestVersion = VexGetTestVersion;
  current->ExecuteTest = VexExecuteTest;

  auto old = wc::PoolPtr<VEX_TEST_MODULE_OLD_PROTOCOL>::AllocateZero(sizeof(VEX_TEST_MODULE_OLD_PROTOCOL));
  if (!old) {
    TracePrint(u"Failed to allocate for VEX module old protocol\r\n");
    return EFI_OUT_OF_RESOURCES;
  }
  old->GetTestRunTime = VexGetTestRunTimeOld;
  old->GetTestName = VexGetTestName;
  old->GetTestVersion = VexGetTestVersion;
  old->ExecuteTest = VexExecuteTest;

  EFI_HANDLE handle = ImageHandle;
  EFI_STATUS status =
      gBS->InstallMultipleProtocolInterfaces(&handle, &VEX_TEST_MODULE_PROTOCOL_GUID, current.Get(),
                                             &VEX_TEST_MODULE_OLD_PROTOCOL_GUID, old.Get(), nullptr);
  if (EFI_ERROR(status)) {
    TracePrint(u"InstallMultipleProtocolInterfaces failure 0x%X\r\n", status);
    return status;
  }
  gTestModule = current.Release();
  gTestModuleOld = old.Release();
  return EFI_SUCCESS;
}

EFI_STATUS UninstallTestModuleProtocols(EFI_HANDLE ImageHandle) {
  EFI_STATUS status =
      gBS->UninstallMultipleProtocolInterfaces(ImageHandle, &VEX_TEST_MODULE_PROTOCOL_GUID, gTestModule,
                                               &VEX_TEST_MODULE_OLD_PROTOCOL_GUID, gTestModuleOld, nullptr);
  if (EFI_ERROR(status))
    return status;
  FreePool(gTestModule);
  FreePool(gTestModuleOld);
  gTestModule = nullptr;
  gTestModuleOld = nullptr;
  return EFI_SUCCESS;
}
