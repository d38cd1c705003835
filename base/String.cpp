#include "base/String.h"
#include "base/Memory.h"
#include "uefi/protocol/UnicodeCollation.h"

static void StrUprAscii(CHAR16* s);

namespace {
constinit EFI_UNICODE_COLLATION_PROTOCOL* gCollation = nullptr;
}

void SetUnicodeCollation(EFI_UNICODE_COLLATION_PROTOCOL* Collation) {
  gCollation = Collation;
}

void StrToLower(CHAR16* s) {
  if (s == nullptr)
    return;
  if (gCollation != nullptr)
    gCollation->StrLwr(gCollation, s);
  else
    StrLwrAscii(s);
}

void StrToUpper(CHAR16* s) {
  if (s == nullptr)
    return;
  if (gCollation != nullptr)
    gCollation->StrUpr(gCollation, s);
  else
    StrUprAscii(s);
}

UINTN StrLen(const CHAR16* s) {
  UINTN n = 0;
  if (s != nullptr)
    while (s[n] != 0)
      ++n;
  return n;
}

UINTN StrSize(const CHAR16* s) {
  return (StrLen(s) + 1) * sizeof(CHAR16);
}

UINTN StrnLen(const CHAR16* s, UINTN max) {
  UINTN n = 0;
  if (s != nullptr)
    while (n < max && s[n] != 0)
      ++n;
  return n;
}

static const CHAR16 kEmpty[] = u"";

template <bool Fold> static INTN Compare(const CHAR16* a, const CHAR16* b, UINTN n) {
  if (a == nullptr)
    a = kEmpty;
  if (b == nullptr)
    b = kEmpty;
  for (UINTN i = 0; i < n; ++i) {
    CHAR16 x = Fold ? CharToLower(a[i]) : a[i];
    CHAR16 y = Fold ? CharToLower(b[i]) : b[i];
    if (x != y || x == 0)
      return INTN(x) - INTN(y);
  }
  return 0;
}

INTN StrCmp(const CHAR16* a, const CHAR16* b) {
  return Compare<false>(a, b, ~UINTN(0));
}
INTN StrnCmp(const CHAR16* a, const CHAR16* b, UINTN n) {
  return Compare<false>(a, b, n);
}
INTN StriCmp(const CHAR16* a, const CHAR16* b) {
  return Compare<true>(a, b, ~UINTN(0));
}
INTN StrniCmp(const CHAR16* a, const CHAR16* b, UINTN n) {
  return Compare<true>(a, b, n);
}

void StrLwrAscii(CHAR16* s) {
  for (; s != nullptr && *s != 0; ++s)
    *s = CharToLower(*s);
}

static void StrUprAscii(CHAR16* s) {
  for (; s != nullptr && *s != 0; ++s)
    *s = CharToUpper(*s);
}

BOOLEAN StrCopy(CHAR16* Destination, UINTN DestinationSize, const CHAR16* Source) {
  UINTN capacity = DestinationSize / sizeof(CHAR16);
  if (Destination == nullptr || capacity == 0)
    return FALSE;
  UINTN i = 0;
  for (; Source != nullptr && Source[i] != 0; ++i) {
    if (i + 1 >= capacity) {
      Destination[i] = 0;
      return FALSE;
    }
    Destination[i] = Source[i];
  }
  Destination[i] = 0;
  return TRUE;
}

BOOLEAN StrAppend(CHAR16* Destination, UINTN DestinationSize, const CHAR16* Source) {
  UINTN capacity = DestinationSize / sizeof(CHAR16);
  UINTN used = StrnLen(Destination, capacity);
  if (Destination == nullptr || used >= capacity)
    return FALSE;
  return StrCopy(Destination + used, (capacity - used) * sizeof(CHAR16), Source);
}

CHAR16* StrDuplicate(const CHAR16* Source) {
  if (Source == nullptr)
    return nullptr;
  return static_cast<CHAR16*>(AllocateCopyPool(StrSize(Source), Source));
}

const CHAR16* StrFind(const CHAR16* Haystack, const CHAR16* Needle) {
  if (Haystack == nullptr || Needle == nullptr)
    return nullptr;
  UINTN n = StrLen(Needle);
  for (const CHAR16* p = Haystack;; ++p) {
    if (StrnCmp(p, Needle, n) == 0)
      return p;
    if (*p == 0)
      return nullptr;
  }
}

CHAR16* StrFindLastChar(CHAR16* s, CHAR16 c) {
  CHAR16* last = nullptr;
  for (; s != nullptr && *s != 0; ++s)
    if (*s == c)
      last = s;
  return last;
}

const CHAR16* StrFindChar(const CHAR16* s, CHAR16 c) {
  for (; s != nullptr && *s != 0; ++s)
    if (*s == c)
      return s;
  return nullptr;
}

UINTN AsciiStrLen(const CHAR8* s) {
  UINTN n = 0;
  if (s != nullptr)
    while (s[n] != 0)
      ++n;
  return n;
}

BOOLEAN AsciiToUnicode(CHAR16* Destination, UINTN DestinationSize, const CHAR8* Source) {
  UINTN capacity = DestinationSize / sizeof(CHAR16);
  if (Destination == nullptr || capacity == 0)
    return FALSE;
  UINTN i = 0;
  for (; Source != nullptr && Source[i] != 0; ++i) {
    if (i + 1 >= capacity) {
      Destination[i] = 0;
      return FALSE;
    }
    Destination[i] = CHAR16(UINT8(Source[i]));
  }
  Destination[i] = 0;
  return TRUE;
}

BOOLEAN UnicodeToAscii(CHAR8* Destination, UINTN DestinationSize, const CHAR16* Source) {
  if (Destination == nullptr || DestinationSize == 0)
    return FALSE;
  UINTN i = 0;
  for (; Source != nullptr && Source[i] != 0; ++i) {
    if (i + 1 >= DestinationSize) {
      Destination[i] = 0;
      return FALSE;
    }
    Destination[i] = Source[i] < 0x80 ? CHAR8(Source[i]) : '?';
  }
  Destination[i] = 0;
  return TRUE;
}

void AsciiStrCopyCut(CHAR8* Destination, UINTN DestinationSize, const CHAR8* Source) {
  if (DestinationSize == 0)
    return;
  UINTN n = 0;
  for (; Source[n] != 0 && n + 1 < DestinationSize; ++n)
    Destination[n] = Source[n];
  Destination[n] = 0;
}
