#include "ping/Dhcp.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "nic/Dumps.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"

EFI_DHCP4_CONFIG_DATA MakeDhcpConfig(UINT32* Timeouts) {
  EFI_DHCP4_CONFIG_DATA config = {};
  Timeouts[0] = kDhcpTimeoutSeconds;
  config.DiscoverTryCount = 1;
  config.DiscoverTimeout = Timeouts;
  config.RequestTryCount = 1;
  config.RequestTimeout = Timeouts;
  config.Dhcp4Callback = Dhcp4EventCallback;
  return config;
}

EFI_STATUS StartConfigureProcess(EFI_DHCP4_PROTOCOL* Dhcp4, EFI_DHCP4_CONFIG_DATA* ConfigData,
                                 EFI_DHCP4_MODE_DATA* ModeData) {
  TracePrint(u"enter StartConfigureProcess().\r\n");
  if (Dhcp4 == nullptr) {
    LogPrint(u"Invalid parameter passed.\r\n");
    return EFI_INVALID_PARAMETER;
  }
  EFI_DHCP4_CONFIG_DATA defaults = {};
  defaults.Dhcp4Callback = Dhcp4EventCallback;
  if (ConfigData == nullptr)
    ConfigData = &defaults;

  EFI_DHCP4_MODE_DATA mode = {};
  EFI_STATUS status = Dhcp4->GetModeData(Dhcp4, &mode);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to get mode data!(%r)\r\n", status);
    return status;
  }
  TracePrint(u"get mode data before configure process.\r\n");
  DumpDhcp4ModeData(&mode);
  if (mode.State == Dhcp4Bound) {
    if (ModeData != nullptr)
      *ModeData = mode;
    TracePrint(u"The DHCP configuration has already completed by BIOS.\r\n");
    return EFI_SUCCESS;
  }

  TracePrint(u"Start the config process!\r\n");
  status = Dhcp4->Configure(Dhcp4, ConfigData);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to configure the EFI DHCPv4 Protocol driver!(%r)\r\n", status);
    return status;
  }
  status = Dhcp4->Start(Dhcp4, nullptr);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to start configure process!(%r)\r\n", status);
    return status;
  }
  status = Dhcp4->GetModeData(Dhcp4, &mode);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to get mode data!(%r)\r\n", status);
    return status;
  }
  TracePrint(u"get mode data after start configure process.\r\n");
  DumpDhcp4ModeData(&mode);
  if (mode.State == Dhcp4Bound)
    TracePrint(u"The DHCP configuration has already completed.\r\n");
  if (ModeData != nullptr)
    *ModeData = mode;
  status = Dhcp4->Stop(Dhcp4);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to stop the dhcp configure process!(%r)\r\n", status);
    return status;
  }
  return EFI_SUCCESS;
}
