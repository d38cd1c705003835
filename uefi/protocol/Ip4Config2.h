// EFI_IP4_CONFIG2_PROTOCOL.
#pragma once
#include "uefi/protocol/Ip4.h"

constexpr EFI_GUID EFI_IP4_CONFIG2_PROTOCOL_GUID = {
    0x5B446ED1, 0xE30B, 0x4FAA, {0x87, 0x1A, 0x36, 0x54, 0xEC, 0xA3, 0x60, 0x80}};

enum EFI_IP4_CONFIG2_DATA_TYPE : UINT32 {
  Ip4Config2DataTypeInterfaceInfo,
  Ip4Config2DataTypePolicy,
  Ip4Config2DataTypeManualAddress,
  Ip4Config2DataTypeGateway,
  Ip4Config2DataTypeDnsServer,
  Ip4Config2DataTypeMaximum
};

enum EFI_IP4_CONFIG2_POLICY : UINT32 { Ip4Config2PolicyStatic, Ip4Config2PolicyDhcp, Ip4Config2PolicyMax };

struct EFI_IP4_CONFIG2_INTERFACE_INFO {
  CHAR16 Name[32];
  UINT8 IfType;
  UINT32 HwAddressSize;
  EFI_MAC_ADDRESS HwAddress;
  EFI_IPv4_ADDRESS StationAddress;
  EFI_IPv4_ADDRESS SubnetMask;
  UINT32 RouteTableSize;
  EFI_IP4_ROUTE_TABLE* RouteTable;
};
static_assert(offsetof(EFI_IP4_CONFIG2_INTERFACE_INFO, HwAddress) == 72);
static_assert(offsetof(EFI_IP4_CONFIG2_INTERFACE_INFO, RouteTable) == 120);

struct EFI_IP4_CONFIG2_MANUAL_ADDRESS {
  EFI_IPv4_ADDRESS Address;
  EFI_IPv4_ADDRESS SubnetMask;
};

struct EFI_IP4_CONFIG2_PROTOCOL {
  EFI_STATUS(EFIAPI* SetData)
  (EFI_IP4_CONFIG2_PROTOCOL* This, EFI_IP4_CONFIG2_DATA_TYPE DataType, UINTN DataSize, void* Data);
  EFI_STATUS(EFIAPI* GetData)
  (EFI_IP4_CONFIG2_PROTOCOL* This, EFI_IP4_CONFIG2_DATA_TYPE DataType, UINTN* DataSize, void* Data);
  EFI_STATUS(EFIAPI* RegisterDataNotify)
  (EFI_IP4_CONFIG2_PROTOCOL* This, EFI_IP4_CONFIG2_DATA_TYPE DataType, EFI_EVENT Event);
  EFI_STATUS(EFIAPI* UnregisterDataNotify)
  (EFI_IP4_CONFIG2_PROTOCOL* This, EFI_IP4_CONFIG2_DATA_TYPE DataType, EFI_EVENT Event);
};
