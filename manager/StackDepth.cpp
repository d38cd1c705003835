#include "manager/StackDepth.h"

#include "base/Globals.h"

namespace {

// The hand-off blocks the firmware's early phase leaves in a list for the later ones; one of them
// records where the boot-services stack was allocated.
constexpr EFI_GUID kHobListGuid = {
    0x7739F24C, 0x93D7, 0x11D4, {0x9A, 0x3A, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};
constexpr EFI_GUID kStackHobGuid = {
    0x4ED4BF27, 0x4092, 0x42E9, {0x80, 0x7D, 0x52, 0x7B, 0x1D, 0x00, 0xC9, 0xBD}};
constexpr UINT16 kHobMemoryAllocation = 0x0002;
constexpr UINT16 kHobEnd = 0xFFFF;

struct HobHeader {
  UINT16 Type;
  UINT16 Length;
  UINT32 Reserved;
};
struct MemoryAllocationHob {
  HobHeader Header;
  EFI_GUID Name;
  UINT64 Base;
  UINT64 Length;
  UINT32 MemoryType;
  UINT8 Reserved[4];
};

constexpr UINT64 kPattern = 0x5AC3A55AC33CA5C3ull;
// Left alone at the bottom: a guard page, where the firmware has one.
constexpr UINT64 kBottomMargin = 4096;
// Left alone below the painter's own frame, which it is using.
constexpr UINT64 kFrameMargin = 1024;

const void* HobList() {
  for (UINTN i = 0; i < gST->NumberOfTableEntries; ++i)
    if (gST->ConfigurationTable[i].VendorGuid == kHobListGuid)
      return gST->ConfigurationTable[i].VendorTable;
  return nullptr;
}

} // namespace

__attribute__((noinline)) StackDepth PaintStack() {
  StackDepth stack;
  auto here = reinterpret_cast<UINT64>(__builtin_frame_address(0));
  const auto* hob = static_cast<const UINT8*>(HobList());
  for (UINTN guard = 0; hob != nullptr && guard < 100000; ++guard) {
    const auto* header = reinterpret_cast<const HobHeader*>(hob);
    if (header->Type == kHobEnd || header->Length < sizeof(HobHeader))
      break;
    if (header->Type == kHobMemoryAllocation && header->Length >= sizeof(MemoryAllocationHob)) {
      const auto* a = reinterpret_cast<const MemoryAllocationHob*>(hob);
      if (a->Name == kStackHobGuid && here > a->Base && here < a->Base + a->Length) {
        stack.Base = a->Base;
        stack.Size = a->Length;
        break;
      }
    }
    hob += header->Length;
  }
  if (stack.Size == 0 || here < stack.Base + kBottomMargin + kFrameMargin)
    return {};
  for (auto* word = reinterpret_cast<volatile UINT64*>(stack.Base + kBottomMargin);
       reinterpret_cast<UINT64>(word) < here - kFrameMargin; ++word)
    *word = kPattern;
  return stack;
}

UINT64 DeepestStackUse(const StackDepth& Stack) {
  if (Stack.Size == 0)
    return 0;
  UINT64 top = Stack.Base + Stack.Size;
  auto* word = reinterpret_cast<const volatile UINT64*>(Stack.Base + kBottomMargin);
  while (reinterpret_cast<UINT64>(word) < top && *word == kPattern)
    ++word;
  return top - reinterpret_cast<UINT64>(word);
}
