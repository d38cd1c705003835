#include "nic/ServiceChildren.h"
#include "base/Globals.h"
#include "base/Memory.h"
#include "base/Owners.h"
#include "nic/Dumps.h"
#include "report/Output.h"

namespace {

EFI_SERVICE_BINDING_PROTOCOL* OpenBinding(EFI_HANDLE service, EFI_HANDLE agent, const EFI_GUID* guid,
                                          EFI_HANDLE controller, EFI_STATUS* status) {
  void* iface = nullptr;
  *status = gBS->OpenProtocol(service, guid, &iface, agent, controller, EFI_OPEN_PROTOCOL_GET_PROTOCOL);
  return EFI_ERROR(*status) ? nullptr : static_cast<EFI_SERVICE_BINDING_PROTOCOL*>(iface);
}

// The shared body of the IPv4 and DHCPv4 child openers.
// A failure gives the binding's open back, so that the caller has nothing to clean up.
template <class P>
EFI_STATUS OpenChild(EFI_HANDLE service, EFI_HANDLE agent, const EFI_GUID& bindingGuid,
                     const EFI_GUID& protocolGuid, const CHAR16* bindingMessage,
                     const CHAR16* protocolMessage, EFI_HANDLE* child, P** protocol,
                     EFI_SERVICE_BINDING_PROTOCOL** used) {
  if (child == nullptr || protocol == nullptr)
    return EFI_INVALID_PARAMETER;
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding = OpenBinding(service, agent, &bindingGuid, nullptr, &status);
  if (binding == nullptr) {
    LogPrint(bindingMessage);
    return status;
  }
  *child = nullptr;
  status = binding->CreateChild(binding, child);
  if (EFI_ERROR(status)) {
    LogPrint(u"Failed to creat Ip4 child handle!\r\n");
    *child = nullptr;
    gBS->CloseProtocol(service, &bindingGuid, agent, nullptr);
    return status;
  }
  void* iface = nullptr;
  status = gBS->OpenProtocol(*child, &protocolGuid, &iface, agent, *child, EFI_OPEN_PROTOCOL_GET_PROTOCOL);
  if (EFI_ERROR(status)) {
    LogPrint(protocolMessage);
    binding->DestroyChild(binding, *child);
    *child = nullptr;
    gBS->CloseProtocol(service, &bindingGuid, agent, nullptr);
    return status;
  }
  *protocol = static_cast<P*>(iface);
  if (used != nullptr)
    *used = binding;
  return EFI_SUCCESS;
}

// When the binding cannot be opened again, the child is destroyed through the binding it was
// created from (Known), when the caller kept it; otherwise it stays.
void CloseChild(EFI_HANDLE service, EFI_HANDLE agent, EFI_HANDLE child, const EFI_GUID& bindingGuid,
                const EFI_GUID& protocolGuid, const CHAR16* bindingMessage,
                EFI_SERVICE_BINDING_PROTOCOL* known) {
  gBS->CloseProtocol(child, &protocolGuid, agent, child);
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding = OpenBinding(service, agent, &bindingGuid, nullptr, &status);
  if (binding == nullptr) {
    LogPrint(bindingMessage);
    binding = known;
  }
  if (binding != nullptr)
    binding->DestroyChild(binding, child);
  gBS->CloseProtocol(service, &bindingGuid, agent, nullptr);
}

// Reads the simple-network mode through a managed-network child. The three messages name the
// failing step; each reader words them in its own way.
EFI_STATUS ReadSnpMode(EFI_HANDLE nic, EFI_HANDLE agent, wc::PoolPtr<EFI_SIMPLE_NETWORK_MODE>& mode,
                       const CHAR16* createMessage, const CHAR16* handleMessage, const CHAR16* modeMessage) {
  mode = wc::PoolPtr<EFI_SIMPLE_NETWORK_MODE>::AllocateZero(sizeof(EFI_SIMPLE_NETWORK_MODE));
  if (!mode)
    return EFI_OUT_OF_RESOURCES;
  MnpChild child;
  EFI_STATUS status = child.Open(nic, agent);
  if (EFI_ERROR(status)) {
    const CHAR16* message = child.Handle() != nullptr ? handleMessage : createMessage;
    if (message != nullptr)
      LogPrint(message, status);
    return status;
  }
  status = child->GetModeData(child.Get(), nullptr, mode.Get());
  if (status == EFI_NOT_STARTED)
    status = EFI_SUCCESS; // an unconfigured child still reports the simple-network mode
  if (EFI_ERROR(status) && modeMessage != nullptr)
    LogPrint(modeMessage, status);
  return status;
}

} // namespace

EFI_STATUS CreateServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                              EFI_HANDLE* ChildHandle, EFI_SERVICE_BINDING_PROTOCOL** Binding) {
  if (ServiceBinding == nullptr || ChildHandle == nullptr)
    return EFI_INVALID_PARAMETER;
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding =
      OpenBinding(ServiceHandle, Agent, ServiceBinding, ServiceHandle, &status);
  if (binding == nullptr) {
    LogPrint(u"Failed CreateServiceChild ManagedNetworkProtocol!(%r)\r\n", status);
    return status;
  }
  status = binding->CreateChild(binding, ChildHandle);
  // The firmware records even a get-protocol open; close it so that nothing of the call stays.
  gBS->CloseProtocol(ServiceHandle, ServiceBinding, Agent, ServiceHandle);
  if (!EFI_ERROR(status) && Binding != nullptr)
    *Binding = binding;
  return status;
}

EFI_STATUS DestroyServiceChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, const EFI_GUID* ServiceBinding,
                               EFI_HANDLE ChildHandle, EFI_SERVICE_BINDING_PROTOCOL* Binding) {
  if (ServiceBinding == nullptr)
    return EFI_INVALID_PARAMETER;
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding =
      OpenBinding(ServiceHandle, Agent, ServiceBinding, ServiceHandle, &status);
  if (binding == nullptr) {
    if (Binding == nullptr)
      return status;
    return Binding->DestroyChild(Binding, ChildHandle);
  }
  status = binding->DestroyChild(binding, ChildHandle);
  gBS->CloseProtocol(ServiceHandle, ServiceBinding, Agent, ServiceHandle);
  return status;
}

EFI_STATUS OpenMnpChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                        EFI_MANAGED_NETWORK_PROTOCOL** Mnp, EFI_SERVICE_BINDING_PROTOCOL** Binding) {
  if (ChildHandle == nullptr || Mnp == nullptr)
    return EFI_INVALID_PARAMETER;
  *ChildHandle = nullptr;
  EFI_STATUS status = CreateServiceChild(
      ServiceHandle, Agent, &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID, ChildHandle, Binding);
  if (EFI_ERROR(status)) {
    *ChildHandle = nullptr;
    return status;
  }
  return gBS->HandleProtocol(*ChildHandle, &EFI_MANAGED_NETWORK_PROTOCOL_GUID, reinterpret_cast<void**>(Mnp));
}

void CloseMnpChild(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                   EFI_SERVICE_BINDING_PROTOCOL* Binding) {
  DestroyServiceChild(ServiceHandle, Agent, &EFI_MANAGED_NETWORK_SERVICE_BINDING_PROTOCOL_GUID, ChildHandle,
                      Binding);
}

EFI_STATUS OpenIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                        EFI_IP4_PROTOCOL** Ip4, EFI_SERVICE_BINDING_PROTOCOL** Binding) {
  return OpenChild(ServiceHandle, Agent, EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID, EFI_IP4_PROTOCOL_GUID,
                   u"Failed to Open EFI_IP4_SERVICE_BINDING_PROTOCOL!\r\n",
                   u"Failed to open Ip4 Protocol!\r\n", ChildHandle, Ip4, Binding);
}

EFI_STATUS OpenDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE* ChildHandle,
                          EFI_DHCP4_PROTOCOL** Dhcp4, EFI_SERVICE_BINDING_PROTOCOL** Binding) {
  return OpenChild(ServiceHandle, Agent, EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID, EFI_DHCP4_PROTOCOL_GUID,
                   u"Failed to Open EFI_DHCP4_SERVICE_BINDING_PROTOCOL!\r\n",
                   u"Failed to open Dhcp4 Protocol!\r\n", ChildHandle, Dhcp4, Binding);
}

void CloseIp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                   EFI_SERVICE_BINDING_PROTOCOL* Binding) {
  CloseChild(ServiceHandle, Agent, ChildHandle, EFI_IP4_SERVICE_BINDING_PROTOCOL_GUID, EFI_IP4_PROTOCOL_GUID,
             u"Failed to Open Efi Ip4 Service Binding Protocol!\r\n", Binding);
}

void CloseDhcp4Child(EFI_HANDLE ServiceHandle, EFI_HANDLE Agent, EFI_HANDLE ChildHandle,
                     EFI_SERVICE_BINDING_PROTOCOL* Binding) {
  CloseChild(ServiceHandle, Agent, ChildHandle, EFI_DHCP4_SERVICE_BINDING_PROTOCOL_GUID,
             EFI_DHCP4_PROTOCOL_GUID, u"Failed to Open Efi Dhcp4 Service Binding Protocol!\r\n", Binding);
}

EFI_STATUS ReadNicAddress(EFI_HANDLE NicHandle, NicAddr* Address) {
  if (Address == nullptr)
    return EFI_INVALID_PARAMETER;
  wc::PoolPtr<EFI_SIMPLE_NETWORK_MODE> mode;
  EFI_STATUS status =
      ReadSnpMode(NicHandle, gImageHandle, mode, u"Failed CreateServiceChild ManagedNetworkProtocol!(%r)\r\n",
                  u"Failed handle ManagedNetworkProtocol!(%r)\r\n", u"Failed GetModeData!(%r)\r\n");
  if (EFI_ERROR(status))
    return status;
  Address->Type = UINT16(mode->IfType);
  Address->Len = UINT8(mode->HwAddressSize);
  CopyMem(Address->Addr, mode->CurrentAddress.Addr, wc::Min<UINTN>(Address->Len, sizeof(Address->Addr)));
  LogPrint(u"NicAddr->Type  = %d, NicAddr->Len =%d.\r\n", Address->Type, Address->Len);
  return EFI_SUCCESS;
}

EFI_STATUS ReadMacAddresses(EFI_HANDLE Agent, EFI_HANDLE NicHandle, EFI_MAC_ADDRESS* Current,
                            EFI_MAC_ADDRESS* Permanent) {
  wc::PoolPtr<EFI_SIMPLE_NETWORK_MODE> mode;
  EFI_STATUS status = ReadSnpMode(NicHandle, Agent, mode, u"Failed create service child.(%r)\r\n",
                                  u"Failed handle protocol.(%r)\r\n", u"Failed get mode data.(%r)\r\n");
  if (EFI_ERROR(status))
    return status;
  if (Current != nullptr)
    *Current = mode->CurrentAddress;
  if (Permanent != nullptr)
    *Permanent = mode->PermanentAddress;
  return EFI_SUCCESS;
}

EFI_STATUS ReadMediaState(EFI_HANDLE Agent, EFI_HANDLE NicHandle, BOOLEAN* MediaSupported,
                          BOOLEAN* MediaPresent) {
  wc::PoolPtr<EFI_SIMPLE_NETWORK_MODE> mode;
  EFI_STATUS status = ReadSnpMode(NicHandle, Agent, mode, nullptr, nullptr, nullptr);
  if (EFI_ERROR(status))
    return status;
  if (MediaSupported != nullptr)
    *MediaSupported = mode->MediaPresentSupported;
  if (MediaPresent != nullptr)
    *MediaPresent = mode->MediaPresent;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Dhcp4EventCallback(EFI_DHCP4_PROTOCOL*, void* Context, EFI_DHCP4_STATE CurrentState,
                                     EFI_DHCP4_EVENT Dhcp4Event, EFI_DHCP4_PACKET* Packet,
                                     EFI_DHCP4_PACKET**) {
  static constexpr const CHAR16* kEventNames[] = {
      nullptr,
      u"Dhcp4SendDiscover\r\n",
      u"Dhcp4RcvdOffer\r\n",
      u"Dhcp4SelectOffer\r\n",
      u"Dhcp4SendRequest\r\n",
      u"Dhcp4RcvdAck\r\n",
      u"Dhcp4RcvdNak\r\n",
      u"Dhcp4SendDecline\r\n",
      u"Dhcp4BoundCompleted\r\n",
      u"Dhcp4EnterRenewing\r\n",
      u"Dhcp4EnterRebinding\r\n",
      u"Dhcp4AddressLost\r\n",
      u"Dhcp4Fail\r\n",
  };
  TracePrint(u"Current state:0x%x\r\n", CurrentState);
  TracePrint(u"Context addr:0x%x\r\n", Context);
  if (UINTN(Dhcp4Event) < wc::ArrayCount(kEventNames) && kEventNames[Dhcp4Event] != nullptr)
    TracePrint(kEventNames[Dhcp4Event]);
  DumpDhcp4Packet(Packet);
  return EFI_SUCCESS;
}
