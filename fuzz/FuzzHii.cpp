// Fuzz target: the HII rewrite over configuration-access handles the firmware names: children of the
// NIC's managed network with any device paths, built into the
// configuration header and routed.
#include "fuzz/DevicePathInput.h"

#include <cstdint>
#include <vector>

#include "base/Globals.h"
#include "fakes/FakeNetwork.h"
#include "nic/HiiConfig.h"
#include "report/Output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FakeFirmware fw;
  ResetOutputState();
  gImageHandle = reinterpret_cast<EFI_HANDLE>(0x1000);
  FuzzedDataProvider in(data, size);
  FakeNic nic{fw, 3, 0x56};
  FakeHiiRouting hii{fw};
  hii.routeStatus = in.ConsumeBool() ? EFI_SUCCESS : EFI_NOT_FOUND;
  UINTN children = in.ConsumeIntegralInRange<UINTN>(0, 3);
  std::vector<std::vector<uint8_t>> paths(children);
  for (UINTN i = 0; i < children; ++i) {
    paths[i] = FuzzDevicePath(in, 6);
    EFI_HANDLE child = reinterpret_cast<EFI_HANDLE>(0x7000 + i);
    fw.AddProtocol(child, EFI_HII_CONFIG_ACCESS_PROTOCOL_GUID, &hii);
    fw.AddProtocol(child, EFI_DEVICE_PATH_PROTOCOL_GUID, paths[i].data());
    fw.RecordOpen(nic.handle, EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID,
                  reinterpret_cast<EFI_HANDLE>(0x7700), child, EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER);
  }
  SetNicByHii();
  gImageHandle = nullptr;
  return 0;
}
