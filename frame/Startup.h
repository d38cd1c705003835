// Image start-up and unload.
#pragma once
#include "uefi/SystemTable.h"
#include "uefi/protocol/Vex.h"

EFI_STATUS InitializeTestModule(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);
EFI_STATUS EFIAPI VexUnloadTestModule(EFI_HANDLE ImageHandle);
CHAR16* FormatVersionString(CHAR16* Buffer, UINTN BufferSize, UINTN Major, UINTN Minor, const CHAR16* Build,
                            const CHAR8* BuildTimeStamp, const CHAR16* Extra);

// The manager protocol found at start-up, or null.
extern VEX_MANAGER_PROTOCOL* gManager;
