// File access over the firmware's simple file system.
#pragma once
#include "base/Print.h"
#include "uefi/SystemTable.h"

struct EFI_FILE_PROTOCOL;

// Starts file access and, through it, the debug log. Called first at start-up.
EFI_STATUS FileIoInitialize(EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE* SystemTable);
// Makes Path (a buffer of PathSize bytes) absolute against the current directory.
EFI_STATUS FileIoResolvePath(CHAR16* Path, UINTN PathSize);
// The same, relative paths taken from the module's own directory.
EFI_STATUS FileIoResolveModulePath(CHAR16* Path, UINTN PathSize);
EFI_STATUS FileIoDeleteFile(const CHAR16* Path);
EFI_STATUS FileIoOpenFile(const CHAR16* Path, UINT64 OpenMode, UINT64 Attributes, EFI_FILE_PROTOCOL** File);
// Formats into at most 2048 bytes and appends the text at the end of the file.
EFI_STATUS FileIoPrintV(EFI_FILE_PROTOCOL* File, const CHAR16* Format, const PrintArg* Args, UINTN Count);

template <class... A>
EFI_STATUS FileIoPrint(EFI_FILE_PROTOCOL* File, const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  return FileIoPrintV(File, Format, list, sizeof...(A));
}
