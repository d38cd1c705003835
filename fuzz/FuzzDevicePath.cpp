// Fuzz target: device paths the firmware hands over (a path that is only an end node included):
// their size, their text, and the PCI location of a NIC whose handle carries one.
#include "fuzz/DevicePathInput.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "base/DevicePathText.h"
#include "base/Memory.h"
#include "fakes/FakeFirmware.h"
#include "nic/Pci.h"
#include "uefi/protocol/DevicePath.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  FuzzedDataProvider in(data, size);
  std::vector<uint8_t> path = FuzzDevicePath(in, 12);
  const auto* p = reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL*>(path.data());
  DevicePathSize(p);
  FreePool(DevicePathToTextFallback(p, FALSE));
  FreePool(DevicePathToTextFallback(p, TRUE));
  EFI_HANDLE nic = reinterpret_cast<EFI_HANDLE>(0x4444);
  fw.AddProtocol(nic, EFI_DEVICE_PATH_PROTOCOL_GUID, path.data());
  PciLocation location{};
  GetNicPciLocation(nic, &location);
  return 0;
}
