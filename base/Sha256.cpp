#include "base/Sha256.h"

namespace {

constexpr UINT32 kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr UINT32 kInitial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr UINT32 Rotr(UINT32 x, unsigned n) {
  return (x >> n) | (x << (32 - n));
}

int HexValue(CHAR16 c) {
  if (c >= u'0' && c <= u'9')
    return c - u'0';
  if (c >= u'a' && c <= u'f')
    return c - u'a' + 10;
  if (c >= u'A' && c <= u'F')
    return c - u'A' + 10;
  return -1;
}

} // namespace

void Sha256::Reset() {
  for (UINTN i = 0; i < 8; ++i)
    state_[i] = kInitial[i];
  buffered_ = 0;
  length_ = 0;
}

void Sha256::Block(const UINT8* p) {
  UINT32 w[64];
  for (UINTN i = 0; i < 16; ++i)
    w[i] = UINT32(p[4 * i]) << 24 | UINT32(p[4 * i + 1]) << 16 | UINT32(p[4 * i + 2]) << 8 | p[4 * i + 3];
  for (UINTN i = 16; i < 64; ++i) {
    UINT32 s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    UINT32 s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  UINT32 a = state_[0], b = state_[1], c = state_[2], d = state_[3];
  UINT32 e = state_[4], f = state_[5], g = state_[6], h = state_[7];
  for (UINTN i = 0; i < 64; ++i) {
    UINT32 t1 = h + (Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25)) + ((e & f) ^ (~e & g)) + kRound[i] + w[i];
    UINT32 t2 = (Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  state_[5] += f;
  state_[6] += g;
  state_[7] += h;
}

void Sha256::Update(const void* Data, UINTN Size) {
  const UINT8* p = static_cast<const UINT8*>(Data);
  length_ += Size;
  if (buffered_ > 0) {
    while (Size > 0 && buffered_ < sizeof(buffer_)) {
      buffer_[buffered_++] = *p++;
      --Size;
    }
    if (buffered_ < sizeof(buffer_))
      return;
    Block(buffer_);
    buffered_ = 0;
  }
  for (; Size >= sizeof(buffer_); Size -= sizeof(buffer_), p += sizeof(buffer_))
    Block(p);
  while (Size-- > 0)
    buffer_[buffered_++] = *p++;
}

void Sha256::Final(UINT8 (&Digest)[kSha256Bytes]) {
  UINT64 bits = length_ * 8;
  UINT8 pad = 0x80;
  Update(&pad, 1);
  pad = 0;
  while (buffered_ != 56)
    Update(&pad, 1);
  UINT8 tail[8];
  for (UINTN i = 0; i < 8; ++i)
    tail[i] = UINT8(bits >> (56 - 8 * i));
  Update(tail, sizeof(tail));
  for (UINTN i = 0; i < 8; ++i)
    for (UINTN j = 0; j < 4; ++j)
      Digest[4 * i + j] = UINT8(state_[i] >> (24 - 8 * j));
  Reset();
}

bool ParseSha256Hex(const CHAR16* Text, UINT8 (&Digest)[kSha256Bytes]) {
  if (Text == nullptr)
    return false;
  for (UINTN i = 0; i < kSha256Bytes; ++i) {
    int high = HexValue(Text[2 * i]);
    int low = high < 0 ? -1 : HexValue(Text[2 * i + 1]);
    if (low < 0)
      return false;
    Digest[i] = UINT8(high << 4 | low);
  }
  return Text[kSha256HexChars] == 0;
}

void FormatSha256Hex(const UINT8 (&Digest)[kSha256Bytes], CHAR16* Out) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (UINTN i = 0; i < kSha256Bytes; ++i) {
    Out[2 * i] = CHAR16(kDigits[Digest[i] >> 4]);
    Out[2 * i + 1] = CHAR16(kDigits[Digest[i] & 0xF]);
  }
  Out[kSha256HexChars] = 0;
}
