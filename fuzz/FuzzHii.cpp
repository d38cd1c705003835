// Fuzz target: the HII rewrite over configuration-access handles the firmware names: children of the
// NIC's managed network with any device paths, built into the
// configuration header and routed.
#include "fuzz/DevicePathInput.h"

#include <cstdint>
#include <vector>

#include "fakes/FakeMachine.h"
#include "fuzz/NicFuzzWorld.h"
#include "nic/HiiConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NicFuzzWorld world;
  FakeFirmware& fw = world.fw;
  FakeNic& nic = world.nic;
  FuzzedDataProvider in(data, size);
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
  return 0;
}
