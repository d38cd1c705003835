// Platform identity from the SMBIOS tables: the system identifier (first four characters of the
// baseboard product name) and the platform family from the system-information family string.
#pragma once
#include "uefi/SystemTable.h"

// Structures follow one another without padding, so one may start at any address.
#pragma pack(push, 1)
struct SMBIOS_STRUCTURE {
  UINT8 Type;
  UINT8 Length;
  UINT16 Handle;
};
#pragma pack(pop)
static_assert(alignof(SMBIOS_STRUCTURE) == 1);

// Finds the SMBIOS 2.x entry point, or the 3.0 one where the firmware publishes only that;
// EFI_NOT_FOUND when it publishes neither.
EFI_STATUS EfiSmbiosLibInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);
// Uses a structure table directly (start-up takes it from the entry point).
void SmbiosUseTable(const void* Table, UINT32 Length);
// All structures of a type, in table order, in a new pool array the caller frees.
EFI_STATUS SmbiosGetStructures(UINT8 Type, const SMBIOS_STRUCTURE*** Structures, UINT16* Count);
// The string with that 1-based number in the structure's string set, or null.
const CHAR8* SmbiosGetString(const SMBIOS_STRUCTURE* Structure, UINT8 Number);
EFI_STATUS GetSystemId(CHAR16* Buffer, UINTN BufferSize);
// 0 (unknown) to 11.
UINTN GetPlatformFamilyId();
