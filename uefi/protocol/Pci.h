// EFI_PCI_IO_PROTOCOL and EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_PCI_IO_PROTOCOL_GUID = {
    0x4CF5B200, 0x68B8, 0x4CA5, {0x9E, 0xEC, 0xB2, 0x3E, 0x3F, 0x50, 0x02, 0x9A}};
constexpr EFI_GUID EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID = {
    0x2F707EBB, 0x4A1A, 0x11D4, {0x9A, 0x38, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};

enum EFI_PCI_IO_PROTOCOL_WIDTH : UINT32 {
  EfiPciIoWidthUint8,
  EfiPciIoWidthUint16,
  EfiPciIoWidthUint32,
  EfiPciIoWidthUint64,
};
using EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH = EFI_PCI_IO_PROTOCOL_WIDTH;

// Offsets in the PCI configuration header.
constexpr UINT32 PCI_VENDOR_ID_OFFSET = 0x00;
constexpr UINT32 PCI_DEVICE_ID_OFFSET = 0x02;
constexpr UINT32 PCI_CLASSCODE_OFFSET = 0x09;
constexpr UINT32 PCI_INT_LINE_OFFSET = 0x3C;
constexpr UINT32 PCI_INT_PIN_OFFSET = 0x3D;

struct EFI_PCI_IO_PROTOCOL;
struct EFI_PCI_IO_PROTOCOL_ACCESS {
  EFI_STATUS(EFIAPI* Read)
  (EFI_PCI_IO_PROTOCOL* This, EFI_PCI_IO_PROTOCOL_WIDTH Width, UINT8 BarIndex, UINT64 Offset, UINTN Count,
   void* Buffer);
  EFI_STATUS(EFIAPI* Write)
  (EFI_PCI_IO_PROTOCOL* This, EFI_PCI_IO_PROTOCOL_WIDTH Width, UINT8 BarIndex, UINT64 Offset, UINTN Count,
   void* Buffer);
};
struct EFI_PCI_IO_PROTOCOL_CONFIG_ACCESS {
  EFI_STATUS(EFIAPI* Read)
  (EFI_PCI_IO_PROTOCOL* This, EFI_PCI_IO_PROTOCOL_WIDTH Width, UINT32 Offset, UINTN Count, void* Buffer);
  EFI_STATUS(EFIAPI* Write)
  (EFI_PCI_IO_PROTOCOL* This, EFI_PCI_IO_PROTOCOL_WIDTH Width, UINT32 Offset, UINTN Count, void* Buffer);
};

struct EFI_PCI_IO_PROTOCOL {
  void* PollMem;
  void* PollIo;
  EFI_PCI_IO_PROTOCOL_ACCESS Mem;
  EFI_PCI_IO_PROTOCOL_ACCESS Io;
  EFI_PCI_IO_PROTOCOL_CONFIG_ACCESS Pci;
  void* CopyMem;
  void* Map;
  void* Unmap;
  void* AllocateBuffer;
  void* FreeBuffer;
  void* Flush;
  EFI_STATUS(EFIAPI* GetLocation)
  (EFI_PCI_IO_PROTOCOL* This, UINTN* SegmentNumber, UINTN* BusNumber, UINTN* DeviceNumber,
   UINTN* FunctionNumber);
  void* Attributes;
  void* GetBarAttributes;
  void* SetBarAttributes;
  UINT64 RomSize;
  void* RomImage;
};
static_assert(offsetof(EFI_PCI_IO_PROTOCOL, Pci) == 48);
static_assert(offsetof(EFI_PCI_IO_PROTOCOL, GetLocation) == 112);
static_assert(sizeof(EFI_PCI_IO_PROTOCOL) == 160);

struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL;
struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS {
  EFI_STATUS(EFIAPI* Read)
  (EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* This, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH Width, UINT64 Address,
   UINTN Count, void* Buffer);
  EFI_STATUS(EFIAPI* Write)
  (EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* This, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH Width, UINT64 Address,
   UINTN Count, void* Buffer);
};

// Configuration-space address as the root bridge expects it.
constexpr UINT64 PciRootBridgeAddress(UINTN Bus, UINTN Dev, UINTN Func, UINTN Reg) {
  return (UINT64(Bus) << 24) | (UINT64(Dev) << 16) | (UINT64(Func) << 8) | UINT64(Reg);
}

struct EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL {
  EFI_HANDLE ParentHandle;
  void* PollMem;
  void* PollIo;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Mem;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Io;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_ACCESS Pci;
  void* CopyMem;
  void* Map;
  void* Unmap;
  void* AllocateBuffer;
  void* FreeBuffer;
  void* Flush;
  void* GetAttributes;
  void* SetAttributes;
  // The bridge's resources as ACPI address-space descriptors ending in an end tag; firmware memory.
  EFI_STATUS(EFIAPI* Configuration)(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* This, void** Resources);
  UINT32 SegmentNumber;
};
static_assert(offsetof(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL, Pci) == 56);
static_assert(offsetof(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL, SegmentNumber) == 144);
