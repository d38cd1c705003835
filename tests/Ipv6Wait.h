// The IPv6 ping test's wait for its addresses: the firmware's IPv6 configuration read once a
// second beside the watch of the link, until the NIC has what the router asked for or the time is
// up, and the judgement of what was missing. The judgement is a function of what was read and seen,
// so that every verdict can be checked without a firmware.
#pragma once
#include "nic/Ip6State.h"
#include "ping/Ipv6Watch.h"
#include "report/Attempts.h"

enum class Ipv6Readiness : UINT8 {
  Waiting,
  Ready,
  NoLinkLocal,      // the firmware has no link-local address (and nobody claimed it)
  NoRouter,         // no router advertisement and no default router
  NotDefaultRouter, // advertisements came, with a router lifetime of 0
  Dhcp6Unanswered,  // the router asked for DHCPv6 and no address came by it
  SlaacMissing,     // the router advertised a prefix for SLAAC and no address came from it
  Duplicate,        // another node claimed an address the NIC was to have
};

// Seconds the wait takes at most, and after which it gives up on a router that never advertised.
constexpr UINTN kIpv6WaitSeconds = 30;
constexpr UINTN kRouterWaitSeconds = 12;

struct Ipv6Picture {
  Ip6State State;
  Ipv6Seen Seen;
  UINT8 InterfaceId[8]; // from the NIC's MAC address
  bool TargetGiven;     // -target: the test needs no router of its own
};

// The verdict after Seconds of waiting; Final when the time is up. Claim receives the address
// another node claimed, with its MAC address, for Duplicate.
Ipv6Readiness JudgeIpv6(const Ipv6Picture& Picture, UINTN Seconds, bool Final, NeighborClaim* Claim);

// How an address came, as the log names it.
const CHAR16* Ipv6Origin(const Ipv6Picture& Picture, const EFI_IPv6_ADDRESS& Address);

// The addresses, router and prefixes in the log.
void SayIpv6Picture(const Ipv6Picture& Picture);

// Whether the NIC has the firmware's IPv6 (its service binding and configuration protocol); when not,
// the log says what is missing and why it may be.
bool NicHasIpv6(EFI_HANDLE Nic);

// What was missing, in the log (nothing for Ready and Waiting).
void SayIpv6Readiness(Ipv6Readiness Readiness, const NeighborClaim& Claim);

// Progress during the wait: called once a second with the seconds gone; FALSE ends the wait (the
// operator answered).
struct Ipv6WaitProgress {
  bool (*Report)(void* Context, UINTN Seconds);
  void* Context;
};

// The usual progress of the wait: a point a second of an attempt's progress, up to Cap points.
struct Ipv6WaitPoints {
  Attempts* Of;
  UINTN Cap;
  UINTN Given = 0;
  Ipv6WaitProgress Progress() {
    return {[](void* Context, UINTN) {
              auto* p = static_cast<Ipv6WaitPoints*>(Context);
              UINTN step = p->Given < p->Cap ? 1 : 0;
              p->Given += step;
              return p->Of->Advance(step);
            },
            this};
  }
};

// Waits on Nic (its MAC address in Mac): solicits a router at once and every four seconds until
// one advertises, probes for a duplicate of an address that should be there and is not, and judges
// once a second. Returns the verdict (Waiting only when the operator ended the wait) with the
// picture it was made from. A watch that cannot be opened is logged; the wait then goes on with
// the firmware's state alone.
Ipv6Readiness WaitForIpv6(EFI_HANDLE Nic, const EFI_MAC_ADDRESS& Mac, bool TargetGiven,
                          const Ipv6WaitProgress& Progress, Ipv6Picture* Picture, NeighborClaim* Claim);
