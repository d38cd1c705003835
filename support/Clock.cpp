#include "support/Clock.h"
#include "base/Globals.h"

namespace {

// The processor's free-running counter: the time-stamp counter on x86-64, the generic timer's
// virtual count (CNTVCT_EL0) on AArch64.
UINT64 HardwareCounter() {
#if defined(__x86_64__)
  return __builtin_ia32_rdtsc();
#elif defined(__aarch64__)
  UINT64 count;
  __asm__ volatile("isb; mrs %0, cntvct_el0" : "=r"(count) : : "memory");
  return count;
#else
  return 0;
#endif
}

// The counter's frequency as the processor states it: the generic timer's CNTFRQ_EL0 on AArch64 (set
// by the firmware; QEMU's virt machine gives 62.5 MHz or 1 GHz by processor). x86-64 states none
// that every processor gives, so 0: the frequency is measured.
UINT64 StatedFrequency() {
#if defined(__aarch64__)
  UINT64 frequency;
  __asm__ volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
  return frequency;
#else
  return 0;
#endif
}

// The counter's rate, once found: gFrequency measured against the real-time clock (ticks per second),
// gQuickPerUs estimated against Stall (ticks per microsecond).
constinit UINT64 gFrequency = 0;
constinit UINT64 gQuickPerUs = 0;

// Reads the real-time clock until its Second differs from Second; FALSE when a read fails.
bool WaitForSecondChange(UINT8* Second) {
  for (;;) {
    EFI_TIME now = {};
    if (EFI_ERROR(gRT->GetTime(&now, nullptr)))
      return false;
    if (now.Second != *Second) {
      *Second = now.Second;
      return true;
    }
  }
}

} // namespace

constinit TimeStampCounterReader gReadTimeStampCounter = HardwareCounter;

bool TimeStampCounterInvariant() {
#if defined(__x86_64__)
  UINT32 eax = 0x80000000, ebx = 0, ecx = 0, edx = 0;
  __asm__ volatile("cpuid" : "+a"(eax), "=b"(ebx), "=c"(ecx), "=d"(edx));
  if (eax < 0x80000007)
    return false;
  eax = 0x80000007;
  __asm__ volatile("cpuid" : "+a"(eax), "=b"(ebx), "=c"(ecx), "=d"(edx));
  return (edx & (1u << 8)) != 0;
#elif defined(__aarch64__)
  return true; // the generic timer counts at one fixed frequency by the architecture
#else
  return false;
#endif
}

UINT64 TimeStampCounterFrequency(bool* Measured) {
  if (gFrequency != 0)
    return gFrequency;
  UINT64 stated = gReadTimeStampCounter == HardwareCounter ? StatedFrequency() : 0;
  if (stated != 0) {
    gFrequency = stated;
    if (Measured != nullptr)
      *Measured = true;
    return gFrequency;
  }
  // Start from an impossible second, so that the first read counts as a change; the second change
  // then starts the counted second and the third one ends it.
  UINT8 second = 0xFF;
  if (!WaitForSecondChange(&second) || !WaitForSecondChange(&second))
    return 0;
  UINT64 start = ReadTimeStampCounter();
  if (!WaitForSecondChange(&second))
    return 0;
  gFrequency = ReadTimeStampCounter() - start;
  if (Measured != nullptr)
    *Measured = true;
  return gFrequency;
}

UINT64 TimeStampCounterPerMicrosecond() {
  if (gFrequency >= 1000000)
    return gFrequency / 1000000;
  if (gQuickPerUs == 0) {
    constexpr UINTN kEstimate = 10000; // µs
    UINT64 start = ReadTimeStampCounter();
    gBS->Stall(kEstimate);
    gQuickPerUs = (ReadTimeStampCounter() - start) / kEstimate;
    if (gQuickPerUs == 0)
      gQuickPerUs = 1;
  }
  return gQuickPerUs;
}

void ResetTimeStampCounterFrequency() {
  gFrequency = 0;
  gQuickPerUs = 0;
}
