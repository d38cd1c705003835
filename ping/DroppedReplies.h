// What an echo engine adds when replies are missing: where the NIC counts the frames it dropped for
// want of receive buffers, and that count grew while the replies were awaited, the replies may have
// reached the machine and been lost in it; the log says so beside the verdict.
#pragma once
#include "uefi/Base.h"

class DroppedReplyWatch {
public:
  // Reads the NIC's count as the first request leaves.
  void Start(EFI_HANDLE Nic);
  // Logs how many frames the NIC dropped since Start, when it counts them and the count grew.
  void SayDropped() const;

private:
  EFI_HANDLE nic_ = nullptr;
  bool known_ = false;
  UINT64 before_ = 0;
};
