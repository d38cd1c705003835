#include "nic/NicAccess.h"
#include "base/DevicePathText.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Print.h"
#include "base/String.h"
#include "nic/Pci.h"
#include "nic/ServiceChildren.h"

namespace {
constexpr UINTN kMacNodeBytes = 4 + sizeof(EFI_MAC_ADDRESS);
} // namespace

EFI_STATUS OpenDevicePath(EFI_HANDLE Handle, wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL>& Path) {
  return Path.Open(Handle, EFI_DEVICE_PATH_PROTOCOL_GUID, gImageHandle, nullptr,
                   EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
}

EFI_STATUS DevicePathTextOf(EFI_HANDLE Handle, wc::PoolPtr<CHAR16>& Text) {
  Text.Reset();
  wc::OpenedProtocol<EFI_DEVICE_PATH_PROTOCOL> path;
  EFI_STATUS status = OpenDevicePath(Handle, path);
  if (!EFI_ERROR(status))
    Text.Reset(DevicePathToText(path.Get(), FALSE, FALSE));
  return status;
}

const EFI_DEVICE_PATH_PROTOCOL* LastDevicePathNode(const EFI_DEVICE_PATH_PROTOCOL* Path) {
  if (Path == nullptr || DevicePathSize(Path) == 0)
    return nullptr;
  const EFI_DEVICE_PATH_PROTOCOL* last = nullptr;
  for (const EFI_DEVICE_PATH_PROTOCOL* node = Path; !IsDevicePathEnd(node); node = NextDevicePathNode(node))
    last = node;
  return last;
}

BOOLEAN DevicePathMac(const EFI_DEVICE_PATH_PROTOCOL* Path, EFI_MAC_ADDRESS* Mac) {
  const EFI_DEVICE_PATH_PROTOCOL* node = LastDevicePathNode(Path);
  if (node == nullptr || node->Type != MESSAGING_DEVICE_PATH || node->SubType != MSG_MAC_ADDR_DP ||
      DevicePathNodeLength(node) < kMacNodeBytes)
    return FALSE;
  if (Mac != nullptr)
    CopyMem(Mac, reinterpret_cast<const UINT8*>(node) + 4, sizeof(EFI_MAC_ADDRESS));
  return TRUE;
}

void FormatMacText(const EFI_MAC_ADDRESS& Mac, CHAR16* Buffer, UINTN BufferSize) {
  const UINT8* a = Mac.Addr;
  SPrint(Buffer, BufferSize, u"%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
  StrLwrAscii(Buffer); // the print routine's hexadecimal digits are upper-case
}

EFI_STATUS SelectNicHandle(const wc::HandleBuffer& Handles, UINT16 DeviceId, UINT64 Index,
                           NicDeviceIdReader ReadDeviceId, EFI_HANDLE* Nic) {
  if (Nic == nullptr)
    return EFI_INVALID_PARAMETER;
  *Nic = nullptr;
  if (DeviceId == 0) {
    *Nic = Handles.At(Index);
    return *Nic != nullptr ? EFI_SUCCESS : EFI_NOT_FOUND;
  }
  if (ReadDeviceId == nullptr)
    return EFI_UNSUPPORTED;
  UINT64 seen = 0;
  for (UINTN i = 0; i < Handles.Count(); ++i) {
    UINT16 id = 0;
    EFI_STATUS status = ReadDeviceId(Handles[i], &id);
    if (EFI_ERROR(status))
      return status;
    if (id == DeviceId && ++seen == Index) {
      *Nic = Handles[i];
      return EFI_SUCCESS;
    }
  }
  return EFI_NOT_FOUND;
}

NicChoice ChooseNic(UINT16 DeviceId, UINT64 Index, wc::HandleBuffer& Handles, EFI_HANDLE* Nic,
                    EFI_STATUS* Status) {
  *Nic = nullptr;
  *Status = Handles.Locate(EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID);
  if (*Status == EFI_NOT_FOUND)
    return NicChoice::NoNic;
  if (EFI_ERROR(*Status))
    return NicChoice::LookupFailed;
  if (EFI_ERROR(SelectNicHandle(Handles, DeviceId, Index, ReadNicDeviceId, Nic)))
    return NicChoice::NotThere;
  return NicChoice::Chosen;
}
