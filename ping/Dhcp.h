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

// The ping test's retry policy around StartConfigureProcess: a refusal while another DHCP client
// is active is retried up to 100 times, 0.2 s apart; a time-out once, after 0.1 s and a call of
// BeforeTimeoutRetry (which may end the retries by returning FALSE, as an operator interrupt does).
// The first success is taken, whatever the state.
using DhcpRetryHook = bool (*)(void* Context);
EFI_STATUS ConfigureWithPingRetries(EFI_DHCP4_PROTOCOL* Dhcp4, EFI_DHCP4_CONFIG_DATA* ConfigData,
                                    EFI_DHCP4_MODE_DATA* ModeData, DhcpRetryHook BeforeTimeoutRetry,
                                    void* Context, bool* Interrupted);
