// Platform identity from the SMBIOS tables.
#pragma once
#include "uefi/SystemTable.h"

// Locates the SMBIOS entry point in the configuration table.
EFI_STATUS InitializeSmbios(EFI_SYSTEM_TABLE* SystemTable);
