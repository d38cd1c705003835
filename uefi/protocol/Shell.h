// EFI_SHELL_PROTOCOL (the parts the module and the manager use) and EFI_SHELL_PARAMETERS_PROTOCOL.
#pragma once
#include "uefi/protocol/DevicePath.h"
#include "uefi/protocol/SimpleFileSystem.h"

constexpr EFI_GUID EFI_SHELL_PROTOCOL_GUID = {
    0x6302D008, 0x7F9B, 0x4F30, {0x87, 0xAC, 0x60, 0xC9, 0xFE, 0xF5, 0xDA, 0x4E}};
constexpr EFI_GUID EFI_SHELL_PARAMETERS_PROTOCOL_GUID = {
    0x752F3136, 0x4E16, 0x4FDC, {0xA2, 0x2A, 0xE5, 0xF4, 0x68, 0x12, 0xF4, 0xCA}};

using SHELL_FILE_HANDLE = void*;

struct EFI_SHELL_PROTOCOL {
  void* Execute;
  const CHAR16*(EFIAPI* GetEnv)(const CHAR16* Name);
  void* SetEnv;
  void* GetAlias;
  void* SetAlias;
  void* GetHelpText;
  const EFI_DEVICE_PATH_PROTOCOL*(EFIAPI* GetDevicePathFromMap)(const CHAR16* Mapping);
  const CHAR16*(EFIAPI* GetMapFromDevicePath)(EFI_DEVICE_PATH_PROTOCOL** DevicePath);
  EFI_DEVICE_PATH_PROTOCOL*(EFIAPI* GetDevicePathFromFilePath)(const CHAR16* Path);
  CHAR16*(EFIAPI* GetFilePathFromDevicePath)(const EFI_DEVICE_PATH_PROTOCOL* Path);
  void* SetMap;
  const CHAR16*(EFIAPI* GetCurDir)(const CHAR16* FileSystemMapping);
  EFI_STATUS(EFIAPI* SetCurDir)(const CHAR16* FileSystem, const CHAR16* Dir);
  void* OpenFileList;
  void* FreeFileList;
  void* RemoveDupInFileList;
  BOOLEAN(EFIAPI* BatchIsActive)();
  BOOLEAN(EFIAPI* IsRootShell)();
  void* EnablePageBreak;
  void* DisablePageBreak;
  void* GetPageBreak;
  void* GetDeviceName;
  void* GetFileInfo;
  void* SetFileInfo;
  void* OpenFileByName;
  void* CloseFile;
  void* CreateFile;
  void* ReadFile;
  void* WriteFile;
  void* DeleteFile;
  void* DeleteFileByName;
  void* GetFilePosition;
  void* SetFilePosition;
  void* FlushFile;
  void* FindFiles;
  void* FindFilesInDir;
  void* GetFileSize;
  void* OpenRoot;
  void* OpenRootByHandle;
  EFI_EVENT ExecutionBreak;
  UINT32 MajorVersion;
  UINT32 MinorVersion;
};
static_assert(offsetof(EFI_SHELL_PROTOCOL, GetCurDir) == 88);
static_assert(offsetof(EFI_SHELL_PROTOCOL, ExecutionBreak) == 312);

struct EFI_SHELL_PARAMETERS_PROTOCOL {
  CHAR16** Argv;
  UINTN Argc;
  SHELL_FILE_HANDLE StdIn;
  SHELL_FILE_HANDLE StdOut;
  SHELL_FILE_HANDLE StdErr;
};
