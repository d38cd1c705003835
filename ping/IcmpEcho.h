// ICMP echo over the firmware's IPv4 protocol: configure an IPv4 child with the NIC's default
// address, wait for the address, send echo requests one a second and count the replies. The
// engine knows nothing of its callers: what differs between them comes in as an EchoPolicy.
#pragma once
#include "nic/FirmwareTraits.h"
#include "uefi/protocol/Ip4.h"

constexpr UINTN kEchoRequestBytes = 272;
constexpr UINT8 kIcmpEchoRequest = 8;
constexpr UINT8 kIcmpEchoReply = 0;

// A caller's reply counter and echo identifier: the matching replies of its last run, and the
// identifier its requests carry and its replies must carry.
struct EchoCounter {
  UINT32 Replies;
  UINT16 Identifier;
};

// A report while the engine waits for the address: Ticks of Total seconds gone. A failure ends the
// wait and the run with EFI_ABORTED.
struct PingProgress {
  EFI_STATUS (*Report)(void* Context, UINTN Ticks, UINTN Total);
  void* Context;
};

// How long the engine waits for the address when the first second brought none.
enum class AddressWait : UINT8 {
  OneTimer,     // one 60-second timer; no reports
  CountedTicks, // 60 one-second ticks, each reported through the progress callback; on an older
                // platform one tick and no reports
};

struct EchoPolicy {
  EchoCounter* Counter;
  bool PrintReplies; // the line for each counted reply goes to the console too, not only the log
  AddressWait Wait;
  const FirmwareTraits* Firmware;
};

// One ping run on a new IPv4 child of the NIC's IPv4 service: the child is configured for ICMP with
// the NIC's default address; when the driver has no address yet (EFI_NO_MAPPING) the engine looks
// for one second, then waits as the policy says (the long wait is logged as a mapping error, and a
// child the firmware left on an old default interface is configured again once, logged). With the
// address, Count echo requests go to DestinationAddress one a second, and replies from it carrying
// the policy's identifier are counted. Count 0 only brings the address up. Returns EFI_SUCCESS when
// the child was configured and Count replies came; EFI_TIMEOUT when replies were missing (the run
// gives up about two seconds after the last request); EFI_NO_MAPPING when no address came;
// EFI_ABORTED when the progress callback refused; EFI_OUT_OF_RESOURCES without memory for the
// request; otherwise the failing firmware status. Everything the run made is released before it
// returns.
EFI_STATUS ExecutePingProcess(EFI_HANDLE Ip4ServiceBindingHandle, const EFI_IPv4_ADDRESS& DestinationAddress,
                              UINT32 Count, const PingProgress* Progress, const EchoPolicy& Policy);

// Echo request building: the Internet checksum of the request with sequence 0 is kept as a sum,
// and each later request's checksum is derived from it and the new sequence number.
// Returns that sum (taken with the checksum field 0).
UINT16 BuildEchoRequest(UINT8* Request, UINT16 Identifier);
UINT16 OnesComplementSum(const UINT8* Data, UINTN Length);
void SetEchoSequence(UINT8* Request, UINT16 BaseSum, UINT16 Sequence);

// Checks one received packet; TRUE when it is an echo reply from the destination carrying the
// policy's identifier (and counts it in the policy's counter).
BOOLEAN CheckEchoReply(const EFI_IP4_RECEIVE_DATA* RxData, const EFI_IPv4_ADDRESS& Destination,
                       const EchoPolicy& Policy);
