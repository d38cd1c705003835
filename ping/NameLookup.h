// A host name resolved by the firmware's DNS client on one NIC, with the DNS servers the NIC's
// IPv4 configuration holds (from its DHCP lease or set by hand): the step that tells a name nobody
// knows from a server nobody reaches before HTTP would fold both into one failed request.
#pragma once
#include "uefi/protocol/Dns4.h"

enum class LookupEnd : UINT8 {
  Found,    // Address holds the first address of the answer
  NoDns,    // the NIC has no DNS service (the firmware is built without DNS)
  NoServer, // the NIC's IPv4 configuration holds no DNS server
  NotFound, // the server answered that the name does not exist
  NoAnswer, // no server answered within the time
  Failed,   // another failure (Status says which)
};

struct LookupResult {
  LookupEnd End = LookupEnd::Failed;
  EFI_STATUS Status = EFI_NOT_STARTED;
  EFI_IPv4_ADDRESS Address = {};
  UINTN Servers = 0;            // how many DNS servers the configuration holds
  EFI_IPv4_ADDRESS Server = {}; // the first of them
  UINT64 Microseconds = 0;
};

// Resolves Name (a host name, not an address) through a DNS child of the NIC, its answers kept in
// the firmware's DNS cache for the HTTP client that follows. Waits at most TimeoutMs.
LookupResult LookUpHostName(EFI_HANDLE Nic, const CHAR16* Name, UINT32 TimeoutMs);
