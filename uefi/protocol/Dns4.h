// EFI_DNS4_SERVICE_BINDING_PROTOCOL and EFI_DNS4_PROTOCOL: the firmware's DNS client over IPv4.
#pragma once
#include "uefi/protocol/Ip4.h"
#include "uefi/protocol/ServiceBinding.h"

constexpr EFI_GUID EFI_DNS4_SERVICE_BINDING_PROTOCOL_GUID = {
    0xB625B186, 0xE063, 0x44F7, {0x89, 0x05, 0x6A, 0x74, 0xDC, 0x6F, 0x52, 0xB4}};
constexpr EFI_GUID EFI_DNS4_PROTOCOL_GUID = {
    0xAE3D28CC, 0xE05B, 0x4FA1, {0xA0, 0x11, 0x7E, 0xB5, 0x5A, 0x3F, 0x14, 0x01}};

struct EFI_DNS4_CONFIG_DATA {
  UINTN DnsServerListCount;
  EFI_IPv4_ADDRESS* DnsServerList;
  BOOLEAN UseDefaultSetting;
  BOOLEAN EnableDnsCache;
  UINT8 Protocol; // 17: UDP
  EFI_IPv4_ADDRESS StationIp;
  EFI_IPv4_ADDRESS SubnetMask;
  UINT16 LocalPort;
  UINT32 RetryCount;
  UINT32 RetryInterval; // seconds
};
static_assert(sizeof(EFI_DNS4_CONFIG_DATA) == 40);

struct DNS_HOST_TO_ADDR_DATA {
  UINT32 IpCount;
  EFI_IPv4_ADDRESS* IpList;
};

struct EFI_DNS4_COMPLETION_TOKEN {
  EFI_EVENT Event;
  EFI_STATUS Status;
  UINT32 RetryCount;
  UINT32 RetryInterval;
  union {
    DNS_HOST_TO_ADDR_DATA* H2AData;
    void* A2HData;
    void* GLookupData;
  } RspData;
};
static_assert(sizeof(EFI_DNS4_COMPLETION_TOKEN) == 32);

struct EFI_DNS4_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)(EFI_DNS4_PROTOCOL* This, void* DnsModeData);
  EFI_STATUS(EFIAPI* Configure)(EFI_DNS4_PROTOCOL* This, EFI_DNS4_CONFIG_DATA* DnsConfigData);
  EFI_STATUS(EFIAPI* HostNameToIp)
  (EFI_DNS4_PROTOCOL* This, CHAR16* HostName, EFI_DNS4_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* IpToHostName)
  (EFI_DNS4_PROTOCOL* This, EFI_IPv4_ADDRESS IpAddress, EFI_DNS4_COMPLETION_TOKEN* Token);
  void* GeneralLookUp;
  void* UpdateDnsCache;
  EFI_STATUS(EFIAPI* Poll)(EFI_DNS4_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Cancel)(EFI_DNS4_PROTOCOL* This, EFI_DNS4_COMPLETION_TOKEN* Token);
};
