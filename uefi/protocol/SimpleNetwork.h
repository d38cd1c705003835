// EFI_SIMPLE_NETWORK_PROTOCOL.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_SIMPLE_NETWORK_PROTOCOL_GUID = {
    0xA19832B9, 0xAC25, 0x11D3, {0x9A, 0x2D, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};

constexpr UINTN MAX_MCAST_FILTER_CNT = 16;

enum EFI_SIMPLE_NETWORK_STATE : UINT32 {
  EfiSimpleNetworkStopped,
  EfiSimpleNetworkStarted,
  EfiSimpleNetworkInitialized
};

struct EFI_SIMPLE_NETWORK_MODE {
  UINT32 State;
  UINT32 HwAddressSize;
  UINT32 MediaHeaderSize;
  UINT32 MaxPacketSize;
  UINT32 NvRamSize;
  UINT32 NvRamAccessSize;
  UINT32 ReceiveFilterMask;
  UINT32 ReceiveFilterSetting;
  UINT32 MaxMCastFilterCount;
  UINT32 MCastFilterCount;
  EFI_MAC_ADDRESS MCastFilter[MAX_MCAST_FILTER_CNT];
  EFI_MAC_ADDRESS CurrentAddress;
  EFI_MAC_ADDRESS BroadcastAddress;
  EFI_MAC_ADDRESS PermanentAddress;
  UINT8 IfType;
  BOOLEAN MacAddressChangeable;
  BOOLEAN MultipleTxSupported;
  BOOLEAN MediaPresentSupported;
  BOOLEAN MediaPresent;
};
static_assert(offsetof(EFI_SIMPLE_NETWORK_MODE, CurrentAddress) == 40 + 16 * 32);
static_assert(offsetof(EFI_SIMPLE_NETWORK_MODE, MediaPresent) == 40 + 19 * 32 + 4);

// The counters a NIC's driver may keep; one it does not keep reads as all ones.
struct EFI_NETWORK_STATISTICS {
  UINT64 RxTotalFrames;
  UINT64 RxGoodFrames;
  UINT64 RxUndersizeFrames;
  UINT64 RxOversizeFrames;
  UINT64 RxDroppedFrames; // valid frames dropped because the receive buffers were full
  UINT64 RxUnicastFrames;
  UINT64 RxBroadcastFrames;
  UINT64 RxMulticastFrames;
  UINT64 RxCrcErrorFrames;
  UINT64 RxTotalBytes;
  UINT64 TxTotalFrames;
  UINT64 TxGoodFrames;
  UINT64 TxUndersizeFrames;
  UINT64 TxOversizeFrames;
  UINT64 TxDroppedFrames;
  UINT64 TxUnicastFrames;
  UINT64 TxBroadcastFrames;
  UINT64 TxMulticastFrames;
  UINT64 TxCrcErrorFrames;
  UINT64 TxTotalBytes;
  UINT64 Collisions;
  UINT64 UnsupportedProtocol;
  UINT64 RxDuplicatedFrames;
  UINT64 RxDecryptErrorFrames;
  UINT64 TxErrorFrames;
  UINT64 TxRetryFrames;
};
static_assert(sizeof(EFI_NETWORK_STATISTICS) == 26 * 8);

struct EFI_SIMPLE_NETWORK_PROTOCOL {
  UINT64 Revision;
  EFI_STATUS(EFIAPI* Start)(EFI_SIMPLE_NETWORK_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Stop)(EFI_SIMPLE_NETWORK_PROTOCOL* This);
  EFI_STATUS(EFIAPI* Initialize)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, UINTN ExtraRxBufferSize, UINTN ExtraTxBufferSize);
  EFI_STATUS(EFIAPI* Reset)(EFI_SIMPLE_NETWORK_PROTOCOL* This, BOOLEAN ExtendedVerification);
  EFI_STATUS(EFIAPI* Shutdown)(EFI_SIMPLE_NETWORK_PROTOCOL* This);
  EFI_STATUS(EFIAPI* ReceiveFilters)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, UINT32 Enable, UINT32 Disable, BOOLEAN ResetMCastFilter,
   UINTN MCastFilterCnt, EFI_MAC_ADDRESS* MCastFilter);
  EFI_STATUS(EFIAPI* StationAddress)(EFI_SIMPLE_NETWORK_PROTOCOL* This, BOOLEAN Reset, EFI_MAC_ADDRESS* New);
  EFI_STATUS(EFIAPI* Statistics)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, BOOLEAN Reset, UINTN* StatisticsSize,
   EFI_NETWORK_STATISTICS* StatisticsTable);
  EFI_STATUS(EFIAPI* MCastIpToMac)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, BOOLEAN IPv6, EFI_IP_ADDRESS* IP, EFI_MAC_ADDRESS* MAC);
  EFI_STATUS(EFIAPI* NvData)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, BOOLEAN ReadWrite, UINTN Offset, UINTN BufferSize, void* Buffer);
  EFI_STATUS(EFIAPI* GetStatus)(EFI_SIMPLE_NETWORK_PROTOCOL* This, UINT32* InterruptStatus, void** TxBuf);
  EFI_STATUS(EFIAPI* Transmit)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, UINTN HeaderSize, UINTN BufferSize, void* Buffer,
   EFI_MAC_ADDRESS* SrcAddr, EFI_MAC_ADDRESS* DestAddr, UINT16* Protocol);
  EFI_STATUS(EFIAPI* Receive)
  (EFI_SIMPLE_NETWORK_PROTOCOL* This, UINTN* HeaderSize, UINTN* BufferSize, void* Buffer,
   EFI_MAC_ADDRESS* SrcAddr, EFI_MAC_ADDRESS* DestAddr, UINT16* Protocol);
  EFI_EVENT WaitForPacket;
  EFI_SIMPLE_NETWORK_MODE* Mode;
};
static_assert(offsetof(EFI_SIMPLE_NETWORK_PROTOCOL, Mode) == 120);
