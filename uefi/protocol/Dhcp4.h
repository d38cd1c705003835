// EFI_DHCP4_PROTOCOL and its service binding.
#pragma once
#include "uefi/protocol/ServiceBinding.h"

constexpr EFI_GUID EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID = {
    0x9D9A39D8, 0xBD42, 0x4A73, {0xA4, 0xD5, 0x8E, 0xE9, 0x4B, 0xE1, 0x13, 0x80}};
constexpr EFI_GUID EFI_DHCP4_PROTOCOL_GUID = {
    0x8A219718, 0x4EF5, 0x4761, {0x91, 0xC8, 0xC0, 0xF0, 0x4B, 0xDA, 0x9E, 0x56}};

#pragma pack(push, 1)
struct EFI_DHCP4_PACKET_OPTION {
  UINT8 OpCode;
  UINT8 Length;
  UINT8 Data[1];
};
struct EFI_DHCP4_HEADER {
  UINT8 OpCode;
  UINT8 HwType;
  UINT8 HwAddrLen;
  UINT8 Hops;
  UINT32 Xid;
  UINT16 Reserved;
  UINT16 Reserved1;
  EFI_IPv4_ADDRESS ClientAddr;
  EFI_IPv4_ADDRESS YourAddr;
  EFI_IPv4_ADDRESS ServerAddr;
  EFI_IPv4_ADDRESS GatewayAddr;
  UINT8 ClientHwAddr[16];
  CHAR8 ServerName[64];
  CHAR8 BootFileName[128];
};
struct EFI_DHCP4_PACKET {
  UINT32 Size;
  UINT32 Length;
  struct {
    EFI_DHCP4_HEADER Header;
    UINT32 Magik;
    UINT8 Option[1];
  } Dhcp4;
};
#pragma pack(pop)
static_assert(sizeof(EFI_DHCP4_HEADER) == 236);

enum EFI_DHCP4_STATE : UINT32 {
  Dhcp4Stopped = 0,
  Dhcp4Init,
  Dhcp4Selecting,
  Dhcp4Requesting,
  Dhcp4Bound,
  Dhcp4Renewing,
  Dhcp4Rebinding,
  Dhcp4InitReboot,
  Dhcp4Rebooting
};

enum EFI_DHCP4_EVENT : UINT32 {
  Dhcp4SendDiscover = 1,
  Dhcp4RcvdOffer,
  Dhcp4SelectOffer,
  Dhcp4SendRequest,
  Dhcp4RcvdAck,
  Dhcp4RcvdNak,
  Dhcp4SendDecline,
  Dhcp4BoundCompleted,
  Dhcp4EnterRenewing,
  Dhcp4EnterRebinding,
  Dhcp4AddressLost,
  Dhcp4Fail
};

struct EFI_DHCP4_PROTOCOL;
using EFI_DHCP4_CALLBACK = EFI_STATUS(EFIAPI*)(EFI_DHCP4_PROTOCOL* This, void* Context,
                                               EFI_DHCP4_STATE CurrentState, EFI_DHCP4_EVENT Dhcp4Event,
                                               EFI_DHCP4_PACKET* Packet, EFI_DHCP4_PACKET** NewPacket);

struct EFI_DHCP4_CONFIG_DATA {
  UINT32 DiscoverTryCount;
  UINT32* DiscoverTimeout;
  UINT32 RequestTryCount;
  UINT32* RequestTimeout;
  EFI_IPv4_ADDRESS ClientAddress;
  EFI_DHCP4_CALLBACK Dhcp4Callback;
  void* CallbackContext;
  UINT32 OptionCount;
  EFI_DHCP4_PACKET_OPTION** OptionList;
};
static_assert(sizeof(EFI_DHCP4_CONFIG_DATA) == 72);

struct EFI_DHCP4_MODE_DATA {
  EFI_DHCP4_STATE State;
  EFI_DHCP4_CONFIG_DATA ConfigData;
  EFI_IPv4_ADDRESS ClientAddress;
  EFI_MAC_ADDRESS ClientMacAddress;
  EFI_IPv4_ADDRESS ServerAddress;
  EFI_IPv4_ADDRESS RouterAddress;
  EFI_IPv4_ADDRESS SubnetMask;
  UINT32 LeaseTime;
  EFI_DHCP4_PACKET* ReplyPacket;
};
static_assert(offsetof(EFI_DHCP4_MODE_DATA, ClientAddress) == 80);

struct EFI_DHCP4_LISTEN_POINT {
  EFI_IPv4_ADDRESS ListenAddress;
  EFI_IPv4_ADDRESS SubnetMask;
  UINT16 ListenPort;
};

struct EFI_DHCP4_TRANSMIT_RECEIVE_TOKEN {
  EFI_STATUS Status;
  EFI_EVENT CompletionEvent;
  EFI_IPv4_ADDRESS RemoteAddress;
  UINT16 RemotePort;
  EFI_IPv4_ADDRESS GatewayAddress;
  UINT32 ListenPointCount;
  EFI_DHCP4_LISTEN_POINT* ListenPoints;
  UINT32 TimeoutValue;
  EFI_DHCP4_PACKET* Packet;
  UINT32 ResponseCount;
  EFI_DHCP4_PACKET* ResponseList;
};

struct EFI_DHCP4_PROTOCOL {
  EFI_STATUS(EFIAPI* GetModeData)(EFI_DHCP4_PROTOCOL* This, EFI_DHCP4_MODE_DATA* Dhcp4ModeData);
  EFI_STATUS(EFIAPI* Configure)(EFI_DHCP4_PROTOCOL* This, EFI_DHCP4_CONFIG_DATA* Dhcp4CfgData);
  EFI_STATUS(EFIAPI* Start)(EFI_DHCP4_PROTOCOL* This, EFI_EVENT CompletionEvent);
  EFI_STATUS(EFIAPI* RenewRebind)(EFI_DHCP4_PROTOCOL* This, BOOLEAN RebindRequest, EFI_EVENT CompletionEvent);
  EFI_STATUS(EFIAPI* Release)(EFI_DHCP4_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Stop)(EFI_DHCP4_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Build)
  (EFI_DHCP4_PROTOCOL* This, EFI_DHCP4_PACKET* SeedPacket, UINT32 DeleteCount, UINT8* DeleteList,
   UINT32 AppendCount, EFI_DHCP4_PACKET_OPTION** AppendList, EFI_DHCP4_PACKET** NewPacket);
  EFI_STATUS(EFIAPI* TransmitReceive)(EFI_DHCP4_PROTOCOL* This, EFI_DHCP4_TRANSMIT_RECEIVE_TOKEN* Token);
  EFI_STATUS(EFIAPI* Parse)
  (EFI_DHCP4_PROTOCOL* This, EFI_DHCP4_PACKET* Packet, UINT32* OptionCount,
   EFI_DHCP4_PACKET_OPTION** PacketOptionList);
};
