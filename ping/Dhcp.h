// One DHCPv4 exchange on a DHCPv4 child, or the lease the service already holds.
#pragma once
#include "uefi/protocol/Dhcp4.h"

constexpr UINT32 kDhcpTimeoutSeconds = 3;

// The configuration both network tests pass: one discover and one request try of three seconds
// each, the event callback that traces the exchange. Timeouts points at the caller's one-element
// list, which must live as long as the call.
EFI_DHCP4_CONFIG_DATA MakeDhcpConfig(UINT32* Timeouts);

EFI_STATUS StartConfigureProcess(EFI_DHCP4_PROTOCOL* Dhcp4, EFI_DHCP4_CONFIG_DATA* ConfigData,
                                 EFI_DHCP4_MODE_DATA* ModeData);
