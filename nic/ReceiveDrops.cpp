#include "nic/ReceiveDrops.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"

bool ReadReceiveDrops(EFI_HANDLE Nic, UINT64* Dropped) {
  wc::OpenedProtocol<EFI_SIMPLE_NETWORK_PROTOCOL> snp;
  if (EFI_ERROR(snp.Open(Nic, EFI_SIMPLE_NETWORK_PROTOCOL_GUID, gImageHandle, nullptr,
                         EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL)))
    return false;
  EFI_SIMPLE_NETWORK_PROTOCOL* p = snp.Get();
  if (p == nullptr || p->Statistics == nullptr || p->Mode == nullptr ||
      p->Mode->State != EfiSimpleNetworkInitialized)
    return false;
  EFI_NETWORK_STATISTICS table;
  SetMem(&table, sizeof(table), 0xFF);
  UINTN size = sizeof(table);
  // A driver that keeps more counters than this table holds still fills the part given.
  EFI_STATUS status = p->Statistics(p, FALSE, &size, &table);
  if ((EFI_ERROR(status) && status != EFI_BUFFER_TOO_SMALL) ||
      size < offsetof(EFI_NETWORK_STATISTICS, RxDroppedFrames) + sizeof(UINT64) ||
      table.RxDroppedFrames == ~0ull)
    return false;
  *Dropped = table.RxDroppedFrames;
  return true;
}
