// The NICs' IPv4 configuration through the firmware's IPv4 configuration 2 protocol: reading one
// NIC's interface information (address, mask, route table) and switching every NIC to DHCP.
#pragma once
#include "nic/Inventory.h"

// Stores the interface information whose hardware address is the NIC's in Nic->Ip4Config2InterfaceInfo
// (the record owns it). No match is not an error: the field stays null.
EFI_STATUS GetNicConfig(NicInfo* Nic);

// Switches every NIC whose policy is not DHCP to DHCP, waiting out a driver that applies it later.
EFI_STATUS SetNicConfig();

// The firmware's own DHCP gives up on a NIC whose cable was out when it started, and does not start
// again when the cable comes: the NIC keeps the DHCP policy and no address. When the NIC on this
// handle is in that state with its cable in, sets the DHCP policy once more, which starts the
// firmware's DHCP again (it does so for an interface whose DHCP has not succeeded; a DHCP still
// under way just goes on), and logs it. TRUE when it did.
bool RestartStalledDhcp(EFI_HANDLE Nic);

// TRUE for 0.0.0.0.
inline bool IsZeroAddress(const EFI_IPv4_ADDRESS& Address) {
  return (Address.Addr[0] | Address.Addr[1] | Address.Addr[2] | Address.Addr[3]) == 0;
}

// TRUE when the NIC's IPv4 configuration has a station address; *Address, when given, gets it.
bool NicHasStationAddress(EFI_HANDLE Nic, EFI_IPv4_ADDRESS* Address);

// The gateway of the default route (subnet and mask 0.0.0.0) in the interface information;
// 0.0.0.0 when there is none.
EFI_IPv4_ADDRESS DefaultGateway(const EFI_IP4_CONFIG2_INTERFACE_INFO* Info);
