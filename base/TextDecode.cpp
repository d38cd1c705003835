#include "base/TextDecode.h"
#include "base/Memory.h"

namespace {

bool StartsWith(const UINT8* data, UINTN size, const UINT8 (&mark)[2]) {
  return size >= 2 && data[0] == mark[0] && data[1] == mark[1];
}
constexpr UINT8 kUtf16Mark[2] = {0xFF, 0xFE};

bool HasUtf8Mark(const UINT8* data, UINTN size) {
  return size >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF;
}

// Decodes UTF-8 up to the first invalid or cut sequence; returns the characters written.
UINTN DecodeUtf8(const UINT8* data, UINTN size, CHAR16* out) {
  UINTN n = 0;
  for (UINTN i = 0; i < size;) {
    UINT8 lead = data[i];
    UINTN extra = 0;
    UINT32 value = lead;
    if (lead >= 0x80) {
      // The count of leading one bits gives the sequence length; 10xxxxxx and 11111110+ start none.
      UINT8 mask = 0x40;
      while (extra < 6 && (lead & mask) != 0) {
        ++extra;
        mask = UINT8(mask >> 1);
      }
      if (extra == 0 || extra > 5)
        break;
      value = lead & (mask - 1);
    }
    if (i + extra >= size && extra > 0)
      break;
    for (UINTN k = 1; k <= extra; ++k) {
      if ((data[i + k] & 0xC0) != 0x80)
        return n;
      value = (value << 6) | (data[i + k] & 0x3F);
    }
    out[n++] = CHAR16(value & 0xFFFF);
    i += extra + 1;
  }
  return n;
}

} // namespace

CHAR16* DecodeText(const UINT8* Data, UINTN Size, TextEncoding Encoding, TextEncoding Fallback, UINTN* Length,
                   UINTN SpareChars) {
  if (Data == nullptr)
    Size = 0;
  if (Encoding == TextEncoding::Detect)
    Encoding = StartsWith(Data, Size, kUtf16Mark) ? TextEncoding::Ucs2
               : HasUtf8Mark(Data, Size)          ? TextEncoding::Utf8
                                                  : Fallback;
  UINTN skip = StartsWith(Data, Size, kUtf16Mark) ? 2 : 0;
  if (Encoding == TextEncoding::Utf8 && HasUtf8Mark(Data, Size))
    skip = 3;
  const UINT8* bytes = Data + skip;
  UINTN count = Size - skip;

  auto* text = static_cast<CHAR16*>(AllocatePool((count + 1 + SpareChars) * sizeof(CHAR16)));
  if (text == nullptr)
    return nullptr;
  UINTN n = 0;
  if (Encoding == TextEncoding::Ucs2) {
    for (; n < count / 2; ++n)
      text[n] = CHAR16(bytes[2 * n] | (bytes[2 * n + 1] << 8));
  } else if (Encoding == TextEncoding::Utf8) {
    n = DecodeUtf8(bytes, count, text);
  } else {
    for (; n < count; ++n)
      text[n] = bytes[n];
  }
  text[n] = 0;
  if (Length != nullptr)
    *Length = n;
  return text;
}
