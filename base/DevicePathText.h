// Device paths as text. Uses the firmware's EFI_DEVICE_PATH_TO_TEXT_PROTOCOL when it is present and
// falls back to the module's own conversion for the nodes a NIC or a file path carries.
#pragma once
#include "uefi/protocol/DevicePath.h"

UINTN DevicePathNodeLength(const EFI_DEVICE_PATH_PROTOCOL* Node);
const EFI_DEVICE_PATH_PROTOCOL* NextDevicePathNode(const EFI_DEVICE_PATH_PROTOCOL* Node);
bool IsDevicePathEnd(const EFI_DEVICE_PATH_PROTOCOL* Node);
// Size in bytes of the whole path including the end node, or 0 for a malformed path.
UINTN DevicePathSize(const EFI_DEVICE_PATH_PROTOCOL* Path);

// Pool text of the path (the caller frees it), or null when out of memory or Path is null.
CHAR16* DevicePathToText(const EFI_DEVICE_PATH_PROTOCOL* Path, BOOLEAN DisplayOnly, BOOLEAN AllowShortcuts);
// The module's own conversion, without the firmware protocol.
CHAR16* DevicePathToTextFallback(const EFI_DEVICE_PATH_PROTOCOL* Path, BOOLEAN DisplayOnly);
