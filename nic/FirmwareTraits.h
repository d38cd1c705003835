// What the network tests assume of the firmware, read from the firmware once per run and logged in
// one place. A port to a firmware whose network stack behaves differently starts here: each field
// says what the firmware showed and which step of the tests it decides, and the steps read the
// field instead of asking the firmware again.
#pragma once
#include "uefi/Base.h"

struct FirmwareTraits {
  UINT32 UefiRevision;  // the system table header's
  UINTN PlatformFamily; // from SMBIOS; 0 unknown
  // UEFI 2.30 or later, or 2.10 or later on platform family 1. On an older platform the first look
  // for an address traces the IPv4 mode data, and an address wait counted in ticks lasts one.
  BOOLEAN CurrentPlatform;
  // The NICs' IPv4 configuration is kept by IPv4 configuration 2 (EDK2's network stack). There a
  // NIC whose cable came after the firmware's DHCP gave up needs its DHCP policy set again, and an
  // IPv4 child configured before the address came can be left on the old default interface and
  // must be configured again. Without the protocol neither step runs.
  bool Ip4Config2;
};

// What can be seen of why a NIC has a simple network but no managed-network service binding (the
// network stack did not start on it).
struct StackSight {
  UINTN SimpleNetworks; // handles with a simple network
  UINTN Unbound;        // of those, the ones no driver holds (the network drivers never connected)
  bool Rng;             // the firmware has a random-number generator (EFI_RNG_PROTOCOL): EDK2's network
                        // drivers since its 2024 security fixes do not start without one
};
// Looks; logs nothing (the caller says what it means).
StackSight LookAtNetworkStack();

// Reads the traits. An old platform gets the line "Old UEFI 0x%x platform, family id 0x%x"; what
// was found goes to the debug log.
FirmwareTraits ReadFirmwareTraits();

// The traits a run has before it reads them: a current platform with EDK2's network stack.
constexpr FirmwareTraits kAssumedFirmware = {0, 0, TRUE, true};
