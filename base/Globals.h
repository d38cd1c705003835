// Module-wide firmware pointers, set once at image start-up.
#pragma once
#include "uefi/SystemTable.h"

extern EFI_SYSTEM_TABLE* gST;
extern EFI_BOOT_SERVICES* gBS;
extern EFI_RUNTIME_SERVICES* gRT;
extern EFI_HANDLE gImageHandle;
