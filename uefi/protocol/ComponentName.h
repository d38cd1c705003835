// EFI_COMPONENT_NAME2_PROTOCOL and the older EFI_COMPONENT_NAME_PROTOCOL (same layout, ISO 639-2 codes).
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_COMPONENT_NAME2_PROTOCOL_GUID = {
    0x6A7A5CFF, 0xE8D9, 0x4F70, {0xBA, 0xDA, 0x75, 0xAB, 0x30, 0x25, 0xCE, 0x14}};
constexpr EFI_GUID EFI_COMPONENT_NAME_PROTOCOL_GUID = {
    0x107A772C, 0xD5E1, 0x11D4, {0x9A, 0x46, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};

struct EFI_COMPONENT_NAME2_PROTOCOL {
  EFI_STATUS(EFIAPI* GetDriverName)
  (EFI_COMPONENT_NAME2_PROTOCOL* This, const CHAR8* Language, CHAR16** DriverName);
  EFI_STATUS(EFIAPI* GetControllerName)
  (EFI_COMPONENT_NAME2_PROTOCOL* This, EFI_HANDLE ControllerHandle, EFI_HANDLE ChildHandle,
   const CHAR8* Language, CHAR16** ControllerName);
  CHAR8* SupportedLanguages;
};
using EFI_COMPONENT_NAME_PROTOCOL = EFI_COMPONENT_NAME2_PROTOCOL;
