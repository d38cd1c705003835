// EFI_DEVICE_PATH_PROTOCOL, its node types and EFI_DEVICE_PATH_TO_TEXT_PROTOCOL.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_DEVICE_PATH_PROTOCOL_GUID = {
    0x09576E91, 0x6D3F, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};
constexpr EFI_GUID EFI_DEVICE_PATH_TO_TEXT_PROTOCOL_GUID = {
    0x8B843E20, 0x8132, 0x4852, {0x90, 0xCC, 0x55, 0x1A, 0x4E, 0x4A, 0x7F, 0x1C}};

struct EFI_DEVICE_PATH_PROTOCOL {
  UINT8 Type;
  UINT8 SubType;
  UINT8 Length[2];
};
static_assert(sizeof(EFI_DEVICE_PATH_PROTOCOL) == 4);

// Node types and the subtypes the module knows by name.
constexpr UINT8 HARDWARE_DEVICE_PATH = 0x01;
constexpr UINT8 HW_PCI_DP = 0x01;
constexpr UINT8 HW_VENDOR_DP = 0x04;
constexpr UINT8 ACPI_DEVICE_PATH = 0x02;
constexpr UINT8 ACPI_DP = 0x01;
constexpr UINT8 MESSAGING_DEVICE_PATH = 0x03;
constexpr UINT8 MSG_USB_DP = 0x05;
constexpr UINT8 MSG_USB_CLASS_DP = 0x0F;
constexpr UINT8 MSG_USB_WWID_DP = 0x10;
constexpr UINT8 MSG_MAC_ADDR_DP = 0x0B;
constexpr UINT8 MSG_IPv4_DP = 0x0C;
constexpr UINT8 MSG_IPv6_DP = 0x0D;
constexpr UINT8 MSG_VLAN_DP = 0x14;
constexpr UINT8 MEDIA_DEVICE_PATH = 0x04;
constexpr UINT8 MEDIA_FILEPATH_DP = 0x04;
constexpr UINT8 MEDIA_RAM_DISK_DP = 0x09; // a disk in memory: an HTTP boot's image, say
constexpr UINT8 END_DEVICE_PATH_TYPE = 0x7F;
constexpr UINT8 END_ENTIRE_DEVICE_PATH_SUBTYPE = 0xFF;
constexpr UINT8 END_INSTANCE_DEVICE_PATH_SUBTYPE = 0x01;

// PNP0A03 (PCI root bridge) and PNP0A08 (PCI Express root bridge) in the packed EISA form.
constexpr UINT32 EisaPnpId(UINT32 pnp) {
  return 0x41D0u | (pnp << 16);
}

struct EFI_DEVICE_PATH_TO_TEXT_PROTOCOL {
  CHAR16*(EFIAPI* ConvertDeviceNodeToText)(const EFI_DEVICE_PATH_PROTOCOL* DeviceNode, BOOLEAN DisplayOnly,
                                           BOOLEAN AllowShortcuts);
  CHAR16*(EFIAPI* ConvertDevicePathToText)(const EFI_DEVICE_PATH_PROTOCOL* DevicePath, BOOLEAN DisplayOnly,
                                           BOOLEAN AllowShortcuts);
};
