// ICMPv6 echo through the firmware's IPv6 protocol: a new IPv6 child of the NIC, configured for
// ICMPv6 from a source address the caller chose, sends echo requests one a second and counts the
// replies that carry its identifier and one of its sequence numbers, each once.
#pragma once
#include "uefi/protocol/Ip6.h"

constexpr UINTN kEcho6PayloadBytes = 56;
constexpr UINT32 kMaxEcho6Requests = 64;

struct Echo6Run {
  UINT16 Identifier;
  UINT32 Sent;
  UINT32 Replies;                        // distinct requests answered
  UINT32 Duplicates;                     // replies to a request already answered, not counted again
  UINT32 Strays;                         // echo replies with another identifier, sequence or source
  UINT64 Answered;                       // bit n: request n was answered
  UINT64 RoundTripUs[kMaxEcho6Requests]; // by sequence number; 0 when unanswered
};

// Count (1 to kMaxEcho6Requests) requests from Source to Target. EFI_SUCCESS when every one was
// answered; EFI_TIMEOUT when some were not (the run gives up about two seconds after the last
// request); otherwise the failing firmware status (Configure, Transmit: EFI_NO_MAPPING when the
// source is not usable yet, EFI_NOT_FOUND without a route), or EFI_OUT_OF_RESOURCES. Everything
// the run made is released before it returns.
EFI_STATUS ExecutePing6Process(EFI_HANDLE Nic, const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Target,
                               UINT32 Count, Echo6Run* Run);

// The request with this identifier and sequence, its checksum over the pseudo-header filled in.
void BuildEcho6Request(UINT8* Message, const EFI_IPv6_ADDRESS& Source, const EFI_IPv6_ADDRESS& Target,
                       UINT16 Identifier, UINT16 Sequence);

// Checks one received ICMPv6 message (Length bytes, from Source): an echo reply to Run's identifier
// and a sequence below Sent, from Target. Counts it in Run (as a reply, a duplicate or a stray) and
// gives the sequence it answers, or -1.
INT32 TakeEcho6Reply(const UINT8* Message, UINTN Length, const EFI_IPv6_ADDRESS& Source,
                     const EFI_IPv6_ADDRESS& Target, Echo6Run* Run);
