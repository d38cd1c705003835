// EFI_SERVICE_BINDING_PROTOCOL: the common layout of every network service binding.
#pragma once
#include "uefi/SystemTable.h"

struct EFI_SERVICE_BINDING_PROTOCOL {
  EFI_STATUS(EFIAPI* CreateChild)(EFI_SERVICE_BINDING_PROTOCOL* This, EFI_HANDLE* ChildHandle);
  EFI_STATUS(EFIAPI* DestroyChild)(EFI_SERVICE_BINDING_PROTOCOL* This, EFI_HANDLE ChildHandle);
};
