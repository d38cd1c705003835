// The processor's free-running counter as a clock (the time-stamp counter on x86-64, the generic
// timer on AArch64; support/Clock.cpp is the one place that reads either): its reading, and its
// frequency, found once and kept for the module's lifetime.
#pragma once
#include "uefi/Base.h"

// The counter's reader. The host build's fakes replace it with a counter that follows their
// virtual clock; in firmware it is the processor's own.
using TimeStampCounterReader = UINT64 (*)();
extern TimeStampCounterReader gReadTimeStampCounter;

inline UINT64 ReadTimeStampCounter() {
  return gReadTimeStampCounter();
}

// Ticks per second. The first call takes the frequency the processor states (AArch64's CNTFRQ_EL0)
// or, where it states none (x86-64), waits for the real-time clock's second to change twice (one to
// two seconds) and measures it; either way it sets *Measured, so that its caller can log the figure.
// 0 when it has to be measured and the real-time clock cannot be read.
UINT64 TimeStampCounterFrequency(bool* Measured = nullptr);

// Ticks per microsecond, for round-trip times: the measured frequency when a caller has had it
// measured, otherwise a quick estimate of 10 ms against Stall, made once. Never 0.
UINT64 TimeStampCounterPerMicrosecond();

// Whether the counter runs at one rate whatever the processor's power state: on x86-64 as CPUID
// 8000_0007h reports it (EDX bit 8), on AArch64 always.
bool TimeStampCounterInvariant();

// Forgets the measured frequency and the estimate (the host tests measure it again on a different clock).
void ResetTimeStampCounterFrequency();
