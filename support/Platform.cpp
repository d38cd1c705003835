#include "support/Platform.h"

// SMBIOS access is not read yet: no operation of the module asks for the platform family so far.
EFI_STATUS InitializeSmbios(EFI_SYSTEM_TABLE*) {
  return EFI_SUCCESS;
}
