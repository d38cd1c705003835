// File bytes to UCS-2: the one decoder that message files, INI files and the manager's files use.
#pragma once
#include "uefi/Base.h"

enum class TextEncoding {
  Detect, // bytes FF FE: UCS-2; EF BB BF: UTF-8; anything else: the fallback
  Bytes,  // every byte is the character of the same value (0x00 to 0xFF)
  Ucs2,   // little-endian code units as they are; an odd last byte is dropped
  Utf8,   // sequences of one to six bytes, each kept as the low 16 bits of its value (no surrogate
          // pairs); decoding stops, keeping what came before, at an invalid byte or a cut sequence
};

// Decodes Size bytes into a new NUL-terminated pool string, which the caller frees (null when out of
// memory); *Length, when given, receives its length in characters, and the buffer has room for
// SpareChars more characters after the terminator. A leading FF FE is skipped in every encoding, a
// leading EF BB BF in UTF-8. A NUL in the data ends the text for its users.
CHAR16* DecodeText(const UINT8* Data, UINTN Size, TextEncoding Encoding,
                   TextEncoding Fallback = TextEncoding::Bytes, UINTN* Length = nullptr,
                   UINTN SpareChars = 0);
