// The NIC inventory: one record per controller of the firmware's network stack, with the IPv4 and
// DHCPv4 service bindings and the IPv4 configuration of the same MAC address, the controller's
// name as its driver gives it.
#pragma once
#include "text/OrderedList.h"
#include "uefi/protocol/Ip4Config2.h"

struct NicInfo {
  EFI_MAC_ADDRESS MacAddress; // all 32 bytes of the MAC node that ends the controller's device path
  EFI_HANDLE NicHandle;       // where the simple network protocol was found
  EFI_HANDLE Ip4Config2ProtocolHandle;
  EFI_HANDLE Ip4ServiceBindingProtocolHandle;
  EFI_HANDLE Dhcp4ServiceBindingProtocolHandle;
  EFI_IP4_CONFIG2_INTERFACE_INFO* Ip4Config2InterfaceInfo; // owned by the record
  CHAR16* Identifier;                                      // the driver's, never freed here
};

// The NIC list's free callback: frees the record and the interface information it owns.
void FreeNicInfo(void* Element, ORDERED_LIST_NODE* Node);

// Fills List (created by the caller with FreeNicInfo) and Count in four passes: the NICs by simple
// network, then the IPv4 service binding, DHCPv4 service binding and IPv4 configuration handles of
// the same MAC address. A pass that finds no handle at all gives EFI_NOT_FOUND.
EFI_STATUS BuildNicInventory(const CHAR8* Language, ORDERED_LIST* List, UINT64* Count);

// The name the NIC's driver gives the controller, found through the handle database's relations:
// the NIC's parents, their drivers, and the children each driver made. Null when none answers.
EFI_STATUS GetControllerName(EFI_HANDLE NicHandle, const CHAR8* Language, CHAR16** Name);
// The name of the driver that made the NIC's handle (the driver that serves it), the same way.
EFI_STATUS GetServingDriverName(EFI_HANDLE NicHandle, const CHAR8* Language, CHAR16** Name);

// Relation bits of a handle towards a driver and a controller (see FindRelatedHandles).
enum : UINT32 {
  HANDLE_DRIVER_BINDING = 2,
  HANDLE_DEVICE_DRIVER = 4,
  HANDLE_BUS_DRIVER = 8,
  HANDLE_DEVICE = 128,
  HANDLE_PARENT = 256,
  HANDLE_CHILD = 1024,
};
// The handles whose relations to Controller (and Driver, when given) hold every bit of Mask, in a
// pool buffer; EFI_NOT_FOUND when none.
EFI_STATUS FindRelatedHandles(EFI_HANDLE Driver, EFI_HANDLE Controller, UINT32 Mask, EFI_HANDLE** Handles,
                              UINTN* Count);
