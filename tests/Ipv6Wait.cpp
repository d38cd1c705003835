#include "tests/Ipv6Wait.h"

#include "base/Globals.h"
#include "base/Ipv6Text.h"
#include "base/Owners.h"
#include "nic/FirmwareTraits.h"
#include "nic/NicAccess.h"
#include "report/Output.h"

namespace {

constexpr UINT64 kOneSecond = 10000000; // timer units of 100 ns
constexpr UINTN kSolicitEvery = 4;
constexpr UINTN kProbeAfter = 3;    // seconds without the link-local address before it is probed
constexpr UINTN kAnswerSeconds = 3; // for a router to answer the solicitation

bool HasInterfaceId(const EFI_IPv6_ADDRESS& A, const UINT8 Id[8]) {
  for (UINTN i = 0; i < 8; ++i) {
    if (A.Addr[8 + i] != Id[i])
      return false;
  }
  return true;
}

bool Listed(const Ip6State& State, const EFI_IPv6_ADDRESS& A) {
  UINTN n = KeptAddressCount(State);
  for (UINTN i = 0; i < n; ++i) {
    if (SameIpv6Address(State.Addresses[i].Address, A))
      return true;
  }
  return false;
}

bool HasLinkLocal(const Ip6State& State) {
  UINTN n = KeptAddressCount(State);
  for (UINTN i = 0; i < n; ++i) {
    if (IsLinkLocalIpv6(State.Addresses[i].Address))
      return true;
  }
  return false;
}

EFI_IPv6_ADDRESS LinkLocalOf(const UINT8 Id[8]) {
  EFI_IPv6_ADDRESS prefix = {{0xFE, 0x80}};
  return AddressWithInterfaceId(prefix, Id);
}

// The prefix of the last advertisement that asks for SLAAC (autonomous, 64 bits), if any.
const Ipv6Prefix* SlaacPrefix(const Ipv6Seen& Seen) {
  if (Seen.Advertisements == 0)
    return nullptr;
  for (UINTN i = 0; i < Seen.Ra.PrefixCount && i < kMaxAdvertisedPrefixes; ++i) {
    const Ipv6Prefix& p = Seen.Ra.Prefixes[i];
    if (p.Autonomous && p.Length == 64 && p.ValidLifetime != 0 && !IsLinkLocalIpv6(p.Prefix))
      return &p;
  }
  return nullptr;
}

bool ClaimedByOther(const Ipv6Picture& P, const EFI_IPv6_ADDRESS& A, NeighborClaim* Claim) {
  UINTN n = P.Seen.Claims < kMaxNeighborClaims ? P.Seen.Claims : kMaxNeighborClaims;
  for (UINTN i = 0; i < n; ++i) {
    if (SameIpv6Address(P.Seen.Claimed[i].Address, A) && !Listed(P.State, A)) {
      if (Claim != nullptr)
        *Claim = P.Seen.Claimed[i];
      return true;
    }
  }
  return false;
}

bool HasDhcp6Address(const Ipv6Picture& P) {
  UINTN n = KeptAddressCount(P.State);
  for (UINTN i = 0; i < n; ++i) {
    if (Ipv6Origin(P, P.State.Addresses[i].Address)[0] == u'D')
      return true;
  }
  return false;
}

} // namespace

const CHAR16* Ipv6Origin(const Ipv6Picture& P, const EFI_IPv6_ADDRESS& A) {
  if (IsLinkLocalIpv6(A))
    return u"link-local";
  if (P.Seen.Dhcp6Offered && SameIpv6Address(P.Seen.Dhcp6Address, A))
    return u"DHCPv6";
  const Ipv6Prefix* slaac = SlaacPrefix(P.Seen);
  if (HasInterfaceId(A, P.InterfaceId) && (slaac == nullptr || SamePrefix(A, slaac->Prefix, 64)))
    return u"SLAAC";
  if (P.State.PolicyRead && P.State.Policy == Ip6ConfigPolicyManual)
    return u"manual (set by hand, or by the firmware's HTTP boot)";
  return u"DHCPv6";
}

Ipv6Readiness JudgeIpv6(const Ipv6Picture& P, UINTN Seconds, bool Final, NeighborClaim* Claim) {
  EFI_IPv6_ADDRESS linkLocal = LinkLocalOf(P.InterfaceId);
  const Ipv6Prefix* slaac = SlaacPrefix(P.Seen);
  EFI_IPv6_ADDRESS slaacAddress =
      slaac != nullptr ? AddressWithInterfaceId(slaac->Prefix, P.InterfaceId) : linkLocal;
  if (ClaimedByOther(P, linkLocal, Claim) || (slaac != nullptr && ClaimedByOther(P, slaacAddress, Claim)) ||
      (P.Seen.Dhcp6Offered && ClaimedByOther(P, P.Seen.Dhcp6Address, Claim)))
    return Ipv6Readiness::Duplicate;

  bool hasLinkLocal = HasLinkLocal(P.State);
  bool advertised = P.Seen.Advertisements != 0;
  bool router = P.State.HasRouter || (advertised && P.Seen.Ra.Lifetime != 0);
  // Under the manual policy the firmware takes nothing from the router: its addresses are the ones
  // set by hand (or by its own HTTP boot), and the flags ask nothing of it.
  bool manual = P.State.PolicyRead && P.State.Policy == Ip6ConfigPolicyManual;
  bool wantsDhcp6 = !manual && advertised && P.Seen.Ra.Managed && !HasDhcp6Address(P);
  bool wantsSlaac = !manual && slaac != nullptr && !Listed(P.State, slaacAddress);

  // The flags and prefixes come with an advertisement: before one is seen, a firmware that already
  // knows its router gets a few seconds for the answer to the solicitation.
  bool heard = advertised || (P.State.HasRouter && Seconds >= kAnswerSeconds) || Final;
  if (hasLinkLocal && heard && (router || P.TargetGiven) && !wantsDhcp6 && !wantsSlaac)
    return Ipv6Readiness::Ready;
  if (!Final) {
    // A router that did not answer three solicitations will not come, and one that advertised a
    // lifetime of 0 will not become a default router: unless the test was given its target, the
    // wait ends there.
    if (Seconds >= kRouterWaitSeconds && hasLinkLocal && !router) {
      if (P.TargetGiven)
        return Ipv6Readiness::Ready;
      return advertised ? Ipv6Readiness::NotDefaultRouter : Ipv6Readiness::NoRouter;
    }
    return Ipv6Readiness::Waiting;
  }
  if (!hasLinkLocal)
    return Ipv6Readiness::NoLinkLocal;
  if (!router && !P.TargetGiven)
    return advertised ? Ipv6Readiness::NotDefaultRouter : Ipv6Readiness::NoRouter;
  if (wantsDhcp6)
    return Ipv6Readiness::Dhcp6Unanswered;
  if (wantsSlaac)
    return Ipv6Readiness::SlaacMissing;
  return Ipv6Readiness::Ready;
}

void SayIpv6Picture(const Ipv6Picture& P) {
  CHAR16 text[kIpv6TextChars];
  if (P.State.PolicyRead)
    LogPrint(u"IPv6 configuration policy: %s\r\n",
             P.State.Policy == Ip6ConfigPolicyManual ? u"manual" : u"automatic");
  UINTN n = KeptAddressCount(P.State);
  if (n == 0)
    LogPrint(u"The NIC has no IPv6 address in use.\r\n");
  for (UINTN i = 0; i < n; ++i) {
    FormatIpv6Address(P.State.Addresses[i].Address, text, sizeof(text));
    LogPrint(u"Address %s/%d: %s, in use\r\n", text, P.State.Addresses[i].PrefixLength,
             Ipv6Origin(P, P.State.Addresses[i].Address));
  }
  if (P.State.AddressCount > n)
    LogPrint(u"... and %d more addresses\r\n", P.State.AddressCount - n);
  if (P.Seen.Advertisements != 0) {
    FormatIpv6Address(P.Seen.Router, text, sizeof(text));
    LogPrint(u"Router advertisement from %s: router lifetime %d s, managed (M) %d, other (O) %d, %d "
             u"prefix(es)\r\n",
             text, P.Seen.Ra.Lifetime, P.Seen.Ra.Managed ? 1 : 0, P.Seen.Ra.Other ? 1 : 0,
             P.Seen.Ra.PrefixCount);
    for (UINTN i = 0; i < P.Seen.Ra.PrefixCount && i < kMaxAdvertisedPrefixes; ++i) {
      const Ipv6Prefix& p = P.Seen.Ra.Prefixes[i];
      FormatIpv6Address(p.Prefix, text, sizeof(text));
      LogPrint(u"Prefix %s/%d: on-link %d, autonomous (SLAAC) %d, valid %d s, preferred %d s\r\n", text,
               p.Length, p.OnLink ? 1 : 0, p.Autonomous ? 1 : 0, p.ValidLifetime, p.PreferredLifetime);
    }
  } else {
    LogPrint(u"No router advertisement came while the test watched.\r\n");
  }
  if (P.State.HasRouter) {
    FormatIpv6Address(P.State.Router, text, sizeof(text));
    LogPrint(u"Default router: %s\r\n", text);
  }
  if (P.Seen.Dhcp6Answers != 0) {
    FormatIpv6Address(P.Seen.Dhcp6Address, text, sizeof(text));
    LogPrint(u"DHCPv6: %d answer(s), status %d, address %s\r\n", P.Seen.Dhcp6Answers, P.Seen.Dhcp6Status,
             P.Seen.Dhcp6Offered ? text : u"none");
  }
}

Ipv6Readiness WaitForIpv6(EFI_HANDLE Nic, const EFI_MAC_ADDRESS& Mac, bool TargetGiven,
                          const Ipv6WaitProgress& Progress, Ipv6Picture* Picture, NeighborClaim* Claim) {
  *Picture = {};
  Picture->TargetGiven = TargetGiven;
  InterfaceIdFromMac(Mac, Picture->InterfaceId);
  Ipv6Watch watch;
  bool watching = !EFI_ERROR(watch.Open(Nic, Mac));
  if (!watching)
    LogPrint(u"The link cannot be watched for router advertisements; the firmware's state alone counts.\r\n");
  wc::EventOwner timer;
  if (EFI_ERROR(timer.Create(EVT_TIMER, TPL_CALLBACK)) ||
      EFI_ERROR(gBS->SetTimer(timer.Get(), TimerPeriodic, kOneSecond))) {
    LogPrint(u"No timer for the wait for IPv6 addresses.\r\n");
    ReadIp6State(Nic, &Picture->State);
    return JudgeIpv6(*Picture, kIpv6WaitSeconds, true, Claim);
  }
  bool probed = false;
  for (UINTN seconds = 0;; ++seconds) {
    if (watching && Picture->Seen.Advertisements == 0 && seconds % kSolicitEvery == 0 &&
        seconds < kRouterWaitSeconds)
      watch.SendRouterSolicitation();
    EFI_STATUS status = ReadIp6State(Nic, &Picture->State);
    if (EFI_ERROR(status) && seconds == 0)
      LogPrint(u"The IPv6 configuration cannot be read (%r)\r\n", status);
    Ipv6Readiness verdict = JudgeIpv6(*Picture, seconds, seconds >= kIpv6WaitSeconds, Claim);
    if (verdict != Ipv6Readiness::Waiting)
      return verdict;
    if (watching && !probed && seconds >= kProbeAfter && !HasLinkLocal(Picture->State)) {
      // No link-local address after seconds of waiting: somebody may hold it.
      probed = true;
      watch.SendDuplicateProbe(AddressWithInterfaceId(EFI_IPv6_ADDRESS{{0xFE, 0x80}}, Picture->InterfaceId));
    }
    if (seconds > 0 && !Progress.Report(Progress.Context, seconds))
      return Ipv6Readiness::Waiting;
    while (EFI_ERROR(gBS->CheckEvent(timer.Get()))) {
      if (watching)
        watch.Poll(Picture->Seen);
      gBS->Stall(10000);
    }
  }
}

void SayIpv6Readiness(Ipv6Readiness Readiness, const NeighborClaim& Claim) {
  CHAR16 text[kIpv6TextChars];
  CHAR16 mac[18];
  switch (Readiness) {
  case Ipv6Readiness::Duplicate:
    FormatIpv6Address(Claim.Address, text, sizeof(text));
    FormatMacText(Claim.Mac, mac, sizeof(mac));
    LogPrint(u"Duplicate address: %s is held by the node with MAC address %s.\r\n", text, mac);
    break;
  case Ipv6Readiness::NoLinkLocal:
    LogPrint(u"The firmware's IPv6 has no link-local address on this NIC.\r\n");
    break;
  case Ipv6Readiness::NoRouter:
    LogPrint(u"No router advertisement in %d s, and the firmware knows no default router.\r\n",
             kRouterWaitSeconds);
    break;
  case Ipv6Readiness::NotDefaultRouter:
    LogPrint(u"The router advertises a router lifetime of 0: it is not a default router.\r\n");
    break;
  case Ipv6Readiness::Dhcp6Unanswered:
    LogPrint(u"The router sets the managed flag (M), and no address came by DHCPv6 in %d s.\r\n",
             kIpv6WaitSeconds);
    break;
  case Ipv6Readiness::SlaacMissing:
    LogPrint(
        u"The router advertises a prefix for SLAAC, and the firmware formed no address from it in %d s.\r\n",
        kIpv6WaitSeconds);
    break;
  case Ipv6Readiness::Waiting:
  case Ipv6Readiness::Ready:
    break;
  }
}

bool NicHasIpv6(EFI_HANDLE Nic) {
  void* binding = nullptr;
  void* config = nullptr;
  bool service = !EFI_ERROR(gBS->HandleProtocol(Nic, &EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID, &binding));
  bool configuration = !EFI_ERROR(gBS->HandleProtocol(Nic, &EFI_IP6_CONFIG_PROTOCOL_GUID, &config));
  if (service && configuration)
    return true;
  LogPrint(u"The NIC has no %s.\r\n", service ? u"IPv6 configuration protocol"
                                              : u"IPv6 service binding (EFI_IP6_SERVICE_BINDING_PROTOCOL)");
  wc::HandleBuffer anywhere;
  if (EFI_ERROR(anywhere.Locate(EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID)) || anywhere.Count() == 0) {
    StackSight sight = LookAtNetworkStack();
    if (!sight.Rng)
      LogPrint(u"The firmware has no random-number generator (EFI_RNG_PROTOCOL), without which EDK2's IPv6 "
               u"driver since 2024 does not start.\r\n");
    else
      LogPrint(u"No NIC has an IPv6 service: the firmware is built without IPv6, or its IPv6 driver did not "
               u"start.\r\n");
  } else {
    LogPrint(u"%d other NIC(s) have an IPv6 service: the IPv6 driver did not start on this one.\r\n",
             anywhere.Count());
  }
  return false;
}
