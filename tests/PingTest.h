// pingtest: bring a NIC's IPv4 stack up, learn the DHCP server by DHCPv4 and ping it.
#pragma once
#include "uefi/Base.h"

EFI_STATUS PingTest(UINTN* Result, UINTN* ErrorCode);
