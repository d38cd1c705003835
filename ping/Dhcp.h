// One DHCPv4 exchange on a DHCPv4 child, or the lease the service already holds.
#pragma once
#include "uefi/protocol/Dhcp4.h"

constexpr UINT32 kDhcpTimeoutSeconds = 3;

// The configuration both network tests pass: one discover and one request try of three seconds
// each, the event callback that traces the exchange. Timeouts points at the caller's one-element
// list, which must live as long as the call.
EFI_DHCP4_CONFIG_DATA MakeDhcpConfig(UINT32* Timeouts);

// One DHCPv4 exchange on Dhcp4 (a child the caller opened and closes). When the service already
// holds a lease (bound, by the firmware's own client or an earlier run) its mode data is copied to
// ModeData and nothing is configured, started or stopped. Otherwise the child is configured with
// ConfigData (null: the driver's defaults), started (Start returns when the exchange ended), its mode
// data copied out, and stopped; the lease stays in the copy. Returns the first failing call's
// status: EFI_ACCESS_DENIED from Configure while another DHCPv4 client of the NIC is active,
// EFI_TIMEOUT from Start when no server answered. A success does not mean bound: the caller reads
// ModeData->State.
EFI_STATUS StartConfigureProcess(EFI_DHCP4_PROTOCOL* Dhcp4, EFI_DHCP4_CONFIG_DATA* ConfigData,
                                 EFI_DHCP4_MODE_DATA* ModeData);
