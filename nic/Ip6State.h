// What the firmware's IPv6 configuration says of a NIC: its policy, the addresses that passed
// duplicate-address detection and the default router, read from the IPv6 configuration protocol's
// interface information.
#pragma once
#include "uefi/protocol/Ip6.h"

constexpr UINTN kMaxIp6Addresses = 8;

struct Ip6State {
  bool PolicyRead;
  EFI_IP6_CONFIG_POLICY Policy;
  UINT32 AddressCount; // all the firmware listed; the first kMaxIp6Addresses are kept
  EFI_IP6_ADDRESS_INFO Addresses[kMaxIp6Addresses];
  bool HasRouter; // a default route (::/0) with a gateway
  EFI_IPv6_ADDRESS Router;
};

// How many of the listed addresses the state holds (the first kMaxIp6Addresses).
inline UINTN KeptAddressCount(const Ip6State& State) {
  return State.AddressCount < kMaxIp6Addresses ? State.AddressCount : kMaxIp6Addresses;
}

// Reads the state through the NIC's IPv6 configuration protocol. EFI_UNSUPPORTED when the NIC has
// none; otherwise the status of reading the interface information (the policy is read when it can
// be, and PolicyRead says whether it was).
EFI_STATUS ReadIp6State(EFI_HANDLE Nic, Ip6State* State);

// Fills State from interface information as the protocol handed it over, Size bytes: counts are
// taken only as far as the arrays they describe can be where the firmware said (a null array with a
// count, or a count past what the size allows when the array lies inside the buffer, counts 0).
void DigestIp6InterfaceInfo(const EFI_IP6_CONFIG_INTERFACE_INFO* Info, UINTN Size, Ip6State* State);

// The firmware's IPv6 configures itself from router advertisements only under the automatic
// policy, and EDK2 starts every NIC under the manual one: with no manual address that leaves a NIC
// with its link-local address alone. The owner switches such a NIC to automatic for its lifetime
// and puts the manual policy back on release (the firmware then drops what it configured); a NIC
// with manual addresses, or already automatic, is left alone.
class Ip6AutomaticPolicy {
public:
  Ip6AutomaticPolicy() = default;
  Ip6AutomaticPolicy(const Ip6AutomaticPolicy&) = delete;
  Ip6AutomaticPolicy& operator=(const Ip6AutomaticPolicy&) = delete;
  ~Ip6AutomaticPolicy() { Restore(); }

  // EFI_SUCCESS when the NIC is now under the automatic policy (Switched: by this owner), or keeps
  // its manual addresses (EFI_ALREADY_STARTED); otherwise the status of reading or setting it.
  EFI_STATUS Apply(EFI_HANDLE Nic, bool* Switched);
  void Restore();

private:
  EFI_IP6_CONFIG_PROTOCOL* config_ = nullptr;
};
