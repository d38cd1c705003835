// IPv6 addresses as text: the compressed form of RFC 5952 (lower-case, the longest run of two or
// more zero groups as "::"), and the reading of an address an operator types.
#pragma once
#include "uefi/Base.h"

// At most 39 characters and the terminator.
constexpr UINTN kIpv6TextChars = 40;

// Writes Address into Buffer (BufferSize bytes; cut short, always terminated).
void FormatIpv6Address(const EFI_IPv6_ADDRESS& Address, CHAR16* Buffer, UINTN BufferSize);

// Reads an address in any form RFC 4291 allows for its eight groups (hexadecimal groups of up to
// four digits, one "::", an IPv4 dotted quad in the last 32 bits), nothing before or after it. FALSE
// for anything else; Address is then left as it was.
bool ParseIpv6Address(const CHAR16* Text, EFI_IPv6_ADDRESS* Address);

inline bool SameIpv6Address(const EFI_IPv6_ADDRESS& A, const EFI_IPv6_ADDRESS& B) {
  for (UINTN i = 0; i < 16; ++i) {
    if (A.Addr[i] != B.Addr[i]) {
      return false;
    }
  }
  return true;
}

inline bool IsLinkLocalIpv6(const EFI_IPv6_ADDRESS& A) {
  return A.Addr[0] == 0xFE && (A.Addr[1] & 0xC0) == 0x80;
}

inline bool IsUnspecifiedIpv6(const EFI_IPv6_ADDRESS& A) {
  for (UINT8 b : A.Addr) {
    if (b != 0) {
      return false;
    }
  }
  return true;
}
