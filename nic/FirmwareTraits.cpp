#include "nic/FirmwareTraits.h"
#include "base/Globals.h"
#include "base/Owners.h"
#include "report/Output.h"
#include "support/DebugLog.h"
#include "support/Platform.h"
#include "uefi/protocol/Ip4Config2.h"

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
