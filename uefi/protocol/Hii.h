// EFI_HII_CONFIG_ROUTING_PROTOCOL and EFI_HII_CONFIG_ACCESS_PROTOCOL.
#pragma once
#include "uefi/protocol/DevicePath.h"

constexpr EFI_GUID EFI_HII_CONFIG_ROUTING_PROTOCOL_GUID = {
    0x587E72D7, 0xCC50, 0x4F79, {0x82, 0x09, 0xCA, 0x29, 0x1F, 0xC1, 0xA1, 0x0F}};
constexpr EFI_GUID EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID = {
    0x330D4706, 0xF2A0, 0x4E4F, {0xA3, 0x69, 0xB6, 0x6F, 0xA8, 0xD5, 0x43, 0x85}};

using EFI_STRING = CHAR16*;
using EFI_QUESTION_ID = UINT16;
using EFI_BROWSER_ACTION = UINTN;
using EFI_BROWSER_ACTION_REQUEST = UINTN;

struct EFI_HII_CONFIG_ROUTING_PROTOCOL {
  EFI_STATUS(EFIAPI* ExtractConfig)
  (const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, const CHAR16* Request, EFI_STRING* Progress,
   EFI_STRING* Results);
  EFI_STATUS(EFIAPI* ExportConfig)(const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, EFI_STRING* Results);
  EFI_STATUS(EFIAPI* RouteConfig)
  (const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, const CHAR16* Configuration, EFI_STRING* Progress);
  EFI_STATUS(EFIAPI* BlockToConfig)
  (const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, const CHAR16* ConfigRequest, const UINT8* Block,
   UINTN BlockSize, EFI_STRING* Config, EFI_STRING* Progress);
  EFI_STATUS(EFIAPI* ConfigToBlock)
  (const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, const CHAR16* ConfigResp, UINT8* Block, UINTN* BlockSize,
   EFI_STRING* Progress);
  EFI_STATUS(EFIAPI* GetAltConfig)
  (const EFI_HII_CONFIG_ROUTING_PROTOCOL* This, const CHAR16* ConfigResp, const EFI_GUID* Guid,
   const CHAR16* Name, const EFI_DEVICE_PATH_PROTOCOL* DevicePath, const UINT16* AltCfgId,
   EFI_STRING* AltCfgResp);
};

struct EFI_HII_CONFIG_ACCESS_PROTOCOL {
  EFI_STATUS(EFIAPI* ExtractConfig)
  (const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Request, EFI_STRING* Progress,
   EFI_STRING* Results);
  EFI_STATUS(EFIAPI* RouteConfig)
  (const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, const CHAR16* Configuration, EFI_STRING* Progress);
  EFI_STATUS(EFIAPI* Callback)
  (const EFI_HII_CONFIG_ACCESS_PROTOCOL* This, EFI_BROWSER_ACTION Action, EFI_QUESTION_ID QuestionId,
   UINT8 Type, void* Value, EFI_BROWSER_ACTION_REQUEST* ActionRequest);
};
