#include "base/Ipv6Text.h"

namespace {

void Put(CHAR16* Buffer, UINTN Chars, UINTN& At, CHAR16 C) {
  if (At + 1 < Chars) {
    Buffer[At++] = C;
  }
}

void PutGroup(CHAR16* Buffer, UINTN Chars, UINTN& At, UINT16 Group) {
  static constexpr char kDigits[] = "0123456789abcdef";
  bool started = false;
  for (int shift = 12; shift >= 0; shift -= 4) {
    UINT16 digit = (Group >> shift) & 0xF;
    if (digit != 0 || started || shift == 0) {
      Put(Buffer, Chars, At, CHAR16(kDigits[digit]));
      started = true;
    }
  }
}

int HexDigit(CHAR16 C) {
  if (C >= u'0' && C <= u'9') {
    return C - u'0';
  }
  if (C >= u'a' && C <= u'f') {
    return C - u'a' + 10;
  }
  if (C >= u'A' && C <= u'F') {
    return C - u'A' + 10;
  }
  return -1;
}

// A dotted quad at Text, all of it: four decimal parts of 0 to 255 without leading zeros.
bool ParseDottedQuad(const CHAR16* Text, UINT8* Out) {
  for (UINTN part = 0; part < 4; ++part) {
    if (part > 0 && *Text++ != u'.') {
      return false;
    }
    UINTN value = 0, digits = 0;
    while (*Text >= u'0' && *Text <= u'9' && digits < 4) {
      value = value * 10 + UINTN(*Text++ - u'0');
      ++digits;
    }
    if (digits == 0 || digits > 3 || value > 255 || (digits > 1 && value < (digits == 2 ? 10u : 100u))) {
      return false;
    }
    Out[part] = UINT8(value);
  }
  return *Text == 0;
}

} // namespace

void FormatIpv6Address(const EFI_IPv6_ADDRESS& Address, CHAR16* Buffer, UINTN BufferSize) {
  UINTN chars = BufferSize / sizeof(CHAR16);
  if (Buffer == nullptr || chars == 0) {
    return;
  }
  UINT16 groups[8];
  for (UINTN i = 0; i < 8; ++i) {
    groups[i] = UINT16(Address.Addr[2 * i] << 8 | Address.Addr[2 * i + 1]);
  }
  // The longest run of zero groups (the first of equal ones), if it spans two groups or more.
  UINTN bestStart = 8, bestLength = 0;
  for (UINTN i = 0; i < 8;) {
    UINTN j = i;
    while (j < 8 && groups[j] == 0) {
      ++j;
    }
    if (j - i > bestLength) {
      bestStart = i;
      bestLength = j - i;
    }
    i = j == i ? i + 1 : j;
  }
  if (bestLength < 2) {
    bestStart = 8;
  }
  UINTN at = 0;
  for (UINTN i = 0; i < 8; ++i) {
    if (i == bestStart) {
      Put(Buffer, chars, at, u':');
      Put(Buffer, chars, at, u':');
      i += bestLength - 1;
      continue;
    }
    if (i > 0 && i != bestStart + bestLength) {
      Put(Buffer, chars, at, u':');
    }
    PutGroup(Buffer, chars, at, groups[i]);
  }
  Buffer[at] = 0;
}

bool ParseIpv6Address(const CHAR16* Text, EFI_IPv6_ADDRESS* Address) {
  if (Text == nullptr || Address == nullptr) {
    return false;
  }
  UINT8 bytes[16] = {};
  UINTN count = 0; // bytes written
  UINTN gap = 16;  // where "::" stands, in bytes; 16: none
  const CHAR16* p = Text;
  if (p[0] == u':' && p[1] == u':') {
    gap = 0;
    p += 2;
  } else if (p[0] == u':') {
    return false;
  }
  while (*p != 0) {
    // A dotted quad may stand for the last two groups.
    const CHAR16* q = p;
    while (HexDigit(*q) >= 0) {
      ++q;
    }
    if (*q == u'.') {
      if (count + 4 > 16 || !ParseDottedQuad(p, bytes + count)) {
        return false;
      }
      count += 4;
      break;
    }
    UINTN digits = UINTN(q - p);
    if (digits == 0 || digits > 4 || count + 2 > 16) {
      return false;
    }
    UINT16 group = 0;
    for (; p < q; ++p) {
      group = UINT16(group << 4 | HexDigit(*p));
    }
    bytes[count++] = UINT8(group >> 8);
    bytes[count++] = UINT8(group);
    if (*p == 0) {
      break;
    }
    if (*p != u':') {
      return false;
    }
    ++p;
    if (*p == u':') {
      if (gap != 16) {
        return false;
      }
      gap = count;
      ++p;
    } else if (*p == 0) {
      return false; // a single ':' at the end
    }
  }
  if (gap == 16 ? count != 16 : count > 14) {
    return false;
  }
  EFI_IPv6_ADDRESS out = {};
  UINTN tail = count - (gap == 16 ? count : gap);
  for (UINTN i = 0; i < count - tail; ++i) {
    out.Addr[i] = bytes[i];
  }
  for (UINTN i = 0; i < tail; ++i) {
    out.Addr[16 - tail + i] = bytes[count - tail + i];
  }
  *Address = out;
  return true;
}
