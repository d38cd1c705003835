#include "ping/DroppedReplies.h"
#include "nic/ReceiveDrops.h"
#include "report/Output.h"

void DroppedReplyWatch::Start(EFI_HANDLE Nic) {
  nic_ = Nic;
  known_ = ReadReceiveDrops(Nic, &before_);
}

void DroppedReplyWatch::SayDropped() const {
  UINT64 after = 0;
  if (!known_ || !ReadReceiveDrops(nic_, &after) || after <= before_)
    return;
  LogPrint(u"The NIC's driver counted %d received frames dropped while the replies were awaited (its receive "
           u"buffers were full): the missing replies may have reached this machine and been lost in it\r\n",
           after - before_);
}
