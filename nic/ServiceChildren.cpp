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

EFI_STATUS ServiceChildOwner::Open(EFI_HANDLE Service, EFI_HANDLE Agent) {
  Close();
  service_ = Service;
  agent_ = Agent;
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding = OpenBinding(Service, Agent, kind_.Binding, Controller(), &status);
  if (binding == nullptr) {
    LogPrintGiven(kind_.BindingFailed, status);
    return status;
  }
  EFI_HANDLE child = nullptr;
  status = binding->CreateChild(binding, &child);
  if (EFI_ERROR(status))
    LogPrintGiven(kind_.CreateFailed);
  // The firmware records even a get-protocol open: a short use gives it back at once.
  if (EFI_ERROR(status) || !kind_.Held)
    gBS->CloseProtocol(Service, kind_.Binding, Agent, Controller());
  if (EFI_ERROR(status))
    return status;
  child_ = child;
  binding_ = binding;
  void* iface = nullptr;
  if (!kind_.Held) {
    status = gBS->HandleProtocol(child, kind_.Protocol, &iface);
  } else {
    status = gBS->OpenProtocol(child, kind_.Protocol, &iface, Agent, child, EFI_OPEN_PROTOCOL_GET_PROTOCOL);
    if (EFI_ERROR(status)) {
      // The caller has nothing to clean up: the child and the binding's open go at once.
      LogPrintGiven(kind_.ProtocolFailed);
      binding->DestroyChild(binding, child);
      gBS->CloseProtocol(Service, kind_.Binding, Agent, nullptr);
      child_ = nullptr;
      return status;
    }
  }
  protocol_ = EFI_ERROR(status) ? nullptr : iface;
  return status;
}

void ServiceChildOwner::Close() {
  if (child_ == nullptr)
    return;
  EFI_HANDLE child = wc::Exchange<EFI_HANDLE>(child_, nullptr);
  protocol_ = nullptr;
  if (kind_.Held)
    gBS->CloseProtocol(child, kind_.Protocol, agent_, child);
  EFI_STATUS status;
  EFI_SERVICE_BINDING_PROTOCOL* binding = OpenBinding(service_, agent_, kind_.Binding, Controller(), &status);
  bool reopened = binding != nullptr;
  if (!reopened) {
    LogPrintGiven(kind_.RebindFailed);
    binding = binding_; // the binding the child came from
  }
  if (binding != nullptr)
    binding->DestroyChild(binding, child);
  if (reopened || kind_.Held)
    gBS->CloseProtocol(service_, kind_.Binding, agent_, Controller());
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
