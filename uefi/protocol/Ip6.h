// EFI_IP6_PROTOCOL, its service binding, the IPv6 configuration protocol and the IPv6 header.
#pragma once
#include "uefi/protocol/ManagedNetwork.h"

constexpr EFI_GUID EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID = {
    0xEC835DD3, 0xFE0F, 0x617B, {0xA6, 0x21, 0xB3, 0x50, 0xC3, 0xE1, 0x33, 0x88}};
constexpr EFI_GUID EFI_IP6_PROTOCOL_GUID = {
    0x2C8759D5, 0x5C2D, 0x66EF, {0x92, 0x5F, 0xB6, 0x6C, 0x10, 0x19, 0x57, 0xE2}};
constexpr EFI_GUID EFI_IP6_CONFIG_PROTOCOL_GUID = {
    0x937FE521, 0x95AE, 0x4D1A, {0x89, 0x29, 0x48, 0xBC, 0xD9, 0x0A, 0xD3, 0x1A}};

constexpr UINT8 IP6_NEXT_HEADER_UDP = 17;
constexpr UINT8 IP6_NEXT_HEADER_ICMP = 58;

struct EFI_IP6_CONFIG_DATA {
  UINT8 DefaultProtocol;
  BOOLEAN AcceptAnyProtocol;
  BOOLEAN AcceptIcmpErrors;
  BOOLEAN AcceptPromiscuous;
  EFI_IPv6_ADDRESS DestinationAddress;
  EFI_IPv6_ADDRESS StationAddress;
  UINT8 TrafficClass;
  UINT8 HopLimit;
  UINT32 FlowLabel;
  UINT32 ReceiveTimeout;
  UINT32 TransmitTimeout;
};
static_assert(sizeof(EFI_IP6_CONFIG_DATA) == 52);

struct EFI_IP6_ADDRESS_INFO {
  EFI_IPv6_ADDRESS Address;
  UINT8 PrefixLength;
};
static_assert(sizeof(EFI_IP6_ADDRESS_INFO) == 17);

struct EFI_IP6_ROUTE_TABLE {
  EFI_IPv6_ADDRESS Gateway;
  EFI_IPv6_ADDRESS Destination;
  UINT8 PrefixLength;
};
static_assert(sizeof(EFI_IP6_ROUTE_TABLE) == 33);

enum EFI_IP6_NEIGHBOR_STATE : UINT32 {
  EfiNeighborInComplete,
  EfiNeighborReachable,
  EfiNeighborStale,
  EfiNeighborDelay,
  EfiNeighborProbe,
};

struct EFI_IP6_NEIGHBOR_CACHE {
  EFI_IPv6_ADDRESS Neighbor;
  EFI_MAC_ADDRESS LinkAddress;
  EFI_IP6_NEIGHBOR_STATE State;
};
static_assert(sizeof(EFI_IP6_NEIGHBOR_CACHE) == 52);

struct EFI_IP6_ICMP_TYPE {
  UINT8 Type;
  UINT8 Code;
};

struct EFI_IP6_MODE_DATA {
  BOOLEAN IsStarted;
  UINT32 MaxPacketSize;
  EFI_IP6_CONFIG_DATA ConfigData;
  BOOLEAN IsConfigured;
  UINT32 AddressCount;
  EFI_IP6_ADDRESS_INFO* AddressList;
  UINT32 GroupCount;
  EFI_IPv6_ADDRESS* GroupTable;
  UINT32 RouteCount;
  EFI_IP6_ROUTE_TABLE* RouteTable;
  UINT32 NeighborCount;
  EFI_IP6_NEIGHBOR_CACHE* NeighborCache;
  UINT32 PrefixCount;
  EFI_IP6_ADDRESS_INFO* PrefixTable;
  UINT32 IcmpTypeCount;
  EFI_IP6_ICMP_TYPE* IcmpTypeList;
};
static_assert(offsetof(EFI_IP6_MODE_DATA, AddressList) == 72);
static_assert(sizeof(EFI_IP6_MODE_DATA) == 160);

#pragma pack(push, 1)
struct EFI_IP6_HEADER {
  UINT8 TrafficClassH : 4;
  UINT8 Version : 4;
  UINT8 FlowLabelH : 4;
  UINT8 TrafficClassL : 4;
  UINT16 FlowLabelL;
  UINT16 PayloadLength;
  UINT8 NextHeader;
  UINT8 HopLimit;
  EFI_IPv6_ADDRESS SourceAddress;
  EFI_IPv6_ADDRESS DestinationAddress;
};
#pragma pack(pop)
static_assert(sizeof(EFI_IP6_HEADER) == 40);

struct EFI_IP6_FRAGMENT_DATA {
  UINT32 FragmentLength;
  void* FragmentBuffer;
};

struct EFI_IP6_RECEIVE_DATA {
  EFI_TIME TimeStamp;
  EFI_EVENT RecycleSignal;
  UINT32 HeaderLength;
  EFI_IP6_HEADER* Header;
  UINT32 DataLength;
  UINT32 FragmentCount;
  EFI_IP6_FRAGMENT_DATA FragmentTable[1];
};
static_assert(offsetof(EFI_IP6_RECEIVE_DATA, FragmentTable) == 48);

struct EFI_IP6_OVERRIDE_DATA {
  UINT8 Protocol;
  UINT8 HopLimit;
  UINT32 FlowLabel;
};

struct EFI_IP6_TRANSMIT_DATA {
  EFI_IPv6_ADDRESS DestinationAddress;
  EFI_IP6_OVERRIDE_DATA* OverrideData;
  UINT32 ExtHdrsLength;
  void* ExtHdrs;
  UINT8 NextHeader;
  UINT32 DataLength;
  UINT32 FragmentCount;
  EFI_IP6_FRAGMENT_DATA FragmentTable[1];
};
static_assert(offsetof(EFI_IP6_TRANSMIT_DATA, FragmentTable) == 56);

struct EFI_IP6_COMPLETION_TOKEN {
  EFI_EVENT Event;
  EFI_STATUS Status;
  union {
    EFI_IP6_RECEIVE_DATA* RxData;
    EFI_IP6_TRANSMIT_DATA* TxData;
  } Packet;
};

struct EFI_IP6_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)
  (EFI_IP6_PROTOCOL* This, EFI_IP6_MODE_DATA* Ip6ModeData, EFI_MANAGED_NETWORK_CONFIG_DATA* MnpConfigData,
   EFI_SIMPLE_NETWORK_MODE* SnpModeData);
  EFI_STATUS(EFIAPI* Configure)(EFI_IP6_PROTOCOL* This, EFI_IP6_CONFIG_DATA* Ip6ConfigData);
  EFI_STATUS(EFIAPI* Groups)(EFI_IP6_PROTOCOL* This, BOOLEAN JoinFlag, EFI_IPv6_ADDRESS* GroupAddress);
  EFI_STATUS(EFIAPI* Routes)
  (EFI_IP6_PROTOCOL* This, BOOLEAN DeleteRoute, EFI_IPv6_ADDRESS* Destination, UINT8 PrefixLength,
   EFI_IPv6_ADDRESS* GatewayAddress);
  EFI_STATUS(EFIAPI* Neighbors)
  (EFI_IP6_PROTOCOL* This, BOOLEAN DeleteFlag, EFI_IPv6_ADDRESS* TargetIp6Address,
   EFI_MAC_ADDRESS* TargetLinkAddress, UINT32 Timeout, BOOLEAN Override);
  EFI_STATUS(EFIAPI* Transmit)(EFI_IP6_PROTOCOL* This, EFI_IP6_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Receive)(EFI_IP6_PROTOCOL* This, EFI_IP6_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Cancel)(EFI_IP6_PROTOCOL* This, EFI_IP6_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Poll)(EFI_IP6_PROTOCOL* This);
};

// The IPv6 configuration protocol, on the NIC's handle beside the IPv6 service binding.
enum EFI_IP6_CONFIG_DATA_TYPE : UINT32 {
  Ip6ConfigDataTypeInterfaceInfo,
  Ip6ConfigDataTypeAltInterfaceId,
  Ip6ConfigDataTypePolicy,
  Ip6ConfigDataTypeDupAddrDetectTransmits,
  Ip6ConfigDataTypeManualAddress,
  Ip6ConfigDataTypeGateway,
  Ip6ConfigDataTypeDnsServer,
  Ip6ConfigDataTypeMaximum,
};

struct EFI_IP6_CONFIG_INTERFACE_INFO {
  CHAR16 Name[32];
  UINT8 IfType;
  UINT32 HwAddressSize;
  EFI_MAC_ADDRESS HwAddress;
  UINT32 AddressInfoCount;
  EFI_IP6_ADDRESS_INFO* AddressInfo;
  UINT32 RouteCount;
  EFI_IP6_ROUTE_TABLE* RouteTable;
};
static_assert(offsetof(EFI_IP6_CONFIG_INTERFACE_INFO, AddressInfo) == 112);
static_assert(sizeof(EFI_IP6_CONFIG_INTERFACE_INFO) == 136);

struct EFI_IP6_CONFIG_INTERFACE_ID {
  UINT8 Id[8];
};

enum EFI_IP6_CONFIG_POLICY : UINT32 {
  Ip6ConfigPolicyManual,
  Ip6ConfigPolicyAutomatic,
};

struct EFI_IP6_CONFIG_DUP_ADDR_DETECT_TRANSMITS {
  UINT32 DupAddrDetectTransmits;
};

struct EFI_IP6_CONFIG_PROTOCOL {
  EFI_STATUS(EFIAPI* SetData)
  (EFI_IP6_CONFIG_PROTOCOL* This, EFI_IP6_CONFIG_DATA_TYPE DataType, UINTN DataSize, void* Data);
  EFI_STATUS(EFIAPI* GetData)
  (EFI_IP6_CONFIG_PROTOCOL* This, EFI_IP6_CONFIG_DATA_TYPE DataType, UINTN* DataSize, void* Data);
  EFI_STATUS(EFIAPI* RegisterDataNotify)
  (EFI_IP6_CONFIG_PROTOCOL* This, EFI_IP6_CONFIG_DATA_TYPE DataType, EFI_EVENT Event);
  EFI_STATUS(EFIAPI* UnregisterDataNotify)
  (EFI_IP6_CONFIG_PROTOCOL* This, EFI_IP6_CONFIG_DATA_TYPE DataType, EFI_EVENT Event);
};
