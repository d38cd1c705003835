// The image entry point of the firmware build.
#include "frame/Startup.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable) {
  return InitializeTestModule(ImageHandle, SystemTable);
}
