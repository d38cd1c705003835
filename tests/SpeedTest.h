// The speed test's arithmetic, shared with its unit tests.
#pragma once
#include "uefi/Base.h"

// The figures of one measurement: bits sent (media headers included), the milliseconds between
// the first and the last completion, and the speed in Mbit/s (2^20 bits). Every division by zero
// gives 0.
struct SpeedFigures {
  UINT64 Bits;
  UINT64 Milliseconds;
  UINT64 Speed;
};
SpeedFigures ComputeNetworkSpeed(UINT64 PacketsCount, UINT32 MaxPacketSize, UINT32 MediaHeaderSize,
                                 UINT64 Ticks, UINT64 Frequency);
// The speed class of a measured speed: above 200 Mbit/s 1000, above 30 100, else 10.
UINT64 SpeedClass(UINT64 Speed);
