// How deep the firmware's stack has been used: the stack (found through the firmware's hand-off
// list, the memory-allocation entry that holds the stack pointer) is filled with a pattern below
// the caller's frame at start, and the deepest word that lost the pattern is looked for at the end.
#pragma once
#include "uefi/Uefi.h"

struct StackDepth {
  UINT64 Base = 0; // lowest address of the stack
  UINT64 Size = 0; // 0: the stack was not found
};

// Fills the unused part of the stack below the caller's frame; Size stays 0 when it is not found.
StackDepth PaintStack();
// The most bytes of the stack ever in use since PaintStack (from its top).
UINT64 DeepestStackUse(const StackDepth& Stack);
