#include "base/Globals.h"

EFI_SYSTEM_TABLE* gST = nullptr;
EFI_BOOT_SERVICES* gBS = nullptr;
EFI_RUNTIME_SERVICES* gRT = nullptr;
EFI_HANDLE gImageHandle = nullptr;
