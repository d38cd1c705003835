#include "base/Memory.h"
#include "base/Globals.h"

void* AllocatePool(UINTN Size) {
  void* buffer = nullptr;
  if (gBS == nullptr || EFI_ERROR(gBS->AllocatePool(EfiBootServicesData, Size, &buffer)))
    return nullptr;
  return buffer;
}

void* AllocateZeroPool(UINTN Size) {
  void* buffer = AllocatePool(Size);
  if (buffer != nullptr)
    ZeroMem(buffer, Size);
  return buffer;
}

void* AllocateCopyPool(UINTN Size, const void* Source) {
  void* buffer = AllocatePool(Size);
  if (buffer != nullptr)
    CopyMem(buffer, Source, Size);
  return buffer;
}

void FreePool(void* Buffer) {
  if (Buffer != nullptr && gBS != nullptr)
    gBS->FreePool(Buffer);
}

void CopyMem(void* Destination, const void* Source, UINTN Length) {
  if (Destination == Source || Length == 0)
    return;
#ifdef WIRECHECK_FIRMWARE
  auto* d = static_cast<UINT8*>(Destination);
  const auto* s = static_cast<const UINT8*>(Source);
  if (d < s || d >= s + Length) {
#if defined(__x86_64__)
    // A string move: fast on every processor since the fast-string feature, and no call to the
    // memcpy that is built on this function.
    __asm__ volatile("rep movsb" : "+D"(d), "+S"(s), "+c"(Length) : : "memory");
#else
    // Through a volatile pointer, so that the compiler does not make the loop a call to memcpy.
    auto* vd = static_cast<volatile UINT8*>(Destination);
    for (UINTN i = 0; i < Length; ++i)
      vd[i] = s[i];
#endif
  } else {
    auto* vd = static_cast<volatile UINT8*>(Destination);
    for (UINTN i = Length; i > 0; --i)
      vd[i - 1] = s[i - 1];
  }
#else
  __builtin_memmove(Destination, Source, Length);
#endif
}

void SetMem(void* Buffer, UINTN Size, UINT8 Value) {
  if (Size == 0)
    return;
#ifdef WIRECHECK_FIRMWARE
#if defined(__x86_64__)
  auto* d = static_cast<UINT8*>(Buffer);
  __asm__ volatile("rep stosb" : "+D"(d), "+c"(Size) : "a"(Value) : "memory");
#else
  auto* d = static_cast<volatile UINT8*>(Buffer);
  for (UINTN i = 0; i < Size; ++i)
    d[i] = Value;
#endif
#else
  __builtin_memset(Buffer, Value, Size);
#endif
}

void ZeroMem(void* Buffer, UINTN Size) {
  SetMem(Buffer, Size, 0);
}

INTN CompareMem(const void* A, const void* B, UINTN Length) {
  const auto* a = static_cast<const UINT8*>(A);
  const auto* b = static_cast<const UINT8*>(B);
  for (UINTN i = 0; i < Length; ++i)
    if (a[i] != b[i])
      return INTN(a[i]) - INTN(b[i]);
  return 0;
}

#ifdef WIRECHECK_FIRMWARE
// The compiler may emit calls to these for aggregate copies and zeroing; there is no C library.
extern "C" {
void* memset(void* dest, int value, size_t count) {
  SetMem(dest, count, UINT8(value));
  return dest;
}
void* memcpy(void* dest, const void* src, size_t count) {
  CopyMem(dest, src, count);
  return dest;
}
void* memmove(void* dest, const void* src, size_t count) {
  CopyMem(dest, src, count);
  return dest;
}
int memcmp(const void* a, const void* b, size_t count) {
  return int(CompareMem(a, b, count));
}
}
#endif
