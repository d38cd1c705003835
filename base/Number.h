// Number conversion from text, the one parser that options, message numbers and patterns share.
#pragma once
#include "uefi/Base.h"

// Reads a decimal or hexadecimal number: blanks and one sign first, then "0x" or a trailing "h"
// for hexadecimal (Hex TRUE reads hexadecimal from the start). *End, when given, points after the
// last character taken; a decimal text with letters stops at the first letter. Overflow gives
// all-ones. An empty or null text is 0.
UINT64 StrToInteger(const CHAR16* Text, const CHAR16** End, BOOLEAN Hex);
