// Bringing a NIC's IPv4 up and learning its DHCP server: the steps every caller takes, in this
// order. The NICs' IPv4 configuration is rewritten (the stored configuration through HII, or every
// NIC's policy switched to DHCP); a DHCP the firmware gave up on is started again; the NIC's own
// address is awaited through the echo engine; then a DHCP exchange on a DHCPv4 child of the NIC
// gives the lease. What differs between callers comes in as a BringUpPolicy; what happened comes
// back as a reason with the firmware's status, which the caller words and scores.
#pragma once
#include "nic/FirmwareTraits.h"
#include "nic/ServiceChildren.h"
#include "ping/IcmpEcho.h"

enum class BringUpReason : UINT8 {
  Up,               // the NIC has its address and DHCP gave a lease (or, address only, the address)
  RewriteFailed,    // the IPv4 configuration could not be rewritten or switched to DHCP
  NoAddress,        // the wait for the NIC's address failed (EFI_NO_MAPPING: none came)
  OperatorAnswered, // the operator answered at one of the caller's reports
  DhcpChildFailed,  // no DHCPv4 child could be opened
  DhcpTimedOut,     // no DHCP server answered within the tries
  DhcpRefused,      // another DHCP client held the NIC's DHCP service throughout
  DhcpNotBound,     // the tries ended with the exchange in another state than bound
  DhcpFailed,       // another firmware failure during DHCP
};

struct BringUpResult {
  BringUpReason Reason;
  EFI_STATUS Status; // the firmware's status behind the reason
};

enum class ConfigRewrite : UINT8 {
  StoredThroughHii, // the NICs' stored IPv4 configuration, where the firmware keeps one
  PolicyToDhcp,     // every NIC's IPv4 configuration policy switched to DHCP
};

// How the DHCP exchange is tried. Attempts run one after the other, each on a new DHCPv4 child
// and each of up to TriesPerChild calls of StartConfigureProcess with TryPause after a failed one.
// Within a try, a refusal (EFI_ACCESS_DENIED) is called again up to RefusalRepeats times
// RefusalPause apart and a time-out up to TimeoutRepeats times TimeoutPause apart, the caller's
// BeforeRetry hook before each time-out repeat; what is left over is a failed try.
struct DhcpTries {
  UINTN Attempts;
  UINTN TriesPerChild;
  UINTN TryPause; // µs
  UINTN RefusalRepeats;
  UINTN RefusalPause; // µs
  UINTN TimeoutRepeats;
  UINTN TimeoutPause; // µs
  bool RequireBound;  // a success counts only with the state bound; otherwise the first success
};

// The caller's side of the bring-up: its reports, each of which may carry the operator's answer.
struct BringUpHooks {
  void* Context;
  // While the address is awaited (a counted wait): Ticks of Total seconds; FALSE ends the bring-up.
  bool (*AddressWaitTick)(void* Context, UINTN Ticks, UINTN Total);
  // Before DHCP is tried again: Attempt is the attempt about to start (from 1), or, within an
  // attempt, the time-out repeat about to run; FALSE ends the bring-up.
  bool (*BeforeRetry)(void* Context, UINTN Attempt, bool Repeat);
};

struct BringUpPolicy {
  ConfigRewrite Rewrite;
  EchoPolicy Echo; // the address wait
  DhcpTries Dhcp;
  // The DHCPv4 child of the lease stays open until the bring-up goes (for a caller that pings with
  // it open); otherwise each attempt's child is closed at the attempt's end.
  bool HoldChild;
  // The bring-up ends Up with the NIC's address, without a DHCP exchange of its own (for a caller
  // that needs no DHCP server: the firmware's own lease gave the address and the DNS servers).
  bool AddressOnly = false;
};

// The NIC's network services the bring-up uses.
struct NicServices {
  EFI_HANDLE Ip4;     // IPv4 service binding
  EFI_HANDLE Dhcp4;   // DHCPv4 service binding
  EFI_HANDLE Config2; // IPv4 configuration 2
};

class Ipv4BringUp {
public:
  Ipv4BringUp(const BringUpPolicy& Policy, const BringUpHooks& Hooks) : policy_(Policy), hooks_(Hooks) {}
  Ipv4BringUp(const Ipv4BringUp&) = delete;
  Ipv4BringUp& operator=(const Ipv4BringUp&) = delete;

  BringUpResult Run(const NicServices& Nic);
  // The lease of a bring-up that ended Up.
  const EFI_DHCP4_MODE_DATA& Lease() const { return lease_; }

private:
  BringUpResult RunDhcp(EFI_HANDLE Dhcp4Service);
  // One attempt's tries on one child; Done is set when the attempt decided the bring-up.
  BringUpResult TryOnChild(Dhcp4Child& Child, bool* Done);
  static EFI_STATUS ReportTick(void* Context, UINTN Ticks, UINTN Total);

  const BringUpPolicy& policy_;
  const BringUpHooks& hooks_;
  EFI_DHCP4_MODE_DATA lease_ = {};
  Dhcp4Child held_;
  UINTN lastTick_ = 0;
  bool answered_ = false; // the operator answered at one of the hooks
};
