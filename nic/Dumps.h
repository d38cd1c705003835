// Trace dumps of the IPv4 and DHCPv4 data structures (shown at the debug levels that show traces).
#pragma once
#include "uefi/protocol/Dhcp4.h"
#include "uefi/protocol/Ip4.h"

void DumpIpv4Address(const EFI_IPv4_ADDRESS* Address);
void DumpIp4ConfigData(const EFI_IP4_CONFIG_DATA* Data);
void DumpIp4ModeData(const EFI_IP4_MODE_DATA* Data);
void DumpGroupTable(const EFI_IPv4_ADDRESS* Table, UINTN Count);
void DumpRouteTable(const EFI_IP4_ROUTE_TABLE* Table, UINTN Count);
void DumpDhcp4ConfigData(const EFI_DHCP4_CONFIG_DATA* Data);
void DumpDhcp4ModeData(const EFI_DHCP4_MODE_DATA* Data);
void DumpDhcp4Packet(const EFI_DHCP4_PACKET* Packet);
void DumpDhcp4Header(const EFI_DHCP4_HEADER* Header);
