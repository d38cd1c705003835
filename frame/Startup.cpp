#include "frame/Startup.h"
#include "frame/Module.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "base/String.h"
#include "frame/TestModule.h"
#include "options/Catalog.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "support/FileIo.h"
#include "support/Platform.h"
#include "uefi/protocol/LoadedImage.h"

VEX_MANAGER_PROTOCOL* gManager = nullptr;

namespace {
constexpr UINTN kVersionBufferBytes = 512;
} // namespace

CHAR16* FormatVersionString(CHAR16* Buffer, UINTN BufferSize, UINTN Major, UINTN Minor, const CHAR16* Build,
                            const CHAR8* BuildTimeStamp, const CHAR16* Extra) {
  UINTN used;
  if (Build == nullptr || Build[0] == 0)
    used = SPrint(Buffer, BufferSize, u"%d.%02d built %a", Major, Minor, BuildTimeStamp);
  else
    used = SPrint(Buffer, BufferSize, u"%d.%02d.%s built %a", Major, Minor, Build, BuildTimeStamp);
  if (Extra != nullptr && Extra[0] != 0 && BufferSize / sizeof(CHAR16) > used)
    SPrint(Buffer + used, BufferSize - used * sizeof(CHAR16), u"\r\n  %s", Extra);
  return Buffer;
}

EFI_STATUS InitializeTestModule(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable) {
  gST = SystemTable;
  gBS = SystemTable->BootServices;
  gRT = SystemTable->RuntimeServices;
  gImageHandle = ImageHandle;

  EFI_STATUS status = FileIoInitialize(ImageHandle, SystemTable);
  if (status != EFI_SUCCESS)
    return status;
  DebugLogInitialize(FileIoModuleDirectory());

  InitDebugLevel(ImageHandle, SystemTable, &gManager);

  status = gBS->LocateProtocol(&VEX_MANAGER_PROTOCOL_GUID, nullptr, reinterpret_cast<void**>(&gManager));
  if (EFI_ERROR(status)) {
    gManager = nullptr;
    ErrorPrint(u"Failed Loading VEX Manager Protocol. (%r)\r\n", status);
    return status;
  }

  status = EfiSmbiosLibInitialize(ImageHandle, SystemTable);
  if (EFI_ERROR(status))
    ErrorPrint(u"Failed to Initialize EfiSmbiosLib. (%r)\r\n", status);
  else
    DebugLogPrint(u"Platform family id %d\r\n", GetPlatformFamilyId());

  EFI_LOADED_IMAGE_PROTOCOL* image = nullptr;
  status =
      gBS->HandleProtocol(ImageHandle, &EFI_LOADED_IMAGE_PROTOCOL_GUID, reinterpret_cast<void**>(&image));
  if (EFI_ERROR(status)) {
    ErrorPrint(u"Failed Loading Loaded Image Protocol. (%r)\r\n", status);
    return status;
  }

  FormatVersionString(gModuleInfo.Version, kVersionBufferBytes, kModuleMajor, kModuleMinor, kModuleBuild,
                      kModuleBuildTimeStamp, u"");
  LogPrint(u"===========================================================\r\n");
  LogPrint(u"Starting %s.%s version %s\r\n", ModuleName(), u"vex", gModuleInfo.Version);

  {
    wc::PoolPtr<CHAR16> path(DevicePathToText(image->FilePath, FALSE, FALSE));
    TracePrint(u"Module Image Path = '%s'\r\n", path.Get());
  }
  // The load options need not be terminated within their size: trace a bounded copy.
  {
    CHAR16 options[256] = {};
    if (image->LoadOptions != nullptr && image->LoadOptionsSize >= sizeof(CHAR16)) {
      UINTN chars = wc::Min<UINTN>(image->LoadOptionsSize / sizeof(CHAR16), wc::ArrayCount(options) - 1);
      CopyMem(options, image->LoadOptions, chars * sizeof(CHAR16));
      options[chars] = 0;
    }
    TracePrint(u"Module Options = '%s'\r\n", options);
  }

  image->Unload = VexUnloadTestModule;
  status = InstallTestModuleProtocols(ImageHandle);
  if (EFI_ERROR(status)) {
    ErrorPrint(u"Failed Installation of VEX Module Protocol - Status 0x%X\r\n", status);
    return status;
  }
  TracePrint(u"Test Module Protocol Installed\r\n");
  LogPrint(u"%s.VEX init complete\r\n", ModuleName());
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI VexUnloadTestModule(EFI_HANDLE ImageHandle) {
  TracePrint(u"VexUnloadTestModule() called\r\n");
  EFI_STATUS status = UninstallTestModuleProtocols(ImageHandle);
  if (EFI_ERROR(status))
    TracePrint(u"UninstallMultipleProtocolInterfaces failure %X\r\n", status);
  return status;
}
