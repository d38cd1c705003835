// EFI_IP4_PROTOCOL, its service binding and the IPv4 header.
#pragma once
#include "uefi/protocol/ManagedNetwork.h"

constexpr EFI_GUID EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID = {
    0xC51711E7, 0xB4BF, 0x404A, {0xBF, 0xB8, 0x0A, 0x04, 0x8E, 0xF1, 0xFF, 0xE4}};
constexpr EFI_GUID EFI_IP4_PROTOCOL_GUID = {
    0x41D94CD2, 0x35B6, 0x455A, {0x82, 0x58, 0xD4, 0xE5, 0x13, 0x34, 0xAA, 0xDD}};

struct EFI_IP4_CONFIG_DATA {
  UINT8 DefaultProtocol;
  BOOLEAN AcceptAnyProtocol;
  BOOLEAN AcceptIcmpErrors;
  BOOLEAN AcceptBroadcast;
  BOOLEAN AcceptPromiscuous;
  BOOLEAN UseDefaultAddress;
  EFI_IPv4_ADDRESS StationAddress;
  EFI_IPv4_ADDRESS SubnetMask;
  UINT8 TypeOfService;
  UINT8 TimeToLive;
  BOOLEAN DoNotFragment;
  BOOLEAN RawData;
  UINT32 ReceiveTimeout;
  UINT32 TransmitTimeout;
};
static_assert(sizeof(EFI_IP4_CONFIG_DATA) == 28);

struct EFI_IP4_ROUTE_TABLE {
  EFI_IPv4_ADDRESS SubnetAddress;
  EFI_IPv4_ADDRESS SubnetMask;
  EFI_IPv4_ADDRESS GatewayAddress;
};

struct EFI_IP4_ICMP_TYPE {
  UINT8 Type;
  UINT8 Code;
};

struct EFI_IP4_MODE_DATA {
  BOOLEAN IsStarted;
  UINT32 MaxPacketSize;
  EFI_IP4_CONFIG_DATA ConfigData;
  BOOLEAN IsConfigured;
  UINT32 GroupCount;
  EFI_IPv4_ADDRESS* GroupTable;
  UINT32 RouteCount;
  EFI_IP4_ROUTE_TABLE* RouteTable;
  UINT32 IcmpTypeCount;
  EFI_IP4_ICMP_TYPE* IcmpTypeList;
};
static_assert(offsetof(EFI_IP4_MODE_DATA, GroupTable) == 48);
static_assert(sizeof(EFI_IP4_MODE_DATA) == 88);

#pragma pack(push, 1)
struct EFI_IP4_HEADER {
  UINT8 HeaderLength : 4;
  UINT8 Version : 4;
  UINT8 TypeOfService;
  UINT16 TotalLength;
  UINT16 Identification;
  UINT16 Fragmentation;
  UINT8 TimeToLive;
  UINT8 Protocol;
  UINT16 Checksum;
  EFI_IPv4_ADDRESS SourceAddress;
  EFI_IPv4_ADDRESS DestinationAddress;
};
#pragma pack(pop)
static_assert(sizeof(EFI_IP4_HEADER) == 20);

struct EFI_IP4_FRAGMENT_DATA {
  UINT32 FragmentLength;
  void* FragmentBuffer;
};

struct EFI_IP4_RECEIVE_DATA {
  EFI_TIME TimeStamp;
  EFI_EVENT RecycleSignal;
  UINT32 HeaderLength;
  EFI_IP4_HEADER* Header;
  UINT32 OptionsLength;
  void* Options;
  UINT32 DataLength;
  UINT32 FragmentCount;
  EFI_IP4_FRAGMENT_DATA FragmentTable[1];
};
static_assert(offsetof(EFI_IP4_RECEIVE_DATA, FragmentTable) == 64);

struct EFI_IP4_OVERRIDE_DATA {
  EFI_IPv4_ADDRESS SourceAddress;
  EFI_IPv4_ADDRESS GatewayAddress;
  UINT8 Protocol;
  UINT8 TypeOfService;
  UINT8 TimeToLive;
  BOOLEAN DoNotFragment;
};

struct EFI_IP4_TRANSMIT_DATA {
  EFI_IPv4_ADDRESS DestinationAddress;
  EFI_IP4_OVERRIDE_DATA* OverrideData;
  UINT32 OptionsLength;
  void* OptionsBuffer;
  UINT32 TotalDataLength;
  UINT32 FragmentCount;
  EFI_IP4_FRAGMENT_DATA FragmentTable[1];
};
static_assert(offsetof(EFI_IP4_TRANSMIT_DATA, FragmentTable) == 40);

struct EFI_IP4_COMPLETION_TOKEN {
  EFI_EVENT Event;
  EFI_STATUS Status;
  union {
    EFI_IP4_RECEIVE_DATA* RxData;
    EFI_IP4_TRANSMIT_DATA* TxData;
  } Packet;
};

struct EFI_IP4_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)
  (EFI_IP4_PROTOCOL* This, EFI_IP4_MODE_DATA* Ip4ModeData, EFI_MANAGED_NETWORK_CONFIG_DATA* MnpConfigData,
   EFI_SIMPLE_NETWORK_MODE* SnpModeData);
  EFI_STATUS(EFIAPI* Configure)(EFI_IP4_PROTOCOL* This, EFI_IP4_CONFIG_DATA* IpConfigData);
  EFI_STATUS(EFIAPI* Groups)(EFI_IP4_PROTOCOL* This, BOOLEAN JoinFlag, EFI_IPv4_ADDRESS* GroupAddress);
  EFI_STATUS(EFIAPI* Routes)
  (EFI_IP4_PROTOCOL* This, BOOLEAN DeleteRoute, EFI_IPv4_ADDRESS* SubnetAddress, EFI_IPv4_ADDRESS* SubnetMask,
   EFI_IPv4_ADDRESS* GatewayAddress);
  EFI_STATUS(EFIAPI* Transmit)(EFI_IP4_PROTOCOL* This, EFI_IP4_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Receive)(EFI_IP4_PROTOCOL* This, EFI_IP4_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Cancel)(EFI_IP4_PROTOCOL* This, EFI_IP4_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Poll)(EFI_IP4_PROTOCOL* This);
};
