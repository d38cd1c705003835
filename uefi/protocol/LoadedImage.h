// EFI_LOADED_IMAGE_PROTOCOL.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_LOADED_IMAGE_PROTOCOL_GUID = {
    0x5B1B31A1, 0x9562, 0x11D2, {0x8E, 0x3F, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};

using EFI_IMAGE_UNLOAD = EFI_STATUS(EFIAPI*)(EFI_HANDLE ImageHandle);

struct EFI_LOADED_IMAGE_PROTOCOL {
  UINT32 Revision;
  EFI_HANDLE ParentHandle;
  EFI_SYSTEM_TABLE* SystemTable;
  EFI_HANDLE DeviceHandle;
  EFI_DEVICE_PATH_PROTOCOL* FilePath;
  void* Reserved;
  UINT32 LoadOptionsSize;
  void* LoadOptions;
  void* ImageBase;
  UINT64 ImageSize;
  EFI_MEMORY_TYPE ImageCodeType;
  EFI_MEMORY_TYPE ImageDataType;
  EFI_IMAGE_UNLOAD Unload;
};
static_assert(offsetof(EFI_LOADED_IMAGE_PROTOCOL, LoadOptions) == 56);
static_assert(offsetof(EFI_LOADED_IMAGE_PROTOCOL, Unload) == 88);
