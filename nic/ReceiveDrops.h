// The NIC's own count of the frames it received and dropped because its receive buffers were full,
// as its simple network's statistics keep it. Reading it changes nothing on the NIC: the counters are
// never reset.
#pragma once
#include "uefi/protocol/SimpleNetwork.h"

// TRUE with the count in *Dropped when the NIC's driver keeps it: the simple network is on the handle
// and initialized, answers its statistics, and the count is not all ones (a counter not kept).
bool ReadReceiveDrops(EFI_HANDLE Nic, UINT64* Dropped);
