// The PCI side of the NIC tests: the table of PCI root bridges with their bus, I/O and memory
// ranges (from their ACPI resource descriptors), configuration reads by segment, bus, device and
// function, and the PCI function that carries a NIC.
#pragma once
#include "uefi/protocol/Pci.h"

struct PCI_ROOT_BRIDGE_ENTRY {
  EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* RootBridgeIo;
  UINT64* BusMin;
  UINT64* BusMax;
  UINTN BusRangeCount;
  UINT64* IoMin;
  UINT64* IoMax;
  UINTN IoRangeCount;
  UINT64* MemMin;
  UINT64* MemMax;
  UINTN MemRangeCount;
};

// (Re)builds the module-wide table, one entry per root bridge; EFI_PROTOCOL_ERROR when there is
// none. Every range bound has the descriptor's translation offset added.
EFI_STATUS BuildPciRootBridgeTable();
UINTN PciRootBridgeCount();
const PCI_ROOT_BRIDGE_ENTRY* PciRootBridgeAt(UINTN Index);
// The highest segment number among the root bridges (all-ones for an empty table).
UINT64 PciMaxSegment();
// Gives the table back (for tests that check that nothing stays allocated).
void FreePciRootBridgeTable();

// The table for one run: built by Build(), given back whichever way the run ends.
class PciRootBridgeTableOwner {
public:
  PciRootBridgeTableOwner() = default;
  PciRootBridgeTableOwner(const PciRootBridgeTableOwner&) = delete;
  PciRootBridgeTableOwner& operator=(const PciRootBridgeTableOwner&) = delete;
  ~PciRootBridgeTableOwner() { FreePciRootBridgeTable(); }
  EFI_STATUS Build() { return BuildPciRootBridgeTable(); }
};

EFI_STATUS PciConfigRead16(UINTN Segment, UINTN Bus, UINTN Device, UINTN Function, UINTN Register,
                           UINT16* Value);
EFI_STATUS PciConfigRead8(UINTN Segment, UINTN Bus, UINTN Device, UINTN Function, UINTN Register,
                          UINT8* Value);

struct PciLocation {
  UINTN Segment, Bus, Device, Function;
};
// The location of the PCI function whose device path begins the NIC handle's device path (the
// longest such path). A USB or non-PCI NIC gives EFI_UNSUPPORTED; a path that cannot be turned
// into text or that no PCI function begins gives EFI_NOT_FOUND.
EFI_STATUS GetNicPciLocation(EFI_HANDLE Nic, PciLocation* Location);
// The PCI device ID (configuration register 2) of the function that carries the NIC.
EFI_STATUS ReadNicDeviceId(EFI_HANDLE Nic, UINT16* DeviceId);
