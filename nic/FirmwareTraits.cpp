#include "nic/FirmwareTraits.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "support/Platform.h"
#include "uefi/protocol/Ip4Config2.h"
#include "uefi/protocol/Rng.h"
#include "uefi/protocol/SimpleNetwork.h"

StackSight LookAtNetworkStack() {
  StackSight sight = {};
  void* rng = nullptr;
  sight.Rng = !EFI_ERROR(gBS->LocateProtocol(&EFI_RNG_PROTOCOL_GUID, nullptr, &rng)) && rng != nullptr;
  wc::HandleBuffer snps;
  if (EFI_ERROR(snps.Locate(EFI_SIMPLE_NETWORK_PROTOCOL_GUID)))
    return sight;
  sight.SimpleNetworks = snps.Count();
  for (UINTN i = 0; i < snps.Count(); ++i) {
    wc::PoolPtr<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> entries;
    UINTN count = 0;
    if (EFI_ERROR(gBS->OpenProtocolInformation(snps[i], &EFI_SIMPLE_NETWORK_PROTOCOL_GUID, entries.Receive(),
                                               &count)))
      continue;
    bool held = false;
    for (UINTN e = 0; e < count; ++e)
      held |= (entries[e].Attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) != 0;
    sight.Unbound += held ? 0 : 1;
  }
  return sight;
}

FirmwareTraits ReadFirmwareTraits() {
  constexpr UINT32 kCurrentUefi = 0x2001E;        // 2.30
  constexpr UINT32 kCurrentUefiFamily1 = 0x2000A; // 2.10, on platform family 1
  FirmwareTraits traits = {};
  traits.UefiRevision = gST->Hdr.Revision;
  traits.PlatformFamily = GetPlatformFamilyId();
  traits.CurrentPlatform = traits.UefiRevision >= kCurrentUefi ||
                           (traits.UefiRevision >= kCurrentUefiFamily1 && traits.PlatformFamily == 1);
  if (!traits.CurrentPlatform)
    LogPrint(u"Old UEFI 0x%x platform, family id 0x%x\r\n", traits.UefiRevision, traits.PlatformFamily);
  wc::HandleBuffer config2;
  traits.Ip4Config2 = !EFI_ERROR(config2.Locate(EFI_IP4_CONFIG2_PROTOCOL_GUID)) && config2.Count() > 0;
  DebugLogPrint(u"Firmware: UEFI 0x%x, platform family %d, %s platform; IPv4 configuration 2 %s\r\n",
                traits.UefiRevision, traits.PlatformFamily, traits.CurrentPlatform ? u"current" : u"old",
                traits.Ip4Config2 ? u"on the NICs: a stalled DHCP is started again, a child left behind is "
                                    u"configured again"
                                  : u"missing: no DHCP restart, no child configured again");
  return traits;
}
