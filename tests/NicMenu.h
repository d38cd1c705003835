// The menu through which the operator picks one NIC of the inventory, shown through the manager's
// menu protocols with the message file's texts.
#pragma once
#include "nic/Inventory.h"
#include "uefi/protocol/Vex.h"

// The manager's menu protocols; the graphics one is used when present.
struct NicMenuProtocols {
  VEX_GRAPHICS_LIB_PROTOCOL* Graphics;
  VEX_CONSOLE_LIB_PROTOCOL* Console;
};
EFI_STATUS LocateMenuProtocols(NicMenuProtocols* Menus);

// Shows the NIC selection menu (at most ten NICs and a cancel entry) and returns the chosen record;
// EFI_ABORTED for the cancel entry.
EFI_STATUS SelectNic(const NicMenuProtocols& Menus, const CHAR8* Language, ORDERED_LIST* List,
                     NicInfo** Selected);
