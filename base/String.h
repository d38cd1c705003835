// UCS-2 and ASCII string helpers. Case folding touches only the ASCII letters A-Z / a-z.
// Every copy takes its destination size in bytes and always leaves a terminated string.
#pragma once
#include "uefi/Base.h"

UINTN StrLen(const CHAR16* s);
UINTN StrSize(const CHAR16* s); // bytes including the terminator
UINTN StrnLen(const CHAR16* s, UINTN max);
INTN StrCmp(const CHAR16* a, const CHAR16* b);
INTN StrnCmp(const CHAR16* a, const CHAR16* b, UINTN n);
INTN StriCmp(const CHAR16* a, const CHAR16* b);
INTN StrniCmp(const CHAR16* a, const CHAR16* b, UINTN n);
inline bool StrEq(const CHAR16* a, const CHAR16* b) {
  return StrCmp(a, b) == 0;
}
inline bool StriEq(const CHAR16* a, const CHAR16* b) {
  return StriCmp(a, b) == 0;
}

constexpr CHAR16 CharToLower(CHAR16 c) {
  return (c >= u'A' && c <= u'Z') ? CHAR16(c - u'A' + u'a') : c;
}
constexpr CHAR16 CharToUpper(CHAR16 c) {
  return (c >= u'a' && c <= u'z') ? CHAR16(c - u'a' + u'A') : c;
}
void StrLwrAscii(CHAR16* s);

// Whole-string case conversion: through the firmware's Unicode collation protocol once file
// access has found it, otherwise A-Z / a-z only.
struct EFI_UNICODE_COLLATION_PROTOCOL;
void SetUnicodeCollation(EFI_UNICODE_COLLATION_PROTOCOL* Collation);
void StrToLower(CHAR16* s);
void StrToUpper(CHAR16* s);

// Copies as much of Source as fits; returns FALSE when it had to cut.
BOOLEAN StrCopy(CHAR16* Destination, UINTN DestinationSize, const CHAR16* Source);
BOOLEAN StrAppend(CHAR16* Destination, UINTN DestinationSize, const CHAR16* Source);
// Pool copy of a string (null for a null source or when out of memory).
CHAR16* StrDuplicate(const CHAR16* Source);

const CHAR16* StrFind(const CHAR16* Haystack, const CHAR16* Needle);
const CHAR16* StrFindChar(const CHAR16* s, CHAR16 c);
// The last c in s, or null.
CHAR16* StrFindLastChar(CHAR16* s, CHAR16 c);

UINTN AsciiStrLen(const CHAR8* s);
// Copies an ASCII text, cut to the buffer (DestinationSize bytes, terminator included).
void AsciiStrCopyCut(CHAR8* Destination, UINTN DestinationSize, const CHAR8* Source);
BOOLEAN AsciiToUnicode(CHAR16* Destination, UINTN DestinationSize, const CHAR8* Source);
BOOLEAN UnicodeToAscii(CHAR8* Destination, UINTN DestinationSize, const CHAR16* Source);
