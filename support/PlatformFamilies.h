// The platforms Wirecheck supports, keyed by the SMBIOS system-information family string.
//
// A family string matches a row when it begins with the row's key (compared in upper case over
// the key's length); the first matching row wins. Platform codes have the form HHHH_XXXXXX (four
// hexadecimal digits, an underscore, six letters or digits); two rows are product-line names.
// The row order and the identifiers are fixed: the network tests treat family 1 as a current
// platform. 1A00_QEMUVM is the QEMU q35 virtual machine that the project's VM tests boot
// (./wirecheck run --smbios 1,family=1A00_QEMUVM).
#pragma once
#include "uefi/Base.h"

struct PlatformFamily {
  const CHAR16* Key;
  UINTN Id;
};

inline constexpr PlatformFamily kPlatformFamilyTable[] = {
    {u"1A00_QEMUVM", 1},  // QEMU q35 virtual machine (project test platform)
    {u"1B10_SRV200", 2},  // rack server, first generation
    {u"1B11_SRV210", 2},  // rack server, second generation
    {u"2C20_WKS300", 3},  // workstation
    {u"2D30_LAP400", 4},  // notebook
    {u"3E40_EMB500", 5},  // embedded controller board
    {u"1B12_SRV220", 2},  // rack server, third generation
    {u"4F50_THN600", 6},  // thin client
    {u"5A60_RUG700", 7},  // rugged tablet
    {u"WIRELINE", 8},     // product line: network appliances
    {u"NETEDGE", 11},     // product line: edge gateways
    {u"6B70_LAB800", 9},  // lab test bench
    {u"7C80_DEV900", 10}, // development board
    {u"1A01_QEMUVM", 1},  // QEMU q35 virtual machine, second test profile
};
static_assert(sizeof(kPlatformFamilyTable) / sizeof(kPlatformFamilyTable[0]) == 14);
