// Building blocks every NIC test chooses its NIC with: the handles that carry a protocol (see
// wc::HandleBuffer), each handle's device path, its text and its closing MAC node, the choice by
// position, by PCI device ID and position. Each test keeps its own messages and its own order of
// these steps.
#pragma once
#include "base/Owners.h"
#include "uefi/protocol/DevicePath.h"

// Opens a handle's device path by handle protocol, with the module as agent; closed on release.
EFI_STATUS OpenDevicePath(EFI_HANDLE Handle, wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL>& Path);
// The text of a handle's device path (not display-only, no shortcuts), in Text; the status is that
// of opening the path. Text is null when the conversion ran out of memory.
EFI_STATUS DevicePathTextOf(EFI_HANDLE Handle, wc::PoolPtr<CHAR16>& Text);
// The last node before the end node; null for a path with no node before its end or a malformed one.
const EFI_DEVICE_PATH_PROTOCOL* LastDevicePathNode(const EFI_DEVICE_PATH_PROTOCOL* Path);
// TRUE when the path ends in a MAC-address node; its 32 address bytes are copied to Mac.
BOOLEAN DevicePathMac(const EFI_DEVICE_PATH_PROTOCOL* Path, EFI_MAC_ADDRESS* Mac);

// The first six bytes of a MAC address as "00:1a:2b:3c:4d:5e" (lower-case, zero-padded) in Buffer,
// BufferSize bytes.
void FormatMacText(const EFI_MAC_ADDRESS& Mac, CHAR16* Buffer, UINTN BufferSize);

// Reads the PCI device ID of the function that carries a NIC handle.
using NicDeviceIdReader = EFI_STATUS (*)(EFI_HANDLE Nic, UINT16* DeviceId);
// With DeviceId 0, the handle at the 1-based Index; otherwise the Index-th handle whose device ID,
// as ReadDeviceId gives it, equals DeviceId. A reader failure is returned at once; no such handle
// gives EFI_NOT_FOUND.
EFI_STATUS SelectNicHandle(const wc::HandleBuffer& Handles, UINT16 DeviceId, UINT64 Index,
                           NicDeviceIdReader ReadDeviceId, EFI_HANDLE* Nic);

enum class NicChoice { Chosen, NoNic, NotThere, LookupFailed };
// Chooses the NIC a network test runs on among the handles that carry the managed-network service
// binding (left in Handles): by DeviceId and Index as SelectNicHandle does, reading device IDs from
// PCI configuration. *Status is the lookup's status when it failed.
NicChoice ChooseNic(UINT16 DeviceId, UINT64 Index, wc::HandleBuffer& Handles, EFI_HANDLE* Nic,
                    EFI_STATUS* Status);
