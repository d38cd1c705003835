#include "support/FileIo.h"

// File access is not wired to the firmware's file systems yet: every operation that would touch a
// file answers EFI_UNSUPPORTED, and callers take their documented fallback.
EFI_STATUS FileIoInitialize(EFI_HANDLE, EFI_SYSTEM_TABLE*) {
  return EFI_SUCCESS;
}
EFI_STATUS FileIoResolvePath(CHAR16*, UINTN) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS FileIoDeleteFile(const CHAR16*) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS FileIoOpenFile(const CHAR16*, UINT64, UINT64, EFI_FILE_PROTOCOL** File) {
  if (File != nullptr)
    *File = nullptr;
  return EFI_UNSUPPORTED;
}
EFI_STATUS FileIoPrintV(EFI_FILE_PROTOCOL*, const CHAR16*, const PrintArg*, UINTN) {
  return EFI_UNSUPPORTED;
}
EFI_STATUS FileIoResolveModulePath(CHAR16*, UINTN) {
  return EFI_UNSUPPORTED;
}
