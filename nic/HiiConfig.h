// Rewriting the NICs' stored IPv4 configuration (EfiNicIp4ConfigVariable) through HII, for
// firmware whose IPv4 stack still keeps its per-NIC settings in that variable.
#pragma once
#include "uefi/protocol/Hii.h"

constexpr EFI_GUID EFI_NIC_IP4_CONFIG_VARIABLE_GUID = {
    0xD8944553, 0xC4DD, 0x41F4, {0x9B, 0x30, 0xE1, 0x39, 0x7C, 0xFB, 0x26, 0x7B}};
constexpr UINTN kNicIp4ConfigBlockSize = 1608;

EFI_STATUS SetNicByHii();
// The HII configuration-access child of a NIC's managed-network service handle: a handle for which
// the service binding was opened as child controller and whose device path holds, after its first
// node, a hardware vendor node with the Vendor identifier.
EFI_STATUS FindHiiChildHandle(EFI_HANDLE ServiceHandle, const EFI_GUID& Vendor, EFI_HANDLE* DriverHandle);
UINTN AppendOffsetWidth(CHAR16* Buffer, UINTN BufferSize, UINTN Offset, UINTN Width);
