// EFI_RNG_PROTOCOL: only its GUID, to see whether the firmware has a random-number generator.
#pragma once
#include "uefi/SystemTable.h"

constexpr EFI_GUID EFI_RNG_PROTOCOL_GUID = {
    0x3152BCA5, 0xEADE, 0x433D, {0x86, 0x2E, 0xC0, 0x1C, 0xDC, 0x29, 0x1F, 0x44}};
