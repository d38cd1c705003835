// The machine around the fake NICs, as the NIC tests meet it: a driver that names a NIC through both
// component-name protocols, the PCI root bridge that reads every FakeNic's configuration space through
// ACPI-described bus ranges, the HII configuration router, and the diagnostics manager's menus. Every
// protocol call that can fail takes part in the fake firmware's fault injection.
#pragma once
#include <string>
#include <vector>

#include "fakes/FakeNetwork.h"
#include "uefi/protocol/ComponentName.h"
#include "uefi/protocol/Hii.h"

// The HII configuration router: BlockToConfig answers the request itself, RouteConfig answers
// routeStatus (OVMF keeps no driver for the stored IPv4 configuration: EFI_NOT_FOUND).
struct FakeHiiRouting {
  explicit FakeHiiRouting(FakeFirmware& fw);
  EFI_HII_CONFIG_ROUTING_PROTOCOL protocol{};
  EFI_STATUS routeStatus = EFI_NOT_FOUND;
  std::vector<std::u16string> routed;
  static inline FakeHiiRouting* current = nullptr;
};

// A driver that manages a NIC's PCI function and names its MAC-layer child, through component name
// 2 (RFC 4646 languages) and component name (ISO 639-2).
struct FakeDriver {
  FakeDriver(FakeFirmware& fw, FakeNic& nic, const char16_t* name);
  EFI_HANDLE handle;
  struct Names {
    EFI_COMPONENT_NAME2_PROTOCOL p;
    FakeDriver* driver;
  } name2{}, name1{};
  std::u16string name;
  EFI_HANDLE controller, child;
};

// The PCI root bridge over bus 0 (one QWORD bus-range descriptor), reading every FakeNic's
// configuration space by bus, device, function and register.
struct FakeRootBridge {
  FakeRootBridge(FakeFirmware& fw, std::vector<FakeNic*> nics);
  EFI_HANDLE handle;
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL protocol{};
  std::vector<FakeNic*> nics;
  std::vector<UINT8> descriptors;
  static inline FakeRootBridge* current = nullptr;
};

// The manager's menu protocols: the menu answers with the item at answer (0-based), or the cancel
// entry when answer is -1, and records what it showed.
struct FakeMenus {
  FakeMenus(FakeFirmware& fw, bool graphics, bool console);
  INT64 answer = 0;
  std::vector<std::u16string> shown; // title, text lines, items
  static inline FakeMenus* current = nullptr;
};
