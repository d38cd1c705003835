// The processor's time-stamp counter as a clock: its reading, and its frequency measured once
// against the real-time clock and kept for the module's lifetime.
#pragma once
#include "uefi/Base.h"

// The counter's reader. The host build's fakes replace it with a counter that follows their
// virtual clock; in firmware it is the processor's own.
using TimeStampCounterReader = UINT64 (*)();
extern TimeStampCounterReader gReadTimeStampCounter;

inline UINT64 ReadTimeStampCounter() {
  return gReadTimeStampCounter();
}

// Ticks per second. The first call waits for the real-time clock's second to change twice (one to
// two seconds) and sets *Measured, so that its caller can log the figure. 0 when the real-time
// clock cannot be read.
UINT64 TimeStampCounterFrequency(bool* Measured = nullptr);

// Ticks per microsecond, for round-trip times: the measured frequency when a caller has had it
// measured, otherwise a quick estimate of 10 ms against Stall, made once. Never 0.
UINT64 TimeStampCounterPerMicrosecond();

// Whether the processor reports an invariant counter (CPUID 8000_0007h, EDX bit 8).
bool TimeStampCounterInvariant();

// Forgets the measured frequency and the estimate (the host tests measure it again on a different clock).
void ResetTimeStampCounterFrequency();
