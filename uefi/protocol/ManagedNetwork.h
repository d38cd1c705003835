// EFI_MANAGED_NETWORK_PROTOCOL and its service binding.
#pragma once
#include "uefi/protocol/ServiceBinding.h"
#include "uefi/protocol/SimpleNetwork.h"

constexpr EFI_GUID EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID = {
    0xF36FF770, 0xA7E1, 0x42CF, {0x9E, 0xD2, 0x56, 0xF0, 0xF2, 0x71, 0xF4, 0x4C}};
constexpr EFI_GUID EFI_MANAGED_NETWORK_PROTOCOL_GUID = {
    0x7AB33A91, 0xACE5, 0x4326, {0xB5, 0x72, 0xE7, 0xEE, 0x33, 0xD3, 0x9F, 0x16}};

struct EFI_MANAGED_NETWORK_CONFIG_DATA {
  UINT32 ReceivedQueueTimeoutValue;
  UINT32 TransmitQueueTimeoutValue;
  UINT16 ProtocolTypeFilter;
  BOOLEAN EnableUnicastReceive;
  BOOLEAN EnableMulticastReceive;
  BOOLEAN EnableBroadcastReceive;
  BOOLEAN EnablePromiscuousReceive;
  BOOLEAN FlushQueuesOnReset;
  BOOLEAN EnableReceiveTimestamps;
  BOOLEAN DisableBackgroundPolling;
};
static_assert(sizeof(EFI_MANAGED_NETWORK_CONFIG_DATA) == 20);

struct EFI_MANAGED_NETWORK_RECEIVE_DATA {
  EFI_TIME Timestamp;
  EFI_EVENT RecycleEvent;
  UINT32 PacketLength;
  UINT32 HeaderLength;
  UINT32 AddressLength;
  UINT32 DataLength;
  BOOLEAN BroadcastFlag;
  BOOLEAN MulticastFlag;
  BOOLEAN PromiscuousFlag;
  UINT16 ProtocolType;
  void* DestinationAddress;
  void* SourceAddress;
  void* MediaHeader;
  void* PacketData;
};

struct EFI_MANAGED_NETWORK_FRAGMENT_DATA {
  UINT32 FragmentLength;
  void* FragmentBuffer;
};

struct EFI_MANAGED_NETWORK_TRANSMIT_DATA {
  EFI_MAC_ADDRESS* DestinationAddress;
  EFI_MAC_ADDRESS* SourceAddress;
  UINT16 ProtocolType;
  UINT32 DataLength;
  UINT16 HeaderLength;
  UINT16 FragmentCount;
  EFI_MANAGED_NETWORK_FRAGMENT_DATA FragmentTable[1];
};
static_assert(offsetof(EFI_MANAGED_NETWORK_TRANSMIT_DATA, FragmentTable) == 32);

struct EFI_MANAGED_NETWORK_COMPLETION_TOKEN {
  EFI_EVENT Event;
  EFI_STATUS Status;
  union {
    EFI_MANAGED_NETWORK_RECEIVE_DATA* RxData;
    EFI_MANAGED_NETWORK_TRANSMIT_DATA* TxData;
  } Packet;
};

struct EFI_MANAGED_NETWORK_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, EFI_MANAGED_NETWORK_CONFIG_DATA* MnpConfigData,
   EFI_SIMPLE_NETWORK_MODE* SnpModeData);
  EFI_STATUS(EFIAPI* Configure)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, EFI_MANAGED_NETWORK_CONFIG_DATA* MnpConfigData);
  EFI_STATUS(EFIAPI* McastIpToMac)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, BOOLEAN Ipv6Flag, EFI_IP_ADDRESS* IpAddress,
   EFI_MAC_ADDRESS* MacAddress);
  EFI_STATUS(EFIAPI* Groups)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, BOOLEAN JoinFlag, EFI_MAC_ADDRESS* MacAddress);
  EFI_STATUS(EFIAPI* Transmit)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Receive)
  (EFI_MANAGED_NETWORK_PROTOCOL* This, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Cancel)(EFI_MANAGED_NETWORK_PROTOCOL* This, EFI_MANAGED_NETWORK_COMPLETION_TOKEN* Token);
  EFI_STATUS(EFIAPI* Poll)(EFI_MANAGED_NETWORK_PROTOCOL* This);
};
