// ICMP echo over the firmware's IPv4 protocol: configure an IPv4 child with the NIC's default
// address, wait for the address, send echo requests one a second and count the replies.
#pragma once
#include "uefi/protocol/Ip4.h"

enum class PingVariant : UINT8 { PingTest = 0, Interactive = 1 };

constexpr UINTN kEchoRequestBytes = 272;
constexpr UINT8 kIcmpEchoRequest = 8;
constexpr UINT8 kIcmpEchoReply = 0;

// The interactive variant's report while it waits for the address: Ticks of Total seconds gone.
// A failure ends the wait and the run with EFI_ABORTED.
struct PingProgress {
  EFI_STATUS (*Report)(void* Context, UINTN Ticks, UINTN Total);
  void* Context;
};

EFI_STATUS ExecutePingProcess(EFI_HANDLE Ip4ServiceBindingHandle, const EFI_IPv4_ADDRESS& DestinationAddress,
                              UINT32 Count, const PingProgress* Progress, PingVariant Variant);

// Sets a variant's flag from the firmware: UEFI 2.30 or later, or 2.10 or later on platform family
// 1; an older platform is logged.
void DecideCurrentPlatform(PingVariant Variant);

// Echo request building: the Internet checksum of the request with sequence 0 is kept as a sum,
// and each later request's checksum is derived from it and the new sequence number.
// Returns that sum (taken with the checksum field 0).
UINT16 BuildEchoRequest(UINT8* Request, UINT16 Identifier);
UINT16 OnesComplementSum(const UINT8* Data, UINTN Length);
void SetEchoSequence(UINT8* Request, UINT16 BaseSum, UINT16 Sequence);

// Checks one received packet; TRUE when it is an echo reply from the destination for this run
// (and counts it).
BOOLEAN CheckEchoReply(const EFI_IP4_RECEIVE_DATA* RxData, const EFI_IPv4_ADDRESS& Destination,
                       PingVariant Variant);
UINT32 EchoReplyCount(PingVariant Variant);
void ResetEchoReplyCount(PingVariant Variant);
