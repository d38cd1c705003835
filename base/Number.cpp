#include "base/Number.h"
#include "base/String.h"

UINT64 StrToInteger(const CHAR16* Text, const CHAR16** End, BOOLEAN Hex) {
  if (Text == nullptr || Text[0] == 0)
    return 0;
  constexpr UINTN kMaxChars = 100;
  bool hex = Hex;
  bool hexPrefix = false;
  bool negative = false;
  bool signSeen = false;
  bool anyDigit = false;
  const CHAR16* firstLetter = nullptr;
  UINT64 dec = 0;
  UINT64 hexValue = 0;
  UINTN i = 0;

  // Blanks, one sign and an optional "0x" before the first digit.
  for (; i < kMaxChars && Text[i] != 0; ++i) {
    CHAR16 c = Text[i];
    if (c == u' ') {
      if (signSeen)
        return UINT64(-1);
      continue;
    }
    if (c == u'-' || c == u'+') {
      if (signSeen)
        return UINT64(-1);
      signSeen = true;
      negative = c == u'-';
      continue;
    }
    break;
  }
  if (i + 1 < kMaxChars && Text[i] == u'0' && (Text[i + 1] == u'x' || Text[i + 1] == u'X')) {
    hex = true;
    hexPrefix = true;
    i += 2;
  }

  const CHAR16* end = Text + i;
  for (; i < kMaxChars && Text[i] != 0; ++i) {
    CHAR16 c = Text[i];
    unsigned digit;
    if (c >= u'0' && c <= u'9') {
      digit = unsigned(c - u'0');
    } else if ((c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F')) {
      digit = unsigned(CharToLower(c) - u'a' + 10);
      if (firstLetter == nullptr)
        firstLetter = Text + i;
    } else if (anyDigit && (c == u'h' || c == u'H')) {
      hex = true;
      end = hexPrefix ? Text + i : Text + i + 1;
      break;
    } else {
      end = Text + i;
      break;
    }
    // Both values grow side by side; the hexadecimal one overflows first, so it decides.
    if (hexValue > (~UINT64(0) >> 4)) {
      if (End != nullptr)
        *End = Text + i;
      return UINT64(-1);
    }
    hexValue = (hexValue << 4) | digit;
    if (digit < 10)
      dec = dec * 10 + digit;
    anyDigit = true;
    end = Text + i + 1;
  }
  if (!hex && firstLetter != nullptr)
    end = firstLetter; // a decimal text with letters is refused by the caller
  if (End != nullptr)
    *End = end;
  UINT64 value = hex ? hexValue : dec;
  return negative ? UINT64(0) - value : value;
}
