#include "nic/NicConfig.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "nic/HiiConfig.h"
#include "nic/MediaCheck.h"
#include "nic/ServiceChildren.h"
#include "report/Output.h"
#include "support/DebugLog.h"

namespace {

// The messages of one resizing read.
struct ReadTexts {
  const CHAR16* BeforeAllocation; // null: none
  const CHAR16* AllocationFailed;
  const CHAR16* BeforeCall; // null: none
  const CHAR16* AfterCall;  // null: none; with the status
  const CHAR16* OtherError;
};

// Reads one data type, growing the buffer as the driver asks; EFI_NOT_READY asks again at once.
// A failed allocation ends the read with AllocationStatus. *Read, when given, gets the buffer's size.
EFI_STATUS ReadResizing(EFI_IP4_CONFIG2_PROTOCOL* config, EFI_IP4_CONFIG2_DATA_TYPE type,
                        wc::PoolPtr<UINT8>& buffer, const ReadTexts& texts, EFI_STATUS allocationStatus,
                        UINTN* read = nullptr) {
  UINTN local = 0;
  UINTN& size = read != nullptr ? *read : local;
  size = 0;
  buffer.Reset();
  EFI_STATUS status = EFI_SUCCESS;
  for (;;) {
    if (status == EFI_BUFFER_TOO_SMALL) {
      if (texts.BeforeAllocation != nullptr)
        DebugLogPrint(texts.BeforeAllocation);
      buffer = wc::PoolPtr<UINT8>::AllocateZero(size);
      if (!buffer) {
        DebugLogPrint(texts.AllocationFailed);
        return allocationStatus;
      }
    }
    if (texts.BeforeCall != nullptr)
      DebugLogPrint(texts.BeforeCall);
    status = config->GetData(config, type, &size, buffer.Get());
    if (texts.AfterCall != nullptr)
      DebugLogPrint(texts.AfterCall, status);
    if (status == EFI_BUFFER_TOO_SMALL || status == EFI_NOT_READY)
      continue;
    if (EFI_ERROR(status))
      DebugLogPrint(texts.OtherError, status);
    return status;
  }
}

// The route table the driver points at must lie within the buffer it filled (the driver puts it
// right behind the structure); a table that does not is dropped rather than read. The buffer holds
// at least the structure.
void KeepRouteTableInside(EFI_IP4_CONFIG2_INTERFACE_INFO* info, UINTN size) {
  auto start = reinterpret_cast<UINTN>(info), end = start + size;
  auto table = reinterpret_cast<UINTN>(info->RouteTable);
  UINTN bytes = UINTN(info->RouteTableSize) * sizeof(EFI_IP4_ROUTE_TABLE);
  if (info->RouteTableSize != 0 && (table < start || table > end || bytes > end - table)) {
    info->RouteTable = nullptr;
    info->RouteTableSize = 0;
  }
}

using Config2 = wc::OpenedProtocol<EFI_IP4_CONFIG2_PROTOCOL>;

EFI_STATUS OpenConfig(EFI_HANDLE handle, Config2& config) {
  return config.Open(handle, EFI_IP4_CONFIG2_PROTOCOL_GUID, gImageHandle, nullptr,
                     EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
}

// Switches one NIC's policy to DHCP and reads it back into the caller's buffer. *Stop when the
// whole operation ends with the returned status; otherwise that status is the read-back's.
EFI_STATUS SwitchToDhcp(EFI_IP4_CONFIG2_PROTOCOL* config, wc::PoolPtr<UINT8>& policy, bool* stop) {
  *stop = true;
  DebugLogPrint(u"SetNicConfig():About to setdata of config to DHCP\r\n");
  UINT32 dhcp = Ip4Config2PolicyDhcp;
  wc::EventOwner event;
  EFI_STATUS status = config->SetData(config, Ip4Config2DataTypePolicy, sizeof(dhcp), &dhcp);
  if (status == EFI_NOT_READY) {
    // The driver applies the policy later; nothing waits on this event, it only marks the interest.
    DebugLogPrint(u"SetNicConfig():Config isn't ready yet\r\n");
    DebugLogPrint(u"SetNicConfig():Registering Event for Config\r\n");
    status = event.Create(0, TPL_CALLBACK);
    if (!EFI_ERROR(status))
      status = config->RegisterDataNotify(config, Ip4Config2DataTypePolicy, event.Get());
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"SetNicConfig():(%r) in RegisterNotify\r\n", status);
      return status;
    }
  } else if (EFI_ERROR(status)) {
    DebugLogPrint(u"SetNicConfig():This happened (%r) SetData for DHCP\r\n", status);
    return status;
  }
  DebugLogPrint(u"SetNicConfig(): Freeing pEfiIp4Config2PolicyBuffer Inner Loop\r\n");
  static constexpr ReadTexts kReadBack = {u"SetNicConfig():Config Policy Buffer is too small, resizing\r\n",
                                          u"SetNicConfig():Failed to Resize pEfiIp4Config2PolicyBuffer\r\n",
                                          u"SetNicConfig():Performing GetData for DHCP after setData\r\n",
                                          nullptr,
                                          u"SetNicConfig(): (%r) = pEfiIp4Config2Protocol->GetData after "
                                          u"RegisterNotify\r\n"};
  bool applyLater = static_cast<bool>(event);
  status = ReadResizing(config, Ip4Config2DataTypePolicy, policy, kReadBack, EFI_DEVICE_ERROR);
  if (event) {
    DebugLogPrint(u"SetNicConfig():Unregistering Event\r\n");
    EFI_STATUS unregistered = config->UnregisterDataNotify(config, Ip4Config2DataTypePolicy, event.Get());
    if (EFI_ERROR(unregistered)) {
      DebugLogPrint(u"SetNicConfig():(%r) in UnregisterNotify\r\n", unregistered);
      return unregistered;
    }
  }
  DebugLogPrint(u"SetNicConfig(): Loop done!\r\n");
  // A driver that took the change at once but still reports another policy cannot be switched.
  if (!applyLater && !EFI_ERROR(status) && policy &&
      *reinterpret_cast<UINT32*>(policy.Get()) != Ip4Config2PolicyDhcp) {
    DebugLogPrint(u"SetNicConfig(): NIC is cannot be set to DHCP.\r\n");
    return EFI_DEVICE_ERROR;
  }
  *stop = false;
  return status;
}

} // namespace

EFI_STATUS GetNicConfig(NicInfo* Nic) {
  wc::HandleBuffer handles;
  EFI_STATUS status = handles.Locate(EFI_IP4_CONFIG2_PROTOCOL_GUID);
  if (EFI_ERROR(status) || handles.Count() == 0) {
    DebugLogPrint(u"GetNicConfig(): LocateHandleBuffer() Failed. (%r)\r\n", status);
    DebugLogPrint(u"HandleCount = %d\r\n", handles.Count());
    return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
  }
  DebugLogPrint(u"GetNicConfig(): LocateHandleBuffer() Passed. (%r)\r\n", status);
  DebugLogPrint(u"Found %d handles supporting EFI_IP4_CONFIG2_PROTOCOL (%g) \r\n", handles.Count(),
                &EFI_IP4_CONFIG2_PROTOCOL_GUID);
  static constexpr ReadTexts kInfo = {u"GetNicConfig(): About to malloc pEfiIp4Config2InfoBuffer \r\n",
                                      u"GetNicConfig():Failed to Resize pEfiIp4Config2InfoBuffer buffer\r\n",
                                      u"GetNicConfig(): Running GetData\r\n", nullptr,
                                      u"GetNicConfig(): (%r) = pEfiIp4Config2Protocol->GetData\r\n"};
  for (UINTN i = 0; i < handles.Count(); ++i) {
    DebugLogPrint(u"GetNicConfig(): Running OpenProtocol at Index[%d] \r\n", i);
    Config2 config;
    status = OpenConfig(handles[i], config);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"GetNicConfig(): OpenProtocol (%r) at Index[%d] \r\n", status, i);
      return status;
    }
    if (config.Get() == nullptr) {
      DebugLogPrint(u"GetNicConfig(): pEfiIp4Config2Protocol NULL  at Index[%d] \r\n", i);
      return EFI_UNSUPPORTED;
    }
    DebugLogPrint(u"GetNicConfig(): Running GetChildHandle at Index[%d] \r\n", i);
    EFI_HANDLE child = nullptr;
    EFI_STATUS found = FindHiiChildHandle(handles[i], EFI_IP4_CONFIG2_PROTOCOL_GUID, &child);
    if (EFI_ERROR(found)) {
      DebugLogPrint(u"GetNicConfig(): GetChildHandle() Failed. (%r)\r\n", found);
      DebugLogPrint(u"GetNicConfig(): Using pHandles[%d]\r\n", i);
    }
    wc::PoolPtr<UINT8> info;
    UINTN size = 0;
    status =
        ReadResizing(config.Get(), Ip4Config2DataTypeInterfaceInfo, info, kInfo, EFI_OUT_OF_RESOURCES, &size);
    DebugLogPrint(u"Closing Protocol for pHandles[%d]\r\n", i);
    EFI_STATUS closed = config.Close();
    if (EFI_ERROR(closed)) {
      DebugLogPrint(u"GetNicConfig(): CloseProtocol (%r)  \r\n", closed);
      return closed;
    }
    if (!info) {
      DebugLogPrint(u"GetNicConfig(): pEfiIp4Config2InfoBuffer already NULL, what?\r\n");
      return status;
    }
    auto* interface = reinterpret_cast<EFI_IP4_CONFIG2_INTERFACE_INFO*>(info.Get());
    if (size < sizeof(*interface)) {
      // A driver that reports less than the structure describes no NIC this record can match.
      DebugLogPrint(u"GetNicConfig(): interface information of %d bytes, too short\r\n", size);
      continue;
    }
    KeepRouteTableInside(interface, size);
    if (!EFI_ERROR(status) &&
        CompareMem(&interface->HwAddress, &Nic->MacAddress, sizeof(EFI_MAC_ADDRESS)) == 0) {
      DebugLogPrint(u"GetNicConfig(): Selected NIC found Adding config\r\n");
      FreePool(Nic->Ip4Config2InterfaceInfo);
      Nic->Ip4Config2InterfaceInfo = reinterpret_cast<EFI_IP4_CONFIG2_INTERFACE_INFO*>(info.Release());
      DebugLogPrint(u"GetNicConfig(): Exiting All Good Here\r\n");
      return EFI_SUCCESS;
    }
    DebugLogPrint(u"GetNicConfig(): Freeing pEfiIp4Config2InfoBuffer\r\n");
  }
  return status;
}

EFI_STATUS SetNicConfig() {
  wc::HandleBuffer handles;
  EFI_STATUS status = handles.Locate(EFI_IP4_CONFIG2_PROTOCOL_GUID);
  if (EFI_ERROR(status) || handles.Count() == 0) {
    DebugLogPrint(u"SetNicConfig():SetNicConfig(): LocateHandleBuffer() Failed. (%r)\r\n", status);
    return EFI_ERROR(status) ? status : EFI_NOT_FOUND;
  }
  DebugLogPrint(u"SetNicConfig(): LocateHandleBuffer() Passed. (%r)\r\n", status);
  DebugLogPrint(u"SetNicConfig():Found %d handles supporting EFI_IP4_CONFIG2_PROTOCOL (%g) \r\n",
                handles.Count(), &EFI_IP4_CONFIG2_PROTOCOL_GUID);
  static constexpr ReadTexts kPolicy = {u"SetNicConfig():Resizing pEfiIp4Config2PolicyBuffer\r\n",
                                        u"SetNicConfig():Failed to resize pEfiIp4Config2PolicyBuffer\r\n",
                                        nullptr, u"SetNicConfig():GetData for Config Policy Status(%r)\r\n",
                                        u" SetNicConfig():(%r) = pEfiIp4Config2Protocol->GetData\r\n"};
  for (UINTN i = 0; i < handles.Count(); ++i) {
    Config2 config;
    status = OpenConfig(handles[i], config);
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"SetNicConfig(): OpenProtocol (%r) at Index[%d] \r\n", status, i);
      return status;
    }
    EFI_HANDLE child = nullptr;
    if (EFI_ERROR(FindHiiChildHandle(handles[i], EFI_IP4_CONFIG2_PROTOCOL_GUID, &child)))
      DebugLogPrint(u"SetNicConfig():Failed to get Child Handle using HandleIndex instead\r\n");
    wc::PoolPtr<UINT8> policy;
    // A policy that could not be read is left as it is: the buffer may hold nothing the driver said.
    status = ReadResizing(config.Get(), Ip4Config2DataTypePolicy, policy, kPolicy, EFI_DEVICE_ERROR);
    if (!EFI_ERROR(status) && policy && *reinterpret_cast<UINT32*>(policy.Get()) != Ip4Config2PolicyDhcp) {
      bool stop = false;
      status = SwitchToDhcp(config.Get(), policy, &stop);
      if (stop)
        return status;
    }
    DebugLogPrint(u"SetNicConfig(): Closing IP4 Config2 Protocol for pHandles[%d]\r\n", i);
    // The NIC's last step is the close: its status is what the operation returns after the last NIC.
    status = config.Close();
    if (EFI_ERROR(status)) {
      DebugLogPrint(u"SetNicConfig(): CloseProtocol (%r)  \r\n", status);
      return status;
    }
    DebugLogPrint(u"SetNicConfig(): CloseProtocol Success\r\n");
    DebugLogPrint(u"SetNicConfig(): NIC is set to DHCP.\r\n");
    DebugLogPrint(u"SetNicConfig(): Freeing pEfiIp4Config2PolicyBuffer Outer Loop.\r\n");
  }
  return status;
}

namespace {

// The station address in the NIC's interface information; FALSE when it cannot be read. An address
// wait reads it every second, so the usual resizing goes unlogged: each debug-log line is a file write
// during which nothing polls the NIC.
bool ReadStationAddress(EFI_IP4_CONFIG2_PROTOCOL* config, EFI_IPv4_ADDRESS* address) {
  static constexpr ReadTexts kInfo = {
      nullptr, u"ReadStationAddress(): no memory for the interface information\r\n", nullptr, nullptr,
      u"ReadStationAddress(): (%r) reading the interface information\r\n"};
  wc::PoolPtr<UINT8> buffer;
  UINTN read = 0;
  if (EFI_ERROR(ReadResizing(config, Ip4Config2DataTypeInterfaceInfo, buffer, kInfo, EFI_OUT_OF_RESOURCES,
                             &read)) ||
      !buffer || read < sizeof(EFI_IP4_CONFIG2_INTERFACE_INFO))
    return false;
  *address = reinterpret_cast<const EFI_IP4_CONFIG2_INTERFACE_INFO*>(buffer.Get())->StationAddress;
  return true;
}

} // namespace

bool RestartStalledDhcp(EFI_HANDLE Nic) {
  Config2 config;
  if (EFI_ERROR(OpenConfig(Nic, config)))
    return false;
  UINT32 policy = Ip4Config2PolicyStatic;
  UINTN size = sizeof(policy);
  if (EFI_ERROR(config->GetData(config.Get(), Ip4Config2DataTypePolicy, &size, &policy)) ||
      policy != Ip4Config2PolicyDhcp)
    return false;
  EFI_IPv4_ADDRESS address = {};
  if (!ReadStationAddress(config.Get(), &address) || !IsZeroAddress(address))
    return false;
  MediaReport media = {};
  EFI_STATUS read = ReadMedia(Nic, MediaPath::ManagedNetworkChild, false, &media);
  if ((EFI_ERROR(read) && read != EFI_UNSUPPORTED) || (read == EFI_SUCCESS && !media.Present))
    return false;
  UINT32 dhcp = Ip4Config2PolicyDhcp;
  EFI_STATUS status = config->SetData(config.Get(), Ip4Config2DataTypePolicy, sizeof(dhcp), &dhcp);
  LogPrint(u"The NIC has its cable and the DHCP policy but no address yet: the DHCP policy is set again, "
           u"which starts the firmware's DHCP where it gave up (%r)\r\n",
           status);
  return !EFI_ERROR(status) || status == EFI_NOT_READY;
}

bool NicHasStationAddress(EFI_HANDLE Nic, EFI_IPv4_ADDRESS* Address) {
  Config2 config;
  EFI_IPv4_ADDRESS address = {};
  if (EFI_ERROR(OpenConfig(Nic, config)) || !ReadStationAddress(config.Get(), &address) ||
      IsZeroAddress(address))
    return false;
  if (Address != nullptr)
    *Address = address;
  return true;
}

EFI_IPv4_ADDRESS DefaultGateway(const EFI_IP4_CONFIG2_INTERFACE_INFO* Info) {
  EFI_IPv4_ADDRESS none = {};
  if (Info == nullptr || Info->RouteTable == nullptr)
    return none;
  for (UINT32 i = 0; i < Info->RouteTableSize; ++i) {
    const EFI_IP4_ROUTE_TABLE& route = Info->RouteTable[i];
    if (IsZeroAddress(route.SubnetAddress) && IsZeroAddress(route.SubnetMask))
      return route.GatewayAddress;
  }
  return none;
}
