// SHA-256 (FIPS 180-4), for checking a download against the digest its publisher gives: fed in
// pieces of any size, as the bytes arrive, without holding the whole file.
#pragma once
#include "uefi/Base.h"

constexpr UINTN kSha256Bytes = 32;
constexpr UINTN kSha256HexChars = 2 * kSha256Bytes;

class Sha256 {
public:
  Sha256() { Reset(); }
  void Reset();
  void Update(const void* Data, UINTN Size);
  // The digest of everything fed since the last Reset; the state is reset after it.
  void Final(UINT8 (&Digest)[kSha256Bytes]);

private:
  void Block(const UINT8* Block);
  UINT32 state_[8];
  UINT8 buffer_[64];
  UINTN buffered_;
  UINT64 length_; // in bytes
};

// The 64 hexadecimal digits of a digest (either case) as bytes; false for anything else.
bool ParseSha256Hex(const CHAR16* Text, UINT8 (&Digest)[kSha256Bytes]);

// The digest as 64 lower-case hexadecimal digits; Out holds at least kSha256HexChars + 1 characters.
void FormatSha256Hex(const UINT8 (&Digest)[kSha256Bytes], CHAR16* Out);
