// Rewriting the NICs' stored IPv4 configuration (EfiNicIp4ConfigVariable) through HII, for
// firmware whose IPv4 stack still keeps its per-NIC settings in that variable.
#pragma once
#include "uefi/protocol/Hii.h"

constexpr EFI_GUID EFI_NIC_IP4_CONFIG_VARIABLE_GUID = {
    0xD8944553, 0xC4DD, 0x41F4, {0x9B, 0x30, 0xE1, 0x39, 0x7C, 0xFB, 0x26, 0x7B}};
constexpr UINTN kNicIp4ConfigBlockSize = 1608;

// Rewrites every NIC's stored IPv4 configuration (the EfiNicIp4ConfigVariable block of the
// firmware's NIC configuration driver) through the HII configuration router: for each handle of
// the managed-network service binding a fresh block (the NIC's address type, length and MAC,
// source 0, permanent) goes through BlockToConfig to the driver that owns it with RouteConfig.
// A NIC for which no driver is found and whose RouteConfig answers Not Found keeps no such block
// (firmware with only IPv4 configuration 2): it is skipped, logged "nothing to rewrite". The router
// missing, a lookup, an allocation or a routing step that fails returns its status.
EFI_STATUS SetNicByHii();
// The HII configuration-access child of a NIC's managed-network service handle: a handle for which
// the service binding was opened as child controller and whose device path holds, after its first
// node, a hardware vendor node with the Vendor identifier.
EFI_STATUS FindHiiChildHandle(EFI_HANDLE ServiceHandle, const EFI_GUID& Vendor, EFI_HANDLE* DriverHandle);
UINTN AppendOffsetWidth(CHAR16* Buffer, UINTN BufferSize, UINTN Offset, UINTN Width);
