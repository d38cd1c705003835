// EFI_SIMPLE_FILE_SYSTEM_PROTOCOL, EFI_FILE_PROTOCOL and the file information records.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID = {
    0x964E5B22, 0x6459, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID EFI_FILE_INFO_ID = {
    0x09576E92, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID EFI_FILE_SYSTEM_INFO_ID = {
    0x09576E93, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};

constexpr UINT64 EFI_FILE_MODE_READ = 0x0000000000000001ull;
constexpr UINT64 EFI_FILE_MODE_WRITE = 0x0000000000000002ull;
constexpr UINT64 EFI_FILE_MODE_CREATE = 0x8000000000000000ull;

constexpr UINT64 EFI_FILE_READ_ONLY = 0x01;
constexpr UINT64 EFI_FILE_HIDDEN = 0x02;
constexpr UINT64 EFI_FILE_SYSTEM = 0x04;
constexpr UINT64 EFI_FILE_RESERVED = 0x08;
constexpr UINT64 EFI_FILE_DIRECTORY = 0x10;
constexpr UINT64 EFI_FILE_ARCHIVE = 0x20;

struct EFI_FILE_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* Open)
  (EFI_FILE_PROTOCOL* This, EFI_FILE_PROTOCOL** NewHandle, const CHAR16* FileName, UINT64 OpenMode,
   UINT64 Attributes);
  EFI_STATUS(EFIAPI* Close)(EFI_FILE_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Delete)(EFI_FILE_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Read)(EFI_FILE_PROTOCOL* This, UINTN* BufferSize, void* Buffer);
  EFI_STATUS(EFIAPI* Write)(EFI_FILE_PROTOCOL* This, UINTN* BufferSize, const void* Buffer);
  EFI_STATUS(EFIAPI* GetPosition)(EFI_FILE_PROTOCOL* This, UINT64* Position);
  EFI_STATUS(EFIAPI* SetPosition)(EFI_FILE_PROTOCOL* This, UINT64 Position);
  EFI_STATUS(EFIAPI* GetInfo)
  (EFI_FILE_PROTOCOL* This, const EFI_GUID* InformationType, UINTN* BufferSize, void* Buffer);
  EFI_STATUS(EFIAPI* SetInfo)
  (EFI_FILE_PROTOCOL* This, const EFI_GUID* InformationType, UINTN BufferSize, const void* Buffer);
  EFI_STATUS(EFIAPI* Flush)(EFI_FILE_PROTOCOL* This);
  void* OpenEx;
  void* ReadEx;
  void* WriteEx;
  void* FlushEx;
};
static_assert(offsetof(EFI_FILE_PROTOCOL, Flush) == 80);

struct EFI_SIMPLE_FILE_SYSTEM_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* OpenVolume)(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* This, EFI_FILE_PROTOCOL** Root);
};

struct EFI_FILE_INFO {
  UINT64 Size;
  UINT64 FileSize;
  UINT64 PhysicalSize;
  EFI_TIME CreateTime;
  EFI_TIME LastAccessTime;
  EFI_TIME ModificationTime;
  UINT64 Attribute;
  CHAR16 FileName[1];
};
static_assert(offsetof(EFI_FILE_INFO, FileName) == 80);

struct EFI_FILE_SYSTEM_INFO {
  UINT64 Size;
  BOOLEAN ReadOnly;
  UINT64 VolumeSize;
  UINT64 FreeSpace;
  UINT32 BlockSize;
  CHAR16 VolumeLabel[1];
};
