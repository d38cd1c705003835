// The module's print routine. Arguments are captured with their kind, so a "%d" always reads a
// 64-bit number and a "%s" never dereferences something that is not a string: a mismatched
// argument prints as the conventions print a missing one ("<null string>", 0).
//
// Conversions: %s %S (UCS-2), %a (ASCII), %c, %d, %x, %X (16 digits), %r (status name),
// %g (GUID), %%. Flags: 0 (zero pad), - (no padding), "," (group decimal digits), l (ignored);
// widths are capped at 29. Any other conversion character prints itself.
#pragma once
#include "uefi/Base.h"

struct PrintArg {
  enum class Kind : UINT8 { Missing, Number, Signed, Text16, Text8, Pointer };
  Kind kind = Kind::Missing;
  union {
    UINT64 number;
    const CHAR16* text16;
    const CHAR8* text8;
    const void* pointer;
  };

  constexpr PrintArg() : number(0) {}
  constexpr PrintArg(decltype(nullptr)) : kind(Kind::Pointer), pointer(nullptr) {}
  constexpr PrintArg(const CHAR16* s) : kind(Kind::Text16), text16(s) {}
  constexpr PrintArg(const CHAR8* s) : kind(Kind::Text8), text8(s) {}
  template <class T> constexpr PrintArg(const T* p) : kind(Kind::Pointer), pointer(p) {}
  constexpr PrintArg(bool v) : kind(Kind::Number), number(v ? 1 : 0) {}
  constexpr PrintArg(char16_t c) : kind(Kind::Number), number(c) {}
  constexpr PrintArg(unsigned char v) : kind(Kind::Number), number(v) {}
  constexpr PrintArg(unsigned short v) : kind(Kind::Number), number(v) {}
  constexpr PrintArg(unsigned int v) : kind(Kind::Number), number(v) {}
  constexpr PrintArg(unsigned long v) : kind(Kind::Number), number(v) {}
  constexpr PrintArg(unsigned long long v) : kind(Kind::Number), number(v) {}
  constexpr PrintArg(signed char v) : kind(Kind::Signed), number(UINT64(INT64(v))) {}
  constexpr PrintArg(short v) : kind(Kind::Signed), number(UINT64(INT64(v))) {}
  constexpr PrintArg(int v) : kind(Kind::Signed), number(UINT64(INT64(v))) {}
  constexpr PrintArg(long v) : kind(Kind::Signed), number(UINT64(INT64(v))) {}
  constexpr PrintArg(long long v) : kind(Kind::Signed), number(UINT64(INT64(v))) {}
  template <class E>
  requires __is_enum(E) constexpr PrintArg(E v) : kind(Kind::Number), number(UINT64(v)) {}
};

// Formats into Buffer, whose size is given in bytes; stops one character before the end and
// always terminates (when the buffer holds at least one character). Returns the characters written.
UINTN FormatV(CHAR16* Buffer, UINTN BufferSize, const CHAR16* Format, const PrintArg* Args, UINTN ArgCount);

template <class... A> UINTN SPrint(CHAR16* Buffer, UINTN BufferSize, const CHAR16* Format, const A&... args) {
  const PrintArg list[sizeof...(A) + 1] = {PrintArg(args)...};
  return FormatV(Buffer, BufferSize, Format, list, sizeof...(A));
}
