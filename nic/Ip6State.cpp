#include "nic/Ip6State.h"

#include "base/Globals.h"
#include "base/Ipv6Text.h"
#include "base/Owners.h"
#include "report/Output.h"

namespace {

// How many entries of Count, each Each bytes at Array, may be read: all of them for an array outside
// the buffer (the firmware's own memory), as many as fit for one inside it, none for null.
UINTN Readable(const void* Array, UINT32 Count, UINTN Each, const void* Buffer, UINTN Size) {
  if (Array == nullptr || Count == 0)
    return 0;
  auto at = reinterpret_cast<UINTN>(Array), start = reinterpret_cast<UINTN>(Buffer);
  if (at < start || at >= start + Size)
    return Count < 64 ? Count : 64; // the firmware's own memory: taken on trust, within reason
  return (start + Size - at) / Each < Count ? (start + Size - at) / Each : Count;
}

} // namespace

void DigestIp6InterfaceInfo(const EFI_IP6_CONFIG_INTERFACE_INFO* Info, UINTN Size, Ip6State* State) {
  State->AddressCount = 0;
  State->HasRouter = false;
  if (Info == nullptr || Size < sizeof(EFI_IP6_CONFIG_INTERFACE_INFO))
    return;
  UINTN addresses =
      Readable(Info->AddressInfo, Info->AddressInfoCount, sizeof(EFI_IP6_ADDRESS_INFO), Info, Size);
  for (UINTN i = 0; i < addresses; ++i) {
    if (State->AddressCount < kMaxIp6Addresses)
      State->Addresses[State->AddressCount] = Info->AddressInfo[i];
    ++State->AddressCount;
  }
  UINTN routes = Readable(Info->RouteTable, Info->RouteCount, sizeof(EFI_IP6_ROUTE_TABLE), Info, Size);
  for (UINTN i = 0; i < routes; ++i) {
    const EFI_IP6_ROUTE_TABLE& r = Info->RouteTable[i];
    if (r.PrefixLength == 0 && !IsUnspecifiedIpv6(r.Gateway) && !State->HasRouter) {
      State->HasRouter = true;
      State->Router = r.Gateway;
    }
  }
}

EFI_STATUS ReadIp6State(EFI_HANDLE Nic, Ip6State* State) {
  *State = {};
  void* iface = nullptr;
  if (EFI_ERROR(gBS->HandleProtocol(Nic, &EFI_IP6_CONFIG_PROTOCOL_GUID, &iface)) || iface == nullptr)
    return EFI_UNSUPPORTED;
  auto* config = static_cast<EFI_IP6_CONFIG_PROTOCOL*>(iface);
  EFI_IP6_CONFIG_POLICY policy = Ip6ConfigPolicyManual;
  UINTN size = sizeof(policy);
  if (config->GetData(config, Ip6ConfigDataTypePolicy, &size, &policy) == EFI_SUCCESS &&
      size == sizeof(policy)) {
    State->PolicyRead = true;
    State->Policy = policy;
  }
  size = 0;
  EFI_STATUS status = config->GetData(config, Ip6ConfigDataTypeInterfaceInfo, &size, nullptr);
  if (status != EFI_BUFFER_TOO_SMALL)
    return EFI_ERROR(status) ? status : EFI_PROTOCOL_ERROR;
  if (size < sizeof(EFI_IP6_CONFIG_INTERFACE_INFO) || size > 0x100000)
    return EFI_PROTOCOL_ERROR;
  auto buffer = wc::PoolPtr<UINT8>::AllocateZero(size);
  if (!buffer)
    return EFI_OUT_OF_RESOURCES;
  UINTN given = size;
  status = config->GetData(config, Ip6ConfigDataTypeInterfaceInfo, &given, buffer.Get());
  if (EFI_ERROR(status))
    return status;
  DigestIp6InterfaceInfo(reinterpret_cast<const EFI_IP6_CONFIG_INTERFACE_INFO*>(buffer.Get()),
                         given < size ? given : size, State);
  return EFI_SUCCESS;
}

EFI_STATUS Ip6AutomaticPolicy::Apply(EFI_HANDLE Nic, bool* Switched) {
  *Switched = false;
  Restore();
  void* iface = nullptr;
  EFI_STATUS status = gBS->HandleProtocol(Nic, &EFI_IP6_CONFIG_PROTOCOL_GUID, &iface);
  if (EFI_ERROR(status) || iface == nullptr)
    return EFI_UNSUPPORTED;
  auto* config = static_cast<EFI_IP6_CONFIG_PROTOCOL*>(iface);
  EFI_IP6_CONFIG_POLICY policy = Ip6ConfigPolicyManual;
  UINTN size = sizeof(policy);
  status = config->GetData(config, Ip6ConfigDataTypePolicy, &size, &policy);
  if (EFI_ERROR(status))
    return status;
  if (policy == Ip6ConfigPolicyAutomatic)
    return EFI_SUCCESS;
  size = 0;
  if (config->GetData(config, Ip6ConfigDataTypeManualAddress, &size, nullptr) == EFI_BUFFER_TOO_SMALL &&
      size != 0)
    return EFI_ALREADY_STARTED;
  policy = Ip6ConfigPolicyAutomatic;
  status = config->SetData(config, Ip6ConfigDataTypePolicy, sizeof(policy), &policy);
  if (EFI_ERROR(status) && status != EFI_NOT_READY)
    return status;
  config_ = config;
  *Switched = true;
  return EFI_SUCCESS;
}

void Ip6AutomaticPolicy::Restore() {
  if (config_ == nullptr)
    return;
  // Asked twice: a NIC left under the automatic policy would keep it, stored, across boots.
  EFI_IP6_CONFIG_POLICY policy = Ip6ConfigPolicyManual;
  EFI_STATUS status = config_->SetData(config_, Ip6ConfigDataTypePolicy, sizeof(policy), &policy);
  if (EFI_ERROR(status))
    status = config_->SetData(config_, Ip6ConfigDataTypePolicy, sizeof(policy), &policy);
  if (EFI_ERROR(status))
    LogPrint(u"The NIC's IPv6 policy could not be set back to manual (%r)\r\n", status);
  config_ = nullptr;
}
